// Tests of lf_Buffer: a real lua_dump through its writer loads back and runs.
#include "values/DumpBuffer.h"

#include <gtest/gtest.h>

#include "testsupport/LuaState.h"

using namespace orvexScript;

TEST(DumpBuffer, TakesALuaDumpThatLoadsBack)
{
    orvexTest::LuaState state;
    ASSERT_EQ(luaL_loadstring(state, "local t = {} for i = 1, 100 do t[i] = i * i end return t[7] + 0.5"), 0);
    lf_Buffer buffer;
    ASSERT_EQ(lua_dump(state, lf_Buffer::Writer, &buffer), 0);
    EXPECT_GT(buffer.m_Length, 32); // more than the first allocation: the buffer grew on the way
    lua_settop(state, 0);
    ASSERT_EQ(luaL_loadbuffer(state, buffer.m_Data, static_cast<size_t>(buffer.m_Length), "dumped"), 0);
    ASSERT_EQ(lua_pcall(state, 0, 1, 0), 0);
    EXPECT_EQ(lua_tonumber(state, -1), 49.5);
}
