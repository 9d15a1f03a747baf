// Tests of KeID: empty and plain forms, block sharing, search, groups, symbols, cutting, formatting
// and Strip.
#include <gtest/gtest.h>

#include <clocale>
#include <string>

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
    EXPECT_STREQ(ROID_ZYX, "ZYX");
    EXPECT_STREQ(ROID_WUV, "WUV");
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
    EXPECT_EQ(id.Find('b'), 1);
    EXPECT_EQ(id.Find('b', 2), 4);
    EXPECT_EQ(id.Find('b', -1), -1);
    EXPECT_EQ(id.Find('a', 5), -1);
    EXPECT_EQ(id.ReverseFind('a', -1), 3);
    EXPECT_EQ(id.ReverseFind('a', 2), 0);
    EXPECT_EQ(id.ReverseFind('a', 5), 3); // the end itself is no bound: only past it
    EXPECT_EQ(id.ReverseFind('a', 6), -1);
    EXPECT_EQ(id.ReverseFind('a', -2), -1);
    EXPECT_EQ(KeID().ReverseFind('a', -1), -1);
    EXPECT_EQ(KeID().ReverseFind('a', 0), -1);
}

TEST(KeID, Groups)
{
    EXPECT_TRUE(KeID("a.b").IsInGroup());
    EXPECT_FALSE(KeID("ab").IsInGroup());
    EXPECT_TRUE(KeID("a.b").IsInGroup("a"));
    EXPECT_TRUE(KeID("a.b").IsInGroup("a."));
    EXPECT_FALSE(KeID("a.b").IsInGroup("ab"));
    EXPECT_FALSE(KeID("abc").IsInGroup("a"));
    EXPECT_TRUE(KeID("a").IsInGroup("a"));
    EXPECT_FALSE(KeID("a.b").IsInGroup(nullptr));
    EXPECT_TRUE(KeID("a.b.c").IsSameGroup("a.b.d"));
    EXPECT_FALSE(KeID("a.b.c").IsSameGroup("a.x.d"));
    EXPECT_TRUE(KeID("a").IsSameGroup("b"));
    EXPECT_FALSE(KeID("a.b").IsSameGroup("b"));
}

TEST(KeID, ValidSymbols)
{
    EXPECT_TRUE(KeID("a.b").IsValidSymbol());
    EXPECT_FALSE(KeID("a..b").IsValidSymbol());
    EXPECT_FALSE(KeID("a.").IsValidSymbol());
    EXPECT_FALSE(KeID("1a").IsValidSymbol());
    EXPECT_TRUE(KeID("_").IsValidSymbol());
    EXPECT_TRUE(KeID("x").IsValidSymbol());
    EXPECT_FALSE(KeID("a.1").IsValidSymbol());
    EXPECT_FALSE(KeID("a b").IsValidSymbol());
}

TEST(KeID, MidAndLeft)
{
    KeID id("abc");
    EXPECT_STREQ(id.Mid(1, 100), "bc");
    EXPECT_TRUE(id.Mid(3, 1).IsEmpty());
    EXPECT_STREQ(id.Mid(1, -1), "bc");
    EXPECT_STREQ(id.Mid(0, 2), "ab");
    EXPECT_STREQ(id.Left(2), "ab");
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

TEST(KeID, StripKeepsLettersOfAnyScript)
{
    EXPECT_STREQ(KeID("9 Lives!").Strip(), "Lives");
    EXPECT_STREQ(KeID("a-1").Strip(), "a1");
    EXPECT_TRUE(KeID("123").Strip().IsEmpty());
    EXPECT_TRUE(KeID().Strip().IsEmpty());
    EXPECT_STREQ(KeID("_x 9").Strip(), "_x9");
    EXPECT_STREQ(KeID("Gr\xC3\xBC\xC3\x9F" "e 2!").Strip(), "Gr\xC3\xBC\xC3\x9F" "e2");
    EXPECT_STREQ(KeID("\xCE\xB1\xCE\xB2-\xE2\x82\xAC").Strip(), "\xCE\xB1\xCE\xB2"); // the euro sign goes
    std::string longName(300, 'x');
    longName += "!1";
    EXPECT_EQ(KeID(longName.c_str()).Strip().GetLength(), 301);
    // The process locale does not change what counts as a letter.
    const char *before = std::setlocale(LC_ALL, nullptr);
    std::string saved = before ? before : "C";
    std::setlocale(LC_ALL, "C");
    EXPECT_STREQ(KeID("\xC3\xA9t\xC3\xA9").Strip(), "\xC3\xA9t\xC3\xA9");
    std::setlocale(LC_ALL, saved.c_str());
}
