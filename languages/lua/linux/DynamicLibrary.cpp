// dlopen/dlsym behind the DynamicLibrary interface. Handles are never closed: modules that a Lua state
// took from such a library may be used by any later state.
#include "languages/lua/DynamicLibrary.h"

#include <dlfcn.h>

namespace orvexScript
{

void *OpenDynamicLibrary(const char *name)
{
    if (name == nullptr || *name == '\0') return nullptr;
    void *library = dlopen(name, RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) dlerror(); // an absent optional library is no failure: drop the pending message
    return library;
}

void *FindDynamicSymbol(void *library, const char *symbol)
{
    if (library == nullptr || symbol == nullptr) return nullptr;
    return dlsym(library, symbol);
}

} // namespace orvexScript
