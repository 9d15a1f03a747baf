// InitScripting and the process-wide scripting state it sets: the configuration, the main thread and
// the application's UUID, plus the adapters that put the configuration's callbacks behind the object
// layer's hooks. Start-up and shut-down do not belong here.

#include "remote/Scripting.h"

#include <atomic>

#include "objects/ObjectHooks.h"
#include "remote/RemoteApp.h"
#include "values/model/ScriptVal.h"
#include "values/model/UUID.h"

namespace orvexScript
{

ScriptConfig *g_ScriptConfig = nullptr;
bool g_ScriptingActive = false;

namespace
{
std::atomic<bool> s_Claimed{false}; // the first InitScripting has begun
std::atomic<bool> s_Ready{false};   // ... and finished: the state below may be read
std::atomic<std::thread::id> s_MainThread{};
ScriptVal s_AppUUID;

// The object layer's hooks take no argument; these read the configuration at each call, so a
// configuration replaced later is the one asked.
bool ConfigIsDebug()
{
    ScriptConfig *config = g_ScriptConfig;
    return config && config->IsDebug && config->IsDebug(config->user, nullptr);
}

ScriptObject *ConfigRoot()
{
    ScriptConfig *config = g_ScriptConfig;
    return config && config->root ? config->root(config->user, nullptr) : nullptr;
}
} // namespace

void InitScripting(ScriptConfig &config, TagList * /*tags*/)
{
    if (s_Claimed.exchange(true)) return;
    s_MainThread.store(std::this_thread::get_id());
    CreateUUID(s_AppUUID);
    g_ScriptConfig = &config;
    s_Ready.store(true); // publishes the UUID and the configuration to the hooks' callers
    SetIsDebugHook(ConfigIsDebug);
    SetRootObjectHook(ConfigRoot);
    // The value layer's remote hooks (member calls, proxy counts) are set here, before the host
    // starts threads that use values, rather than by the first connection on whatever thread.
    InstallRemoteHooks();
}

const ScriptVal &GetAppUUID()
{
    return s_Ready.load() ? s_AppUUID : nil;
}

std::thread::id GetScriptingMainThread()
{
    return s_MainThread.load();
}

} // namespace orvexScript
