// The descriptor "_ScriptObject" of remote objects: every Lua operation on such a userdata is a command
// to the process that owns the object (read, write, call, arithmetic, comparison, concatenation,
// tostring), and its results come back as Lua values. Its four member functions act on the
// connection of an application object (the peer's root).

#include <lua.hpp>

#include "languages/lua/LuaBridge.h"
#include "languages/lua/LuaType.h"
#include "languages/lua/LuaTypeInternal.h"
#include "remote/RemoteApp.h"
#include "remote/RemoteObject.h"
#include "values/model/ScriptArgs.h"
#include "values/model/SymbolNumbers.h"

namespace orvexScript
{

namespace
{

constexpr const char *kIgnoreErrorsKey = "orvexScriptIgnoreErrors";

// An application object: the peer's root, through a connection.
RemoteApp *ApplicationOf(void *object)
{
    auto *remote = static_cast<RemoteObject *>(object);
    return remote && remote->m_App && remote->m_ID == GlobalObjectTable::kRootId ? remote->m_App : nullptr;
}

// The key of a read or write: a number or a string, else the Lua error.
void KeyFromLua(lua_State *state, int index, ScriptVal &out)
{
    const int type = lua_type(state, index);
    if (type != LUA_TNUMBER && type != LUA_TSTRING) luaL_error(state, "Unsupported key type!");
    ArgumentFromLua(state, index, out);
}

// Sends `symbol` with `args` to the object and pushes the results.
int Command(lua_State *state, void *object, int symbol, ScriptArgs &args)
{
    auto *remote = static_cast<RemoteObject *>(object);
    if (!remote) return 0;
    ScriptVal reply = remote->DoCommand(symbol, args);
    return PushRemoteReply(remote->m_App, state, reply);
}

int NoArguments(lua_State *state, void *object, int symbol)
{
    ScriptArgs args;
    return Command(state, object, symbol, args);
}

// A binary operator or comparison: the second operand, the only value on the stack, at key 1.
int Binary(lua_State *state, void *object, int symbol)
{
    ScriptArgs args;
    ArgumentFromLua(state, 1, args.FindKey(1));
    return Command(state, object, symbol, args);
}

int SetTimeout(LuaType *, lua_State *state, void *object, LuaObject *)
{
    RemoteApp *app = ApplicationOf(object);
    if (!app) return luaL_error(state, "Can only set timeout on application object.");
    lua_pushnumber(state, app->GetTimeOut());
    if (lua_type(state, 1) == LUA_TNUMBER) app->SetTimeOut(lua_tonumber(state, 1));
    return 1;
}

int IsAppConnected(LuaType *, lua_State *state, void *object, LuaObject *)
{
    RemoteApp *app = ApplicationOf(object);
    if (!app) return luaL_error(state, "Can only check connection on application object.");
    lua_pushboolean(state, app->Connected());
    return 1;
}

int GetAppData(LuaType *, lua_State *state, void *object, LuaObject *)
{
    RemoteApp *app = ApplicationOf(object);
    if (!app) return luaL_error(state, "Can only get data on application object.");
    lua_createtable(state, 0, 3);
    lua_pushstring(state, app->GetName());
    lua_setfield(state, -2, "Name");
    lua_pushstring(state, app->GetHostName());
    lua_setfield(state, -2, "Address");
    lua_pushstring(state, app->GetUUID().ToString(""));
    lua_setfield(state, -2, "ID");
    return 1;
}

LuaFuncTable s_Functions[] = {
    {"SetTimeout", SetTimeout, 0},
    {"GetTimeout", SetTimeout, 0},
    {"IsAppConnected", IsAppConnected, 0},
    {"GetAppData", GetAppData, 0},
    {nullptr, nullptr, 0},
};

} // namespace

LuaType_RemoteObject g_ScriptObjectLuaType("_ScriptObject", &LuaClass::s_LuaType, s_Functions, nullptr, 0, 0);

int PushRemoteReply(RemoteApp *app, lua_State *state, ScriptVal &reply)
{
    const int count = static_cast<int>(ToLuaRet(app, state, reply));
    if (count > 0 || !reply.IsTable()) return count;
    const ScriptVal &error = reply.FindKeyConst("Error");
    if (!error.IsNumber() || error.ToNumber() == 0) return 0;
    lua_getfield(state, LUA_REGISTRYINDEX, kIgnoreErrorsKey);
    const bool quiet = lua_toboolean(state, -1);
    lua_pop(state, 1);
    if (quiet) return 0;
    const char *text = reply.FindKeyConst("ErrorString").ToString(nullptr);
    if (!text) text = ScriptErrorText(static_cast<int>(error.ToNumber()));
    return luaL_error(state, "%s", text);
}

int LuaType_RemoteObject::lw_create(lua_State *state)
{
    LuaObject *record = lua_toLuaObject(state, 1);
    auto *application = record ? static_cast<RemoteObject *>(record->object) : nullptr;
    if (!application || !application->m_App || !record->type->IsA(&g_ScriptObjectLuaType)) return 0;
    const double low = static_cast<double>(static_cast<int64_t>(lua_tonumber(state, 2)));
    const double high = static_cast<double>(static_cast<int64_t>(lua_tonumber(state, 3)));
    if (low == 0 && high == 0) return 0;
    ScriptArgs args;
    args.FindKey(1) = low;
    args.FindKey(2) = high;
    return Command(state, application, SST_ObjectFromAddress, args);
}

int LuaType_RemoteObject::lw_tostring(LuaType *, lua_State *state, void *object, LuaType *)
{
    return NoArguments(state, object, SST_ToString);
}

int LuaType_RemoteObject::lw_unm(LuaType *, lua_State *state, void *object, LuaType *)
{
    return NoArguments(state, object, SST_Unm);
}

int LuaType_RemoteObject::lw_call(LuaType *, lua_State *state, void *object, LuaType *)
{
    ScriptArgs args;
    const int top = lua_gettop(state);
    for (int index = 2; index <= top; ++index)
        ArgumentFromLua(state, index, args.FindKey(index - 1));
    return Command(state, object, SST_Call, args);
}

// The member functions a proxy has handed out, so that `app:Add(1, 2)` costs one round trip and not
// two: a member read that gave a function of the object keeps that function's value (the upvalue of
// its closure) under the name, and the next read of the name makes a fresh closure over it without
// asking. A write through the proxy forgets the name. The table is kept per userdata in a weak-keyed
// registry table, so it goes with the proxy.
static const char s_MemberCacheKey = 0;

// Pushes the member table of the proxy userdata of `object`, made if `create`; false (nothing pushed)
// if there is none.
static bool PushMemberTable(lua_State *state, void *object, bool create)
{
    lua_checkstack(state, 6);
    if (!PushObjectUserdata(state, object)) return false;
    lua_pushlightuserdata(state, const_cast<char *>(&s_MemberCacheKey));
    lua_rawget(state, LUA_REGISTRYINDEX);
    if (!lua_istable(state, -1))
    {
        lua_pop(state, 1);
        if (!create)
        {
            lua_pop(state, 1);
            return false;
        }
        lua_newtable(state);
        lua_createtable(state, 0, 1);
        lua_pushliteral(state, "k");
        lua_setfield(state, -2, "__mode");
        lua_setmetatable(state, -2);
        lua_pushlightuserdata(state, const_cast<char *>(&s_MemberCacheKey));
        lua_pushvalue(state, -2);
        lua_rawset(state, LUA_REGISTRYINDEX);
    }
    lua_pushvalue(state, -2); // the userdata
    lua_rawget(state, -2);
    if (!lua_istable(state, -1))
    {
        lua_pop(state, 1);
        if (!create)
        {
            lua_pop(state, 2);
            return false;
        }
        lua_newtable(state);
        lua_pushvalue(state, -3);
        lua_pushvalue(state, -2);
        lua_rawset(state, -4);
    }
    lua_replace(state, -3);
    lua_pop(state, 1);
    return true;
}

int LuaType_RemoteObject::lw_index(LuaType *, lua_State *state, void *object, LuaType *)
{
    ScriptArgs args;
    KeyFromLua(state, 1, args.FindKey(0));
    const bool named = lua_type(state, 1) == LUA_TSTRING;
    // A proxy whose connection has gone reads nil, functions included.
    auto *remote = static_cast<RemoteObject *>(object);
    const bool connected = remote && remote->m_App && remote->m_App->Connected();
    if (named && connected && PushMemberTable(state, object, false))
    {
        lua_pushvalue(state, 1);
        lua_rawget(state, -2);
        if (lua_isuserdata(state, -1))
        {
            lua_pushcclosure(state, lua_function_call, 1);
            return 1;
        }
        lua_pop(state, 2);
    }
    const int top = lua_gettop(state);
    const int count = Command(state, object, SST_GetTable, args);
    if (named && count >= 1 && lua_tocfunction(state, top + 1) == lua_function_call &&
        PushMemberTable(state, object, true))
    {
        lua_pushvalue(state, 1);
        lua_getupvalue(state, top + 1, 1);
        lua_rawset(state, -3);
        lua_pop(state, 1);
    }
    return count;
}

int LuaType_RemoteObject::lw_newindex(LuaType *, lua_State *state, void *object, LuaType *)
{
    ScriptArgs args;
    KeyFromLua(state, 1, args.FindKey(0));
    ArgumentFromLua(state, 2, args.FindKey(1));
    if (lua_type(state, 1) == LUA_TSTRING && PushMemberTable(state, object, false))
    {
        lua_pushvalue(state, 1);
        lua_pushnil(state);
        lua_rawset(state, -3);
        lua_pop(state, 1);
    }
    return Command(state, object, SST_SetTable, args);
}

int LuaType_RemoteObject::lw_add(LuaType *, lua_State *state, void *object, LuaType *)
{
    return Binary(state, object, SST_Add);
}
int LuaType_RemoteObject::lw_sub(LuaType *, lua_State *state, void *object, LuaType *)
{
    return Binary(state, object, SST_Sub);
}
int LuaType_RemoteObject::lw_mul(LuaType *, lua_State *state, void *object, LuaType *)
{
    return Binary(state, object, SST_Mul);
}
int LuaType_RemoteObject::lw_div(LuaType *, lua_State *state, void *object, LuaType *)
{
    return Binary(state, object, SST_Div);
}
int LuaType_RemoteObject::lw_pow(LuaType *, lua_State *state, void *object, LuaType *)
{
    return Binary(state, object, SST_Pow);
}
int LuaType_RemoteObject::lw_eq(LuaType *, lua_State *state, void *object, LuaType *)
{
    return Binary(state, object, SST_EQ);
}
int LuaType_RemoteObject::lw_lt(LuaType *, lua_State *state, void *object, LuaType *)
{
    return Binary(state, object, SST_LT);
}
int LuaType_RemoteObject::lw_le(LuaType *, lua_State *state, void *object, LuaType *)
{
    return Binary(state, object, SST_LE);
}
int LuaType_RemoteObject::lw_concat(LuaType *, lua_State *state, void *object, LuaType *)
{
    return Binary(state, object, SST_Concat);
}

int LuaType_RemoteObject::lw_use(LuaType *, lua_State *, void *object, LuaType *)
{
    if (object) static_cast<RemoteObject *>(object)->IncRef();
    return 0;
}

int LuaType_RemoteObject::lw_recycle(LuaType *, lua_State *, void *object, LuaType *)
{
    if (object) static_cast<RemoteObject *>(object)->DecRef();
    return 0;
}

} // namespace orvexScript
