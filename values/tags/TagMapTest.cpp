// Tests of tag maps: scriptval_maptags row kinds (plain by tag type, boolean, enumeration, object),
// the nested tables that override earlier rows, and MapTag's deep copies.

#include "values/tags/TagMap.h"

#include <gtest/gtest.h>

namespace orvexScript
{
namespace
{

constexpr Tag TI_Width = TAG_INT | 1;
constexpr Tag TD_Weight = TAG_DOUBLE | 2;
constexpr Tag TS_Title = TAG_STRING | 3;
constexpr Tag TID_Kind = TAG_ID | 4;
constexpr Tag TI_Visible = TAG_INT | 5;
constexpr Tag TI_Align = TAG_INT | 6;
constexpr Tag TO_Parent = TAG_OBJECT | 7;
constexpr Tag TP_User = TAG_PTR | 8;
constexpr Tag TS_Flag = TAG_STRING | 9;
constexpr Tag TI_Item = TAG_INT | TAG_REPEATABLE | 10;

const TagEnum kAlign[] = {{0, "Align"}, {1, "Left"}, {2, "Center"}, {3, "Right"}, {0, nullptr}};

const TagMapEntry kEntries[] = {
    {"Width", TI_Width, TMK_Plain, nullptr, nullptr},
    {"Weight", TD_Weight, TMK_Plain, nullptr, nullptr},
    {"Title", TS_Title, TMK_Plain, nullptr, nullptr},
    {"Kind", TID_Kind, TMK_Plain, nullptr, nullptr},
    {"Visible", TI_Visible, TMK_Boolean, nullptr, nullptr},
    {"Align", TI_Align, TMK_Enum, kAlign, nullptr},
    {"Parent", TO_Parent, TMK_Object, "Layout", nullptr},
    {"User", TP_User, TMK_Plain, nullptr, nullptr},
    {"Flag", TS_Flag, TMK_Boolean, nullptr, nullptr},
    {"Item", TI_Item, TMK_Plain, nullptr, nullptr},
    {nullptr, 0, 0, nullptr, nullptr},
};

ScriptVal Table()
{
    return ScriptVal(SV_Table, nullptr);
}

// Maps `table` into `tags` and gives `tags`.
TagList &Mapped(const ScriptVal &table, TagList &tags)
{
    EXPECT_EQ(scriptval_maptags(kEntries, true, table, tags), 0);
    return tags;
}

// The same into a temporary list, for a check within one expression.
TagList &Mapped(const ScriptVal &table, TagList &&tags = TagList())
{
    return Mapped(table, tags);
}

TEST(TagMap, PlainRowsConvertByTagTypeAndLeaveOutWhatDoesNotFit)
{
    ScriptVal t = Table();
    t["Width"] = "12.7"; // numeric strings go to int and double tags
    t["Weight"] = 0.25;
    t["Title"] = 2.5;    // a string tag takes a printed number
    t["Kind"] = "Group";
    t["User"] = 5;       // plain pointers and objects can't be given by a script
    t["Parent"] = 1;
    t["Unknown"] = 1;
    TagList tags;
    Mapped(t, tags);
    EXPECT_EQ(tags.GetInt(TI_Width, -1), 12);
    EXPECT_EQ(tags.GetDouble(TD_Weight), 0.25);
    EXPECT_STREQ(tags.GetString(TS_Title), "2.5");
    EXPECT_TRUE(tags.GetID(TID_Kind, KeID()) == "Group");
    EXPECT_EQ(tags.Find(TP_User), nullptr);
    EXPECT_EQ(tags.Find(TO_Parent), nullptr);

    ScriptVal u = Table();
    u["Width"] = -3.9;
    u["Weight"] = "1e3x";
    u["Title"] = true; // not a string or a number: left out
    u["Kind"] = 7;     // not a string: an empty identifier
    TagList other;
    Mapped(u, other);
    EXPECT_EQ(other.GetInt(TI_Width), -3);
    EXPECT_EQ(other.GetDouble(TD_Weight), 1000.0);
    EXPECT_EQ(other.Find(TS_Title), nullptr);
    ASSERT_NE(other.Find(TID_Kind), nullptr);
    EXPECT_TRUE(other.GetID(TID_Kind, KeID("x")).IsEmpty());

    ScriptVal v = Table();
    v["Width"] = true;
    EXPECT_TRUE(Mapped(v).IsEmpty());
}

// ---- booleans and enumerations ----------------------------------------------------------------

TEST(TagMap, BooleansComeFromNumbersAndBooleans)
{
    const std::pair<ScriptVal, long> cases[] = {
        {ScriptVal(true), 1}, {ScriptVal(false), 0}, {ScriptVal(0.0), 0},
        {ScriptVal(-0.5), 1}, {ScriptVal("yes"), 0},
    };
    for (const auto &[value, expected] : cases)
    {
        ScriptVal t = Table();
        t["Visible"] = value;
        TagList tags;
        Mapped(t, tags);
        EXPECT_EQ(tags.GetInt(TI_Visible, -1), expected);
    }
}

TEST(TagMap, BooleanRowOnAStringTagStoresNothing)
{
    ScriptVal t = Table();
    t["Flag"] = true; // a number in a string tag's word would be taken for a pointer
    EXPECT_EQ(Mapped(t).Find(TS_Flag), nullptr);
}

TEST(TagMap, EnumerationLabelsMatchCaseSensitivelyAndNeverTheEnumerationsName)
{
    const std::pair<const char *, long> hits[] = {{"Left", 1}, {"Right", 3}};
    for (const auto &[label, expected] : hits)
    {
        ScriptVal t = Table();
        t["Align"] = label;
        EXPECT_EQ(Mapped(t).GetInt(TI_Align, -1), expected);
    }
    for (const char *miss : {"nosuch", "left", "Align"})
    {
        ScriptVal t = Table();
        t["Align"] = miss;
        EXPECT_EQ(Mapped(t).Find(TI_Align), nullptr) << miss;
    }
}

// ---- nested groups ----------------------------------------------------------------------------

TEST(TagMap, NestedGroupsOverrideEarlierRowsAndStopAtTheFirstKeyThatIsNoTable)
{
    ScriptVal first = Table();
    first["Width"] = 2;
    ScriptVal third = Table();
    third["Width"] = 3;
    ScriptVal t = Table();
    t["Width"] = 1;
    t[1] = first;
    t[2] = "not a table";
    t[3] = third;
    EXPECT_EQ(Mapped(t).GetInt(TI_Width), 2);
}

TEST(TagMap, RepeatableTagsAccumulateAcrossGroups)
{
    ScriptVal group = Table();
    group["Item"] = 2;
    ScriptVal t = Table();
    t["Item"] = 1;
    t[1] = group;
    TagList tags;
    Mapped(t, tags);
    const Tag *first = tags.Find(TI_Item);
    ASSERT_NE(first, nullptr);
    const Tag *second = tags.FindNext(TI_Item, const_cast<Tag *>(first));
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(tags.GetLong(first), 1u);
    EXPECT_EQ(tags.GetLong(second), 2u);
}

// ---- MapTag -----------------------------------------------------------------------------------

TEST(MapTag, CopiesAndAssignmentsCopyChildrenDeeply)
{
    MapTag leaf = MapNumber("Width", TI_Width);
    MapTag group(SV_Table, "Size", 0);
    group.SetChildren(&leaf, 1);
    MapTag children[2] = {MapString("Title", TS_Title), group};
    MapTag root(SV_Table, "Root", 0);
    root.SetChildren(children, 2);

    MapTag copy(root);
    ASSERT_EQ(copy.m_NumChildren, 2);
    EXPECT_NE(copy.m_Children, root.m_Children);
    EXPECT_NE(copy.m_Children[1].m_Children, root.m_Children[1].m_Children);
    EXPECT_EQ(copy.m_Children[1].m_Children[0].m_Kind, SV_Number);
    EXPECT_EQ(copy.m_Children[1].m_Children[0].m_Tag, TI_Width);
    EXPECT_STREQ(copy.m_Children[0].m_Name, "Title");

    MapTag assigned = MapBoolean("Visible", TI_Visible);
    assigned = root;
    const MapTag &alias = assigned;
    assigned = alias; // self-assignment keeps the children
    ASSERT_EQ(assigned.m_NumChildren, 2);
    EXPECT_EQ(assigned.m_Children[1].m_NumChildren, 1);
    assigned = MapTag();
    EXPECT_EQ(assigned.m_Children, nullptr);
    EXPECT_EQ(assigned.m_NumChildren, 0);
}

} // namespace
} // namespace orvexScript
