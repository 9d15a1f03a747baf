// The registry of objects named by address: a map from the address number to the registered object,
// behind one lock. The map is never destroyed, so that objects that outlive static destruction can
// still take themselves out.

#include "values/model/ObjectAddress.h"

#include <mutex>
#include <unordered_map>

#include "values/model/ScriptObject.h"
#include "values/model/ScriptVal.h"

namespace orvexScript
{

namespace
{
struct AddressRegistry
{
    std::mutex lock;
    std::unordered_map<uintptr_t, ScriptObject *> objects; // address number -> the registered object
};

// Built on first use, so that registration from a static constructor finds it ready; never freed.
AddressRegistry &Registry()
{
    static AddressRegistry *registry = new AddressRegistry;
    return *registry;
}

uintptr_t Key(const ScriptObject *object)
{
    return reinterpret_cast<uintptr_t>(object);
}
} // namespace

void RegisterObjectAddress(ScriptObject *object)
{
    if (!object) return;
    AddressRegistry &registry = Registry();
    std::lock_guard<std::mutex> hold(registry.lock);
    registry.objects[Key(object)] = object;
    object->m_SOFlags |= ScriptObject::SOF_AddressKnown;
}

void UnregisterObjectAddress(ScriptObject *object)
{
    if (!object) return;
    AddressRegistry &registry = Registry();
    std::lock_guard<std::mutex> hold(registry.lock);
    auto found = registry.objects.find(Key(object));
    if (found == registry.objects.end()) return;
    // Registered, hence alive: its destructor would have taken it out.
    found->second->m_SOFlags &= ~ScriptObject::SOF_AddressKnown;
    registry.objects.erase(found);
}

bool ReturnObjectAtAddress(ScriptVal &args, uint64_t address)
{
    ScriptVal object;
    {
        AddressRegistry &registry = Registry();
        std::lock_guard<std::mutex> hold(registry.lock);
        // The number is only a key; the pointer handed on is the one that was registered.
        auto found = registry.objects.find(static_cast<uintptr_t>(address));
        if (found == registry.objects.end()) return false;
        // Under the lock: the object can't unregister and go before the value holds its count.
        object = found->second;
    }
    // Outside the lock: storing the result may release an older value, and with it an object whose
    // destructor unregisters.
    args.Return(object);
    return true;
}

} // namespace orvexScript
