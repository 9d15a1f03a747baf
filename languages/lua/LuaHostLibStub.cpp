// A minimal `orvex` table: exit, scriptapp, using and getusing. It stands in for the full library until
// that lands, and goes then.
#include "languages/lua/LuaHostLib.h"

#include <lua.hpp>

#include "languages/lua/LuaBridge.h"
#include "languages/lua/LuaGuard.h"
#include "remote/RemoteObject.h"
#include "remote/ScriptApp.h"
#include "values/model/ScriptVal.h"

namespace
{

constexpr const char *kActiveObjectKey = "orvexScriptActiveObject";

ORVEX_LUA_FUNCTION(HostExit)
{
    if (lua_type(L, 1) == LUA_TNUMBER)
        lua_pushvalue(L, 1);
    else
        lua_pushinteger(L, 0);
    lua_setglobal(L, "_EXITCODE");
    if (lua_istable(L, 2))
        lua_pushvalue(L, 2);
    else
        lua_pushnil(L);
    lua_setglobal(L, "_EXITDATA");
    lua_settop(L, 0);
    return 0;
}

const char *StringArgument(lua_State *L, int index)
{
    return lua_type(L, index) == LUA_TSTRING ? lua_tostring(L, index) : nullptr;
}

ORVEX_LUA_FUNCTION(HostScriptApp)
{
    const char *name = StringArgument(L, 1);
    const char *address = StringArgument(L, 2);
    const double timeout = lua_type(L, 3) == LUA_TNUMBER ? lua_tonumber(L, 3) : 0;
    orvexScript::ScriptVal uuid;
    if (const char *text = StringArgument(L, 4)) uuid = text;
    orvexScript::ScriptVal app =
        orvexScript::ScriptApp(name, StringArgument(L, 5), uuid, address ? address : "127.0.0.1", timeout);
    orvexScript::RemoteObject *remote = app.ToRemoteObject();
    if (!remote || !orvexScript::ToLua(remote->m_App, L, app)) lua_pushnil(L);
    return 1;
}

ORVEX_LUA_FUNCTION(HostUsing)
{
    lua_settop(L, 1);
    lua_getfield(L, LUA_REGISTRYINDEX, kActiveObjectKey);
    lua_pushvalue(L, 1);
    lua_setfield(L, LUA_REGISTRYINDEX, kActiveObjectKey);
    return 1;
}

ORVEX_LUA_FUNCTION(HostGetUsing)
{
    lua_getfield(L, LUA_REGISTRYINDEX, kActiveObjectKey);
    return 1;
}

const luaL_Reg kFunctions[] = {
    {"exit", HostExit},   {"scriptapp", HostScriptApp}, {"using", HostUsing},
    {"getusing", HostGetUsing}, {nullptr, nullptr},
};

} // namespace

namespace orvexScript
{

void OpenHostLibrary(lua_State *L)
{
    luaL_openlib(L, "orvex", kFunctions, 0);
}

} // namespace orvexScript
