// Tests of the smart string order: numbers by value after a shared character, case ignored, and the
// wide form agreeing with the narrow one.
#include "values/base/Collate.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

using namespace orvexScript;

TEST(SmartCollation, NumbersAfterASharedCharacterCompareByValue)
{
    EXPECT_LT(stricoll_smart("file9", "file10"), 0);
    EXPECT_GT(stricoll_smart("file10", "file9"), 0);
    EXPECT_EQ(stricoll_smart("a007b", "a7b"), 0);
    EXPECT_EQ(stricoll_smart("Img2", "img02"), 0);
    EXPECT_LT(stricoll_smart("v1.9.2", "v1.10.0"), 0);
    EXPECT_LT(stricoll_smart("x2y3", "x2y20"), 0);
}

TEST(SmartCollation, LeadingNumbersAndEndsFallBackToCollation)
{
    EXPECT_GT(stricoll_smart("9", "10"), 0); // the first characters differ: no number comparison
    EXPECT_LT(stricoll_smart("a", "a1"), 0);
    EXPECT_LT(stricoll_smart("", "a"), 0);
    EXPECT_EQ(stricoll_smart("", ""), 0);
    EXPECT_LT(stricoll_smart("abc", "ABD"), 0);
    EXPECT_EQ(stricoll_smart("ABC", "abc"), 0);
    EXPECT_LT(stricoll_smart(nullptr, ""), 0);
    EXPECT_EQ(stricoll_smart(nullptr, nullptr), 0);
}

TEST(SmartCollation, RunsBeyondThirtyTwoBitsStillCompareByMagnitude)
{
    EXPECT_GT(stricoll_smart("x4294967296", "x4294967295"), 0);
    EXPECT_LT(stricoll_smart("x99999999999999999999", "x100000000000000000000"), 0);
    EXPECT_EQ(stricoll_smart("x000099999999999999999999", "x99999999999999999999"), 0);
    EXPECT_LT(stricoll_smart("x2147483647", "x2147483648"), 0);
    EXPECT_GT(stricoll_smart("x2147483647", "x0"), 0);
}

TEST(SmartCollation, NonAsciiLettersFoldCase)
{
    EXPECT_EQ(stricoll_smart("\xC3\x84pfel2", "\xC3\xA4PFEL02"), 0); // Ä / ä
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
