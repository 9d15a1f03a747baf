// Tests of MemBlock file reading and saving.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>

#include "testsupport/TestSupport.h"
#include "values/model/MemBlock.h"

using namespace orvexScript;

TEST(MemBlock, SaveAndReadBackAFile)
{
    orvexTest::TempDir dir;
    char bytes[] = {'a', 0, 'b', '\xFF'};
    MemBlock block(bytes, sizeof(bytes));
    ASSERT_TRUE(block.Save(dir.File("data").c_str()));
    MemBlock read(dir.File("data").c_str());
    ASSERT_NE(read.m_Ptr, nullptr);
    EXPECT_EQ(read.m_Size, sizeof(bytes));
    EXPECT_EQ(std::memcmp(read.m_Ptr, bytes, sizeof(bytes)), 0);
    std::free(read.m_Ptr);
}

TEST(MemBlock, FailuresLeaveNothingBehind)
{
    orvexTest::TempDir dir;
    char byteOut = 0;
    EXPECT_FALSE(MemBlock().Save(dir.File("none").c_str()));
    EXPECT_NE(access(dir.File("none").c_str(), F_OK), 0);
    EXPECT_FALSE(MemBlock(&byteOut, 1).Save((dir.Path() + "/no/such/dir").c_str()));

    for (const std::string &path : {dir.File("missing"), dir.Write("empty", "")})
    {
        MemBlock read(path.c_str());
        EXPECT_TRUE(read.m_Ptr == nullptr && read.m_Size == 0u) << path;
    }

    char byte = 'x';
    EXPECT_TRUE(MemBlock(&byte, 0).Save(dir.File("zero").c_str())); // an empty file
    EXPECT_EQ(orvexTest::ReadFile(dir.File("zero")), "");
}
