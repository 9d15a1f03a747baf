// Value texts on the script Lua: loadstringval loads one into an existing state; FromTextByName (a
// ScriptVal member, defined in ValueText.cpp) reads a global of a text of statements in a fresh state.
#pragma once

#include "values/base/Export.h"

struct lua_State;

namespace orvexScript
{

// Sets the C locale and loads `prefix` (null: "return "), `length` bytes of `text` (a negative length:
// all of it) and `suffix` (null: nothing) as one chunk named `chunkName`. Gives lua_load's result; the
// chunk (or the message) is on the stack.
ORVEX_API int loadstringval(lua_State *L, const char *text, int length, const char *chunkName,
                            const char *prefix = nullptr, const char *suffix = nullptr);

} // namespace orvexScript
