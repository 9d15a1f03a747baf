// Equipping a Lua state for scripts: the block constructors, the library table `orvex`, `os.exit`
// replaced by the library's `exit`, the remote object constructor in `class`, the prelude, and the
// global table's look-up of the active object. Also the module entry by which a stock LuaJIT gets all
// of it with require "qmscript".
#pragma once

#include "values/base/Export.h"

struct lua_State;

namespace orvexScript
{

class TagList;

// The base opening (OpenBaseLibs) and the equipping, on a state that the caller owns; the stack is
// empty afterwards. `tags` is reserved (pass null).
ORVEX_API void OpenAllLibs(lua_State *state, TagList *tags = nullptr);
// The counterpart of OpenAllLibs: the state holds nothing that needs undoing, so it does nothing.
ORVEX_API void CloseAllLibs(lua_State *state, TagList *tags = nullptr);

// The equipping without the base opening, on a state whose standard libraries are open.
ORVEX_API void EquipState(lua_State *state);

} // namespace orvexScript

// The loader that require "qmscript" finds in a stock LuaJIT: equips the caller's state (no base
// opening) and gives one result, the library table `orvex`.
ORVEX_C_API int luaopen_qmscript(lua_State *state);
