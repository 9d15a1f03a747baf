// Tests of the name utilities: exact comparison, the reserved words, and reduction to an identifier.
#include "values/base/Names.h"

#include <gtest/gtest.h>

#include <string>

using namespace orvexScript;

TEST(CompareName, CaseCountsAndNullsOnlyMatchNulls)
{
    EXPECT_TRUE(CompareName("Abc", "Abc") && CompareName(nullptr, nullptr));
    EXPECT_FALSE(CompareName("Abc", "abc") || CompareName("Abc", "Abcd") || CompareName("", nullptr));
}

TEST(IsValidName, RejectsReservedWordsInAnyCaseAndNothingElse)
{
    const std::pair<const char *, bool> cases[] = {
        {"and", false},  {"WhIlE", false},   {"FUNCTION", false}, {"render", false}, {nullptr, false},
        {"ends", true},  {"renderer", true}, {"en", true},        {"", true},        {"2 things", true},
    };
    for (const auto &[name, valid] : cases)
        EXPECT_EQ(IsValidName(name), valid) << (name ? name : "(null)");
}

TEST(StripName, KeepsLettersOfAnyScriptUnderscoresAndLaterDigits)
{
    const std::pair<std::string, std::string> cases[] = {
        {"9lives!_2", "lives_2"}, {"123", ""}, {"_1", "_1"}, {"a b-c.d", "abcd"}, {"", ""},
        {"Gr\xC3\xB6\xC3\x9F" "e 1", "Gr\xC3\xB6\xC3\x9F" "e1"},         // German letters
        {"1\xE6\x97\xA5\xE6\x9C\xAC", "\xE6\x97\xA5\xE6\x9C\xAC"},       // CJK after a digit
        {"\xE2\x82\xAC" "x", "x"},                                       // the euro sign is no letter
        {"a\xC3" "b\xFF" "c\xC0\xAF", "abc"},                            // cut, invalid, overlong
        {"7a" + std::string(2500, 'a') + "#" + std::string(2497, 'a'), std::string(4998, 'a')},
    };
    for (const auto &[in, expected] : cases)
    {
        SCOPED_TRACE(in.substr(0, 20));
        std::string out(in.size() + 1, 'X');
        StripName(out.data(), in.c_str());
        EXPECT_EQ(std::string(out.c_str()), expected);
    }
    char out[4] = "XXX";
    StripName(out, nullptr);
    EXPECT_STREQ(out, "");
}
