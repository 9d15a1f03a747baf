// Tests of KeID: empty and plain forms, block sharing, search, groups, symbols, cutting, formatting
// and Strip.
#include <gtest/gtest.h>

#include <clocale>
#include <string>
#include <tuple>

#include "values/model/KeID.h"
#include "values/model/ScriptVal.h"
#include "values/base/StringBlock.h"

using namespace orvexScript;

TEST(KeID, NullAndEmptyForms)
{
    KeID none(nullptr);
    KeID empty("");
    EXPECT_FALSE(none.IsValid());
    EXPECT_TRUE(none.IsEmpty());
    EXPECT_TRUE(empty.IsValid());
    EXPECT_TRUE(empty.IsEmpty());
    EXPECT_TRUE(none == nullptr);
    EXPECT_TRUE(empty == nullptr);
    EXPECT_TRUE(none == "");
    EXPECT_EQ(none.GetLength(), 0);
    EXPECT_EQ(none.GetHashValue(), 0u);
    EXPECT_FALSE(none.IsValidSymbol());
    EXPECT_TRUE(NOID.IsEmpty());
}

TEST(KeID, CopiesShareBlocksAndPlainTextsStayPlain)
{
    const char *literal = "literal";
    KeID plain(literal, false);
    EXPECT_EQ(plain.Raw(), literal);
    KeID copied(literal);
    EXPECT_NE(copied.Raw(), literal);
    EXPECT_EQ(StringBlockCount(copied.Raw()), 1);
    {
        KeID shared(copied);
        KeID assigned;
        assigned = shared;
        const KeID &alias = assigned;
        assigned = alias;
        EXPECT_EQ(StringBlockCount(copied.Raw()), 3);
        ScriptVal v(shared);
        EXPECT_EQ(v.m_Value.m_String.m_String, copied.Raw());
        EXPECT_EQ(v.m_Value.m_String.m_Hash, copied.GetHashValue());
    }
    EXPECT_EQ(StringBlockCount(copied.Raw()), 1);
    copied.Set(copied.Text(), true); // from its own text: made before the old block goes
    EXPECT_STREQ(copied, "literal");
    KeID cut(copied.Raw(), 3);
    EXPECT_STREQ(cut, "lit");
    KeID padded("ab", 5);
    EXPECT_EQ(padded.GetLength(), 2);
}

TEST(KeID, JoiningForms)
{
    EXPECT_STREQ(KeID("a", "b"), "ab");
    EXPECT_FALSE(KeID(nullptr, "b").IsValid());
    EXPECT_STREQ(KeID("a", static_cast<const char *>(nullptr)), "a");
    KeID id("x");
    EXPECT_STREQ(id + ".y", "x.y");
    EXPECT_STREQ("w." + id, "w.x");
    EXPECT_STREQ(id + KeID("z"), "xz");
    id += "!";
    EXPECT_STREQ(id, "x!");
    EXPECT_STREQ(KeID() + "t", "t");
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
    EXPECT_EQ(KeID().ReverseFind('a', -1), -1);
    EXPECT_EQ(KeID().ReverseFind('a', 0), -1);
}

TEST(KeID, GroupsAndSymbols)
{
    const std::tuple<const char *, const char *, bool> inGroup[] = {
        {"a.b", "a", true}, {"a.b", "a.", true}, {"a.b", "ab", false}, {"abc", "a", false},
        {"a", "a", true},   {"a.b", nullptr, false},
    };
    for (const auto &[id, group, expected] : inGroup)
        EXPECT_EQ(KeID(id).IsInGroup(group), expected) << id << " in " << (group ? group : "(null)");
    EXPECT_TRUE(KeID("a.b").IsInGroup());
    EXPECT_FALSE(KeID("ab").IsInGroup());
    EXPECT_TRUE(KeID("a.b.c").IsSameGroup("a.b.d"));
    EXPECT_FALSE(KeID("a.b.c").IsSameGroup("a.x.d"));
    EXPECT_TRUE(KeID("a").IsSameGroup("b"));
    EXPECT_FALSE(KeID("a.b").IsSameGroup("b"));

    for (const char *valid : {"a.b", "_", "x"})
        EXPECT_TRUE(KeID(valid).IsValidSymbol()) << valid;
    for (const char *invalid : {"a..b", "a.", "1a", "a.1", "a b"})
        EXPECT_FALSE(KeID(invalid).IsValidSymbol()) << invalid;
}

TEST(KeID, MidAndLeft)
{
    KeID id("abc");
    EXPECT_STREQ(id.Mid(1, 100), "bc");
    EXPECT_TRUE(id.Mid(3, 1).IsEmpty());
    EXPECT_STREQ(id.Mid(1, -1), "bc");
    EXPECT_STREQ(id.Left(-1), "abc");
    EXPECT_STREQ(id.Left(10), "abc");
    EXPECT_TRUE(KeID().Left(2).IsEmpty());
    EXPECT_NE(id.Left(3).Raw(), id.Raw()); // always a new block
}

TEST(KeID, PrintFAndCatFHaveNoLengthLimit)
{
    KeID id("old");
    id.PrintF("%s-%d", "n", 42);
    EXPECT_STREQ(id, "n-42");
    id.CatF("/%03d", 7);
    EXPECT_STREQ(id, "n-42/007");
    std::string longText(5000, 'q');
    id.PrintF("%s", longText.c_str());
    EXPECT_EQ(id.GetLength(), 5000);
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
