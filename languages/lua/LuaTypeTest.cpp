// Tests of the descriptor record: the root descriptor LuaClass::s_LuaType as the library makes it, and
// a descriptor's place in the list and the hashes of its rows.
#include "languages/lua/LuaType.h"

#include <gtest/gtest.h>

#include "values/base/Hash.h"
#include "values/model/ScriptVal.h"

namespace orvexScript
{
namespace
{

bool Listed(const _LuaType *type)
{
    for (const _LuaType *t = g_LuaTypeList; t; t = t->m_Next)
        if (t == type) return true;
    return false;
}

TEST(LuaType, RootDescriptorIsLuaClassWithNoParentAndAnEmptyTable)
{
    const LuaType &root = LuaClass::s_LuaType;
    EXPECT_STREQ(root.m_Name, "LuaClass");
    EXPECT_EQ(root.m_Parent, nullptr);
    ASSERT_NE(root.m_Table, nullptr);
    EXPECT_TRUE(root.m_Table->IsTable());
    EXPECT_TRUE(root.m_Table->IsEmpty());
    EXPECT_TRUE(Listed(&root));
}

TEST(LuaType, DescriptorHashesItsRowsAndLeavesTheListWhenDestroyed)
{
    LuaFuncTable functions[] = {
        {"SetTimeout", nullptr, 0}, {"GetTimeout", nullptr, 0}, {nullptr, nullptr, 0}};
    LuaMemberTable members[] = {{"UseCount", nullptr, 0}, {nullptr, nullptr, 0}};
    {
        LuaType type("Probe", &LuaClass::s_LuaType, functions, members, 1, 2);
        EXPECT_EQ(g_LuaTypeList, &type);
    }
    EXPECT_EQ(functions[1].hash, gethash("GetTimeout"));
    EXPECT_EQ(members[0].hash, gethash("UseCount"));
    EXPECT_TRUE(Listed(&LuaClass::s_LuaType));
    EXPECT_STRNE(g_LuaTypeList->m_Name, "Probe");
}

} // namespace
} // namespace orvexScript
