// Tests of reading value texts: the direct reader's results for each construct and quirk, texts of the
// writer read back (a generated property test), the direct reader against the interpreter, failures
// and the error buffer, and sizes (deep nesting, long strings, many constants).
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "datalua/DataLua.h"
#include "datalua/TextReader.h"
#include "values/base/StringBlock.h"
#include "values/model/MemBlock.h"
#include "values/model/ScriptVal.h"
#include "values/model/TableEntry.h"

using namespace orvexScript;

namespace
{

// ---- helpers -----------------------------------------------------------------------------------

// A string value of exactly these bytes (a text pointer starting with 0xFF would pass for a block).
ScriptVal Str(const std::string &bytes)
{
    char *block = StringBlockNew(bytes.data(), bytes.size());
    ScriptValue payload{};
    payload.m_String.m_String = block;
    payload.m_String.m_StringCopy = block;
    payload.m_String.m_Hash = StringHash(block + 1, bytes.size());
    ScriptVal v(SV_String, &payload);
    StringBlockRelease(block);
    return v;
}

// A canonical description: kind, table flags (O ordered, S single, L one-line), constructor name and
// entries in list order.
std::string Describe(const ScriptVal &v)
{
    char buffer[64];
    switch (v.Type())
    {
    case SV_Nil:
        return "nil";
    case SV_Number:
        std::snprintf(buffer, sizeof buffer, "%.17g", v.m_Value.m_Number);
        return buffer;
    case SV_Boolean:
        return v.m_Value.m_Boolean ? "true" : "false";
    case SV_String: {
        std::string out = "'";
        for (const char *p = v.ToString(""); *p; ++p)
        {
            const auto c = static_cast<unsigned char>(*p);
            if (c < 32 || c >= 127 || c == '\'' || c == '\\')
            {
                std::snprintf(buffer, sizeof buffer, "\\%02x", c);
                out += buffer;
            }
            else
                out += static_cast<char>(c);
        }
        return out + "'";
    }
    case SV_MemBlock: {
        std::string out = "<";
        const auto *b = static_cast<const unsigned char *>(v.m_Value.m_MemBlock.m_Ptr);
        for (uint32_t i = 0; b && i < v.m_Value.m_MemBlock.m_Size; ++i)
        {
            std::snprintf(buffer, sizeof buffer, "%02x", b[i]);
            out += buffer;
        }
        return out + ">";
    }
    case SV_Table: {
        std::string out = "T";
        if (v.GetFlags(SVF_Ordered)) out += "O";
        if (v.GetFlags(SVF_Single)) out += "S";
        if (v.GetFlags(SVF_OneLine)) out += "L";
        if (v.GetConstructor()) out += std::string(":") + v.GetConstructor();
        out += "{";
        for (TableEntry *e = v.FirstEntry(); e; e = e->m_Next)
            out += Describe(e->m_Key) + "=" + Describe(e->m_Value) + ";";
        return out + "}";
    }
    default:
        return "kind" + std::to_string(v.Type());
    }
}

// Where two descriptions part, with some context of each.
std::string Difference(const std::string &a, const std::string &b)
{
    size_t i = 0;
    while (i < a.size() && i < b.size() && a[i] == b[i])
        ++i;
    const size_t from = i > 60 ? i - 60 : 0;
    return "at " + std::to_string(i) + ":\n  " + a.substr(from, 160) + "\n  " + b.substr(from, 160);
}

std::string Write(const ScriptVal &v, int depth = 0)
{
    std::string text(v.ToTextLen(depth), '\0');
    std::vector<char> buffer(text.size() + 1);
    v.ToText(buffer.data(), depth);
    return std::string(buffer.data(), text.size());
}

struct ReadResult
{
    bool ok;
    ScriptVal value;
    std::string buffer;
};

ReadResult Read(const std::string &text, const char *prologue = GetSerializePrologue(), const char *chunk = "")
{
    ReadResult r{false, ScriptVal(), std::string()};
    char buffer[256];
    std::snprintf(buffer, sizeof buffer, "%s", chunk);
    r.value = ScriptVal("not yet read");
    r.ok = r.value.FromText(text.c_str(), prologue, buffer, sizeof buffer);
    r.buffer = buffer;
    return r;
}

// Whether the interpreter is there to hand texts to.
bool InterpreterAvailable()
{
    static const bool available = [] {
        const char *pieces[] = {"return 1"};
        const size_t lengths[] = {8};
        ScriptVal out;
        std::string error, text;
        return datalua::RunText(pieces, lengths, 1, "probe", out, error, text, nullptr, nullptr);
    }();
    return available;
}

datalua::DirectLimits TestLimits()
{
    return datalua::DirectLimits{100, size_t(1) << 32, 50000000};
}

// ---- the direct reader, construct by construct -------------------------------------------------

struct ReadCase
{
    const char *text;
    const char *expected; // Describe() of the result
};

const ReadCase kReadCases[] = {
    // flags: positional items, one line, order
    {"{ 1, 2 }", "TL{1=1;2=2;}"},
    {"{ 1,\n 2 }", "TL{1=1;2=2;}"},
    {"{\n 1, 2 }", "T{1=1;2=2;}"},
    {"{\n}", "TS{}"},
    {"{ }", "TS{}"},
    {"{ {\n 1 }, 2 }", "T{1=T{1=1;};2=2;}"},
    {"{ a = 1 }", "TSL{'a'=1;}"},
    {"{ a\n= 1 }", "TS{'a'=1;}"},
    {"{ [[a\nb]], 2 }", "T{1='a\\0ab';2=2;}"},
    {"{ b = 1, a = 2, c = 3 }", "TSL{'b'=1;'a'=2;'c'=3;}"},
    {"ordered() { b = 1, a = 2 }", "TOSL{'b'=1;'a'=2;}"},
    {"ordered() (Point { b = 1, a = 2 })", "TSL:Point{'b'=1;'a'=2;}"},
    {"{ ordered() (5), { } }", "TL{1=5;2=TOS{};}"},
    {"Point { y = 1 }", "TSL:Point{'y'=1;}"},
    {"A.B.Point {\n y = 1 }", "TS:A.B.Point{'y'=1;}"},
    {"foo", "TSL{'name'='foo';}"},
    {"{ x = a.b }", "TSL{'x'=TSL{'name'='a.b';};}"},
    {"ordered() (foo)", "TOSL{'name'='foo';}"},
    // keys: order, duplicates, nil values, batches of positional items
    {"{ x = 1, [3] = 2, 1 }", "TL{1=1;3=2;'x'=1;}"},
    {"{ [2] = 1, [1] = 2, [-1.5] = 3 }", "TSL{-1.5=3;1=2;2=1;}"},
    {"{ [1] = 'a', 'b' }", "TL{1='b';}"},
    {"{ 'b', [1] = 'a' }", "TL{1='b';}"},
    {"{ 1, nil, 3 }", "TL{1=1;3=3;}"},
    {"{ nil }", "TL{}"},
    {"{ a = nil, b = 1, a = 2 }", "TSL{'b'=1;'a'=2;}"},
    {"{ a = 1, b = 2, a = 3 }", "TSL{'a'=3;'b'=2;}"},
    {"{ [1] = 1, [1] = nil, [-0] = 'z', [0] = 'y' }", "TSL{0='y';}"},
    {"{ [\"a b\"] = 1, [''] = 2, a = 3; b = 4 }", "TSL{'a b'=1;''=2;'a'=3;'b'=4;}"},
    // scalars
    {"'a\\tb\\065\\\"\\q'", "'a\\09bA\"q'"},
    {"\"a\\\nb\\\r\nc\"", "'a\\0ab\\0ac'"},
    {"[[\nabc]]", "'abc'"},
    {"[==[a]]b]=]]==]", "'a]]b]=]'"},
    {"[[a\r\nb\n\rc\rd]]", "'a\\0ab\\0ac\\0ad'"},
    {"[=[a [[ b]=]", "'a [[ b'"},
    {"[[a [[ b]]", "'a [[ b'"},
    {"0XfF", "255"},
    {"'a\\0b'", "<610062>"},
    {"0x10", "16"},
    {"1e3", "1000"},
    {".5", "0.5"},
    {"- 2.5", "-2.5"},
    {"1e999", "inf"},
    {"true;", "true"},
    {"nil", "nil"},
    {"", "nil"},
    {";", "nil"},
    {"-- a comment\n{ 1 } -- another", "TL{1=1;}"},
    {"--[==[ a\n long ]] comment ]==] 5", "5"},
    {"((7))", "7"},
    {"HexData [[ 01 02 ]]", "<0102>"},
    {"HexData [[ ]]", "<>"},
    {"HexData '1 fff -1 0x2'", "<01ffff02>"},
    {"{ HexData [[\n\t00 01\n]], 1 }", "T{1=<0001>;2=1;}"},
};

TEST(FromTextDirect, ReadsEachConstruct)
{
    for (const ReadCase &c : kReadCases)
    {
        ScriptVal out;
        std::string text;
        ASSERT_TRUE(datalua::ReadDirect(c.text, std::strlen(c.text), datalua::TextPrologue::Serialize, TestLimits(),
                                        out, text))
            << c.text;
        EXPECT_EQ(Describe(out), c.expected) << c.text;
    }
}

TEST(FromTextDirect, FiftyPositionalItemsAreStoredBeforeTheNextItem)
{
    // Items 1..50 are stored when the 51st item begins, after which [1] overwrites the first.
    std::string early = "{ ", late = "{ ";
    for (int i = 1; i <= 50; ++i)
    {
        early += std::to_string(i) + ", ";
        late += std::to_string(i) + ", ";
        if (i == 49) early += "[1] = 'k', ";
    }
    late += "[1] = 'k', 51 }";
    early += "51 }";
    EXPECT_EQ(Read(early).value.FindKeyConst(1).ToNumber(), 1); // stored after [1]
    EXPECT_STREQ(Read(late).value.FindKeyConst(1).ToString(), "k");
}

TEST(FromTextDirect, ZeroValuesKeepTheirSignAndZeroKeysAreZero)
{
    ScriptVal a = Read("{ 0, -0, [-0] = 1 }").value;
    EXPECT_FALSE(std::signbit(a.FindKeyConst(1).ToNumber()));
    EXPECT_TRUE(std::signbit(a.FindKeyConst(2).ToNumber()));
    EXPECT_FALSE(std::signbit(a.FirstEntry()->m_Key.ToNumber()));
}

TEST(FromTextDirect, HandsOverWhatIsNotData)
{
    const char *texts[] = {
        "1 + 1",          "{ f = function() end }", "local x = 1",   "print",        "Point 'x'",
        "{ [true] = 1 }", "{ [a] = 1 }",            "a.name",        "-x",           "{ __ctor = 'x' }",
        "{ __flags = 1 }", "{ ['__ctor'] = 1 }",    "{ 1 } { 2 }",   "1, 2",         "ordered()",
        "ordered() Point {}", "x[1]",               "MemBlock(4)",   "_",            "{ ['a\\0'] = 1 }",
        "{ 1 2 }",        "\"abc",                  "[[abc",         "1e",           "0x1p4",
        "'\\300'",        "[=x",                    "{ a == 1 }",    "a..b",         "{ a = } ",
        "{ a = 1, a = nil }",
    };
    for (const char *text : texts)
    {
        ScriptVal out;
        std::string result;
        EXPECT_FALSE(datalua::ReadDirect(text, std::strlen(text), datalua::TextPrologue::Serialize, TestLimits(),
                                         out, result))
            << text;
        EXPECT_TRUE(out.IsNil()) << text;
    }
    // Without the serialize prologue a name is a global that holds nothing: the interpreter decides.
    ScriptVal out;
    std::string result;
    EXPECT_FALSE(datalua::ReadDirect("Point {}", 8, datalua::TextPrologue::Return, TestLimits(), out, result));
    EXPECT_TRUE(datalua::ReadDirect("HexData '01'", 12, datalua::TextPrologue::Return, TestLimits(), out, result));
}

TEST(FromTextDirect, NestingBeyondItsMarginGoesToTheInterpreter)
{
    auto nested = [](int depth) { return std::string(depth, '{') + std::string(depth, '}'); };
    ScriptVal out;
    std::string result;
    const std::string shallow = nested(100), deep = nested(101);
    EXPECT_TRUE(datalua::ReadDirect(shallow.data(), shallow.size(), datalua::TextPrologue::Return, TestLimits(), out,
                                    result));
    EXPECT_FALSE(
        datalua::ReadDirect(deep.data(), deep.size(), datalua::TextPrologue::Return, TestLimits(), out, result));
}

// ---- FromText: buffer, prologue, freeing -------------------------------------------------------

TEST(FromText, ErrorBufferHoldsTheResultTextAfterSuccess)
{
    EXPECT_EQ(Read("\"abc\"").buffer, "abc");
    EXPECT_EQ(Read("0.1").buffer, "0.1");
    EXPECT_EQ(Read("1e300").buffer, "1e+300");
    EXPECT_EQ(Read("'a\\0b'").buffer, "a");
    EXPECT_EQ(Read("{ 1 }").buffer, "");
    EXPECT_EQ(Read("HexData [[ 41 ]]").buffer, "");

    // Size 0 leaves the buffer alone; a short buffer is cut with a NUL.
    ScriptVal v;
    char buffer[8] = "keep";
    EXPECT_TRUE(v.FromText("'abcdefghij'", nullptr, buffer, 0));
    EXPECT_STREQ(buffer, "keep");
    EXPECT_TRUE(v.FromText("'abcdefghij'", nullptr, buffer, 4));
    EXPECT_STREQ(buffer, "abc");
    EXPECT_STREQ(v.ToString(), "abcdefghij");
}

TEST(FromText, NullPrologueAndTextsThatFreeThemselves)
{
    ScriptVal v;
    EXPECT_TRUE(v.FromText("{ 1 }", nullptr, nullptr, 0));
    EXPECT_EQ(Describe(v), "TL{1=1;}");
    EXPECT_TRUE(v.FromText(nullptr, nullptr, nullptr, 0));
    EXPECT_TRUE(v.IsNil());
    EXPECT_TRUE(v.FromText(strdup("{ x = 'y' }"), GetSerializePrologue(), nullptr, 0, true));
    EXPECT_EQ(Describe(v), "TSL{'x'='y';}");
    // A freed text that goes on to the interpreter is freed once too (checked under the sanitizers).
    (void)v.FromText(strdup("1 + 1"), nullptr, nullptr, 0, true);
    ScriptValText named("Point { 1 }");
    EXPECT_EQ(Describe(named), "TL:Point{1=1;}");
}

TEST(FromText, ChunksThatNeedTheInterpreter)
{
    if (!InterpreterAvailable()) GTEST_SKIP() << "the data-text interpreter is not built in";
    ReadResult sum = Read("1 + 1", nullptr);
    EXPECT_TRUE(sum.ok);
    EXPECT_EQ(Describe(sum.value), "2");
    EXPECT_EQ(sum.buffer, "2");
    ReadResult global = Read("Point { }", nullptr);
    EXPECT_FALSE(global.ok);
    EXPECT_NE(global.buffer.find("[string \"FromText\"]:1:"), std::string::npos) << global.buffer;
}

TEST(FromText, LimitsOfTheInterpreterHoldForDirectReadsToo)
{
    if (!InterpreterAvailable()) GTEST_SKIP() << "the data-text interpreter is not built in";
    const datalua::RunLimits saved = datalua::GetRunLimits();
    datalua::RunLimits low = saved;
    low.maxCallDepth = 20;
    low.maxMemory = size_t(4) << 20;
    datalua::SetRunLimits(low);
    const std::string deep = std::string(30, '{') + std::string(30, '}');
    std::string big = "{ ";
    for (int i = 0; i < 100000; ++i)
        big += "{ x = " + std::to_string(i) + " }, ";
    big += "}";
    ReadResult nested = Read(deep), large = Read(big), small = Read(std::string(5, '{') + std::string(5, '}'));
    datalua::SetRunLimits(saved);
    EXPECT_FALSE(nested.ok);
    EXPECT_FALSE(large.ok);
    EXPECT_FALSE(large.buffer.empty());
    EXPECT_TRUE(small.ok);
}

// ---- failures ----------------------------------------------------------------------------------

TEST(FromText, BadTextsFailWithNilAndAMessage)
{
    struct Bad
    {
        std::string text;
        int line; // where the interpreter reports it
    };
    const std::vector<Bad> bad = {
        {"{ 1,\n 2", 2},       {"{ a = 1 }}", 1},     {"{\n{ 1 }", 2},  {"\"abc\ndef\"", 1},
        {"'\\300'", 1},        {"[[abc\n", 2},        {"1e", 1},         {"0x1.8", 1},
        {"{ 1 2 }", 1},        {"\n\n{ = }", 3},      {"Point 'x'", 1},
        {std::string(100000, '{') + std::string(100000, '}'), 1},
    };
    for (const Bad &b : bad)
    {
        ReadResult r = Read(b.text);
        EXPECT_FALSE(r.ok) << b.text.substr(0, 40);
        EXPECT_TRUE(r.value.IsNil()) << b.text.substr(0, 40);
        EXPECT_FALSE(r.buffer.empty()) << b.text.substr(0, 40);
        if (InterpreterAvailable())
        {
            const std::string where = "[string \"FromText\"]:" + std::to_string(b.line) + ":";
            EXPECT_EQ(r.buffer.rfind(where, 0), 0u) << r.buffer;
        }
    }
    if (InterpreterAvailable())
    {
        ReadResult named = Read("{", GetSerializePrologue(), "settings.txt");
        EXPECT_EQ(named.buffer.rfind("[string \"settings.txt\"]:1:", 0), 0u) << named.buffer;
    }
}

// ---- sizes -------------------------------------------------------------------------------------

TEST(FromText, LongStringsAndManyConstants)
{
    std::string big(50u << 20, 'a');
    for (size_t i = 1000; i < big.size(); i += 100000)
        big[i] = '\n'; // written as \n: the decoding path
    ScriptVal source(big.c_str());
    ReadResult r = Read(Write(source));
    ASSERT_TRUE(r.ok);
    EXPECT_EQ(std::strlen(r.value.ToString("")), big.size());
    EXPECT_TRUE(r.value == source);

    std::string many = "{ ";
    for (int i = 0; i < 300000; ++i)
        many += "k" + std::to_string(i) + " = \"v" + std::to_string(i) + "\", ";
    many += "}";
    r = Read(many);
    ASSERT_TRUE(r.ok);
    EXPECT_EQ(r.value.NumKeys(), 300000);
    EXPECT_STREQ(r.value.FindKeyConst("k299999").ToString(), "v299999");
}

// ---- the writer's texts read back --------------------------------------------------------------

// Random values of every kind that the text form carries, and the value that reading their text gives.
class ValueGenerator
{
public:
    explicit ValueGenerator(uint32_t seed) : m_Rng(seed) {}

