// The library table `orvex`: its registration, and the functions for processes, the console, the
// clipboard, global locks, names, identifiers, noise, connections and the active object. The file
// functions are in LuaHostFiles.cpp, the value text functions in LuaHostText.cpp, the system calls
// behind all of them in linux/HostSystem.cpp.
//
// Argument rules: an argument of the wrong type counts as absent; failures give false, nil or no
// result as each function says. Only errors raised by the objects a function calls reach the script.
#include "languages/lua/LuaHostLib.h"

#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "languages/lua/HostSystem.h"
#include "languages/lua/LuaBridge.h"
#include "languages/lua/LuaGuard.h"
#include "languages/lua/LuaHostInternal.h"
#include "remote/RemoteObject.h"
#include "remote/ScriptApp.h"
#include "remote/Scripting.h"
#include "values/base/Names.h"
#include "values/model/ScriptArgs.h"
#include "values/model/SymbolNumbers.h"
#include "values/model/TableEntry.h"
#include "values/model/UUID.h"

namespace orvexScript
{

namespace
{

constexpr const char *kRemoteObjectType = "_ScriptObject";
constexpr const char *kDefaultAddress = "127.0.0.1";
constexpr size_t kSavedLoginLimit = 1000;

const char *StringArgument(lua_State *L, int index)
{
    return lua_type(L, index) == LUA_TSTRING ? lua_tostring(L, index) : nullptr;
}

// A number of seconds as whole milliseconds, truncated and held within `limit`; 0 for NaN and below.
int64_t Milliseconds(double seconds, int64_t limit)
{
    const double ms = seconds * 1000.0;
    if (!(ms > 0)) return 0;
    if (ms >= static_cast<double>(limit)) return limit;
    return static_cast<int64_t>(ms);
}

// ---- processes, console, system ---------------------------------------------------------------------

ORVEX_LUA_FUNCTION(orvex_executebg)
{
    const char *command = lua_isstring(L, 1) ? lua_tostring(L, 1) : nullptr;
    const bool wait = lua_toboolean(L, 2) != 0;
    int exitCode = 0;
    if (!command || !HostSystem::StartProcess(command, wait, exitCode))
    {
        lua_pushboolean(L, false);
        return 1;
    }
    if (!wait)
    {
        lua_pushboolean(L, true);
        return 1;
    }
    lua_pushvalue(L, 2);
    lua_pushnumber(L, exitCode);
    return 2;
}

ORVEX_LUA_FUNCTION(orvex_getpid)
{
    lua_pushnumber(L, HostSystem::ProcessId());
    return 1;
}

ORVEX_LUA_FUNCTION(orvex_allocconsole)
{
    lua_pushboolean(L, HostSystem::AttachConsole());
    return 1;
}

// Gives nothing, as everywhere; the request fails on this system (see HostSystem::RequestSuspend).
ORVEX_LUA_FUNCTION(orvex_suspend)
{
    (void)HostSystem::RequestSuspend();
    return 0;
}

ORVEX_LUA_FUNCTION(orvex_crash)
{
    (void)L;
    HostSystem::RaiseAccessFault();
}

ORVEX_LUA_FUNCTION(orvex_wait)
{
    const double seconds = lua_isnumber(L, 1) ? lua_tonumber(L, 1) : 0;
    const int64_t ms = Milliseconds(seconds, std::numeric_limits<uint32_t>::max());
    if (ms > 0) HostSystem::SleepMilliseconds(static_cast<uint32_t>(ms));
    return 0;
}

ORVEX_LUA_FUNCTION(orvex_startserver)
{
    (void)L;
    (void)StartServer(nullptr);
    return 0;
}

ORVEX_LUA_FUNCTION(orvex_getclipboard)
{
    std::string text;
    if (HostSystem::ReadClipboard(text))
        lua_pushlstring(L, text.data(), text.size());
    else
        lua_pushnil(L);
    return 1;
}

ORVEX_LUA_FUNCTION(orvex_setclipboard)
{
    (void)HostSystem::WriteClipboard(lua_isstring(L, 1) ? lua_tostring(L, 1) : nullptr);
    return 0;
}

ORVEX_LUA_FUNCTION(orvex_obtaingloballock)
{
    const char *name = StringArgument(L, 1);
    int64_t timeoutMs = -1;
    if (lua_isnumber(L, 2)) timeoutMs = Milliseconds(lua_tonumber(L, 2), std::numeric_limits<uint32_t>::max() - 1);
    lua_pushboolean(L, name && HostSystem::ObtainGlobalLock(name, timeoutMs));
    return 1;
}

ORVEX_LUA_FUNCTION(orvex_releasegloballock)
{
    const char *name = StringArgument(L, 1);
    lua_pushboolean(L, name && HostSystem::ReleaseGlobalLock(name));
    return 1;
}

// ---- names, identifiers, values ---------------------------------------------------------------------

ORVEX_LUA_FUNCTION(orvex_stripname)
{
    if (!lua_isstring(L, 1)) return 0;
    size_t length = 0;
    const char *text = lua_tolstring(L, 1, &length);
    std::vector<char> out(length + 1);
    StripName(out.data(), text);
    lua_pushstring(L, out.data());
    return 1;
}

ORVEX_LUA_FUNCTION(orvex_isvalidname)
{
    lua_pushboolean(L, lua_isstring(L, 1) && IsValidName(lua_tostring(L, 1)));
    return 1;
}

// A 32-bit half of a pointer from a number, truncated towards zero and cut to its low 32 bits.
uint32_t PointerHalf(lua_State *L, int index)
{
    const double v = lua_isnumber(L, index) ? lua_tonumber(L, index) : 0;
    if (!std::isfinite(v) || std::fabs(v) >= 9.0e18) return 0;
    return static_cast<uint32_t>(static_cast<uint64_t>(static_cast<int64_t>(v)));
}

ORVEX_LUA_FUNCTION(orvex_touserdata)
{
    const uint64_t value = (static_cast<uint64_t>(PointerHalf(L, 2)) << 32) | PointerHalf(L, 1);
    lua_pushlightuserdata(L, reinterpret_cast<void *>(static_cast<uintptr_t>(value)));
    return 1;
}

float FloatArgument(lua_State *L, int index, float def)
{
    return lua_isnumber(L, index) ? static_cast<float>(lua_tonumber(L, index)) : def;
}

ORVEX_LUA_FUNCTION(orvex_noise)
{
    const float value =
        FractalNoise(FloatArgument(L, 1, 0), FloatArgument(L, 2, 0), FloatArgument(L, 3, 0), FloatArgument(L, 4, 1));
    lua_pushnumber(L, value);
    return 1;
}

ORVEX_LUA_FUNCTION(orvex_createuuid)
{
    char text[kUUIDTextLength + 1];
    if (!CreateUUIDText(text, sizeof(text))) return 0;
    lua_pushstring(L, text);
    return 1;
}

ORVEX_LUA_FUNCTION(orvex_getappname)
{
    if (!g_ScriptConfig || !g_ScriptConfig->name) return 0;
    lua_pushstring(L, g_ScriptConfig->name);
    return 1;
}

ORVEX_LUA_FUNCTION(orvex_getappuuid)
{
    const ScriptVal &uuid = GetAppUUID();
    if (!uuid.IsString()) return 0;
    lua_pushstring(L, uuid.ToString(""));
    return 1;
}

// ---- remote connections -----------------------------------------------------------------------------

struct ConnectArguments
{
    const char *name;
    const char *address;
    double timeout;
    ScriptVal uuid;
    const char *subtype;
};

// name, address, timeout, uuid, subtype: each of the wrong type counts as absent.
ConnectArguments ReadConnectArguments(lua_State *L)
{
    ConnectArguments args{StringArgument(L, 1), StringArgument(L, 2), 0, ScriptVal(), StringArgument(L, 5)};
    if (!args.address) args.address = kDefaultAddress;
    if (lua_type(L, 3) == LUA_TNUMBER) args.timeout = lua_tonumber(L, 3);
    if (const char *uuid = StringArgument(L, 4)) args.uuid = uuid;
    return args;
}

bool RegistryFlag(lua_State *L, const char *key)
{
    lua_getfield(L, LUA_REGISTRYINDEX, key);
    const bool set = lua_toboolean(L, -1) != 0;
    lua_pop(L, 1);
    return set;
}

// Logs into a freshly connected application with the user and password saved for this address and
// name, if any (empty ones if not). False if the application refuses.
bool SavedLogin(const ScriptVal &app, const char *address, const char *name)
{
    char key[1200];
    const int length = std::snprintf(key, sizeof(key), kSavedLoginKey, address, name);
    std::string user, password;
    if (length > 0 && static_cast<size_t>(length) < sizeof(key) - 16)
    {
        (void)HostSystem::ReadKeyDefault((std::string(key) + "\\Name").c_str(), user, kSavedLoginLimit);
        (void)HostSystem::ReadKeyDefault((std::string(key) + "\\Password").c_str(), password, kSavedLoginLimit);
    }
    return app.CallMember("__Login", user.c_str(), password.c_str()).ToBoolean();
}

void PushApplication(lua_State *L, ScriptVal &app)
{
    if (!ToLua(app.GetApp(), L, app)) lua_pushnil(L);
}

ORVEX_LUA_FUNCTION(orvex_scriptapp)
{
    ConnectArguments args = ReadConnectArguments(L);
    ScriptVal app = ScriptApp(args.name, args.subtype, args.uuid, args.address, args.timeout);
    if (app.IsNil())
    {
        lua_pushnil(L);
        return 1;
    }
    const bool local = std::strcmp(args.address, "127.0.0.1") == 0 || std::strcmp(args.address, "localhost") == 0;
    if (!(local && RegistryFlag(L, kLocalConnectKey)) && args.name && *args.name &&
        !SavedLogin(app, args.address, args.name))
    {
        app.CleanUp();
        lua_pushnil(L);
        return 1;
    }
    PushApplication(L, app);
    return 1;
}

ORVEX_LUA_FUNCTION(orvex_asyncscriptapp)
{
    ConnectArguments args = ReadConnectArguments(L);
    ScriptVal app = AsyncScriptApp(args.name, args.subtype, args.uuid, args.address, args.timeout, true);
    PushApplication(L, app);
    return 1;
}

ORVEX_LUA_FUNCTION(orvex_pinghosts)
{
    const char *name = StringArgument(L, 1);
    const double timeout = lua_type(L, 2) == LUA_TNUMBER ? lua_tonumber(L, 2) : 1.0;
    ScriptVal result;
    if (!Ping(name, timeout, result)) return 0;
    if (!ToLua(nullptr, L, result)) return 0;
    return 1;
}

// Converts the values at first..top into args at keys firstKey, firstKey + 1, ... under a protected
// call, so that a value with no ScriptVal form fails the conversion instead of raising an error.
struct Conversion
{
    ScriptArgs *args;
    int firstKey;
};

ORVEX_LUA_FUNCTION(ConvertValues)
{
    auto *conversion = static_cast<Conversion *>(lua_touserdata(L, lua_upvalueindex(1)));
    const int count = lua_gettop(L);
    for (int i = 1; i <= count; ++i)
        (void)FromLua(L, i, conversion->args->FindKey(conversion->firstKey + i - 1));
    return 0;
}

bool ConvertArguments(lua_State *L, int first, ScriptArgs &args, int firstKey)
{
    Conversion conversion{&args, firstKey};
    const int top = lua_gettop(L);
    lua_pushlightuserdata(L, &conversion);
    lua_pushcclosure(L, ConvertValues, 1);
    for (int i = first; i <= top; ++i)
        lua_pushvalue(L, i);
    const bool ok = lua_pcall(L, top - first + 1, 0, 0) == 0;
    lua_settop(L, top);
    return ok;
}

void Notify(RemoteObject *target, const ScriptArgs &args)
{
    if (!target) return;
    ScriptArgs copy(args);
    (void)target->DoCommandAsync(SST_CallMemberFunction, copy, nullptr, nullptr);
}

ORVEX_LUA_FUNCTION(orvex_sendnotify)
{
    ScriptArgs args;
    if (!ConvertArguments(L, 2, args, 0)) return 0;
    if (lua_istable(L, 1))
    {
        lua_pushnil(L);
        while (lua_next(L, 1) != 0)
        {
            Notify(static_cast<RemoteObject *>(lua_totype(L, -1, kRemoteObjectType)), args);
            lua_pop(L, 1);
        }
    }
    else
        Notify(static_cast<RemoteObject *>(lua_totype(L, 1, kRemoteObjectType)), args);
    return 0;
}

// ---- the active object ------------------------------------------------------------------------------

ORVEX_LUA_FUNCTION(orvex_using)
{
    lua_settop(L, 1);
    lua_getfield(L, LUA_REGISTRYINDEX, kActiveObjectKey);
    lua_pushvalue(L, 1);
    lua_setfield(L, LUA_REGISTRYINDEX, kActiveObjectKey);
    return 1;
}

ORVEX_LUA_FUNCTION(orvex_getusing)
{
    lua_getfield(L, LUA_REGISTRYINDEX, kActiveObjectKey);
    return 1;
}

ORVEX_LUA_FUNCTION(orvex_exit_guarded)
{
    lua_pushnumber(L, lua_type(L, 1) == LUA_TNUMBER ? lua_tonumber(L, 1) : 0);
    lua_setglobal(L, "_EXITCODE");
    if (lua_istable(L, 2))
        lua_pushvalue(L, 2);
    else
        lua_pushnil(L);
    lua_setglobal(L, "_EXITDATA");
    lua_settop(L, 0);
    return 0;
}

std::vector<luaL_Reg> MakeFunctions()
{
    std::vector<luaL_Reg> functions{
        {"executebg", orvex_executebg},
        {"getpid", orvex_getpid},
        {"allocconsole", orvex_allocconsole},
        {"suspend", orvex_suspend},
        {"crash", orvex_crash},
        {"wait", orvex_wait},
        {"exit", orvex_exit},
        {"startserver", orvex_startserver},
        {"getclipboard", orvex_getclipboard},
        {"setclipboard", orvex_setclipboard},
        {"obtaingloballock", orvex_obtaingloballock},
        {"releasegloballock", orvex_releasegloballock},
        {"stripname", orvex_stripname},
        {"isvalidname", orvex_isvalidname},
        {"touserdata", orvex_touserdata},
        {"noise", orvex_noise},
        {"createuuid", orvex_createuuid},
        {"getappname", orvex_getappname},
        {"getappuuid", orvex_getappuuid},
        {"scriptapp", orvex_scriptapp},
        {"asyncscriptapp", orvex_asyncscriptapp},
        {"pinghosts", orvex_pinghosts},
        {"sendnotify", orvex_sendnotify},
        {"using", orvex_using},
        {"getusing", orvex_getusing},
    };
    AddFileFunctions(functions);
    AddTextFunctions(functions);
    functions.push_back({nullptr, nullptr});
    return functions;
}

} // namespace

int orvex_exit(lua_State *state)
{
    return orvex_exit_guarded(state);
}

void OpenHostLibrary(lua_State *state)
{
    static const std::vector<luaL_Reg> s_Functions = MakeFunctions();
    luaL_openlib(state, "orvex", s_Functions.data(), 0);
}

void SendNotify(const ScriptVal &target, const ScriptVal &name, const ScriptVal &object, const ScriptVal &v1,
                const ScriptVal &v2, const ScriptVal &v3, const ScriptVal &v4, const ScriptVal &v5,
                const ScriptVal &v6, const ScriptVal &v7, const ScriptVal &v8)
{
    ScriptArgs args;
    args.FindKey(0) = name;
    args.FindKey(1) = object;
    const ScriptVal *values[] = {&v1, &v2, &v3, &v4, &v5, &v6, &v7, &v8};
    for (int i = 0; i < 8; ++i)
        args.FindKey(i + 2) = *values[i];
    if (target.IsRemoteObject())
        Notify(target.ToRemoteObject(), args);
    else if (target.IsTable())
    {
        TableEntry *cursor = nullptr;
        while (target.NextKey(cursor))
            if (cursor->m_Value.IsRemoteObject()) Notify(cursor->m_Value.ToRemoteObject(), args);
    }
}

} // namespace orvexScript
