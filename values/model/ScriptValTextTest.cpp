// Tests of the value text writer: the exact bytes of every construct, and ToTextLen against what
// ToText writes for every kind and several depths.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "values/model/MemBlock.h"
#include "values/model/ScriptArgs.h"
#include "values/model/ScriptVal.h"

using namespace orvexScript;

namespace
{

// The text at `depth`, checking that ToTextLen and ToText's end pointer agree with the bytes.
std::string Text(const ScriptVal &value, int depth = 0)
{
    const unsigned long len = value.ToTextLen(depth);
    std::vector<char> buffer(len + 2, '\x7f');
    char *end = value.ToText(buffer.data(), depth);
    EXPECT_EQ(end, buffer.data() + len);
    EXPECT_EQ(std::strlen(buffer.data()), len);
    EXPECT_EQ(buffer[len + 1], '\x7f'); // nothing written past the terminator
    return std::string(buffer.data(), len);
}

ScriptVal Table(uint32_t flags = 0)
{
    return ScriptVal(SVType(SV_Table, flags), nullptr);
}

ScriptVal Block(std::vector<unsigned char> bytes)
{
    return ScriptVal(MemBlock(bytes.data(), bytes.size()));
}

std::vector<unsigned char> Bytes(int n)
{
    std::vector<unsigned char> bytes;
    for (int i = 0; i < n; ++i)
        bytes.push_back(static_cast<unsigned char>(i));
    return bytes;
}

ScriptVal Single(float v)
{
    return ScriptVal(v);
}

struct Case
{
    const char *name;
    ScriptVal value;
    int depth;
    const char *text;
};

std::vector<Case> WriterCases()
{
    std::vector<Case> cases;
    auto add = [&](const char *name, ScriptVal v, const char *text, int depth = 0) {
        cases.push_back(Case{name, std::move(v), depth, text});
    };
    {
        ScriptVal t = Table();
        t[1] = 10;
        t[2] = 20;
        t["x"] = "a";
        add("positional and named", t, "{\n\t10,\n\t20,\n\tx = \"a\",\n}");
    }
    {
        ScriptVal t = Table();
        t.SetConstructor("Point");
        t["y"] = 1;
        add("constructor name", t, "Point {\n\ty = 1,\n}");
        t.SetFlags(SVF_Ordered);
        add("ordered with a name", t, "ordered() (Point {\n\ty = 1,\n})");
        ScriptVal o = Table(SVF_Ordered);
        o["b"] = 1;
        add("ordered", o, "ordered() {\n\tb = 1,\n}");
    }
    {
        ScriptVal t = Table();
        t["t"] = Table();
        t["t"][1] = 1;
        add("nested", t, "{\n\tt = {\n\t\t1,\n\t},\n}");
        add("nested at a negative depth", t, "{\nt = {\n\t1,\n},\n}", -1);
        add("nested at depth 2", t, "{\n\t\t\tt = {\n\t\t\t\t1,\n\t\t\t},\n\t\t}", 2);
    }
    {
        ScriptVal t = Table();
        t[1] = "a";
        t[2] = "b";
        t[4] = "d";
        add("gap ends the positions", t, "{\n\t\"a\",\n\t\"b\",\n\t[4] = \"d\",\n}");
        ScriptVal u = Table();
        u[2] = 2;
        u[3] = 3;
        add("no key 1", u, "{\n\t[2] = 2,\n\t[3] = 3,\n}");
        ScriptVal s = Table(SVF_Single);
        s[1] = 1;
        s[2] = 2;
        add("single writes every key", s, "{\n\t[1] = 1,\n\t[2] = 2,\n}");
        ScriptVal f = Table();
        f[1.5] = 1;
        f[Single(2.5f)] = 2;
        f[-1] = 3;
        add("float and negative keys", f, "{\n\t[-1] = 3,\n\t[1.5] = 1,\n\t[2.5] = 2,\n}");
    }
    {
        ScriptVal t = Table();
        for (const char *key : {"end", "_x", "a1_b", "", "a b", "while", "x\n"})
            t[key] = 1;
        add("key forms", t,
            "{\n\t[\"end\"] = 1,\n\t[\"_x\"] = 1,\n\ta1_b = 1,\n\t[\"\"] = 1,\n\t[\"a b\"] = 1,\n"
            "\t[\"while\"] = 1,\n\t[\"x\\n\"] = 1,\n}");
    }
    {
        ScriptVal t = Table();
        t[1] = ScriptVal();
        t[2] = 2;
        t[ScriptVal(true)] = "b";
        t["n"] = ScriptVal();
        t[3] = 3;
        add("nil values and a boolean key", t, "{\n\t[2] = 2,\n\t\"b\",\n\t[3] = 3,\n}");
    }
    add("escapes", ScriptVal("a\\b\"c\rd\ne\tf\x01g'"), "\"a\\\\b\\\"c\\rd\\ne\tf\x01g'\"");
    add("empty string", ScriptVal(""), "\"\"");
    {
        ScriptVal t = Table(SVF_OneLine);
        t[1] = 1;
        t[2] = 2;
        t[3] = 3;
        add("one line", t, "{ 1, 2, 3, }");
        add("one line nested", [&] {
            ScriptVal outer = Table();
            outer["p"] = t;
            return outer;
        }(), "{\n\tp = { 1, 2, 3, },\n}");
        add("empty one line", Table(SVF_OneLine), "{ }");
        add("empty", Table(), "{\n}");
        add("empty at depth 2", Table(), "{\n\t\t}", 2);
    }
    add("two bytes", Block({1, 2}), "HexData [[ 01 02 ]]");
    add("empty block", ScriptVal(MemBlock()), "HexData [[ ]]");
    add("sixteen bytes", Block(Bytes(16)),
        "HexData [[ 00 01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F\n\t]]");
    add("seventeen bytes", Block(Bytes(17)),
        "HexData [[\n\t00 01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F\n\t10 ]]");
    add("block at depth 1", Block(Bytes(17)),
        "HexData [[\n\t\t00 01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F\n\t\t10 ]]", 1);
    add("block at a negative depth", Block(Bytes(17)),
        "HexData [[\n00 01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F\n10 ]]", -1);
    add("block bytes", Block({0xAB, 0xFF, 0x0c}), "HexData [[ AB FF 0C ]]");
    add("integer", ScriptVal(5), "5");
    add("negative zero", ScriptVal(-0.0), "-0");
    add("fraction", ScriptVal(0.1), "0.1");
    add("fifteen digits", ScriptVal(1.0 / 3), "0.333333333333333");
    add("large", ScriptVal(1e20), "1e+20");
    add("fifteen-digit integer", ScriptVal(999999999999999.0), "999999999999999");
    add("sixteen-digit integer", ScriptVal(1e15), "1e+15");
    add("single", Single(0.1f), "0.1");
    add("single integer", Single(123456.0f), "123456");
    add("single large integer", Single(1234567.0f), "1.23457e+06");
    add("infinity", ScriptVal(INFINITY), "1e999");
    add("negative infinity", Single(-INFINITY), "-1e999");
    add("not a number", ScriptVal(std::nan("")), "(0/0)");
    add("true", ScriptVal(true), "true");
    add("false", ScriptVal(false), "false");
    add("nil", ScriptVal(), "nil");
    add("code", ScriptVal("xyz", 3, 0), "nil");
    {
        ScriptVal f;
        uint64_t address = 1234;
        f.Set(SV_Function, &address);
        add("function", f, "nil");
    }
    return cases;
}

TEST(ScriptValText, WritesEachConstructExactly)
{
    for (const Case &c : WriterCases())
        EXPECT_EQ(Text(c.value, c.depth), c.text) << c.name;
}

TEST(ScriptValText, NumbersPrintAsTheCLibraryPrintsThem)
{
    std::mt19937_64 rng(42);
    std::vector<double> numbers = {0.1, 1e-5, 1e-4, 123456.5, 1e15 - 0.5, 1e16, 5e-324, 1.7976931348623157e308,
                                   0.5, 2.5, 9.9999999999999995, 999999.5, 1e21, -3.25e-7, 100, 1e6, 2.2250738585072014e-308,
                                   1.1754943508222875e-38, 1e-40, 3.4028234663852886e38};
    for (int i = 0; i < 20000; ++i)
    {
        uint64_t bits = rng();
        double d;
        std::memcpy(&d, &bits, sizeof d);
        if (std::isfinite(d)) numbers.push_back(d);
        float f;
        const uint32_t floatBits = static_cast<uint32_t>(rng());
        std::memcpy(&f, &floatBits, sizeof f);
        if (std::isfinite(f)) numbers.push_back(f);
        numbers.push_back(static_cast<double>(static_cast<int64_t>(rng() >> (rng() % 64))) / (1 << (rng() % 20)));
    }
    char expected[64];
    for (double d : numbers)
    {
        std::snprintf(expected, sizeof expected, "%.15g", d);
        ASSERT_EQ(Text(ScriptVal(d)), expected);
        const float f = static_cast<float>(d);
        if (!std::isfinite(f)) continue;
        std::snprintf(expected, sizeof expected, "%g", static_cast<double>(f));
        ASSERT_EQ(Text(Single(f)), expected);
    }
}

TEST(ScriptValText, ArgsWriteLikeATableWithoutName)
{
    ScriptArgs args;
    args[1] = "a";
    args["k"] = true;
    EXPECT_EQ(Text(args), "{\n\t\"a\",\n\tk = true,\n}");
}

TEST(ScriptValText, OneLineTableWrapsAfterEvery256Entries)
{
    for (int depth : {0, 2, -1})
    {
        ScriptVal t = Table(SVF_OneLine);
        for (int i = 1; i <= 513; ++i)
            t[i] = i;
        std::string expected = "{ ";
        const std::string tabs(depth < 0 ? 0 : depth + 1, '\t');
        for (int i = 1; i <= 513; ++i)
        {
            expected += std::to_string(i);
            expected += (i % 256 == 0) ? ",\n" + tabs : ", ";
        }
        expected += "}";
        EXPECT_EQ(Text(t, depth), expected) << depth;
    }
    // Exactly 256 entries: the last needs no break, as none follows.
    ScriptVal t = Table(SVF_OneLine);
    for (int i = 1; i <= 256; ++i)
        t[i] = 0;
    const std::string text = Text(t);
    EXPECT_EQ(text.find('\n'), std::string::npos);
    EXPECT_EQ(text.substr(text.size() - 7), "0, 0, }");
}

TEST(ScriptValText, OneLineWrapCountsLiveEntriesOnly)
{
    // Nil entries neither count nor count as "another entry follows".
    ScriptVal t = Table(SVF_OneLine);
    for (int i = 1; i <= 256; ++i)
        t[i] = 1;
    t["dead"] = ScriptVal();
    EXPECT_EQ(Text(t).find('\n'), std::string::npos);
    t["live"] = 1;
    EXPECT_NE(Text(t).find(",\n\tlive = 1, }"), std::string::npos);
}

// A value holding every kind, nested, with every key form.
ScriptVal EveryKind()
{
    ScriptVal t(SVType(SV_Table, SVF_Ordered), nullptr);
    t.SetConstructor("A.B.Name");
    t[1] = 1.25;
    t[2] = "s\r\n\"\\";
    t[7] = Single(3.5f);
    t[ScriptVal(false)] = true;
    t["plain"] = Block(Bytes(40));
    t["not plain"] = Block(Bytes(3));
    t["code"] = ScriptVal("abc", 3, 0);
    ScriptVal inner(SVType(SV_Table, SVF_OneLine | SVF_Single), nullptr);
    for (int i = 1; i <= 300; ++i)
        inner[i] = i * 0.5;
    inner["deep"] = Table();
    inner["deep"]["x"] = Block({1});
    t["inner"] = inner;
    ScriptArgs args;
    args[1] = 1;
    t["args"] = args;
    t["empty"] = Table(SVF_OneLine);
    return t;
}

TEST(ScriptValText, LengthMatchesTextForEveryKindAndDepth)
{
    std::vector<ScriptVal> values = {ScriptVal(),       ScriptVal(1.5),     Single(2.25f),
                                     ScriptVal("a\nb"), ScriptVal(true),    Block(Bytes(33)),
                                     ScriptVal(MemBlock()),       ScriptVal("x", 1, 0),
                                     ScriptVal(std::nan("")), ScriptVal(-INFINITY), EveryKind()};
    for (const ScriptVal &v : values)
        for (int depth : {0, 3, -2})
            Text(v, depth); // Text checks length, end pointer and terminator
}

} // namespace