    ScriptVal Value(int depth)
    {
        switch (Pick(depth > 0 ? 10 : 7))
        {
        case 0: return Number();
        case 1: return String();
        case 2: return ScriptVal(Pick(2) == 0);
        case 3: return Block();
        case 4: return ScriptVal(static_cast<float>(Pick(2000)) / 8.0f);
        case 5: return Pick(4) == 0 ? ScriptVal("xyz", 3, 0) : ScriptVal();
        case 6: return ScriptVal(static_cast<double>(Pick(100000)));
        default: return Table(depth - 1);
        }
    }

    ScriptVal Table(int depth)
    {
        uint32_t flags = 0;
        if (Pick(3) == 0) flags |= SVF_Ordered;
        if (Pick(3) == 0) flags |= SVF_OneLine;
        if (Pick(4) == 0) flags |= SVF_Single;
        ScriptVal t(SVType(SV_Table, flags), nullptr);
        static const char *const names[] = {"Point", "A.B.Name", "Vec3", "x.y_z"};
        if (Pick(4) == 0) t.SetConstructor(names[Pick(4)]);
        const int count = Pick(12) == 0 ? 300 : Pick(8);
        const int dense = Pick(2) ? Pick(count + 1) : 0;
        for (int i = 1; i <= dense; ++i)
            t[i] = Value(i < 20 ? depth : 0);
        for (int i = dense; i < count; ++i)
        {
            ScriptVal key = Key();
            t[key] = Value(depth);
        }
        return t;
    }

private:
    int Pick(int n) { return static_cast<int>(m_Rng() % static_cast<uint32_t>(n)); }

