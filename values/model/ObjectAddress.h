// The registry of objects that a peer may name by address (SST_ObjectFromAddress). It stands beside
// the object chain so that ScriptObject's destructor can take an object out: a registered object is
// unregistered when it is destroyed, whether or not its owner did so first.
#pragma once

#include <cstdint>

#include "values/base/Export.h"

namespace orvexScript
{

class ScriptObject;
class ScriptVal;

// An address is resolved only against this registry, never turned into a pointer. Registering marks
// the object (ScriptObject::SOF_AddressKnown), so that only marked objects pay for the removal when
// they are destroyed. Register and destroy an object on the same thread, or hand it over with the
// usual synchronisation: the mark is read without a lock.
ORVEX_API void RegisterObjectAddress(ScriptObject *object);
// Takes `object` out if it is registered; an address that is not registered is never dereferenced.
ORVEX_API void UnregisterObjectAddress(ScriptObject *object);
// Stores the registered object at `address` as a result of `args`; false (and no result) if none.
[[nodiscard]] ORVEX_API bool ReturnObjectAtAddress(ScriptVal &args, uint64_t address);

} // namespace orvexScript
