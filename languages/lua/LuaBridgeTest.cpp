// Tests of the value bridge on a real LuaJIT state: values there and back with key order, flags and
// constructor names; what does not convert; the object caches and their counts; MemBlock in Lua;
// code values; and the generic metamethods on a native descriptor.
#include "languages/lua/LuaBridge.h"

#include <gtest/gtest.h>
#include <lua.hpp>

#include <cstring>
#include <string>

#include "languages/lua/LuaType.h"
#include "testsupport/LuaState.h"
#include "testsupport/TestSupport.h"
#include "values/model/KeID.h"
#include "values/model/MemBlock.h"
#include "values/model/ScriptArgs.h"
#include "values/model/TableEntry.h"

namespace orvexScript
{
namespace
{

// A text that shows everything a round trip must keep: kinds, values, key order, constructor names and
// flags.
std::string Describe(const ScriptVal &value)
{
    switch (value.Type())
    {
    case SV_Nil:
        return "nil";
    case SV_Number:
    {
        char text[32];
        snprintf(text, sizeof(text), "%.17g", value.ToNumber());
        return text;
    }
    case SV_String:
        return std::string("'") + value.ToString() + "'";
    case SV_Boolean:
        return value.ToBoolean() ? "true" : "false";
    case SV_MemBlock:
    {
        const MemBlock block = value.ToMemBlock();
        return "block" + std::to_string(block.m_Size) + ":" +
               std::string(static_cast<const char *>(block.m_Ptr), block.m_Size);
    }
    case SV_Table:
    case SV_Args:
    {
        std::string text = value.GetConstructor() ? value.GetConstructor() : "";
        char flags[16];
        snprintf(flags, sizeof(flags), "%x", value.GetFlags(~0u));
        text += "<" + std::string(flags) + ">{";
        for (TableEntry *entry = value.FirstEntry(); entry; entry = entry->m_Next)
            text += Describe(entry->m_Key) + "=" + Describe(entry->m_Value) + ",";
        return text + "}";
    }
    default:
        return "kind" + std::to_string(value.Type());
    }
}

class LuaBridgeTest : public ::testing::Test
{
protected:
    void SetUp() override { OpenObjectTypes(m_L); }

    // Runs `chunk`, leaving its results; "" if it ran, else the message.
    std::string Run(const char *chunk)
    {
        if (luaL_loadstring(m_L, chunk) == 0 && lua_pcall(m_L, 0, LUA_MULTRET, 0) == 0) return "";
        std::string message = lua_tostring(m_L, -1) ? lua_tostring(m_L, -1) : "?";
        lua_pop(m_L, 1);
        return message;
    }

    // FromLua of what `expression` gives, called from Lua so that its errors are Lua errors. Empty
    // string if it converted; the message if it raised; "false" if it gave false.
    std::string Read(const char *expression, ScriptVal &out)
    {
        lua_settop(m_L, 0);
        const std::string chunk = std::string("return ") + expression;
        EXPECT_EQ(Run(chunk.c_str()), "") << expression;
        struct Call
        {
            ScriptVal *out;
            bool ok;
        } call{&out, false};
        lua_pushlightuserdata(m_L, &call);
        lua_pushcclosure(
            m_L,
            [](lua_State *L) {
                auto *c = static_cast<Call *>(lua_touserdata(L, lua_upvalueindex(1)));
                c->ok = FromLua(L, 1, *c->out);
                return 0;
            },
            1);
        lua_insert(m_L, 1);
        if (lua_pcall(m_L, 1, 0, 0) != 0)
        {
            std::string message = lua_tostring(m_L, -1);
            lua_settop(m_L, 0);
            return message;
        }
        return call.ok ? "" : "false";
    }