    ScriptVal Number()
    {
        switch (Pick(4))
        {
        case 0: return ScriptVal(static_cast<double>(Pick(2000000)) - 1000000);
        case 1: return ScriptVal(Pick(1000) / 64.0);
        case 2: return ScriptVal(std::ldexp(static_cast<double>(m_Rng()), Pick(200) - 100));
        default: return ScriptVal(1.0 / (1 + Pick(1000)));
        }
    }

    ScriptVal String()
    {
        std::string s;
        const int n = Pick(6) == 0 ? 300 : Pick(12);
        for (int i = 0; i < n; ++i)
            s.push_back(static_cast<char>(1 + Pick(255)));
        return Str(s);
    }

    ScriptVal Block()
    {
        std::vector<unsigned char> bytes(Pick(5) == 0 ? 40 : Pick(18));
        for (auto &b : bytes)
            b = static_cast<unsigned char>(m_Rng());
        return ScriptVal(MemBlock(bytes.data(), bytes.size()));
    }

    ScriptVal Key()
    {
        static const char *const words[] = {"x", "end", "_x", "", "a1_b", "while", "ordered", "name",
                                            "HexData", "a b", "Zz9", "nil2"};
        switch (Pick(5))
        {
        case 0: return ScriptVal(static_cast<double>(Pick(64)) - 8);
        case 1: return ScriptVal(Pick(64) / 4.0 + 0.5);
        case 2: return String();
        case 3: return ScriptVal(static_cast<float>(Pick(100)) + 0.25f);
        default: return ScriptVal(words[Pick(12)]);
        }
    }

