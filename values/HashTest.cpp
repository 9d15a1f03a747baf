// Tests of the string hashes: what the folded hash ignores and what both of them hash.
#include "values/Hash.h"

#include <gtest/gtest.h>

using namespace orvexScript;

TEST(Hash, FoldedHashIgnoresCaseAndHonoursLength)
{
    EXPECT_EQ(GetHashValue("MiXeD_123"), GetHashValue("mixed_123"));
    EXPECT_NE(GetHashValue("\xC3\x89"), GetHashValue("\xC3\xA9")); // only ASCII letters fold
    EXPECT_EQ(GetHashValue("abc"), GetHashValue("abcd", 3));
    EXPECT_NE(GetHashValue("a\0b", 3), GetHashValue("a", 1)); // a NUL inside the length is hashed
    EXPECT_NE(gethash("ABC"), gethash("abc"));
    EXPECT_NE(gethash("abc"), GetHashValue("abc"));
}

TEST(Hash, EmptyAndNullGiveZero)
{
    EXPECT_EQ(GetHashValue("abc", 0), 0u);
    EXPECT_EQ(GetHashValue("abc", -5), 0u);
    EXPECT_EQ(GetHashValue(nullptr, 3), 0u);
    EXPECT_EQ(GetHashValue(nullptr), 0u);
    EXPECT_EQ(GetHashValue(""), 0u);
    EXPECT_EQ(gethash(nullptr), 0u);
}
