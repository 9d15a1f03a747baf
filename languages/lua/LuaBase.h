// The base opening of a Lua state: the standard libraries (with LuaJIT's bit, ffi and jit), LPeg, and
// the optional toolkit modules. A stand-alone run and every equipped state start with it.
#pragma once

#include <string>

#include "values/base/Export.h"

struct lua_State;

namespace orvexScript
{

// Opens the standard libraries, puts LPeg into package.preload as "lpeg" and its module table in the
// global `lpeg` (or the error message if it fails to load), then offers the modules of the toolkit
// library, if that library loads, in package.preload and requires "iuplua" and "iupluacontrols".
// Nothing here fails: a missing toolkit library is passed over. The Lua stack is left as it was found.
ORVEX_API void OpenBaseLibs(lua_State *state);

// Sets the file name or path of the toolkit library that OpenBaseLibs tries. Null goes back to the
// default, "libiuplua.so"; an empty name turns the toolkit step off. The environment variable
// ORVEXSCRIPT_TOOLKIT_LIB, when set and not empty, wins over both.
ORVEX_API void SetToolkitLibrary(const char *name);

// The name that OpenBaseLibs will try next, with the environment override applied; empty if none.
ORVEX_API std::string ToolkitLibraryName();

} // namespace orvexScript
