// Tests of the smart string order: numbers by value after a shared character, case ignored, and the
// wide form agreeing with the narrow one.
#include "values/Collate.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

using namespace orvexScript;

TEST(SmartCollation, NumbersAfterASharedCharacterCompareByValueTheRestByCollation)
{
    struct Case
    {
        const char *a, *b;
        int sign;
    };
    const Case cases[] = {
        {"file9", "file10", -1}, {"a007b", "a7b", 0}, {"Img2", "img02", 0}, {"v1.9.2", "v1.10.0", -1},
        {"x2y3", "x2y20", -1},   {"9", "10", 1}, // the first characters differ: no number comparison
        {"a", "a1", -1},         {"", "a", -1},  {"", "", 0},          {"abc", "ABD", -1},
        {"ABC", "abc", 0},       {nullptr, "", -1}, {nullptr, nullptr, 0},
        // Runs beyond 32 bits still compare by magnitude.
        {"x4294967296", "x4294967295", 1}, {"x99999999999999999999", "x100000000000000000000", -1},
        {"x000099999999999999999999", "x99999999999999999999", 0}, {"x2147483647", "x2147483648", -1},
        {"\xC3\x84pfel2", "\xC3\xA4PFEL02", 0}, // non-ASCII letters fold case
    };
    for (const Case &c : cases)
    {
        SCOPED_TRACE(std::string(c.a ? c.a : "(null)") + " vs " + (c.b ? c.b : "(null)"));
        const int got = stricoll_smart(c.a, c.b);
        EXPECT_EQ((got > 0) - (got < 0), c.sign);
        if (c.a && c.b)
        {
            const int back = stricoll_smart(c.b, c.a);
            EXPECT_EQ((back > 0) - (back < 0), -c.sign); // the order is antisymmetric
        }
    }
    EXPECT_NE(stricoll_smart("\xC3\xA4", "a"), 0);
    EXPECT_NE(stricoll_smart("a\xFF", "a\xFE"), 0); // broken bytes still differ
}

TEST(SmartCollation, WideFormMatchesNarrowForm)
{
    EXPECT_LT(wcsicoll_smart(L"file9", L"file10"), 0);
    EXPECT_GT(wcsicoll_smart(L"9", L"10"), 0);
    EXPECT_EQ(wcsicoll_smart(L"Img2", L"img02"), 0);
    EXPECT_LT(wcsicoll_smart(L"a", L"a1"), 0);
    EXPECT_EQ(wcsicoll_smart(L"\u00C4x", L"\u00E4X"), 0);
}

TEST(SmartCollation, SortsFileSequencesNaturally)
{
    std::vector<std::string> names = {"shot10.exr", "Shot2.exr", "shot1.exr", "shot100.exr", "shot009.exr"};
    std::sort(names.begin(), names.end(),
              [](const std::string &a, const std::string &b)
              { return stricoll_smart(a.c_str(), b.c_str()) < 0; });
    std::vector<std::string> expected = {"shot1.exr", "Shot2.exr", "shot009.exr", "shot10.exr",
                                         "shot100.exr"};
    EXPECT_EQ(names, expected);
}
