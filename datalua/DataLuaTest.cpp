// Tests of the data-text interpreter: table order and flags, constructor detection, constants,
// the table-iterating for, errors with their positions, limits, and the conversion into ScriptVal.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "datalua/DataLua.h"
#include "values/model/MemBlock.h"
#include "values/model/ScriptVal.h"
#include "values/model/TableEntry.h"

namespace orvexScript::datalua
{
namespace
{

struct Result
{
    bool ok = false;
    ScriptVal value;
    std::string error;
    std::string text;
};

Result Read(const std::string &text, const char *chunk = "=test")
{
    Result r;
    const char *pieces[] = {text.data()};
    const size_t lengths[] = {text.size()};
    r.ok = RunText(pieces, lengths, 1, chunk, r.value, r.error, r.text, nullptr, nullptr);
    return r;
}

// The keys of a converted table in list order, as text.
std::string Keys(const ScriptVal &table)
{
    std::string out;
    for (TableEntry *e = table.FirstEntry(); e; e = e->m_Next)
    {
        if (!out.empty()) out += ",";
        out += e->m_Key.IsNumber() ? std::to_string(static_cast<long>(e->m_Key.ToNumber())) : e->m_Key.ToString("?");
    }
    return out;
}

// Restores the process-wide limits when a test changed them.
class LimitsGuard
{
public:
    LimitsGuard() : m_Saved(GetRunLimits()) {}
    ~LimitsGuard() { SetRunLimits(m_Saved); }

private:
    RunLimits m_Saved;
};

TEST(DataLuaTables, KeepInsertionOrderThroughRehashes)
{
    // ordered or not, the hash part iterates in insertion order; numbers come first in the result
    const char *texts[] = {
        "sethashstate(0) local t = {} t.z = 1 t.a = 2 t.m = 3 for i = 1, 200 do t['k' .. i] = i end\n\
for i = 1, 200 do t['k' .. i] = nil end return t",
        "local t = { z = 1, a = 2 } t.m = 3 for i = 1, 50 do t[-i] = i; t[-i] = nil end return t",
        "local t = {} t.z = 1; t[3] = 'c'; t.a = 2; t[1] = 'a'; t.m = 3; t[2] = 'b' return t",
    };
    const char *expected[] = {"z,a,m", "z,a,m", "1,2,3,z,a,m"};
    for (size_t i = 0; i < std::size(texts); ++i)
    {
        const Result r = Read(texts[i]);
        ASSERT_TRUE(r.ok) << r.error;
        EXPECT_EQ(Keys(r.value), expected[i]) << texts[i];
    }
    const Result walk = Read("local t = {} t.z = 1 t.a = 2 t.m = 3 t.a = nil t.a = 5 local s = '' "
                             "for k in pairs(t) do s = s .. k end return s");
    EXPECT_EQ(walk.text, "zam");
}

TEST(DataLuaTables, HashStateIsOneShotAndFlagsFollowTheConstructor)
{
    struct Case
    {
        const char *text;
        const char *flags;
    } cases[] = {
        {"sethashstate(0) local a = {} local b = {} return gettableflags(a) .. gettableflags(b)", "01"},
        {"sethashstate(256) return gettableflags({})", "0"},
        {"sethashstate('0x0') return gettableflags({})", "0"},
        {"sethashstate({}) return gettableflags({})", "0"},
        {"sethashstate(3) return gettableflags({})", "1"},
        {"return gettableflags({ 1, 2 })", "7"},
        {"return gettableflags({ a = 1 })", "5"},
        {"return gettableflags({})", "1"},
        {"return gettableflags({ 1,\n 2 })", "7"},
        {"return gettableflags({\n 1, 2 })", "3"},
        {"return gettableflags({\n})", "1"},
        {"return gettableflags({ {\n 1 }, 2 })", "3"},
        {"return gettableflags({ (function() end)() })", "7"},
        {"local t = {} settableflags(t, 6, 4) return gettableflags(t)", "5"},
        {"local t = {} settableflags(t, 'x', 1) return gettableflags(t)", "0"},
        {"local t = {} settableflags(t, 0, {}) return gettableflags(t)", "1"},
    };
    for (const Case &c : cases)
    {
        const Result r = Read(c.text);
        EXPECT_TRUE(r.ok) << c.text << ": " << r.error;
        EXPECT_EQ(r.text, c.flags) << c.text;
    }
    EXPECT_FALSE(Read("return gettableflags(1)").ok);
}

TEST(DataLuaTables, ConstructorStoresPositionalItemsAfterKeyedOnes)
{
    const Result r = Read("local t = { 10, [1] = 5, 20 } return t[1] .. ',' .. t[2]");
    EXPECT_EQ(r.text, "10,20");
}

TEST(DataLuaChunks, HoldMoreConstantsThanAnInstructionCanAddress)
{
    std::string text = "return {";
    for (int i = 0; i < 300000; ++i)
        text += "\"s" + std::to_string(i) + "\",";
    text += "}";
    const Result r = Read(text);
    ASSERT_TRUE(r.ok) << r.error;
    EXPECT_EQ(r.value.NumKeys(), 300000);
    EXPECT_STREQ(r.value.FindKeyConst(1).ToString(), "s0");
    EXPECT_STREQ(r.value.FindKeyConst(262145).ToString(), "s262144");
    EXPECT_STREQ(r.value.FindKeyConst(300000).ToString(), "s299999");
}

TEST(DataLuaChunks, ForIteratesATableDirectly)
{
    EXPECT_EQ(Read("local n = 0 for k in { 1, 2 } do n = n + k end return n").text, "3");
    EXPECT_EQ(Read("local n = 0 for k, v in { a = 5, b = 6 } do n = n + v end return n").text, "11");
    EXPECT_EQ(Read("local n = 0 for k in pairs({ 1, 2 }) do n = n + 1 end return n").text, "2");
    // the global next is read raw at the loop's start
    EXPECT_FALSE(Read("next = nil for k in { 1 } do end").ok);
    const Result r = Read("for k in 5 do end");
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(r.error, "test:1: attempt to call a number value");
}

TEST(DataLuaErrors, CarryTheChunkNameAndLine)
{
    struct Case
    {
        const char *chunk;
        const char *text;
        const char *error;
    } cases[] = {
        {"=name", "\n\nerror('x')", "name:3: x"},
        {"@dir/file.txt", "local a = nil + 1", "dir/file.txt:1: attempt to perform arithmetic on a nil value"},
        {"FromText", "x = ", "[string \"FromText\"]:1: unexpected symbol near '<eof>'"},
        {"first line\nsecond", "error('e')", "[string \"first line...\"]:1: e"},
        {"=c", "return 1e", "c:1: malformed number near '1e'"},
        {"=c", "return 0x", "c:1: malformed number near '0x'"},
        {"=c", "return 'abc", "c:1: unfinished string near '<eof>'"},
        {"=c", "return [[abc", "c:1: unfinished long string near '<eof>'"},
        {"=c", "return '\\300'", "c:1: escape sequence too large near '''"},
        {"=c", "return 'ab\ncd'", "c:1: unfinished string near ''ab'"},
        {"=c", "if x then\n", "c:2: 'end' expected (to close 'if' at line 1) near '<eof>'"},
        {"=c", "x = = 1", "c:1: unexpected symbol near '='"},
        {"=c", "local t = nil\nt.x = 1", "c:2: attempt to index local 't' (a nil value)"},
        {"=c", "undefined()", "c:1: attempt to call global 'undefined' (a nil value)"},
        {"=c", "local t = {} t.a.b = 1", "c:1: attempt to index field 'a' (a nil value)"},
        {"=c", "return {} < {}", "c:1: attempt to compare two table values"},
        {"=c", "return 1 < 'x'", "c:1: attempt to compare number with string"},
        {"=c", "return 'a' .. {}", "c:1: attempt to concatenate a table value"},
        {"=c", "local function f() error('deep', 2) end\nf()", "c:2: deep"},
        {"=c", "error({})", "(error object is a table value)"},
        {"=c", "setmetatable(1, {})", "c:1: bad argument #1 to 'setmetatable' (table expected, got number)"},
        {"=c", "return ...x", "c:1: '<eof>' expected near 'x'"},
        {"=c", "function f() return ... end", "c:1: cannot use '...' outside a vararg function near '...'"},
        {"=c", "break", "c:1: no loop to break near '<eof>'"},
        {"=c", "coroutine.create(print)", "c:1: coroutines are not supported"},
        {"=c", "local t = {} t[nil] = 1", "c:1: table index is nil"},
    };
    for (const Case &c : cases)
    {
        const Result r = Read(c.text, c.chunk);
        EXPECT_FALSE(r.ok) << c.text;
        EXPECT_EQ(r.error, c.error) << c.text;
        EXPECT_TRUE(r.value.IsNil());
    }
}

TEST(DataLuaLimits, StopRunawayTexts)
{
    LimitsGuard guard;
    RunLimits limits;
    limits.maxInstructions = 2000000;
    limits.maxMemory = 8 << 20;
    SetRunLimits(limits);
    struct Case
    {
        std::string text;
        const char *error;
    } cases[] = {
        {"while true do end", "instruction limit"},
        {"while true do pcall(function() while true do end end) end", "instruction limit"},
        {"local t = {} local i = 0 while true do i = i + 1 t[i] = i end", "not enough memory"},
        {"local s = 'x' while true do s = s .. s end", "not enough memory"},
        {"local function f() return f() + 1 end return f()", "stack overflow"},
        {"local t = setmetatable({}, {}) getmetatable(t).__index = t return t.x", "loop in gettable"},
        {"return " + std::string(100000, '{'), "chunk has too many syntax levels"},
        {"return " + std::string(100000, '(') , "chunk has too many syntax levels"},
        {"return " + std::string(100000, '#') + "1", "chunk has too many syntax levels"},
        {"local x = ('x'):rep(100000000)", "not enough memory"},
        {"return unpack({}, -1e300, 1e300)", "too many results"},
    };
    for (const Case &c : cases)
    {
        const Result r = Read(c.text);
        EXPECT_FALSE(r.ok) << c.text.substr(0, 60);
        EXPECT_NE(r.error.find(c.error), std::string::npos) << c.text.substr(0, 60) << ": " << r.error;
    }
    // a recursion within the depth limit still runs
    EXPECT_EQ(Read("local function f(n) if n == 0 then return 0 end return 1 + f(n - 1) end return f(150)").text,
              "150");
}

TEST(DataLuaLimits, LongChainsEndInAnErrorNotACrash)
{
    std::string sum = "return 1", index = "local a = {} return a", calls = "local function f() return f end return f";
    for (int i = 0; i < 300000; ++i)
    {
        sum += "+1";
        index += ".b";
        calls += "()";
    }
    for (const std::string *text : {&sum, &index, &calls})
    {
        const Result r = Read(*text);
        EXPECT_TRUE(r.ok || r.error.find("stack overflow") != std::string::npos) << r.error;
    }
}

TEST(DataLuaConvert, GivesTheFlagsNamesAndKindsOfTheResult)
{
    const Result r = Read("local t = ordered()({ b = 1, a = 2 }) return { ordered = t, list = { 1, 2 },\n"
                          "single = {\n [1] = 1 }, named = { __ctor = 'A.B', x = 1 }, flagged = { __flags = 0x100 },\n"
                          "zero = 'a\\0b', block = HexData('01 ff 1x2'), empty = MemBlock(0), size = MemBlock(3),\n"
                          "code = print, bool = true }");
    ASSERT_TRUE(r.ok) << r.error;
    const ScriptVal &v = r.value;
    EXPECT_EQ(v.GetFlags(SVF_Ordered | SVF_Single | SVF_OneLine), SVF_Single | SVF_OneLine);
    EXPECT_EQ(v["ordered"].GetFlags(SVF_Ordered | SVF_Single | SVF_OneLine), SVF_Ordered | SVF_Single | SVF_OneLine);
    EXPECT_EQ(Keys(v["ordered"]), "b,a");
    EXPECT_EQ(v["list"].GetFlags(SVF_Ordered | SVF_Single | SVF_OneLine), SVF_OneLine);
    EXPECT_EQ(v["single"].GetFlags(SVF_Ordered | SVF_Single | SVF_OneLine), SVF_Single);
    EXPECT_STREQ(v["named"].GetConstructor(), "A.B");
    EXPECT_EQ(Keys(v["named"]), "x");
    EXPECT_EQ(v["flagged"].GetFlags(~0u), SVF_OneLine);
    ASSERT_TRUE(v["zero"].IsMemBlock());
    EXPECT_EQ(v["zero"].ToMemBlock().m_Size, 3u);
    ASSERT_TRUE(v["block"].IsMemBlock());
    const MemBlock block = v["block"].ToMemBlock();
    ASSERT_EQ(block.m_Size, 3u); // "1x2" parses as 1, then "x2" stops
    EXPECT_EQ(static_cast<const unsigned char *>(block.m_Ptr)[1], 0xFF);
    EXPECT_TRUE(v["empty"].IsNil());
    EXPECT_EQ(v["size"].ToMemBlock().m_Size, 3u);
    EXPECT_TRUE(v["code"].IsCode());
    EXPECT_EQ(v["code"].ToCodeLen(), 0u);
    EXPECT_TRUE(v["bool"].ToBoolean());

    const Result text = Read("return 'abc'");
    EXPECT_TRUE(text.value == "abc");
    EXPECT_EQ(text.text, "abc");
    EXPECT_EQ(Read("return 1 + 1").text, "2");
    EXPECT_EQ(Read("return 0.1").text, "0.1");
    const Result none = Read("local x = 1");
    EXPECT_TRUE(none.ok);
    EXPECT_TRUE(none.value.IsNil());
}

TEST(DataLuaConvert, FailsCleanlyOnCyclesAndDeepNesting)
{
    struct Case
    {
        const char *text;
        const char *error;
    } cases[] = {
        {"local t = {} t.self = t return t", "a table contains itself"},
        {"local t = {} local c = t for i = 1, 1200 do c.x = {} c = c.x end return t", "value nested too deeply"},
    };
    for (const Case &c : cases)
    {
        const Result r = Read(c.text);
        EXPECT_FALSE(r.ok);
        EXPECT_EQ(r.error, c.error);
        EXPECT_TRUE(r.value.IsNil());
    }
    // the same table twice, side by side, is no cycle
    EXPECT_TRUE(Read("local t = { 1 } return { t, t }").ok);
}

std::string Escaped(const void *data, size_t size)
{
    std::string out;
    for (size_t i = 0; i < size; ++i)
        out += "\\" + std::to_string(static_cast<const unsigned char *>(data)[i]);
    return out;
}

TEST(DataLuaConvert, FunctionsDumpAndLoadBack)
{
    const Result r = Read("local up = 5\nreturn { f = function(a, ...) return a + select('#', ...), up end,\n"
                          "m = loadstring('return 40 + 2') }");
    ASSERT_TRUE(r.ok) << r.error;
    const ScriptVal &f = r.value["f"];
    ASSERT_TRUE(f.IsCode());
    ASSERT_GT(f.ToCodeLen(), 5u);
    EXPECT_EQ(std::string(static_cast<const char *>(f.ToCodePtr()), 5), "\x1bLua\x51");
    // an upvalue comes back nil
    const Result back = Read("local f = assert(loadstring('" + Escaped(f.ToCodePtr(), f.ToCodeLen()) +
                             "')) local a, b = f(1, 2, 3) return a .. tostring(b)");
    EXPECT_EQ(back.text, "3nil") << back.error;
    const ScriptVal &m = r.value["m"];
    const Result main = Read("return loadstring('" + Escaped(m.ToCodePtr(), m.ToCodeLen()) + "')()");
    EXPECT_EQ(main.text, "42") << main.error;
    // damaged dumps fail as load errors
    for (const char *bad : {"\\27Lua", "\\27Lua\\81\\0\\1\\0\\0\\0", "\\27Lua\\81\\9\\1\\0\\0\\0\\0\\0\\0\\0"})
    {
        const Result b = Read(std::string("local f, e = loadstring('") + bad + "') return tostring(f) .. e");
        EXPECT_TRUE(b.ok) << b.error;
        EXPECT_NE(b.text.find("nil"), std::string::npos);
    }
}

TEST(DataLuaRun, CallsTheCompiledHookOnlyAfterCompiling)
{
    int calls = 0;
    auto hook = [](void *user) { ++*static_cast<int *>(user); };
    const char *pieces[] = {"return ", "{ 1 }", ""};
    const size_t lengths[] = {7, 5, 0};
    ScriptVal out;
    std::string error, text;
    EXPECT_TRUE(RunText(pieces, lengths, 3, "=p", out, error, text, hook, &calls));
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(out.NumKeys(), 1);
    const char *bad[] = {"return ", "{ 1 "};
    const size_t badLengths[] = {7, 4};
    EXPECT_FALSE(RunText(bad, badLengths, 2, "=p", out, error, text, hook, &calls));
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(error, "p:1: '}' expected near '<eof>'");
}

TEST(DataLuaRun, SurvivesDamagedInput)
{
    const char *texts[] = {"\x1bLua", "return \"\\", "--[==[", "[=", "local function", "return 1 .. ", "a.b:c",
                           "f{", "return #", "for i = 1 do end", "local a <const> = 1", "x = function(", "return ...",
                           "return (...)", "local t = {} t[0/0] = 1", "return ('x'):rep(-1)", "return ('%'):find('%')",
                           "return ('x'):gsub('(', '')", "return ('x'):format()", "return select(-5, 1)",
                           "return tonumber('z', 99)", "return unpack({}, 1, 1e8)", "return string.len('x')",
                           "return ('x'):match('[a')", "return ('abc'):find('%f')", "error()"};
    for (const char *t : texts)
    {
        const Result r = Read(t);
        (void)r; // only that nothing crashes or leaks
    }
}

} // namespace
} // namespace orvexScript::datalua
