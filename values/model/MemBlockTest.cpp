// Tests of MemBlock file reading and saving.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>

#include "testsupport/TestSupport.h"
#include "values/model/MemBlock.h"

using namespace orvexScript;

// A block saves and reads back byte for byte; failures leave nothing behind; an empty block saves an
// empty file, which reads back as no block.
TEST(MemBlock, SaveAndReadBackAFileAndFailuresLeaveNothing)
{
    orvexTest::TempDir dir;
    char bytes[] = {'a', 0, 'b', '\xFF'};
    ASSERT_TRUE(MemBlock(bytes, sizeof(bytes)).Save(dir.File("data").c_str()));
    MemBlock read(dir.File("data").c_str());
    ASSERT_NE(read.m_Ptr, nullptr);
    EXPECT_EQ(read.m_Size, sizeof(bytes));
    EXPECT_EQ(std::memcmp(read.m_Ptr, bytes, sizeof(bytes)), 0);
    std::free(read.m_Ptr);

    EXPECT_FALSE(MemBlock().Save(dir.File("none").c_str()));
    EXPECT_NE(access(dir.File("none").c_str(), F_OK), 0);
    EXPECT_FALSE(MemBlock(bytes, 1).Save((dir.Path() + "/no/such/dir").c_str()));
    EXPECT_TRUE(MemBlock(bytes, 0).Save(dir.File("zero").c_str()));
    EXPECT_EQ(orvexTest::ReadFile(dir.File("zero")), "");
    for (const std::string &path : {dir.File("missing"), dir.File("zero")})
    {
        MemBlock none(path.c_str());
        EXPECT_TRUE(none.m_Ptr == nullptr && none.m_Size == 0u) << path;
    }
}
