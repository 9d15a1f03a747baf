// Seams that later layers fill in: the way onto the main thread (the script window), the
// configuration's debug switch and root object. The setters are internal to the library (not exported):
// hosts configure these through scripting's start-up. With nothing installed every call runs on the
// caller's thread, debugging is off and there is no root object. The registry of objects named by
// address lives beside the object chain (values/ObjectAddress.h) and is included here for its users.
#pragma once

#include "values/base/Export.h"
#include "values/model/ObjectAddress.h" // objects named by address, which peers reach through the root
#include <cstdint>

namespace orvexScript
{

class ScriptObject;

struct MainThreadHooks
{
    // True on the main thread (the one that started scripting).
    bool (*isMainThread)() = nullptr;
    // Runs `function(data)` on the main thread and returns once it has run there.
    void (*runOnMainThread)(void (*function)(void *data), void *data) = nullptr;
};

// Install both or neither; an empty record removes them.
void SetMainThreadHooks(const MainThreadHooks &hooks);
MainThreadHooks GetMainThreadHooks();

// Runs `function(data)` on the main thread: directly if this is the main thread or no main thread is
// installed, otherwise through the installed hand-over, waiting for it to finish.
ORVEX_API void RunOnMainThread(void (*function)(void *data), void *data);

// The configuration's IsDebug callback; null means "not debugging".
void SetIsDebugHook(bool (*isDebug)());
ORVEX_API bool IsScriptDebug();

// The configuration's root object callback, which the root member "GetApp" answers with.
void SetRootObjectHook(ScriptObject *(*getRoot)());
ORVEX_API ScriptObject *GetRootObject();

} // namespace orvexScript
