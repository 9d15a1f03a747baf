// Seams that later layers fill in: the way onto the main thread (the script window), the
// configuration's debug switch and root object, and the registry of objects that may be named by
// address from outside the process. With nothing installed every call runs on the caller's thread,
// debugging is off, there is no root object and no address is known.
#pragma once

#include <cstdint>

#include "values/base/Export.h"

namespace orvexScript
{

class ScriptObject;
class ScriptVal;

struct MainThreadHooks
{
    // True on the main thread (the one that started scripting).
    bool (*isMainThread)() = nullptr;
    // Runs `function(data)` on the main thread and returns once it has run there.
    void (*runOnMainThread)(void (*function)(void *data), void *data) = nullptr;
};

// Install both or neither; an empty record removes them.
ORVEX_API void SetMainThreadHooks(const MainThreadHooks &hooks);
ORVEX_API MainThreadHooks GetMainThreadHooks();

// Runs `function(data)` on the main thread: directly if this is the main thread or no main thread is
// installed, otherwise through the installed hand-over, waiting for it to finish.
ORVEX_API void RunOnMainThread(void (*function)(void *data), void *data);

// The configuration's IsDebug callback; null means "not debugging".
ORVEX_API void SetIsDebugHook(bool (*isDebug)());
ORVEX_API bool IsScriptDebug();

// The configuration's root object callback, which the root member "GetApp" answers with.
ORVEX_API void SetRootObjectHook(ScriptObject *(*getRoot)());
ORVEX_API ScriptObject *GetRootObject();

// Objects that a peer may name by their address (SST_ObjectFromAddress). An address is resolved only
// against this registry, never turned into a pointer. An object unregisters before it goes away.
ORVEX_API void RegisterObjectAddress(ScriptObject *object);
ORVEX_API void UnregisterObjectAddress(ScriptObject *object);
// Stores the registered object at `address` as a result of `args`; false (and no result) if none.
[[nodiscard]] ORVEX_API bool ReturnObjectAtAddress(ScriptVal &args, uint64_t address);

} // namespace orvexScript
