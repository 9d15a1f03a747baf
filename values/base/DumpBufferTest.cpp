// Tests of lf_Buffer: its growth rule, and a real lua_dump through its writer loading back.
#include "values/base/DumpBuffer.h"

#include <gtest/gtest.h>
#include <lua.hpp>

#include <string>

using namespace orvexScript;

TEST(DumpBuffer, GrowSetsExactlyTheLargerSizeOnly)
{
    lf_Buffer buffer;
    ASSERT_TRUE(buffer.Grow(100));
    EXPECT_EQ(buffer.m_Capacity, 100);
    ASSERT_TRUE(buffer.Grow(50));
    EXPECT_EQ(buffer.m_Capacity, 100);
    EXPECT_EQ(buffer.m_Length, 0);
}

TEST(DumpBuffer, AppendStartsAtThirtyTwoAndDoubles)
{
    lf_Buffer buffer;
    ASSERT_TRUE(buffer.Append("", 0));
    EXPECT_EQ(buffer.m_Data, nullptr); // an empty write allocates nothing
    ASSERT_TRUE(buffer.Append(std::string(10, 'a').data(), 10));
    EXPECT_EQ(buffer.m_Capacity, 32);
    ASSERT_TRUE(buffer.Append(std::string(30, 'b').data(), 30));
    EXPECT_EQ(buffer.m_Capacity, 64);
    ASSERT_TRUE(buffer.Append(std::string(100, 'c').data(), 100));
    EXPECT_EQ(buffer.m_Capacity, 256);
    EXPECT_EQ(buffer.m_Length, 140);
    EXPECT_EQ(std::string(buffer.m_Data, 140),
              std::string(10, 'a') + std::string(30, 'b') + std::string(100, 'c'));
}

TEST(DumpBuffer, TakesALuaDumpThatLoadsBack)
{
    lua_State *state = luaL_newstate();
    ASSERT_NE(state, nullptr);
    ASSERT_EQ(luaL_loadstring(state, "local t = {} for i = 1, 10 do t[i] = i * i end return t[7] + 0.5"), 0);
    lf_Buffer buffer;
    ASSERT_EQ(lua_dump(state, lf_Buffer::Writer, &buffer), 0);
    EXPECT_GT(buffer.m_Length, 0);
    lua_settop(state, 0);
    ASSERT_EQ(luaL_loadbuffer(state, buffer.m_Data, static_cast<size_t>(buffer.m_Length), "dumped"), 0);
    ASSERT_EQ(lua_pcall(state, 0, 1, 0), 0);
    EXPECT_EQ(lua_tonumber(state, -1), 49.5);
    lua_close(state);
}
