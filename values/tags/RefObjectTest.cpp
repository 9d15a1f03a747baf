// Tests of the object chain: use counts and the initial count, the information filter DoInfo, the
// memory dump entry, lw_safe_push, and RefObject's attribute readers and variadic packers.

#include <gtest/gtest.h>

#include <tuple>
#include <vector>

#include "testsupport/TestSupport.h"

#include "values/model/KeID.h"
#include "values/model/ScriptObject.h"
#include "values/model/ScriptVal.h"
#include "values/tags/TagList.h"

namespace orvexScript
{
namespace
{

constexpr Tag TI_Size = TAG_INT | 1;
constexpr Tag TD_Scale = TAG_DOUBLE | 1;
constexpr Tag TP_Data = TAG_PTR | 1;
constexpr Tag TID_Name = TAG_ID | 1;
constexpr Tag TM_Block = TAG_MEMBLOCK | 1;
constexpr Tag TS_Label = TAG_STRING | 1;

// An object whose attributes are held in a TagList, counting every CopyAttr call it gets.
class Attributed : public RefObject
{
public:
    bool SetAttrsTagList(const TagList &tags) override
    {
        m_Attrs.SetTags(&tags, true);
        return true;
    }
    bool CopyAttr(unsigned long long tag, void *out) const override
    {
        ++m_CopyCalls;
        return m_Attrs.Get(static_cast<Tag>(tag), out);
    }
    bool DoTagList(unsigned long cmd, TagList &tags) override
    {
        m_LastCmd = cmd;
        return tags.GetBool(TI_Size, false);
    }

