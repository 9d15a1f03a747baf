// RunScript: one Lua script file run to its end on the calling thread in a state of its own, with its
// arguments in the global `arg`; and ltraceback, a message handler for hosts that want a traceback.
#include "languages/lua/RunScript.h"

#include <lua.hpp>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>

#include "languages/lua/LuaEquip.h"
#include "languages/lua/LuaGuard.h"

namespace
{

constexpr int32_t kRunFailed = -1;
constexpr int32_t kLoadFailed = -2;

// Closes the state on every way out of RunScript.
struct StateCloser
{
    void operator()(lua_State *state) const { lua_close(state); }
};
using StatePtr = std::unique_ptr<lua_State, StateCloser>;

// The message handler of a stand-alone run: the message on stderr, one line, no traceback.
ORVEX_LUA_FUNCTION(ReportToStderr)
{
    const char *message = lua_tostring(L, 1);
    if (message == nullptr) message = "unknown error";
    fputs(message, stderr);
    fputc('\n', stderr);
    fflush(stderr);
    return 0;
}

ORVEX_LUA_FUNCTION(Traceback)
{
    lua_getglobal(L, "debug");
    if (lua_istable(L, -1)) lua_getfield(L, -1, "traceback");
    lua_pushvalue(L, 1);
    if (!lua_isfunction(L, -2)) return 1; // no debug.traceback: the message goes on as it is
    lua_pushinteger(L, 2);
    lua_call(L, 2, 1);
    return 1;
}

// Builds the global `arg`: name=value arguments are split in place at their first "=" and become
// string keys; the others are numbered from 1, and "n" holds their count.
void SetArguments(lua_State *state, char **arguments)
{
    lua_newtable(state);
    lua_Integer counter = 1;
    for (char **argument = arguments; argument != nullptr && *argument != nullptr; ++argument)
    {
        char *equals = strchr(*argument, '=');
        if (equals != nullptr)
        {
            *equals = '\0';
            lua_pushstring(state, *argument);
            lua_pushstring(state, equals + 1);
        }
        else
        {
            lua_pushinteger(state, counter++);
            lua_pushstring(state, *argument);
        }
        lua_rawset(state, -3);
    }
    lua_pushliteral(state, "n");
    lua_pushinteger(state, counter - 1);
    lua_rawset(state, -3);
    lua_setglobal(state, "arg");
}

// A Lua number as a 32-bit result: truncated toward zero, saturated at the ends of the range, NaN as 0.
int32_t ToResult(lua_Number number)
{
    if (std::isnan(number)) return 0;
    const lua_Number truncated = std::trunc(number);
    if (truncated >= 2147483647.0) return INT32_MAX;
    if (truncated <= -2147483648.0) return INT32_MIN;
    return static_cast<int32_t>(truncated);
}

// Everything a new state gets before the script, run under lua_cpcall so that running out of memory
// here is an error result rather than a panic. The light userdata argument is the argument array.
ORVEX_LUA_FUNCTION(PrepareState)
{
    char **arguments = static_cast<char **>(lua_touserdata(L, 1));
    lua_pushboolean(L, 1);
    lua_setfield(L, LUA_REGISTRYINDEX, "QMLocalConnect");
    orvexScript::OpenAllLibs(L, nullptr);
    SetArguments(L, arguments);
    return 0;
}

// For the failures that don't pass through the reporter: the error message on top of the stack.
void ReportTopMessage(lua_State *state)
{
    const char *message = lua_tostring(state, -1);
    fprintf(stderr, "%s\n", message != nullptr ? message : "unknown error");
}

// Runs the file on a prepared state whose stack holds only the reporter, at index 1.
int32_t RunFile(lua_State *state, const char *fileName)
{
    if (luaL_loadfile(state, fileName) != 0)
    {
        lua_pushvalue(state, 1);
        lua_insert(state, -2);
        lua_pcall(state, 1, 0, 0);
        return kLoadFailed;
    }
    const int status = lua_pcall(state, 0, LUA_MULTRET, 1);
    if (status != 0)
    {
        // The handler isn't called for these two: their message still has to reach the user.
        if (status == LUA_ERRMEM || status == LUA_ERRERR) ReportTopMessage(state);
        return kRunFailed;
    }
    return lua_type(state, 2) == LUA_TNUMBER ? ToResult(lua_tonumber(state, 2)) : 0;
}

int32_t RunScriptUnguarded(char *fileName, char **arguments)
{
    StatePtr state(luaL_newstate());
    if (!state)
    {
        fputs("not enough memory for a Lua state\n", stderr);
        return kLoadFailed;
    }
    lua_State *L = state.get();
    if (lua_cpcall(L, PrepareState, arguments) != 0)
    {
        ReportTopMessage(L);
        return kLoadFailed;
    }
    lua_settop(L, 0);
    lua_pushcfunction(L, ReportToStderr);
    return RunFile(L, fileName);
}

} // namespace

int32_t RunScript(char *fileName, char **arguments)
{
    // The loader would read a missing name as "standard input": a stand-alone run takes only files.
    if (fileName == nullptr)
    {
        fputs("RunScript: no script file name given\n", stderr);
        return kLoadFailed;
    }
    try
    {
        return RunScriptUnguarded(fileName, arguments);
    }
    catch (...)
    {
        fputs("RunScript: unexpected failure\n", stderr);
        return kRunFailed;
    }
}

int ltraceback(lua_State *state)
{
    return Traceback(state);
}
