// Tests of the name utilities: exact comparison, the reserved words, and reduction to an identifier.
#include "values/base/Names.h"

#include <gtest/gtest.h>

#include <string>

using namespace orvexScript;

static std::string Strip(const char *in)
{
    std::string out(in ? std::string(in).size() + 1 : 1, 'X');
    StripName(out.data(), in);
    return out.c_str();
}

TEST(CompareName, CaseCountsAndNullsOnlyMatchNulls)
{
    EXPECT_TRUE(CompareName("Abc", "Abc"));
    EXPECT_FALSE(CompareName("Abc", "abc"));
    EXPECT_FALSE(CompareName("Abc", "Abcd"));
    EXPECT_TRUE(CompareName(nullptr, nullptr));
    EXPECT_FALSE(CompareName("", nullptr));
}

TEST(IsValidName, ReservedWordsAreRejectedInAnyCase)
{
    const char *reserved[] = {"and",      "break", "do",   "else",  "elseif", "end",   "false", "for",
                              "function", "if",    "in",   "local", "nil",    "not",   "or",    "repeat",
                              "return",   "then",  "true", "until", "while",  "render"};
    for (const char *word : reserved)
    {
        std::string upper(word);
        for (char &c : upper)
            c = static_cast<char>(c - 32);
        EXPECT_FALSE(IsValidName(word)) << word;
        EXPECT_FALSE(IsValidName(upper.c_str())) << upper;
    }
    EXPECT_FALSE(IsValidName("WhIlE"));
    EXPECT_FALSE(IsValidName(nullptr));
}

TEST(IsValidName, TestsNothingButTheReservedWords)
{
    EXPECT_TRUE(IsValidName("2 things"));
    EXPECT_TRUE(IsValidName(""));
    EXPECT_TRUE(IsValidName("ends")); // a reserved word as a prefix
    EXPECT_TRUE(IsValidName("renderer"));
    EXPECT_TRUE(IsValidName("en")); // a prefix of a reserved word
}

TEST(StripName, KeepsLettersUnderscoresAndDigitsAfterTheFirstKept)
{
    EXPECT_EQ(Strip("9lives!_2"), "lives_2");
    EXPECT_EQ(Strip("123"), "");
    EXPECT_EQ(Strip("_1"), "_1");
    EXPECT_EQ(Strip("a b-c.d"), "abcd");
    EXPECT_EQ(Strip(""), "");
    EXPECT_EQ(Strip(nullptr), "");
}

TEST(StripName, KeepsLettersOfAnyScriptAndDropsBrokenBytes)
{
    EXPECT_EQ(Strip("Gr\xC3\xB6\xC3\x9F"
                    "e 1"),
              "Gr\xC3\xB6\xC3\x9F"
              "e1");                                                           // German letters
    EXPECT_EQ(Strip("1\xE6\x97\xA5\xE6\x9C\xAC"), "\xE6\x97\xA5\xE6\x9C\xAC"); // CJK after a digit
    EXPECT_EQ(Strip("\xE2\x82\xAC"
                    "x"),
              "x"); // the euro sign is no letter
    EXPECT_EQ(Strip("a\xC3"
                    "b\xFF"
                    "c\xC0\xAF"),
              "abc"); // cut, invalid, overlong
}

TEST(StripName, LongNamesNeedNoSpecialCase)
{
    std::string in(5000, 'a');
    in[0] = '7';
    in[2500] = '#';
    std::string expected(4998, 'a');
    EXPECT_EQ(Strip(in.c_str()), expected);
}
