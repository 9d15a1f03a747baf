// The seams of the object layer: main-thread hand-over, the debug switch, the root object, and the
// registry of objects that peers may name by address. Hooks are atomics so that installing them
// races with nothing; the address registry has its own lock.

#include "objects/ObjectHooks.h"

#include <atomic>
#include <mutex>
#include <unordered_map>

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

// Built on first use, so that registration from a static constructor finds it ready.
struct AddressRegistry
{
    std::mutex lock;
    std::unordered_map<uintptr_t, ScriptObject *> objects; // address number -> the registered object
};

AddressRegistry &Registry()
{
    static AddressRegistry registry;
    return registry;
}
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

void RegisterObjectAddress(ScriptObject *object)
{
    if (!object) return;
    AddressRegistry &registry = Registry();
    std::lock_guard<std::mutex> hold(registry.lock);
    registry.objects[reinterpret_cast<uintptr_t>(object)] = object;
}

void UnregisterObjectAddress(ScriptObject *object)
{
    AddressRegistry &registry = Registry();
    std::lock_guard<std::mutex> hold(registry.lock);
    registry.objects.erase(reinterpret_cast<uintptr_t>(object));
}

bool ReturnObjectAtAddress(ScriptVal &args, uint64_t address)
{
    AddressRegistry &registry = Registry();
    std::lock_guard<std::mutex> hold(registry.lock);
    // The number is only a key; the pointer handed on is the one that was registered.
    auto found = registry.objects.find(static_cast<uintptr_t>(address));
    if (found == registry.objects.end()) return false;
    // Under the lock: the object can't unregister and go before the result holds its count.
    args.ReturnObject(found->second);
    return true;
}

} // namespace orvexScript
