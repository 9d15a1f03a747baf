// Tests of the exception guard of lua_CFunctions: C++ exceptions become Lua errors, Lua's own errors
// and normal results pass through unchanged.
#include "languages/lua/LuaGuard.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "testsupport/LuaState.h"

namespace
{

ORVEX_LUA_FUNCTION(ThrowsStd)
{
    throw std::runtime_error("disk on fire");
}

ORVEX_LUA_FUNCTION(ThrowsOther)
{
    throw 42;
}

ORVEX_LUA_FUNCTION(ChecksArgument)
{
    lua_pushinteger(L, luaL_checkinteger(L, 1) * 2);
    return 1;
}

// Many rounds: the state stays usable after many guarded errors.
TEST(LuaGuard, ExceptionsBecomeLuaErrorsAndTheRestPassesThrough)
{
    orvexTest::LuaState state;
    const struct
    {
        lua_CFunction function;
        const char *argument;
        int status;
        const char *result;
    } cases[] = {
        {ThrowsStd, "", LUA_ERRRUN, "disk on fire"},
        {ThrowsOther, "", LUA_ERRRUN, "C++ exception"},
        {ChecksArgument, "not a number", LUA_ERRRUN, "bad argument #1"},
        {ChecksArgument, "21", 0, "42"},
    };
    for (int round = 0; round < 40; ++round)
        for (const auto &c : cases)
        {
            lua_settop(state, 0);
            lua_pushcfunction(state, c.function);
            lua_pushstring(state, c.argument);
            ASSERT_EQ(c.status, lua_pcall(state, 1, 1, 0)) << c.result;
            const std::string top = lua_isstring(state, -1) ? lua_tostring(state, -1) : "(not a string)";
            ASSERT_NE(std::string::npos, top.find(c.result)) << top;
        }
}

} // namespace
