// Tests of the string hashes: known answers (the hash is part of the string block's definition, high
// bytes widened as signed), what the folded hash ignores, and what both of them hash.
#include "values/base/Hash.h"

#include <gtest/gtest.h>

#include <tuple>

using namespace orvexScript;

TEST(Hash, KnownAnswers)
{
    const std::tuple<const char *, uint32_t, uint32_t> cases[] = {
        {"Hello World", 0x53A33C09u, 0xEBF7C25Du},
        {"\xC3\xA9t\xC3\xA9", 0x21D92148u, 0x31F49971u},
        {"\xFF\x80", 0x07FFF87Fu, 0xFFFFFF80u},
        {"", 0u, 0u},
    };
    for (const auto &[text, folded, plain] : cases)
    {
        EXPECT_EQ(GetHashValue(text), folded) << text;
        EXPECT_EQ(gethash(text), plain) << text;
    }
}

TEST(Hash, FoldedHashIgnoresCaseAndHonoursLengthAndNothingHashesToZero)
{
    EXPECT_EQ(GetHashValue("MiXeD_123"), GetHashValue("mixed_123"));
    EXPECT_NE(GetHashValue("\xC3\x89"), GetHashValue("\xC3\xA9")); // only ASCII letters fold
    EXPECT_EQ(GetHashValue("abc"), GetHashValue("abcd", 3));
    EXPECT_NE(GetHashValue("a\0b", 3), GetHashValue("a", 1)); // a NUL inside the length is hashed
    EXPECT_NE(gethash("ABC"), gethash("abc"));
    for (uint32_t empty : {GetHashValue("abc", 0), GetHashValue("abc", -5), GetHashValue(nullptr, 3),
                           GetHashValue(nullptr), gethash(nullptr)})
        EXPECT_EQ(empty, 0u);
}
