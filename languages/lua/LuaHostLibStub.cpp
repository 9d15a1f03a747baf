// A minimal `orvex` table: exit, scriptapp, using, getusing, readfile and writefile. It stands in for
// the full library until that lands, and goes then.
#include "languages/lua/LuaHostLib.h"

#include <lua.hpp>

#include <cstdio>
#include <string>
#include <vector>

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

// readfile(path, name): the value of the text in the file (with a name, the global of that name after
// running it), or nil.
ORVEX_LUA_FUNCTION(HostReadFile)
{
    const char *path = StringArgument(L, 1);
    FILE *file = path ? std::fopen(path, "r") : nullptr;
    if (!file)
    {
        lua_pushnil(L);
        return 1;
    }
    std::string text;
    char buffer[4096];
    size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, file)) > 0)
        text.append(buffer, n);
    const bool readError = std::ferror(file) != 0;
    std::fclose(file);
    orvexScript::ScriptVal value;
    char error[256] = "";
    const char *name = StringArgument(L, 2);
    const bool ok = !readError && (name ? value.FromTextByName(text.c_str(), name, error, sizeof error, false)
                                        : value.FromText(text.c_str(), orvexScript::GetSerializePrologue(),
                                                         error, sizeof error));
    if (!ok || !orvexScript::ToLua(nullptr, L, value)) lua_pushnil(L);
    return 1;
}

// writefile(path, value): the text form of the value into the file; true if all of it was written.
ORVEX_LUA_FUNCTION(HostWriteFile)
{
    orvexScript::ScriptVal value;
    lua_settop(L, 2);
    if (!orvexScript::FromLua(L, 2, value)) return luaL_error(L, "Unsupported type for custom data!");
    const char *path = StringArgument(L, 1);
    FILE *file = path ? std::fopen(path, "w") : nullptr;
    if (!file)
    {
        lua_pushboolean(L, 0);
        return 1;
    }
    std::vector<char> text(value.ToTextLen(0) + 1);
    const size_t size = static_cast<size_t>(value.ToText(text.data(), 0) - text.data());
    const bool written = std::fwrite(text.data(), 1, size, file) == size;
    lua_pushboolean(L, std::fclose(file) == 0 && written);
    return 1;
}

const luaL_Reg kFunctions[] = {
    {"exit", HostExit},   {"scriptapp", HostScriptApp}, {"using", HostUsing},
    {"getusing", HostGetUsing}, {"readfile", HostReadFile}, {"writefile", HostWriteFile},
    {nullptr, nullptr},
};

} // namespace

namespace orvexScript
{

void OpenHostLibrary(lua_State *L)
{
    luaL_openlib(L, "orvex", kFunctions, 0);
}

} // namespace orvexScript
