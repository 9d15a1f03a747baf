// Tests of KeID: empty and plain forms, block sharing, search, groups, symbols, cutting, formatting
// and Strip.
#include <gtest/gtest.h>

#include <clocale>
#include <string>
#include <tuple>

#include "values/base/StringBlock.h"
#include "values/model/KeID.h"

using namespace orvexScript;

TEST(KeID, NullAndEmptyForms)
{
    KeID none(nullptr), empty("");
    EXPECT_TRUE(!none.IsValid() && none.IsEmpty() && none == nullptr && none == "");
    EXPECT_TRUE(empty.IsValid() && empty.IsEmpty() && empty == nullptr && NOID.IsEmpty());
    EXPECT_TRUE(none.GetLength() == 0 && none.GetHashValue() == 0u && !none.IsValidSymbol());
}

TEST(KeID, CopiesShareBlocksAndPlainTextsStayPlain)
{
    const char *literal = "literal";
    KeID plain(literal, false), copied(literal);
    EXPECT_TRUE(plain.Raw() == literal && copied.Raw() != literal);
    EXPECT_EQ(StringBlockCount(copied.Raw()), 1);
    {
        KeID shared(copied), assigned;
        assigned = shared;
        const KeID &alias = assigned;
        assigned = alias;
        EXPECT_EQ(StringBlockCount(copied.Raw()), 3);
    }
    EXPECT_EQ(StringBlockCount(copied.Raw()), 1);
    copied.Set(copied.Text(), true); // from its own text: made before the old block goes
    EXPECT_STREQ(copied, "literal");
    EXPECT_STREQ(KeID(copied.Raw(), 3), "lit");
    EXPECT_EQ(KeID("ab", 5).GetLength(), 2);
}

// Joining, cutting and formatting: each form against the text it gives.
TEST(KeID, JoiningCuttingAndFormatting)
{
    KeID id("x"), abc("abc"), appended("x"), printed("old");
    appended += "!";
    printed.PrintF("%s-%d", "n", 42);
    printed.CatF("/%03d", 7);
    const std::pair<KeID, const char *> cases[] = {
        {KeID("a", "b"), "ab"}, {KeID("a", static_cast<const char *>(nullptr)), "a"},
        {id + ".y", "x.y"},     {"w." + id, "w.x"},                {id + KeID("z"), "xz"},
        {appended, "x!"},       {KeID() + "t", "t"},               {abc.Mid(1, 100), "bc"},
        {abc.Mid(3, 1), ""},    {abc.Mid(1, -1), "bc"},            {abc.Left(-1), "abc"},
        {abc.Left(10), "abc"},  {KeID().Left(2), ""},              {printed, "n-42/007"},
    };
    for (const auto &[got, expected] : cases)
        EXPECT_STREQ(got.IsEmpty() ? "" : got.Text(), expected);
    EXPECT_FALSE(KeID(nullptr, "b").IsValid());
    EXPECT_NE(abc.Left(3).Raw(), abc.Raw()); // always a new block
    printed.PrintF("%s", std::string(5000, 'q').c_str()); // no length limit
    EXPECT_EQ(printed.GetLength(), 5000);
}

TEST(KeID, FindAndReverseFindBounds)
{
    KeID id("abcab");
    struct Case
    {
        bool reverse;
        char c;
        int from, expected;
    };
    const Case cases[] = {
        {false, 'b', 0, 1},  {false, 'b', 2, 4},  {false, 'b', -1, -1}, {false, 'a', 5, -1},
        {true, 'a', -1, 3},  {true, 'a', 2, 0},   {true, 'a', 5, 3}, // the end itself is no bound
        {true, 'a', 6, -1},  {true, 'a', -2, -1},
    };
    for (const Case &c : cases)
    {
        SCOPED_TRACE(std::string(c.reverse ? "ReverseFind " : "Find ") + c.c + " " + std::to_string(c.from));
        EXPECT_EQ(c.reverse ? id.ReverseFind(c.c, c.from) : id.Find(c.c, c.from), c.expected);
    }
    EXPECT_TRUE(KeID().ReverseFind('a', -1) == -1 && KeID().ReverseFind('a', 0) == -1);
}

TEST(KeID, GroupsAndSymbols)
{
    const std::tuple<const char *, const char *, bool> inGroup[] = {
        {"a.b", "a", true}, {"a.b", "a.", true}, {"a.b", "ab", false}, {"abc", "a", false},
        {"a", "a", true},   {"a.b", nullptr, false},
    };
    for (const auto &[id, group, expected] : inGroup)
        EXPECT_EQ(KeID(id).IsInGroup(group), expected) << id << " in " << (group ? group : "(null)");
    EXPECT_TRUE(KeID("a.b").IsInGroup() && !KeID("ab").IsInGroup());
    EXPECT_TRUE(KeID("a.b.c").IsSameGroup("a.b.d") && KeID("a").IsSameGroup("b"));
    EXPECT_FALSE(KeID("a.b.c").IsSameGroup("a.x.d") || KeID("a.b").IsSameGroup("b"));

    for (const char *valid : {"a.b", "_", "x"})
        EXPECT_TRUE(KeID(valid).IsValidSymbol()) << valid;
    for (const char *invalid : {"a..b", "a.", "1a", "a.1", "a b"})
        EXPECT_FALSE(KeID(invalid).IsValidSymbol()) << invalid;
}

// The letter rules are StripName's; KeID adds the null form and independence from the process locale.
TEST(KeID, StripIgnoresTheProcessLocale)
{
    EXPECT_STREQ(KeID("9 Lives!").Strip(), "Lives");
    EXPECT_TRUE(KeID().Strip().IsEmpty());
    const char *before = std::setlocale(LC_ALL, nullptr);
    std::string saved = before ? before : "C";
    std::setlocale(LC_ALL, "C");
    EXPECT_STREQ(KeID("\xC3\xA9t\xC3\xA9").Strip(), "\xC3\xA9t\xC3\xA9");
    std::setlocale(LC_ALL, saved.c_str());
}
