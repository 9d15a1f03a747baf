// Equipping a Lua state: the steps that turn a state with its standard libraries into a scripting
// state, the global look-up of the active object, and the module entry luaopen_qmscript.
#include "languages/lua/LuaEquip.h"

#include <lua.hpp>

#include <cstdio>

#include "languages/lua/LuaBase.h"
#include "languages/lua/LuaBridge.h"
#include "languages/lua/LuaGuard.h"
#include "languages/lua/LuaHostLib.h"
#include "languages/lua/LuaType.h"
#include "languages/lua/PreludeText.h"

namespace orvexScript
{

namespace
{

constexpr const char *kVersion = "7.00";

// A member function of the active object called by its bare name: the object goes in front of the
// arguments, as a colon call would put it. Upvalues: the function, the object.
ORVEX_LUA_FUNCTION(ForwardToActiveObject)
{
    const int count = lua_gettop(L);
    luaL_checkstack(L, count + 2, "too many arguments");
    lua_pushvalue(L, lua_upvalueindex(1));
    lua_pushvalue(L, lua_upvalueindex(2));
    for (int index = 1; index <= count; ++index)
        lua_pushvalue(L, index);
    lua_call(L, count + 1, LUA_MULTRET);
    return lua_gettop(L) - count;
}

// Indexes the object (1) by the key (2) through its own metamethods; run protected, so that the quiet
// flag is put back on every way out.
int ProbeActiveObject(lua_State *L)
{
    lua_gettable(L, 1);
    return 1;
}

void SetQuiet(lua_State *L, bool quiet)
{
    lua_pushboolean(L, quiet);
    lua_setfield(L, LUA_REGISTRYINDEX, kIgnoreErrorsKey);
}

// __index of the global table: a name that isn't a global is looked up in the active object, if any.
// Remote errors of that probe stay silent (the reply reader sees the quiet flag and gives nothing); any
// other error is raised once the flag is back.
ORVEX_LUA_FUNCTION(LookUpGlobal)
{
    lua_settop(L, 2);
    lua_pushvalue(L, 2);
    lua_rawget(L, 1);
    if (!lua_isnil(L, -1)) return 1;
    lua_getfield(L, LUA_REGISTRYINDEX, kActiveObjectKey);
    if (lua_isnil(L, -1)) return 1;
    const int object = lua_gettop(L);

    lua_getfield(L, LUA_REGISTRYINDEX, kIgnoreErrorsKey);
    const bool wasQuiet = lua_toboolean(L, -1);
    lua_pop(L, 1);
    if (!wasQuiet) SetQuiet(L, true);
    lua_pushcfunction(L, ProbeActiveObject);
    lua_pushvalue(L, object);
    lua_pushvalue(L, 2);
    const int status = lua_pcall(L, 2, 1, 0);
    if (!wasQuiet) SetQuiet(L, false);
    if (status != 0) return lua_error(L);

    if (lua_iscfunction(L, -1))
    {
        lua_pushvalue(L, object);
        lua_pushcclosure(L, ForwardToActiveObject, 2);
    }
    return 1;
}

// Keeps the table `class` if it is one, else makes it; adds the remote object constructor and the
// "_ScriptObject" metatable.
void OpenClassTable(lua_State *state)
{
    lua_getglobal(state, "class");
    if (!lua_istable(state, -1))
    {
        lua_pop(state, 1);
        lua_newtable(state);
        lua_pushvalue(state, -1);
        lua_setglobal(state, "class");
    }
    g_ScriptObjectLuaType.lw_register(state, lua_gettop(state));
    lua_pop(state, 1);
}

// The prelude is fixed text: a failure here is a fault of the build, told on stderr.
void RunPrelude(lua_State *state)
{
    if (luaL_loadbuffer(state, kPreludeText, sizeof kPreludeText - 1, kPreludeText) != 0 ||
        lua_pcall(state, 0, 0, 0) != 0)
    {
        const char *message = lua_tostring(state, -1);
        fprintf(stderr, "orvexScript: the prelude failed: %s\n", message ? message : "unknown error");
        lua_pop(state, 1);
    }
}

void SetGlobalLookUp(lua_State *state)
{
    lua_pushvalue(state, LUA_GLOBALSINDEX);
    lua_createtable(state, 0, 1);
    lua_pushcfunction(state, LookUpGlobal);
    lua_setfield(state, -2, "__index");
    lua_setmetatable(state, -2);
    lua_pop(state, 1);
}

// The library table with its version, and os.exit = orvex.exit. Leaves the library table on the stack.
void OpenLibraryTable(lua_State *state)
{
    OpenHostLibrary(state);
    const int library = lua_gettop(state);
    lua_pushliteral(state, "_VERSION");
    lua_pushstring(state, kVersion);
    lua_rawset(state, library);
    lua_getglobal(state, "os");
    if (lua_istable(state, -1))
    {
        lua_getfield(state, library, "exit");
        lua_setfield(state, -2, "exit");
    }
    lua_pop(state, 1);
}

} // namespace

void EquipState(lua_State *state)
{
    const int top = lua_gettop(state);
    OpenMemBlock(state);
    OpenLibraryTable(state);
    OpenClassTable(state);
    lua_settop(state, top);
    RunPrelude(state);
    SetGlobalLookUp(state);
}

void OpenAllLibs(lua_State *state, TagList *)
{
    OpenBaseLibs(state);
    EquipState(state);
    lua_settop(state, 0);
}

void CloseAllLibs(lua_State *, TagList *) {}

} // namespace orvexScript

namespace
{
ORVEX_LUA_FUNCTION(OpenModule)
{
    orvexScript::EquipState(L);
    lua_getglobal(L, "orvex");
    return 1;
}
} // namespace

int luaopen_qmscript(lua_State *state)
{
    return OpenModule(state);
}
