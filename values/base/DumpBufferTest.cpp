// Tests of lf_Buffer's growth rule. A real lua_dump through its writer is tested in languages/lua.
#include "values/base/DumpBuffer.h"

#include <gtest/gtest.h>

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
