// The seams of the object layer: main-thread hand-over, the debug switch and the root object. Hooks
// are atomics so that installing them races with nothing.

#include "objects/ObjectHooks.h"

#include <atomic>

#include "values/model/ScriptObject.h"
#include "values/model/ScriptVal.h"

namespace orvexScript
{

namespace
{
std::atomic<bool (*)()> s_IsMainThread{nullptr};
std::atomic<void (*)(void (*)(void *), void *)> s_RunOnMainThread{nullptr};
std::atomic<bool (*)()> s_IsDebug{nullptr};
std::atomic<ScriptObject *(*)()> s_GetRoot{nullptr};
} // namespace

void SetMainThreadHooks(const MainThreadHooks &hooks)
{
    s_IsMainThread.store(hooks.isMainThread);
    s_RunOnMainThread.store(hooks.runOnMainThread);
}

MainThreadHooks GetMainThreadHooks()
{
    MainThreadHooks hooks;
    hooks.isMainThread = s_IsMainThread.load();
    hooks.runOnMainThread = s_RunOnMainThread.load();
    return hooks;
}

void RunOnMainThread(void (*function)(void *data), void *data)
{
    auto isMain = s_IsMainThread.load();
    auto run = s_RunOnMainThread.load();
    if (isMain && run && !isMain())
        run(function, data);
    else
        function(data);
}

void SetIsDebugHook(bool (*isDebug)())
{
    s_IsDebug.store(isDebug);
}

bool IsScriptDebug()
{
    auto isDebug = s_IsDebug.load();
    return isDebug && isDebug();
}

void SetRootObjectHook(ScriptObject *(*getRoot)())
{
    s_GetRoot.store(getRoot);
}

ScriptObject *GetRootObject()
{
    auto getRoot = s_GetRoot.load();
    return getRoot ? getRoot() : nullptr;
}

} // namespace orvexScript