    std::mt19937 m_Rng;
};

// A number as its text gives it back.
double ThroughText(const ScriptVal &n)
{
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, n.GetFlags(SVF_Single) ? "%g" : "%.15g", n.m_Value.m_Number);
    return std::strtod(buffer, nullptr);
}

// What reading the text of `v` gives.
ScriptVal Expected(const ScriptVal &v)
{
    switch (v.Type())
    {
    case SV_Number: return ScriptVal(ThroughText(v));
    case SV_String:
    case SV_Boolean:
    case SV_MemBlock: return v;
    case SV_Table:
    case SV_Args: break;
    default: return ScriptVal();
    }
    const bool single = v.GetFlags(SVF_Single) != 0;
    const char *name = v.GetConstructor();
    bool positional = false, first = true, oneLine = false;
    double p = 1;
    std::vector<std::pair<double, ScriptVal>> numbers;
    std::vector<std::pair<ScriptVal, ScriptVal>> others;
    for (TableEntry *e = v.FirstEntry(); e; e = e->m_Next)
    {
        if (e->m_Key.IsNil() || e->m_Value.IsNil()) continue;
        if (first) oneLine = v.GetFlags(SVF_OneLine) && Write(e->m_Value, 1).find('\n') == std::string::npos;
        first = false;
        ScriptVal value = Expected(e->m_Value);
        if (e->m_Key.IsNumber() && !single && e->m_Key.m_Value.m_Number == p)
        {
            positional = true;
            numbers.emplace_back(p++, std::move(value));
        }
        else if (e->m_Key.IsNumber())
            numbers.emplace_back(ThroughText(e->m_Key) + 0.0, std::move(value)); // -0 reads as key 0
        else
            others.emplace_back(e->m_Key, std::move(value));
    }
    std::stable_sort(numbers.begin(), numbers.end(),
                     [](const auto &a, const auto &b) { return a.first < b.first; });
    uint32_t flags = 0;
    if (v.GetFlags(SVF_Ordered) && !name) flags |= SVF_Ordered;
    if (!positional) flags |= SVF_Single;
    if (oneLine) flags |= SVF_OneLine;
    ScriptVal out(SVType(SV_Table, flags), nullptr);
    if (name && v.IsTable()) out.SetConstructor(name);
    TableEntry *head = nullptr, **link = &head;
    auto append = [&](const ScriptVal &key, ScriptVal &value) {
        if (value.IsNil()) return;
        auto *e = new TableEntry(key);
        e->m_Value = std::move(value);
        *link = e;
        link = &e->m_Next;
    };
    for (auto &n : numbers)
        append(ScriptVal(n.first), n.second);
    for (auto &o : others)
        append(o.first, o.second);
    out.SetTable(head);
    return out;
}

