// Finding an application and connecting to it. Every machine runs one script server on
// g_ScriptServerPort; applications register with it; a client connects to the server and asks for an
// application by name, and the server hands the client's very socket over to that application, so that
// afterwards client and application talk directly, with no relay. Here: the client's side (ScriptApp,
// AsyncScriptApp, ScriptLogin, Ping), the connection an application makes of a handed-over socket
// (ConnectApp), and the hidden root members an application answers (__NewConnect, __Connect,
// __Login).
#pragma once

#include <cstdint>

#include "remote/RemoteApp.h"
#include "values/base/Export.h"
#include "values/model/ScriptVal.h"

namespace orvexScript
{

class ScriptInfo;

// The connection an application makes of a socket handed over by the server. Its root value holds the
// client's root proxy, which keeps the connection alive while the client wants it.
class ORVEX_API ConnectApp : public RemoteApp
{
public:
    ConnectApp();
    ~ConnectApp() override;
    int AppThreadFunc() override;
    void OnZeroLocalCount() override;
    void OnZeroRemoteCount() override;

    // Keeps the client's root proxy unless the connection has ended already (then false). Any thread.
    bool KeepRoot(const ScriptVal &root);

    ScriptVal m_Root;

private:
    bool m_Finished = false; // the connection thread has let go of m_Root; under the connection lock
};

// Connects to the application `name` (empty or null: the bare server) on `host` (null: this machine)
// and gives the proxy of its root object, or nil. `subtype` (may be null) picks among instances by
// their priorities; a non-nil `uuid` names one instance. `timeout` in seconds bounds the connect and
// becomes the connection's time-out (0: none). A named connect first waits until scripting has started
// in this process. Reads KELMAR_CONNECTLOCK and KELMAR_EARLY_CONNECTLOCK (anything but "false" is on).
ORVEX_API ScriptVal ScriptApp(const char *name, const char *subtype, ScriptVal uuid, const char *host,
                              double timeout);
// Wraps a connected socket in a new connection (name null: "unknown") and gives the peer's root.
ORVEX_API ScriptVal ScriptApp(int socket, const char *name, ScriptVal uuid);
// The same in a given record, which is listed in g_AppList and started.
ORVEX_API ScriptVal ScriptApp(RemoteApp *app, int socket, const char *name, ScriptVal uuid);
// As the first ScriptApp without blocking: gives the root proxy at once and, with `start`, connects on
// a thread of its own; the configuration's onConnect or onConnectFailed tells the outcome.
ORVEX_API ScriptVal AsyncScriptApp(const char *name, const char *subtype, ScriptVal uuid, const char *host,
                                   double timeout, bool start);

// Connects to `name` on `host` within 5 seconds and calls its __Login; the answer, false if the
// connect failed.
ORVEX_API bool ScriptLogin(const char *host, const char *name, const char *user, const char *password);

// Asks every script server in reach (by UDP to the ping broadcast address at g_ScriptServerPort)
// whether it serves `name` ("" or null: whether it runs at all), waiting `timeout` seconds after the
// last answer. `result` becomes a table with one entry per answer: {IP = "a.b.c.d", HostName = ...}.
// True if anyone answered.
ORVEX_API bool Ping(const char *name, double timeout, ScriptVal &result);
// The address pings go to; default "255.255.255.255". Tests use "127.255.255.255".
ORVEX_API void SetPingBroadcastAddress(const char *address);

// Adds __Connect, __NewConnect and __Login (hidden functions) to the class of `info`, once.
ORVEX_API void AddConnectMembers(ScriptInfo *info);

// Decides __Login. The default answers true to everybody. A host that enforces logins installs its
// own: it gets the connection, the user and the password, and its answer marks the connection logged
// in or not (commands of a peer not logged in fail with error 4). Null restores the default.
using LoginHook = bool (*)(void *user, RemoteApp *app, const char *userName, const char *password);
ORVEX_API void SetLoginHook(LoginHook hook, void *user);
// With the hook installed, new connections start logged out until __Login succeeds.
ORVEX_API bool LoginRequired();

// Off by default. When on, the script server and the applications of this process accept and dial only
// loopback addresses (127.0.0.0/8), and the server answers pings only from loopback senders. Set before
// StartScripting or ScriptServerMain.
ORVEX_API void SetLoopbackOnly(bool on);
ORVEX_API bool LoopbackOnly();

} // namespace orvexScript
