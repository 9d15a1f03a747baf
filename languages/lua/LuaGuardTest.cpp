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

ORVEX_LUA_FUNCTION(RaisesLuaError)
{
    return luaL_error(L, "lua says %d", 7);
}

ORVEX_LUA_FUNCTION(ChecksArgument)
{
    lua_pushinteger(L, luaL_checkinteger(L, 1) * 2);
    return 1;
}

class LuaGuardTest : public ::testing::Test
{
protected:
    // Calls `function` with `argument` under lua_pcall; gives the status and leaves the result on top.
    int Call(lua_CFunction function, const char *argument)
    {
        lua_settop(m_State, 0);
        lua_pushcfunction(m_State, function);
        lua_pushstring(m_State, argument);
        return lua_pcall(m_State, 1, 1, 0);
    }

    std::string Top() { return lua_isstring(m_State, -1) ? lua_tostring(m_State, -1) : "(not a string)"; }

    orvexTest::LuaState m_State;
};

TEST_F(LuaGuardTest, CppExceptionsBecomeLuaErrors)
{
    EXPECT_EQ(LUA_ERRRUN, Call(ThrowsStd, ""));
    EXPECT_EQ("disk on fire", Top());
    EXPECT_EQ(LUA_ERRRUN, Call(ThrowsOther, ""));
    EXPECT_EQ("C++ exception", Top());
}

TEST_F(LuaGuardTest, LuaErrorsAndResultsPassThrough)
{
    EXPECT_EQ(LUA_ERRRUN, Call(RaisesLuaError, ""));
    EXPECT_EQ("lua says 7", Top());
    EXPECT_EQ(LUA_ERRRUN, Call(ChecksArgument, "not a number"));
    EXPECT_NE(std::string::npos, Top().find("bad argument #1")) << Top();
    EXPECT_EQ(0, Call(ChecksArgument, "21"));
    EXPECT_EQ(42, lua_tointeger(m_State, -1));
}

TEST_F(LuaGuardTest, StateStaysUsableAfterManyGuardedErrors)
{
    for (int i = 0; i < 200; ++i)
    {
        ASSERT_EQ(LUA_ERRRUN, Call(i % 2 ? ThrowsStd : RaisesLuaError, ""));
    }
    EXPECT_EQ(0, Call(ChecksArgument, "1"));
}

} // namespace
