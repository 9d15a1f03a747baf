// Tests of value texts on the script Lua: FromTextByName and loadstringval.
#include <gtest/gtest.h>

#include <lua.hpp>

#include <cstring>
#include <string>

#include "languages/lua/ValueText.h"
#include "testsupport/LuaState.h"
#include "values/model/MemBlock.h"
#include "values/model/ScriptVal.h"

using namespace orvexScript;

namespace
{

struct ByName
{
    bool ok;
    ScriptVal value;
    std::string buffer;
};

ByName Read(const char *text, const char *name, const char *chunk = "")
{
    ByName r{false, ScriptVal("stale"), ""};
    char buffer[200];
    std::snprintf(buffer, sizeof buffer, "%s", chunk);
    r.ok = r.value.FromTextByName(text, name, buffer, sizeof buffer, false);
    r.buffer = buffer;
    return r;
}

TEST(FromTextByName, ReadsTheNamedGlobalOfStatements)
{
    const char *text = "x = { 1, a = 'b' }\ny = 5\nz = Point { k = true }\nw = HexData [[ 01 ff ]]\n";
    ByName x = Read(text, "x");
    ASSERT_TRUE(x.ok) << x.buffer;
    EXPECT_EQ(x.value.FindKeyConst(1).ToNumber(), 1);
    EXPECT_STREQ(x.value.FindKeyConst("a").ToString(), "b");
    EXPECT_EQ(x.buffer, "");

    ByName y = Read(text, "y");
    ASSERT_TRUE(y.ok);
    EXPECT_EQ(y.value.ToNumber(), 5);
    EXPECT_EQ(y.buffer, "5");

    ByName z = Read(text, "z");
    ASSERT_TRUE(z.ok);
    EXPECT_STREQ(z.value.GetConstructor(), "Point");
    EXPECT_TRUE(z.value.FindKeyConst("k").ToBoolean());

    ByName w = Read(text, "w");
    ASSERT_TRUE(w.ok) << w.buffer;
    const MemBlock block = w.value.ToMemBlock();
    ASSERT_EQ(block.m_Size, 2u);
    EXPECT_EQ(static_cast<unsigned char *>(block.m_Ptr)[1], 0xFF);

    // An unknown name is a constructor record, as in any text under the serialize prologue.
    ByName missing = Read(text, "missing");
    EXPECT_TRUE(missing.ok);
    EXPECT_STREQ(missing.value.FindKeyConst("name").ToString(), "missing");
}

TEST(FromTextByName, FailuresLeaveNilAndTheMessage)
{
    // This Lua has no sethashstate, so ordered() fails at run time.
    ByName ordered = Read("x = ordered() { 1 }", "x");
    EXPECT_FALSE(ordered.ok);
    EXPECT_TRUE(ordered.value.IsNil());
    EXPECT_NE(ordered.buffer.find("sethashstate"), std::string::npos) << ordered.buffer;

    ByName syntax = Read("x = {\n", "x", "settings"); // the named global is read on a line of its own
    EXPECT_FALSE(syntax.ok);
    EXPECT_EQ(syntax.buffer.rfind("[string \"settings\"]:3:", 0), 0u) << syntax.buffer;

    ByName unsupported = Read("x = coroutine.create(function() end)", "x");
    EXPECT_FALSE(unsupported.ok);

    ScriptVal v;
    char keep[8] = "keep";
    EXPECT_FALSE(v.FromTextByName("x = ", "x", keep, 0, false));
    EXPECT_STREQ(keep, "keep");
    EXPECT_TRUE(v.FromTextByName(strdup("x = 'freed'"), "x", nullptr, 0, true));
    EXPECT_STREQ(v.ToString(), "freed");
}

TEST(LoadStringVal, LoadsPrefixTextAndSuffixAsOneChunk)
{
    orvexTest::LuaState L;
    ASSERT_EQ(loadstringval(L, "{ 1, 2 }xyz", 8, "t"), 0);
    ASSERT_EQ(lua_pcall(L, 0, 1, 0), 0);
    EXPECT_TRUE(lua_istable(L, -1));
    EXPECT_EQ(lua_objlen(L, -1), 2u);
    lua_settop(L, 0);

    ASSERT_EQ(loadstringval(L, "40", -1, "t", "local x = ", "\nreturn x + 2"), 0);
    ASSERT_EQ(lua_pcall(L, 0, 1, 0), 0);
    EXPECT_EQ(lua_tonumber(L, -1), 42);
    lua_settop(L, 0);

    EXPECT_EQ(loadstringval(L, "{", -1, "bad"), LUA_ERRSYNTAX);
    EXPECT_EQ(std::string(lua_tostring(L, -1)).rfind("[string \"bad\"]:1:", 0), 0u);
}

} // namespace