std::vector<std::string> GeneratedTexts(int count)
{
    ValueGenerator gen(20261123);
    std::vector<std::string> texts;
    for (int i = 0; i < count; ++i)
        texts.push_back(Write(i % 5 == 0 ? gen.Value(3) : gen.Table(3), i % 7 == 0 ? -1 : i % 3));
    return texts;
}

TEST(FromTextRoundTrip, WrittenValuesReadBackWithOrderFlagsAndNames)
{
    ValueGenerator gen(7);
    for (int i = 0; i < 300; ++i)
    {
        const ScriptVal v = i % 5 == 0 ? gen.Value(3) : gen.Table(3);
        const std::string text = Write(v);
        ScriptVal direct;
        std::string result;
        ASSERT_TRUE(datalua::ReadDirect(text.data(), text.size(), datalua::TextPrologue::Serialize, TestLimits(),
                                        direct, result))
            << text.substr(0, 200);
        const std::string expected = Describe(Expected(v));
        EXPECT_EQ(Describe(direct), expected) << text.substr(0, 300);
        // Through FromText, and from the texts of other depths.
        ReadResult r = Read(Write(v, i % 4 - 1));
        ASSERT_TRUE(r.ok) << r.buffer;
        EXPECT_EQ(Describe(r.value), expected);
    }
}

