// Scripting inside a host: the host's configuration record and the first call a host makes,
// InitScripting, which keeps the configuration, notes the main thread, makes the application's UUID
// and puts the configuration's debug switch and root object behind the object layer's hooks.
// Start-up proper (window, server registration) and its reverse follow.
#pragma once

#include <cstdint>
#include <thread>

#include "values/base/Export.h"

namespace orvexScript
{

class RemoteApp;
class ScriptObject;
class ScriptVal;
class TagList;

// Bits of ScriptConfig::flags.
enum ScriptConfigFlags : uint32_t
{
    SCF_Host = 1u << 0, // this process is a host: make the window, start and use the server
};

// Given by the host and kept by pointer, never copied: it must outlive scripting. Every callback gets
// `user` as its first argument; the trailing arguments are reserved and passed as null.
struct ORVEX_API ScriptConfig
{
    using IsDebugFunc = bool (*)(void *user, void *reserved);
    using RootFunc = ScriptObject *(*)(void *user, void *reserved);
    // Connection notifications, on the main thread.
    using ConnectionFunc = void (*)(void *user, RemoteApp *app, void *reserved1, void *reserved2);
    // Language hooks: the value at `index` of a language's state into `out` (true if converted), and
    // a value pushed onto that state (the count of values pushed).
    using ValueFromScriptFunc = bool (*)(void *user, void *state, int index, ScriptVal &out);
    using ValueToScriptFunc = int (*)(void *user, void *state, const ScriptVal &value);

    uint32_t version = 1;
    uint32_t flags = 0;              // ScriptConfigFlags
    const char *name = nullptr;      // the application's name; may be null
    void *user = nullptr;            // first argument of every callback
    IsDebugFunc IsDebug = nullptr;   // is debugging on; null: never
    RootFunc root = nullptr;         // the root object; may be null
    ConnectionFunc onConnect = nullptr;
    ConnectionFunc onDisconnect = nullptr;
    ConnectionFunc onConnectFailed = nullptr;
    ValueFromScriptFunc valueFromScript = nullptr;
    ValueToScriptFunc valueToScript = nullptr;
};

// The configuration of the first InitScripting; null before it.
ORVEX_API extern ScriptConfig *g_ScriptConfig;
// True once start-up has completed (not before StartScripting).
ORVEX_API extern bool g_ScriptingActive;

// The first call of all. Only the first call has an effect: it keeps `config` by pointer, notes the
// calling thread as the main thread (the script window will belong to it), makes the application's
// UUID and installs the configuration's IsDebug and root callbacks into the object layer. The tags are
// not read.
ORVEX_API void InitScripting(ScriptConfig &config, TagList *tags = nullptr);

// Completes start-up before it returns (always true; a second call changes nothing): keeps `info` (a
// table, copied, or a new one) with Name, ProcessID, UUID and SupportsNewConnect set as the host's
// entry; in a host (SCF_Host) makes the script window, adds the connection members to the root's class,
// and registers with the machine's script server, starting one if none answers (a configuration
// without a name starts none). Then scripting is active. On the main thread.
ORVEX_API bool StartScripting(void *instance, const ScriptVal &info, TagList *tags = nullptr);
// The same, except that the registering runs later, from the script window's first pump.
ORVEX_API bool DeferStartScripting(void *instance, const ScriptVal &info, TagList *tags = nullptr);
// The work of both.
ORVEX_API bool DoStartScripting();
// Reverse start-up: takes this process out of the server's list, destroys the script window; can start
// again afterwards. The two are the same.
ORVEX_API void StopScripting(TagList *tags = nullptr);
ORVEX_API void CleanupScripting(TagList *tags = nullptr);
// Starts a script server (`orvexScript -s`, with -p for a port other than the default) as a detached
// process in a session of its own, with no zombie left behind. Always true; a failure is logged.
ORVEX_API bool StartServer(TagList *tags = nullptr);
// The front end that StartServer runs: by default orvexScript beside the running executable or beside
// this library. The environment variable ORVEXSCRIPT_SERVER_PROGRAM wins over it; null restores it.
ORVEX_API void SetServerProgram(const char *path);

// The application's UUID as a string value; nil before InitScripting.
ORVEX_API const ScriptVal &GetAppUUID();

// The thread that called InitScripting; a default id before it.
std::thread::id GetScriptingMainThread();

} // namespace orvexScript
