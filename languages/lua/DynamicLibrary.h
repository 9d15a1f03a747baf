// Loading an optional shared library by name at run time and finding its exported symbols.
// The platform half lives in linux/DynamicLibrary.cpp.
#pragma once

namespace orvexScript
{

// Loads the library `name` (a file name searched the usual way, or a path) and keeps it loaded for the
// life of the process. Gives null, quietly, if it can't be loaded.
void *OpenDynamicLibrary(const char *name);

// The address of the exported symbol `symbol` of a library from OpenDynamicLibrary, or null.
void *FindDynamicSymbol(void *library, const char *symbol);

} // namespace orvexScript