TEST(FromTextRoundTrip, InfinitiesReadBack)
{
    EXPECT_EQ(Describe(Read(Write(ScriptVal(INFINITY))).value), "inf");
    EXPECT_EQ(Describe(Read(Write(ScriptVal(-INFINITY))).value), "-inf");
}

// The files of a folder, as texts (cut at a NUL, as FromText sees them).
void AddFolder(std::vector<std::string> &texts, const char *folder)
{
    if (!folder || !std::filesystem::is_directory(folder)) return;
    for (const auto &entry : std::filesystem::directory_iterator(folder))
    {
        std::ifstream in(entry.path(), std::ios::binary);
        const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        texts.emplace_back(bytes.c_str());
    }
}

// The direct reader has to give what the interpreter gives, for the writer's texts, the quirks and the
// fuzz corpus (ORVEX_TEXT_COMPARE_DIR names one more folder of texts).
TEST(FromTextRoundTrip, DirectReaderAgreesWithTheInterpreter)
{
    if (!InterpreterAvailable()) GTEST_SKIP() << "the data-text interpreter is not built in";
    std::vector<std::string> texts = GeneratedTexts(200);
    for (const ReadCase &c : kReadCases)
        texts.emplace_back(c.text);
#ifdef ORVEX_TEXT_CORPUS
    AddFolder(texts, ORVEX_TEXT_CORPUS);
#endif
    AddFolder(texts, std::getenv("ORVEX_TEXT_COMPARE_DIR"));
    for (const std::string &text : texts)
    {
        for (datalua::TextPrologue prologue : {datalua::TextPrologue::Serialize, datalua::TextPrologue::Return})
        {
            ScriptVal direct;
            std::string directText;
            if (!datalua::ReadDirect(text.data(), text.size(), prologue, TestLimits(), direct, directText)) continue;
            const char *front = prologue == datalua::TextPrologue::Serialize ? GetSerializePrologue() : "return ";
            const char *pieces[3] = {front, text.c_str(), ""};
            const size_t lengths[3] = {std::strlen(front), text.size(), 0};
            ScriptVal run;
            std::string error, runText;
            ASSERT_TRUE(datalua::RunText(pieces, lengths, 3, "FromText", run, error, runText, nullptr, nullptr))
                << error << "\n" << text.substr(0, 300);
            const std::string a = Describe(direct), b = Describe(run);
            EXPECT_TRUE(a == b) << Difference(a, b) << "\n" << text.substr(0, 300);
            EXPECT_EQ(directText, runText) << text.substr(0, 300);
        }
    }
}

