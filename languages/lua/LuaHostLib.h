// The library table `orvex` that every equipped Lua state holds: files, processes, names and the
// remote connections, each a Lua C function.
#pragma once

struct lua_State;

namespace orvexScript
{

// Registers the library's functions in the global table `orvex` (luaL_openlib) and leaves that table
// on the stack. Among them is `exit`, which ends nothing: it stores its code in _EXITCODE and its data
// in _EXITDATA, and the script goes on.
void OpenHostLibrary(lua_State *L);

} // namespace orvexScript