    TagList m_Attrs;
    mutable int m_CopyCalls = 0;
    unsigned long m_LastCmd = 0;
};
using Counted = orvexTest::DestroyCounted<Attributed>;

TEST(RefObjectCount, UseAndRecycleDestroyAtZero)
{
    int destroyed = 0;
    auto *object = new Counted(&destroyed);
    EXPECT_EQ(object->GetUseCount(), 1);
    object->Use();
    object->OnAddToList(nullptr, nullptr, nullptr);
    EXPECT_EQ(object->GetUseCount(), 3);
    object->OnRemoveFromList(nullptr, nullptr, nullptr);
    object->Recycle();
    EXPECT_EQ(destroyed, 0);
    SafeUse(nullptr);
    SafeRecycle(nullptr);
    SafeRecycle(object);
    EXPECT_EQ(destroyed, 1);
}

TEST(RefObjectCount, InitialCountIsProcessWideAndCopiesStartThere)
{
    int destroyed = 0;
    SetInitUseCount(0);
    auto *object = new Counted(&destroyed);
    RefObject copyOfOther(*object);
    SetInitUseCount(1);
    EXPECT_TRUE(object->GetUseCount() == 0 && copyOfOther.GetUseCount() == 0);
    object->Use();
    object->Recycle();
    EXPECT_EQ(destroyed, 1);

    RefObject source;
    source.Use();
    RefObject copy(source);
    EXPECT_EQ(copy.GetUseCount(), 1); // not the source's 2
    _RemoveScriptObject(&copy, nullptr);
}

// A nil query lists the name and answers false; "*", the name itself or a table entry select it.
TEST(ScriptObjectInfo, QueriesSelectNamesAndOnlyANilQueryWritesTheListing)
{
    RefObject object;
    ScriptVal table(SV_Table, nullptr);
    table["UseCount"] = true;
    table["Off"] = false;
    const std::tuple<ScriptVal, const char *, bool> cases[] = {
        {ScriptVal("*"), "UseCount", true}, {ScriptVal("UseCount"), "UseCount", true},
        {ScriptVal("Other"), "UseCount", false}, {ScriptVal(3.0), "UseCount", false},
        {table, "UseCount", true},          {table, "Off", false},
    };
    for (const auto &[query, name, expected] : cases)
    {
        ScriptVal result;
        EXPECT_EQ(object.DoInfo(query, result, KeID(name)), expected) << name;
        EXPECT_TRUE(result.IsNil());
    }
    ScriptVal result;
    EXPECT_FALSE(object.DoInfo(nil, result, KeID("Colour")));
    EXPECT_TRUE(result["Colour"].ToBoolean(false));
    ScriptVal listing;
    object.GetObjectInfo(nil, listing);
    EXPECT_TRUE(listing["UseCount"].ToBoolean(false)); // listed, not valued
    EXPECT_FALSE(listing["UseCount"].IsNumber());
    object.Use();
    result = SV_Table;
    object.GetObjectInfo(ScriptVal("*"), result);
    EXPECT_EQ(result["UseCount"].ToNumber(-1), 2.0);
    object.Recycle();
}

std::vector<std::pair<const void *, size_t>> g_Included;
void RecordInclude(const void *address, size_t size)
{
    g_Included.emplace_back(address, size);
}

TEST(ScriptObjectDump, DumpsEachObjectOnceAndHonoursTheSkipFlag)
{
    g_Included.clear();
    SetIncludeMemoryHook(&RecordInclude);
    RefObject object;
    object.DumpMem(0);
    object.DumpMem(0);
    ASSERT_EQ(g_Included.size(), 1u);
    EXPECT_EQ(g_Included[0].first, static_cast<const void *>(&object));
    EXPECT_EQ(g_Included[0].second, sizeof(ScriptObject));

    RefObject skipped, unhooked;
    skipped.DumpMem(1);
    SetIncludeMemoryHook(nullptr);
    unhooked.DumpMem(0);
    EXPECT_EQ(g_Included.size(), 1u);
}

TEST(RefObjectAttrs, SetAttrsPacksVarArgsAndReadersGiveThemOrTheirDefaults)
{
    Attributed object;
    EXPECT_TRUE(object.GetAttrD(TD_Scale, 1.5) == 1.5 && object.GetAttrID(TID_Name, KeID("dflt")) == "dflt");

    int data = 0;
    KeID name("Widget");
    ASSERT_TRUE(object.SetAttrs(TI_Size, 12, TD_Scale, 0.5, TP_Data, &data, TID_Name, name.Raw(), TAG_DONE));
    EXPECT_TRUE(object.GetAttr(TI_Size) == 12u && object.GetAttrD(TD_Scale) == 0.5);
    EXPECT_TRUE(object.GetAttrPtr(TP_Data) == &data && object.GetAttrID(TID_Name) == "Widget");
    object.m_Attrs.Set(TI_Size, 0);
    EXPECT_FALSE(object.GetAttrB(TI_Size, true));
}

TEST(RefObjectAttrs, TwoWordTagsNeverReachCopyAttrAndDoPacksVarArgs)
{
    Attributed object;
    char bytes[] = {1, 2};
    object.m_Attrs.Set(TM_Block, MemBlock(bytes, 2));
    object.m_CopyCalls = 0;
    EXPECT_TRUE(object.GetAttr(TM_Block, 3) == 3u && object.GetAttrPtr(TM_Block, nullptr) == nullptr);
    EXPECT_TRUE(object.GetAttrD(TM_Block, 2.0) == 2.0 && !object.GetAttrB(TM_Block));
    EXPECT_EQ(object.m_CopyCalls, 0);

    // One-word tags of another kind do reach it: the readers compare widths only.
    object.m_Attrs.Set(TS_Label, "text");
    EXPECT_EQ(object.GetAttrPtr(TS_Label), object.m_Attrs.GetString(TS_Label));
    EXPECT_EQ(object.m_CopyCalls, 1);

    // Do packs its arguments for DoTagList.
    EXPECT_TRUE(object.Do(42, TI_Size, 1, TAG_DONE));
    EXPECT_EQ(object.m_LastCmd, 42u);
    EXPECT_FALSE(object.Do(43, TAG_DONE));
}

} // namespace
} // namespace orvexScript
