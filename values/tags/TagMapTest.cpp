// Tests of tag maps: scriptval_maptags row kinds (plain by tag type, boolean, enumeration, object),
// the nested tables that override earlier rows, and MapTag's deep copies.

#include "values/tags/TagMap.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

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

// Maps {key = value} and tells what `tag` got as text: "-" when it was left out.
std::string MapOne(const char *key, const ScriptVal &value, Tag tag)
{
    ScriptVal t = Table();
    t[key] = value;
    TagList tags;
    Mapped(t, tags);
    std::ostringstream out;
    if (!tags.Find(tag))
        out << "-";
    else if (tag == TD_Weight)
        out << tags.GetDouble(tag);
    else if (tag == TS_Title || tag == TS_Flag)
        out << tags.GetString(tag);
    else if (tag == TID_Kind)
        out << "id:" << (tags.GetID(tag, KeID("x")).IsEmpty() ? "" : tags.GetID(tag, KeID("x")).Text());
    else
        out << tags.GetInt(tag, -1);
    return out.str();
}

// Plain rows convert by the tag's type and leave out what does not fit; booleans come from numbers
// and booleans; enumeration labels match case-sensitively and never the enumeration's own name.
TEST(TagMap, EachRowKindConvertsOrLeavesOut)
{
    const struct
    {
        const char *key;
        ScriptVal value;
        Tag tag;
        const char *expected;
    } cases[] = {
        {"Width", ScriptVal("12.7"), TI_Width, "12"}, // numeric strings go to int and double tags
        {"Width", ScriptVal(-3.9), TI_Width, "-3"},           {"Width", ScriptVal(true), TI_Width, "-"},
        {"Unknown", ScriptVal(1), TI_Width, "-"},            {"Weight", ScriptVal(0.25), TD_Weight, "0.25"},
        {"Weight", ScriptVal("1e3x"), TD_Weight, "1000"},
        {"Title", ScriptVal(2.5), TS_Title, "2.5"}, // a string tag takes a printed number
        {"Title", ScriptVal(true), TS_Title, "-"},
        {"Kind", ScriptVal("Group"), TID_Kind, "id:Group"},
        {"Kind", ScriptVal(7), TID_Kind, "id:"}, // not a string: an empty identifier
        {"User", ScriptVal(5), TP_User, "-"},     // plain pointers and objects can't be given by a script
        {"Parent", ScriptVal(1), TO_Parent, "-"},
        {"Visible", ScriptVal(true), TI_Visible, "1"},       {"Visible", ScriptVal(false), TI_Visible, "0"},
        {"Visible", ScriptVal(0.0), TI_Visible, "0"},        {"Visible", ScriptVal(-0.5), TI_Visible, "1"},
        {"Visible", ScriptVal("yes"), TI_Visible, "0"},
        {"Flag", ScriptVal(true), TS_Flag, "-"}, // a number in a string tag's word would be taken for a pointer
        {"Align", ScriptVal("Left"), TI_Align, "1"},         {"Align", ScriptVal("Right"), TI_Align, "3"},
        {"Align", ScriptVal("nosuch"), TI_Align, "-"},       {"Align", ScriptVal("left"), TI_Align, "-"},
        {"Align", ScriptVal("Align"), TI_Align, "-"},
    };
    for (const auto &c : cases)
    {
        SCOPED_TRACE(std::string(c.key) + " = " + (c.value.IsString() ? c.value.ToString() : "non-string"));
        EXPECT_EQ(MapOne(c.key, c.value, c.tag), c.expected);
    }
}

// ---- nested groups ----------------------------------------------------------------------------

// A group overrides earlier rows, while repeatable tags accumulate across groups.
TEST(TagMap, NestedGroupsOverrideEarlierRowsAndStopAtTheFirstKeyThatIsNoTable)
{
    ScriptVal t = Table();
    t["Width"] = 1;
    t["Item"] = 1;
    t[1] = SV_Table;
    t[1]["Width"] = 2;
    t[1]["Item"] = 2;
    t[2] = "not a table";
    t[3] = SV_Table;
    t[3]["Width"] = 3;
    TagList tags;
    EXPECT_EQ(Mapped(t, tags).GetInt(TI_Width), 2);
    const Tag *first = tags.Find(TI_Item);
    ASSERT_NE(first, nullptr);
    const Tag *second = tags.FindNext(TI_Item, const_cast<Tag *>(first));
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(tags.GetLong(first) * 10 + tags.GetLong(second), 12u);
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
    EXPECT_TRUE(copy.m_Children != root.m_Children && copy.m_Children[1].m_Children != root.m_Children[1].m_Children);
    const MapTag &deep = copy.m_Children[1].m_Children[0];
    EXPECT_TRUE(deep.m_Kind == SV_Number && deep.m_Tag == TI_Width);

    MapTag assigned = MapBoolean("Visible", TI_Visible);
    assigned = root;
    const MapTag &alias = assigned;
    assigned = alias; // self-assignment keeps the children
    ASSERT_EQ(assigned.m_NumChildren, 2);
    EXPECT_EQ(assigned.m_Children[1].m_NumChildren, 1);
    assigned = MapTag();
    EXPECT_TRUE(assigned.m_Children == nullptr && assigned.m_NumChildren == 0);
}

} // namespace
} // namespace orvexScript