    orvexTest::LuaState m_L{true};
};

ScriptVal Table(const char *ctor = nullptr)
{
    ScriptVal table(SV_Table, nullptr);
    if (ctor) table.SetConstructor(ctor);
    return table;
}

TEST_F(LuaBridgeTest, ValuesComeBackWithKeyOrderFlagsAndConstructors)
{
    ScriptVal nested = Table("Layout.Group");
    nested.FindKey(1) = 2.5;
    nested.FindKey("name") = "inner";
    nested.SetFlags(SVF_OneLine | SVF_Single);
    ScriptVal outer = Table();
    outer.FindKey(1) = "first";
    outer.FindKey(2) = nested;
    outer.FindKey(7) = true;
    outer.FindKey("zeta") = ScriptVal(MemBlock(const_cast<char *>("a\0b"), 3));
    outer.FindKey("alpha") = -0.0;
    ScriptVal single = Table();
    single.SetFlags(SVF_Single);
    single.FindKey("k") = 1;

    ASSERT_TRUE(ToLua(nullptr, m_L, outer));
    ASSERT_EQ(lua_gettop(m_L), 1);
    ScriptVal back;
    ASSERT_TRUE(FromLua(m_L, -1, back));
    // Numbers first, ascending; the string keys come in Lua's traversal order, so look those up.
    EXPECT_EQ(Describe(back.FindKeyConst(1)), "'first'");
    EXPECT_EQ(Describe(back.FindKeyConst(2)), Describe(nested));
    EXPECT_EQ(Describe(back.FirstEntry()->m_Next->m_Next->m_Value), "true");
    EXPECT_EQ(Describe(back.FindKeyConst("zeta")), "block3:" + std::string("a\0b", 3));
    EXPECT_EQ(Describe(back.FindKeyConst("alpha")), "-0");
    EXPECT_EQ(back.NumKeys(), outer.NumKeys());
    // A table with only SVF_Single carries no __flags; one with more does.
    lua_settop(m_L, 0);
    ToLua(nullptr, m_L, single);
    lua_getfield(m_L, 1, "__flags");
    EXPECT_TRUE(lua_isnil(m_L, -1));
    lua_settop(m_L, 0);
    ToLua(nullptr, m_L, nested);
    lua_getfield(m_L, 1, "__flags");
    EXPECT_EQ(lua_tonumber(m_L, -1), SVF_OneLine | SVF_Single);
    lua_getfield(m_L, 1, "__ctor");
    EXPECT_STREQ(lua_tostring(m_L, -1), "Layout.Group");
}

TEST_F(LuaBridgeTest, LuaTablesReadNumbersAscendingThenTheRest)
{
    const struct
    {
        const char *expression;
        std::string expected;
    } cases[] = {
        {"{[3] = 'c', x = 'x', [1] = 'a'}", "<0>{1='a',3='c','x'='x',}"},
        {"{[10] = 1, [-2] = 2, [0.5] = 3, [2] = 4}", "<0>{-2=2,0.5=3,2=4,10=1,}"},
        {"{__ctor = 'Vec', __flags = 256 + 255, 1}", "Vec<100>{1=1,}"},
        {"{__ctor = 42, __flags = 'x', 9}", "<0>{1=9,}"},
        {"'a\\0b'", std::string("block3:a\0b", 10)},
        {"print", "nil"},
        {"{{}, {{}}}", "<0>{1=<0>{},2=<0>{1=<0>{},},}"},
    };
    for (const auto &c : cases)
    {
        ScriptVal out;
        ASSERT_EQ(Read(c.expression, out), "") << c.expression;
        EXPECT_EQ(Describe(out), c.expected) << c.expression;
    }
}

TEST_F(LuaBridgeTest, WhatCannotConvertIsAnErrorOrFalseNeverACrash)
{
    ASSERT_EQ(Run("deep = {} local t = deep for i = 1, 10000 do t[1] = {} t = t[1] end "
                  "self = {} self.me = self "
                  "a = {} b = {a} a.b = b "
                  "shared = {} dag = {shared, shared, {shared}}"),
              "");
    const struct
    {
        const char *expression;
        const char *result; // "" converts, "false" gives false, else a part of the error
    } cases[] = {
        {"deep", "false"},
        {"self", "false"},
        {"a", "false"},
        {"dag", ""},
        {"coroutine.create(print)", "Unsupported type for custom data! (thread)"},
        {"io.stdout", "Unsupported type for custom data! (userdata)"},
        {"require('ffi').new('int[1]')", "Unsupported type for custom data! (cdata)"},
        {"{1, 2, {x = coroutine.create(print)}}", "Unsupported type for custom data!"},
    };
    for (const auto &c : cases)
    {
        ScriptVal out;
        const std::string result = Read(c.expression, out);
        if (*c.result == '\0' || std::strcmp(c.result, "false") == 0)
            EXPECT_EQ(result, c.result) << c.expression;
        else
            EXPECT_NE(result.find(c.result), std::string::npos) << c.expression << ": " << result;
    }
    // A deep ScriptVal goes to Lua cut at the limit, never past the C stack.
    ScriptVal deep = Table();
    ScriptVal *level = &deep;
    for (int i = 0; i < 5000; ++i)
    {
        level->FindKey(1) = Table();
        level = &level->FindKey(1);
    }
    lua_settop(m_L, 0);
    EXPECT_TRUE(ToLua(nullptr, m_L, deep));
    EXPECT_EQ(lua_gettop(m_L), 1);
}

TEST_F(LuaBridgeTest, CodeAndFunctionsTravelAsChunks)
{
    ScriptVal out;
    ASSERT_EQ(Read("function(a) return (a or 20) + 1, 'two' end", out), "");
    ASSERT_TRUE(out.IsCode());
    lua_settop(m_L, 0);
    EXPECT_TRUE(ToLua(nullptr, m_L, out));
    // The chunk runs at once, here without arguments.
    ASSERT_EQ(lua_gettop(m_L), 2);
    EXPECT_EQ(lua_tonumber(m_L, 1), 21);

    KeID error("untouched");
    MemBlock *code = lua_StrToCode("return 6 * 7", error);
    ASSERT_NE(code, nullptr);
    EXPECT_STREQ(error.Text(), "");
    ScriptVal chunk(code->m_Ptr, code->m_Size, 0);
    std::free(code->m_Ptr);
    delete code;
    lua_settop(m_L, 0);
    ToLua(nullptr, m_L, chunk);
    EXPECT_EQ(lua_tonumber(m_L, -1), 42);

    EXPECT_EQ(lua_StrToCode("return +", error), nullptr);
    EXPECT_STREQ(error.Text(), ""); // a compile error leaves the text alone
    orvexTest::TempDir dir;
    EXPECT_EQ(lua_FileToCode(dir.Write("empty.lua", "").c_str(), error), nullptr);
    MemBlock *fromFile = lua_FileToCode(dir.Write("f.lua", "return 'file'\n").c_str(), error);
    ASSERT_NE(fromFile, nullptr);
    std::free(fromFile->m_Ptr);
    delete fromFile;

    // A failing chunk goes to _ALERT and leaves nothing.
    ASSERT_EQ(Run("alerts = {} function _ALERT(m) alerts[#alerts + 1] = m end"), "");
    ScriptVal broken("\x1bLJ garbage", 12, 0);
    lua_settop(m_L, 0);
    EXPECT_TRUE(ToLua(nullptr, m_L, broken));
    EXPECT_EQ(lua_gettop(m_L), 0);
    ASSERT_EQ(Run("return #alerts"), "");
    EXPECT_EQ(lua_tonumber(m_L, -1), 1);
}

TEST_F(LuaBridgeTest, RepliesUnpackIntoResultsInOrder)
{
    ScriptVal reply = Table();
    reply.FindKey(-2) = "second";
    reply.FindKey("Error") = 0; // other keys are not results
    lua_settop(m_L, 0);
    ASSERT_EQ(ToLuaRet(nullptr, m_L, reply), 2u);
    EXPECT_TRUE(lua_isnil(m_L, 1));
    EXPECT_STREQ(lua_tostring(m_L, 2), "second");
    ScriptVal notTable("x");
    EXPECT_EQ(ToLuaRet(nullptr, m_L, notTable), 0u);
    ScriptVal huge = Table();
    huge.FindKey(-1e9) = 1; // a count no stack can hold pushes nothing
    EXPECT_EQ(ToLuaRet(nullptr, m_L, huge), 0u);
    EXPECT_EQ(lua_gettop(m_L), 2);
}

TEST_F(LuaBridgeTest, MemBlocksInLua)
{
    ASSERT_EQ(Run("local b = MemBlock(4) b[1] = 300 b[2] = -1 b[0] = 9 b[5] = 9 b.x = 1 "
                  "return select('#', MemBlock(0)), b[0], b[5], b.Size, b[1], b[2], tostring(b), b"),
              "");
    ASSERT_EQ(lua_gettop(m_L), 8);
    EXPECT_EQ(lua_tonumber(m_L, 1), 0); // MemBlock(0) gives nothing
    EXPECT_TRUE(lua_isnil(m_L, 2) && lua_isnil(m_L, 3));
    EXPECT_EQ(lua_tonumber(m_L, 4), 4);
    EXPECT_EQ(lua_tonumber(m_L, 5), 44);
    EXPECT_EQ(lua_tonumber(m_L, 6), 255);
    EXPECT_STREQ(lua_tostring(m_L, 7), "MemBlock (4 bytes)");
    ScriptVal block;
    ASSERT_TRUE(FromLua(m_L, 8, block));
    EXPECT_EQ(Describe(block), std::string("block4:\x2c\xff\0\0", 11));
    // A block from a value arrives as a fresh userdata, not as a string.
    lua_settop(m_L, 0);
    ToLua(nullptr, m_L, block);
    EXPECT_TRUE(lua_isuserdata(m_L, 1));
}

// A native class with a descriptor: a property, a function, and a derived descriptor.
struct Counter
{
    double value = 0;
};

int s_Uses = 0;
int s_Recycles = 0;

int ValueMember(LuaType *, lua_State *L, void *object, LuaObject *, bool set)
{
    auto *counter = LuaTypeT<Counter>::Object(object);
    if (set)
    {
        counter->value = luaL_checknumber(L, -1);
        return 0;
    }
    lua_pushnumber(L, counter->value);
    return 1;
}

int Bump(LuaType *, lua_State *L, void *object, LuaObject *)
{
    lua_pushnumber(L, ++LuaTypeT<Counter>::Object(object)->value);
    return 1;
}

LuaMemberTable s_CounterMembers[] = {{"value", ValueMember, 0}, {nullptr, nullptr, 0}};
LuaFuncTable s_CounterFunctions[] = {{"Bump", Bump, 0}, {nullptr, nullptr, 0}};
LuaMemberTable s_ShadowMembers[] = {{"Bump", ValueMember, 0}, {nullptr, nullptr, 0}};

struct CounterType : LuaTypeT<Counter>
{
    using LuaTypeT<Counter>::LuaTypeT;
    int lw_use(LuaType *, lua_State *, void *, LuaType *) override { return ++s_Uses, 0; }
    int lw_recycle(LuaType *, lua_State *, void *, LuaType *) override { return ++s_Recycles, 0; }
};

CounterType s_CounterType("Counter", &LuaClass::s_LuaType, s_CounterFunctions, s_CounterMembers, 0, 0);
// Derives from Counter: its property "Bump" shadows the base's function of that name.
LuaTypeT<Counter> s_ShadowType("Shadow", &s_CounterType, nullptr, s_ShadowMembers, 0, 0);

TEST_F(LuaBridgeTest, ObjectsKeepOneIdentityAndOneCountPerState)
{
    Counter counter;
    s_Uses = s_Recycles = 0;
    {
        orvexTest::LuaState other(true);
        for (lua_State *L : {static_cast<lua_State *>(m_L), static_cast<lua_State *>(other)})
        {
            s_CounterType.lw_register(L);
            s_CounterType.lw_push(L, &counter);
            s_CounterType.lw_push(L, &counter);
            EXPECT_TRUE(lua_rawequal(L, -1, -2));
            lua_setglobal(L, "c");
            lua_pop(L, 1);
        }
        EXPECT_EQ(s_Uses, 2);
    }
    EXPECT_EQ(s_Recycles, 1); // the other state closed
    ASSERT_EQ(Run("c = nil collectgarbage() collectgarbage()"), "");
    EXPECT_EQ(s_Recycles, 2);
    s_CounterType.lw_push(m_L, &counter);
    EXPECT_EQ(s_Uses, 3); // a new userdata after collection

    // Plain objects: cached the same way, never counted.
    int plain = 0;
    lua_pushobject(m_L, &plain, nullptr);
    lua_pushobject(m_L, &plain, nullptr);
    EXPECT_TRUE(lua_rawequal(m_L, -1, -2));
    lua_pushobject(m_L, nullptr, "MemBlock");
    EXPECT_TRUE(lua_isnil(m_L, -1));
}

TEST_F(LuaBridgeTest, GenericMetamethodsDispatchToTheDescriptors)
{
    Counter counter{5};
    Counter other{5};
    s_CounterType.lw_register(m_L);
    s_ShadowType.lw_register(m_L);
    s_CounterType.lw_push(m_L, &counter);
    lua_setglobal(m_L, "c");
    s_ShadowType.lw_push(m_L, &other);
    lua_setglobal(m_L, "s");
    ASSERT_EQ(Run("c.value = 7 return c.value, c:Bump(), s.Bump, c.missing, c._typename, getmetatable(c)._typename(c),"
                  " getmetatable(c)._istypeof(c, 'LuaClass'), getmetatable(s)._istypeof(s, 'Counter'),"
                  " getmetatable(c)._istypeof(c, 'Shadow'), tostring(c):match('^Counter <.+>$') ~= nil"),
              "");
    const char *expected[] = {"7", "8", "5", "nil", "nil", "Counter", "true", "true", "false", "true"};
    for (int i = 0; i < 10; ++i)
    {
        lua_getglobal(m_L, "tostring");
        lua_pushvalue(m_L, i + 1);
        lua_call(m_L, 1, 1);
        EXPECT_STREQ(lua_tostring(m_L, -1), expected[i]) << "result " << i + 1;
        lua_pop(m_L, 1);
    }
    EXPECT_EQ(counter.value, 8);
    lua_getglobal(m_L, "s");
    EXPECT_TRUE(lua_istype(m_L, -1, "Counter"));
    EXPECT_EQ(lua_totype(m_L, -1, "Counter"), &other);
    EXPECT_EQ(lua_totype(m_L, -1, "Other"), nullptr);

    const struct
    {
        const char *chunk;
        const char *error; // part of the message
    } failures[] = {
        {"return c + 1", "Illegal operator"},
        {"return c < c", "Illegal operator"},
        {"return -c", "Illegal operator"},
        {"return c .. 'x'", "Illegal operator"},
        {"local f = c.Bump return f(s)", "Member functions must be called with a ':', not a '.'"},
        {"local f = c.Bump return f()", "Member functions must be called with a ':', not a '.'"},
        {"c.value = 'not a number'", "number expected"},
    };
    for (const auto &f : failures)
        EXPECT_NE(Run(f.chunk).find(f.error), std::string::npos) << f.chunk;
    // A dot read called with the object itself works; == compares the objects.
    ASSERT_EQ(Run("local f = c.Bump return f(c), c == c, c == s, 1 + c"), "");
    EXPECT_EQ(lua_tonumber(m_L, -4), 9);
    EXPECT_TRUE(lua_toboolean(m_L, -3));
    EXPECT_FALSE(lua_toboolean(m_L, -2));
    EXPECT_TRUE(lua_isnil(m_L, -1)); // the object as second operand gives nothing
    // The metamethods taken out and given a foreign userdata read nothing from it.
    ASSERT_EQ(Run("local m = getmetatable(c) return m.__index(io.stdout, 'value'), m.__tostring(io.stdout)"), "");
}

} // namespace
} // namespace orvexScript
