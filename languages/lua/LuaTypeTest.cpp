// Tests of the descriptor record: the root descriptor LuaClass::s_LuaType as the library makes it, and
// a descriptor's place in the list and the hashes of its rows.
#include "languages/lua/LuaType.h"

#include <gtest/gtest.h>
#include <lua.hpp>

#include "languages/lua/LuaBridge.h"
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

struct Counter
{
    double value;
};

int CounterValue(LuaType *, lua_State *state, void *object, LuaObject *, bool set)
{
    auto *counter = static_cast<Counter *>(object);
    if (set)
    {
        counter->value = lua_tonumber(state, 2);
        return 0;
    }
    lua_pushnumber(state, counter->value);
    return 1;
}

// The metamethods take a userdata as typed when it carries the metatable they were made for; what
// carries another one, or no userdata at all, still goes through the full test.
TEST(LuaType, MetamethodsServeTheirObjectsAndTestAnythingElse)
{
    LuaMemberTable rows[] = {{"value", CounterValue, 0}, {nullptr, nullptr, 0}};
    LuaType first("ProbeFirst", &LuaClass::s_LuaType, nullptr, rows, 0, 0);
    LuaType second("ProbeSecond", &LuaClass::s_LuaType, nullptr, rows, 0, 0);
    lua_State *L = luaL_newstate();
    ASSERT_NE(L, nullptr);
    luaL_openlibs(L);
    OpenMemBlock(L);
    first.lw_register(L);
    second.lw_register(L);
    Counter a{1}, b{2};
    first.lw_push(L, &a);
    lua_setglobal(L, "a");
    second.lw_push(L, &b);
    lua_setglobal(L, "b");

    const char *script = R"(
        a.value = a.value + 10
        local index = getmetatable(a).__index
        return a.value, index(b, "value"), index(setmetatable({}, getmetatable(a)), "value"),
               index(MemBlock(8), "value"), tostring(a):match("^ProbeFirst <") ~= nil
    )";
    ASSERT_EQ(luaL_dostring(L, script), 0) << lua_tostring(L, -1);
    EXPECT_EQ(lua_tonumber(L, 1), 11);
    EXPECT_EQ(a.value, 11);
    EXPECT_EQ(lua_tonumber(L, 2), 2); // another type's object, through its own descriptor
    EXPECT_TRUE(lua_isnil(L, 3));     // a table with the metatable is no object
    EXPECT_TRUE(lua_isnil(L, 4));     // nor a foreign userdata of the same size
    EXPECT_TRUE(lua_toboolean(L, 5));
    lua_close(L);
}

} // namespace
} // namespace orvexScript
