// Scripting inside a host: the host's configuration record and the first call a host makes,
// InitScripting, which keeps the configuration, notes the main thread, makes the application's UUID
// and puts the configuration's debug switch and root object behind the object layer's hooks.
// Start-up proper (window, server registration) and its reverse build on this and live elsewhere.
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

// The application's UUID as a string value; nil before InitScripting.
ORVEX_API const ScriptVal &GetAppUUID();

// The thread that called InitScripting; a default id before it.
std::thread::id GetScriptingMainThread();

} // namespace orvexScript