// The fuzz target's seed corpus: writer texts of generated values. Run with ORVEX_WRITE_TEXT_CORPUS set
// to a folder to (re)write it.
TEST(FromTextRoundTrip, WritesTheSeedCorpusOnRequest)
{
    const char *folder = std::getenv("ORVEX_WRITE_TEXT_CORPUS");
    if (!folder) GTEST_SKIP() << "ORVEX_WRITE_TEXT_CORPUS not set";
    std::vector<std::string> texts = GeneratedTexts(40);
    for (const ReadCase &c : kReadCases)
        texts.emplace_back(c.text);
    int n = 0;
    for (const std::string &text : texts)
    {
        if (text.size() > 2048) continue;
        char name[32];
        std::snprintf(name, sizeof name, "seed-%03d", n++);
        std::ofstream(std::filesystem::path(folder) / name, std::ios::binary) << text;
    }
}

#ifdef ORVEX_TEXT_CORPUS
// Every kept fuzz input still reads without fault, and reads the same twice.
TEST(FromTextRoundTrip, FuzzCorpusReadsCleanly)
{
    int files = 0;
    for (const auto &entry : std::filesystem::directory_iterator(ORVEX_TEXT_CORPUS))
    {
        std::ifstream in(entry.path(), std::ios::binary);
        const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        ReadResult a = Read(text.c_str()), b = Read(text.c_str());
        EXPECT_EQ(a.ok, b.ok) << entry.path();
        EXPECT_EQ(Describe(a.value), Describe(b.value)) << entry.path();
        ++files;
    }
    EXPECT_GT(files, 0);
}
#endif

} // namespace
