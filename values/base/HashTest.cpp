// Tests of the string hashes against a plain transcription of their two step orders.
#include "values/base/Hash.h"

#include <gtest/gtest.h>

#include <string>

using namespace orvexScript;

// The hash written out straight from its definition: `folded` chooses the folded order and case.
static uint32_t ReferenceHash(const std::string &bytes, bool folded)
{
    uint32_t h = 0;
    for (size_t i = 0; i < bytes.size(); ++i)
    {
        signed char byte = static_cast<signed char>(bytes[i]);
        if (folded && byte >= 'A' && byte <= 'Z') byte = static_cast<signed char>(byte + 32);
        uint32_t c = static_cast<uint32_t>(static_cast<int32_t>(byte));
        bool shortStep = folded ? (i % 2 == 0) : (i % 2 == 1);
        h = shortStep ? h ^ (h << 7) ^ c ^ (h >> 3) : h ^ ~((h << 11) ^ c ^ (h >> 5));
    }
    return h;
}

TEST(Hash, MatchesTheDefinitionIncludingHighBytes)
{
    for (const char *text : {"a", "ab", "Hello World", "\xC3\xA9t\xC3\xA9", "MiXeD_Case_123", "\xFF\x80"})
    {
        EXPECT_EQ(GetHashValue(text), ReferenceHash(text, true)) << text;
        EXPECT_EQ(gethash(text), ReferenceHash(text, false)) << text;
    }
}

TEST(Hash, FoldedHashIgnoresCaseAndHonoursLength)
{
    EXPECT_EQ(GetHashValue("ABC"), GetHashValue("abc"));
    EXPECT_EQ(GetHashValue("abc"), GetHashValue("abcd", 3));
    EXPECT_NE(GetHashValue("a\0b", 3), GetHashValue("a", 1)); // a NUL inside the length is hashed
    EXPECT_EQ(GetHashValue("a\0b", 3), ReferenceHash(std::string("a\0b", 3), true));
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

TEST(Hash, PlainHashKeepsCaseAndDiffersFromFolded)
{
    EXPECT_NE(gethash("ABC"), gethash("abc"));
    EXPECT_NE(gethash("abc"), GetHashValue("abc"));
}
