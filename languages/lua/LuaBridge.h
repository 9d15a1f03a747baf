// The Lua value bridge: every value that crosses between Lua and the rest of the system passes through
// here. ToLua pushes a ScriptVal, FromLua reads a stack slot into one, ToLuaRet unpacks a reply
// (results at the keys -1, -2, ...) into several Lua results. Also the two forms of object userdata
// with their weak caches (one Lua identity per native object), the "MemBlock" userdata type, compiling
// source to a binary chunk, and small stack helpers.
//
// Object userdata:
//  - plain (lua_pushobject): 8 bytes holding the native pointer; metatable by type name, no counting;
//  - typed (lua_pushLuaObject, LuaType::lw_push): 8 bytes holding a LuaObject record; the descriptor's
//    lw_use at the first push in a state and lw_recycle when Lua collects the userdata.
// Both are cached per state in a weak table keyed by the native pointer, so pushing an object twice
// gives the same userdata.
//
// Conversions run on the thread that owns the state. Tables nest at most kLuaMaxNesting deep both
// ways; a Lua table that contains itself (directly or through others) does not convert.
#pragma once

#include <cstdint>

#include "values/base/Export.h"

struct lua_State;

namespace orvexScript
{

class KeID;
class MemBlock;
class RemoteApp;
class RemoteObject;
class ScriptVal;
class TagList;
struct LuaType;

// The deepest table nesting that converts. A C function has at most 8000 Lua stack slots, and each
// level takes up to three.
constexpr int kLuaMaxNesting = 1000;

// Filters run before the conversion proper; true means the filter dealt with the value.
using ToLuaFilter = bool (*)(RemoteApp *app, lua_State *state, ScriptVal &value, void *data);
using FromLuaFilter = bool (*)(lua_State *state, int index, ScriptVal &value, void *data);

// Pushes `value`; false (nothing pushed) if its kind has no Lua form. A code value is run at once and
// leaves its results, any number; its failure goes to the global _ALERT and leaves nothing. `app` is
// the connection that local objects are named through; it may be null. A table deeper than
// kLuaMaxNesting is cut there: the entries below the limit are left out.
ORVEX_API bool ToLua(RemoteApp *app, lua_State *state, ScriptVal &value, ToLuaFilter filter = nullptr,
                     void *filterData = nullptr, bool reserved = false, TagList *tags = nullptr);
// Pushes the results -1, -2, ... of a reply table in order (a missing one as nil) and gives their
// count; a value that is no table pushes nothing.
ORVEX_API uint32_t ToLuaRet(RemoteApp *app, lua_State *state, ScriptVal &value, ToLuaFilter filter = nullptr,
                            void *filterData = nullptr, bool reserved = false, TagList *tags = nullptr);
// Reads the value at `index` into `out`. False if a table did not convert (nested too deep, contains
// itself, or no memory): `out` then holds what was gathered. A value with no ScriptVal form (a
// coroutine, light userdata, cdata, a foreign userdata) raises the Lua error "Unsupported type for
// custom data!" with the Lua type named after it, so call it from Lua or under a protected call.
// `consume` empties the Lua table while reading it and runs a full collection at the end.
ORVEX_API bool FromLua(lua_State *state, int32_t index, ScriptVal &out, FromLuaFilter filter = nullptr,
                       void *filterData = nullptr, bool consume = false, TagList *tags = nullptr);

// Pushes the typed userdata of a remote object (nil for null). With `keepReference` false the caller's
// reference is given up afterwards.
ORVEX_API void _PushScriptObject(lua_State *state, RemoteObject *object, bool keepReference);

// Pushes the plain userdata of `object` (cached); `typeName` names the metatable in the registry, null
// for none. Nil for a null object.
ORVEX_API void lua_pushobject(lua_State *state, void *object, const char *typeName);
// Pushes the typed userdata of `object` under `type` (cached). Nil for a null object.
ORVEX_API void lua_pushLuaObject(lua_State *state, void *object, LuaType *type, unsigned long flags);

// True if the value is a userdata whose metatable's _istypeof says it is of `typeName`.
ORVEX_API bool lua_istype(lua_State *state, int index, const char *typeName);
// The same test; on success the object of the typed userdata, else null.
ORVEX_API void *lua_totype(lua_State *state, int index, const char *typeName);

ORVEX_API double lua_tonumber_def(lua_State *state, int index, double def);
ORVEX_API const char *lua_tostring_def(lua_State *state, int index, const char *def);
ORVEX_API bool lua_toboolean_def(lua_State *state, int index, bool def);
// An index from -9999 to 0 made absolute; pseudo-indices and positive indices as they are.
ORVEX_API int lua_absindex(lua_State *state, int index);
// False for none and nil, the value of a boolean, true for everything else.
ORVEX_API bool lua_istrue(lua_State *state, int index);

// The Lua function behind every closure that stands for a function of a remote object: called with the
// object first, it calls the function in the object's process and gives its results.
ORVEX_API int lua_function_call(lua_State *state);

// Compile Lua source to a stripped binary chunk in a new MemBlock (bytes from malloc; the caller frees
// both), with `error` set empty. A dump failure gives null with the message in `error`; a compile
// error gives null and leaves `error` alone. A missing or empty file gives null.
ORVEX_API MemBlock *lua_FileToCode(const char *fileName, KeID &error, TagList *tags = nullptr);
ORVEX_API MemBlock *lua_StrToCode(const char *source, KeID &error, TagList *tags = nullptr);

// The "MemBlock" userdata type: its metatable in the registry, the global MemBlock(size), and the
// global HexData(text), a block of the bytes written in base 16 in the text.
ORVEX_API void OpenMemBlock(lua_State *state);

// What a state needs to hold objects: the MemBlock type, the table `class` (kept if it is one) with
// the constructor _ScriptObject, and the metatable "_ScriptObject" in the registry.
ORVEX_API void OpenObjectTypes(lua_State *state);

} // namespace orvexScript
