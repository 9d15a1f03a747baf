// Tests of ScriptVal tables: key order, the look-up family on tables and non-tables, nested paths,
// counting and iteration, copying (array path and general path), the entry pool under threads, and
// the index of large tables against the plain list walk.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "values/base/StringBlock.h"
#include "values/model/KeID.h"
#include "values/model/ScriptArgs.h"
#include "values/model/ScriptVal.h"
#include "values/model/TableEntry.h"
#include "values/model/TableIndex.h"

using namespace orvexScript;

namespace
{

// The keys of a table in list order, as text.
std::string Keys(const ScriptVal &t)
{
    std::string out;
    for (TableEntry *e = t.FirstEntry(); e; e = e->m_Next)
    {
        if (!out.empty())
            out += ",";
        out += e->m_Key.IsString() ? e->m_Key.ToString() : std::to_string(e->m_Key.ToInteger());
    }
    return out;
}

ScriptVal Table()
{
    return ScriptVal(SV_Table, nullptr);
}

ScriptVal NumberArray(int n, int skip = 0)
{
    ScriptVal t = Table();
    for (int i = 1; i <= n + (skip ? 1 : 0); ++i)
        if (i != skip)
            t[i] = i * 10.0;
    return t;
}

} // namespace

TEST(ScriptValTable, NumberKeysInsertInOrder)
{
    ScriptVal t = Table();
    t["b"] = 1;
    t[3] = 1;
    t["a"] = 1;
    t[1] = 1;
    EXPECT_EQ(Keys(t), "b,1,3,a");

    ScriptVal u = Table();
    u[2] = 1;
    u[1] = 1;
    u[3] = 1;
    EXPECT_EQ(Keys(u), "1,2,3");
    u[1.5f] = 7;
    EXPECT_EQ(u.FindKeyConst(1.5).ToNumber(), 7.0); // float and double keys are the same key
    u[NAN] = 1;                                      // matches nothing, goes to the tail
    u[NAN] = 1;
    EXPECT_EQ(u.NumKeys(), 6);
    u[0] = 1;
    EXPECT_EQ(u.FirstEntry()->m_Key.ToNumber(), 0.0);
}

TEST(ScriptValTable, LookupsOnNonTablesChangeNothing)
{
    ScriptVal v(5);
    v["x"] = 1;
    v[1] = 2;
    EXPECT_TRUE(v.IsNumber());
    EXPECT_EQ(v.ToNumber(), 5.0);
    EXPECT_TRUE(v.FindKeyConst("x").IsNil());
    EXPECT_EQ(v.FindKeyNoCase("x"), nullptr);
    EXPECT_FALSE(v.Exists(ScriptVal("x")));
    EXPECT_EQ(v.NumKeys(), 0);
    EXPECT_TRUE(v.IsEmpty());
    TableEntry *cursor = reinterpret_cast<TableEntry *>(&v);
    EXPECT_FALSE(v.NextKey(cursor));
    EXPECT_EQ(cursor, reinterpret_cast<TableEntry *>(&v));
    v.SetKey("x", ScriptVal(1));
    EXPECT_TRUE(v.GetKey("x").IsNil());
}

TEST(ScriptValTable, ConstLookupGivesNilAndAddsNothing)
{
    ScriptVal t = Table();
    const ScriptVal &c = t;
    EXPECT_EQ(&c["missing"], &nil);
    EXPECT_EQ(&c.FindKeyConst(4), &nil);
    const_cast<ScriptVal &>(c["missing"]) = 3; // assignment to nil does nothing
    EXPECT_TRUE(nil.IsNil());
    EXPECT_FALSE(t.Exists("missing"));
    t.FindKey("missing");
    EXPECT_TRUE(t.Exists("missing"));
}

TEST(ScriptValTable, NilValuesStayInTheListButAreNotCounted)
{
    ScriptVal t = Table();
    t.GetKey("x"); // adds a nil entry
    EXPECT_TRUE(t.Exists("x"));
    EXPECT_EQ(t.NumKeys(), 0);
    t["a"] = 1;
    t["b"] = 2;
    t["a"] = SV_Nil;
    EXPECT_EQ(t.NumKeys(), 1);
    EXPECT_TRUE(t.Exists("a"));
    std::vector<std::string> seen;
    for (TableEntry *e = nullptr; t.NextKey(e);)
        seen.push_back(e->m_Key.ToString());
    EXPECT_EQ(seen, std::vector<std::string>{"b"});
    t["b"] = SV_Nil;
    EXPECT_TRUE(t.IsEmpty());
    EXPECT_EQ(Keys(t), "x,a,b");
}

TEST(ScriptValTable, StringKeysByLengthAndCase)
{
    ScriptVal t = Table();
    t["key"] = 1;
    EXPECT_EQ(t.FindKeyNoCase("KEY")->ToNumber(), 1.0);
    t["KEY"] = 2; // same hash, different bytes: its own entry
    EXPECT_EQ(Keys(t), "key,KEY");
    EXPECT_EQ(t.FindKeyConst("key").ToNumber(), 1.0);
    ScriptVal *added = t.FindKeyNoCase("Other");
    ASSERT_NE(added, nullptr);
    EXPECT_EQ(Keys(t), "key,KEY,Other");
    EXPECT_EQ(t.FindKeyNoCaseConst("OTHER"), added);
    EXPECT_EQ(t.FindKeyNoCaseConst("nothing"), nullptr);
    EXPECT_EQ(t.FindKeyNoCase(ScriptVal("none")), nullptr);

    EXPECT_EQ(t.FindKeyConst("keyboard", 3).ToNumber(), 1.0);
    EXPECT_EQ(&t.FindKey("keyboard", 3), &t.FindKey("key"));
    EXPECT_TRUE(t.FindKeyConst("ke", 2).IsNil()); // a prefix of a stored key is another key
    EXPECT_EQ(t.FindKeyConst(KeID("KEY")).ToNumber(), 2.0);
}

// "csup" and "hpvohmywtita" share a hash: the look-up of the longer must not read past the shorter's block.
TEST(ScriptValTable, EqualHashesOfDifferentLengthsStayApart)
{
    ASSERT_EQ(StringHash("csup"), StringHash("hpvohmywtita"));
    ScriptVal t = Table();
    t["csup"] = 1;
    EXPECT_TRUE(t.FindKeyConst("hpvohmywtita").IsNil());
    EXPECT_TRUE(t.FindKeyConst("hpvohmywtita", 12).IsNil());
    EXPECT_EQ(t.FindKeyNoCaseConst("HPVOHMYWTITA"), nullptr);
    t["hpvohmywtita"] = 2;
    EXPECT_EQ(t.FindKeyConst("csup").ToNumber(), 1.0);
    EXPECT_EQ(t.FindKeyConst("hpvohmywtita").ToNumber(), 2.0);
}

TEST(ScriptValTable, KeyKindsThatNeverMatchAlwaysAppend)
{
    ScriptVal t = Table();
    ScriptVal tableKey = Table();
    t.FindKey(tableKey) = 1;
    t.FindKey(tableKey) = 2;
    EXPECT_EQ(t.NumKeys(), 2);
    t.FindKey(ScriptVal(true)) = 1;
    t.FindKey(ScriptVal(true)) = 2;
    EXPECT_EQ(t.NumKeys(), 3);
}

TEST(ScriptValTable, AddKeyAppendsWithoutSearching)
{
    ScriptVal t = Table();
    t.AddKey(ScriptVal("a")) = 1;
    t.AddKey(ScriptVal("a")) = 2;
    EXPECT_EQ(Keys(t), "a,a");
    t.AddKey(ScriptVal(1)) = 3; // a number key still takes its sorted place
    t.AddKey(ScriptVal(1)) = 4;
    EXPECT_EQ(Keys(t), "a,a,1");
    EXPECT_EQ(t.FindKeyConst(1).ToNumber(), 4.0);
}

TEST(ScriptValTableNest, CreateBuildsTablesOnTheWay)
{
    ScriptVal t = Table();
    ScriptVal *c = t.FindKeyNest("a.b.c", true);
    ASSERT_NE(c, nullptr);
    EXPECT_TRUE(c->IsNil());
    *c = 5;
    EXPECT_EQ(t["a"]["b"]["c"].ToNumber(), 5.0);
    *t.FindKeyNest("a.1", true) = "one";
    EXPECT_STREQ(t["a"].FindKeyConst(1).ToString(), "one");
    EXPECT_EQ(t.FindKeyNest(KeID("a.b.c"), true), c);
    EXPECT_EQ(t.FindKeyNest(ScriptVal("a.b.c"), false), c);
    EXPECT_EQ(t.FindKeyNest(ScriptVal(3), false), nullptr);
    EXPECT_EQ(t.FindKeyNest(static_cast<const char *>(nullptr), true), nullptr);

    ScriptVal u = Table();
    u["a"] = 1;
    ASSERT_NE(u.FindKeyNest("a.b", true), nullptr);
    EXPECT_TRUE(u["a"].IsTable());
}

TEST(ScriptValTableNest, NumberSegmentsAreThirtyTwoBitIntegers)
{
    // A segment is read as a 32-bit long: out of range it stops at the limit.
    ScriptVal t = Table();
    *t.FindKeyNest("a.4294967297", true) = 1;
    *t.FindKeyNest("a.-4294967297", true) = 2;
    *t.FindKeyNest("5000000000.x", true) = 3;
    EXPECT_EQ(t["a"].FindKeyConst(2147483647.0).ToNumber(), 1.0);
    EXPECT_EQ(t["a"].FindKeyConst(-2147483648.0).ToNumber(), 2.0);
    EXPECT_EQ(t.FindKeyConst(2147483647.0)["x"].ToNumber(), 3.0);
    EXPECT_EQ(t["a"].NumKeys(), 2);
    EXPECT_EQ(t.FindKeyNoCaseNestConst("2147483647.X")->ToNumber(), 3.0);
    EXPECT_EQ(t.FindKeyNestConst("a.9999999999")->ToNumber(), 1.0);
}

TEST(ScriptValTableNest, WithoutCreateTheLastSegmentStillAdds)
{
    ScriptVal t = Table();
    EXPECT_EQ(t.FindKeyNest("a.b", false), nullptr);
    EXPECT_FALSE(t.Exists("a"));
    t["a"] = SV_Table;
    ScriptVal *b = t.FindKeyNest("a.b", false);
    ASSERT_NE(b, nullptr);
    EXPECT_TRUE(t["a"].Exists("b"));
    t["n"] = 4;
    EXPECT_EQ(t.FindKeyNest("n.x", false), nullptr);
    EXPECT_EQ(ScriptVal(1).FindKeyNest("x", true), nullptr);

    const ScriptVal &c = t;
    EXPECT_EQ(c.FindKeyNestConst("a.zzz"), &nil);
    EXPECT_FALSE(t["a"].Exists("zzz"));
    EXPECT_EQ(c.FindKeyNestConst("missing.x"), nullptr);
    EXPECT_EQ(c.FindKeyNestConst("a.b"), b);
}

TEST(ScriptValTableNest, NoCaseFormsGiveNullForMissingKeys)
{
    ScriptVal t = Table();
    t["Group"] = SV_Table;
    t["Group"]["Item"] = 3;
    t["Group"][2] = 4;
    EXPECT_EQ(t.FindKeyNoCaseNest("group.ITEM", false)->ToNumber(), 3.0);
    EXPECT_EQ(t.FindKeyNoCaseNest("other.item", false), nullptr);
    EXPECT_EQ(t.FindKeyNoCaseNest("group.9", false), nullptr);
    EXPECT_EQ(t.FindKeyNoCaseNest("group.2", false)->ToNumber(), 4.0);
    ScriptVal *added = t.FindKeyNoCaseNest("GROUP.new", false);
    ASSERT_NE(added, nullptr);
    EXPECT_TRUE(t["Group"].Exists("new"));
    ASSERT_NE(t.FindKeyNoCaseNest("fresh.x", true), nullptr);
    EXPECT_TRUE(t["fresh"].IsTable());
    EXPECT_EQ(t.FindKeyNoCaseNestConst("GROUP.item")->ToNumber(), 3.0);
    EXPECT_EQ(t.FindKeyNoCaseNestConst("group.none"), nullptr);
}

TEST(ScriptValTableCopy, CopiesAreDeepAndShareStringKeys)
{
    ScriptVal t = Table();
    t["name"] = "x";
    t["sub"] = SV_Table;
    t["sub"][1] = 1;
    t.SetConstructor("Point");
    t.SetFlags(SVF_Ordered);
    ScriptVal copy(t);
    copy["sub"][1] = 2;
    EXPECT_EQ(t["sub"].FindKeyConst(1).ToNumber(), 1.0);
    EXPECT_STREQ(copy.GetConstructor(), "Point");
    EXPECT_TRUE(copy.GetFlags(SVF_Ordered));
    EXPECT_EQ(copy.FirstEntry()->m_Key.m_Value.m_String.m_String, t.FirstEntry()->m_Key.m_Value.m_String.m_String);
    EXPECT_EQ(copy.m_Value.m_Table.m_Constructor, t.m_Value.m_Table.m_Constructor);
    t.SetConstructor(static_cast<const char *>(nullptr));
    EXPECT_EQ(t.GetConstructor(), nullptr);
    EXPECT_STREQ(copy.GetConstructor(), "Point");
    EXPECT_EQ(Keys(copy), "name,sub");
}

TEST(ScriptValTableCopy, DenseArraysAboveSixtyFourTakeTheArrayPath)
{
    ScriptVal small = NumberArray(64);
    small.SetConstructor("Vec");
    small.SetFlags(SVF_Ordered);
    ScriptVal smallCopy(small);
    EXPECT_STREQ(smallCopy.GetConstructor(), "Vec");
    EXPECT_TRUE(smallCopy.GetFlags(SVF_Ordered));
    EXPECT_FALSE(smallCopy.GetFlags(SVF_OneLine));

    ScriptVal big = NumberArray(65);
    big.SetConstructor("Vec");
    big.SetFlags(SVF_Ordered);
    big[1] = 0.5f;
    ScriptVal bigCopy(big);
    EXPECT_EQ(bigCopy.GetConstructor(), nullptr);
    EXPECT_FALSE(bigCopy.GetFlags(SVF_Ordered));
    EXPECT_TRUE(bigCopy.GetFlags(SVF_OneLine));
    EXPECT_EQ(bigCopy.NumKeys(), 65);
    EXPECT_TRUE(bigCopy.FindKeyConst(65).GetFlags(SVF_Single));
    EXPECT_EQ(bigCopy.FindKeyConst(65).ToNumber(), 650.0);
    bigCopy[66] = 1; // the tail pointer is right
    EXPECT_EQ(bigCopy.m_Value.m_Table.m_Last->m_Key.ToNumber(), 66.0);
}

TEST(ScriptValTableCopy, GapsAndMixedKeysTakeTheGeneralPath)
{
    ScriptVal gap = NumberArray(65, 30);
    gap.SetConstructor("Vec");
    ScriptVal copy(gap);
    EXPECT_STREQ(copy.GetConstructor(), "Vec");
    EXPECT_FALSE(copy.GetFlags(SVF_OneLine));
    EXPECT_EQ(copy.NumKeys(), 65);
    EXPECT_EQ(Keys(copy), Keys(gap));

    // Keys out of order in the source (as SetTable can give) are sorted by the copy's look-ups.
    TableEntry *a = new TableEntry(3.0), *b = new TableEntry(1.0), *c = new TableEntry("s", 1), *d = new TableEntry(2.0);
    a->m_Next = b;
    b->m_Next = c;
    c->m_Next = d;
    ScriptVal raw = Table();
    raw.SetTable(a);
    EXPECT_EQ(raw.m_Value.m_Table.m_Last, d);
    ScriptVal sorted(raw);
    EXPECT_EQ(Keys(sorted), "1,2,3,s");
}

TEST(ScriptValTableCopy, ArgsCopyEntriesOnly)
{
    ScriptArgs args;
    args[0] = "member";
    args[1] = 1;
    args[2] = 2;
    args.m_Value.m_Args.m_Context = 9;
    args.m_Value.m_Args.m_NumReturns = 2;
    EXPECT_EQ(args.NumArgs(), 2);
    ScriptArgs copy(args);
    EXPECT_TRUE(copy.IsArgs());
    EXPECT_EQ(copy.m_Value.m_Args.m_Context, 0u);
    EXPECT_EQ(copy.m_Value.m_Args.m_NumReturns, 0);
    EXPECT_EQ(copy.GetApp(), nullptr);
    EXPECT_EQ(Keys(copy), "0,1,2");
    ScriptVal table = Table();
    table = args;
    EXPECT_TRUE(table.IsArgs());
}

TEST(ScriptValTablePool, ThreadsShareBlocksAndAllocateEntriesAtOnce)
{
    KeID shared("shared key text");
    const char *block = shared.Raw();
    ASSERT_EQ(StringBlockCount(block), 1);
    constexpr int kThreads = 4;
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int id = 0; id < kThreads; ++id)
        threads.emplace_back([&, id] {
            for (int round = 0; round < 200; ++round)
            {
                ScriptVal t(SV_Table, nullptr);
                for (int i = 0; i < 50; ++i)
                {
                    t[i] = ScriptVal(shared);
                    t.FindKey(shared) = i;
                }
                ScriptVal copy(t);
                KeID again(copy.FindKeyConst(7).ToString() - 1); // the marker: shares the block
                if (copy.NumKeys() != 51 || again.Raw() != block)
                    failures.fetch_add(1);
                (void)id;
            }
        });
    for (std::thread &t : threads)
        t.join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(StringBlockCount(block), 1);
    TableEntry::HeapCompact();
    ScriptVal after(SV_Table, nullptr);
    after["still"] = "works";
    EXPECT_STREQ(after.FindKeyConst("still").ToString(), "works");
}

// A path walked with `create` on a non-table must not hand out a pointer into the per-thread scratch
// value: the next look-up on any non-table frees what the scratch held.
TEST(ScriptValTableNest, CreateOnANonTableGivesNull)
{
    for (ScriptVal receiver : {ScriptVal(5), ScriptVal("text"), ScriptVal()})
        for (const char *path : {"a.b", "1.x", "a.b.c"})
        {
            ScriptVal *p = receiver.FindKeyNest(path, true);
            EXPECT_EQ(p, nullptr) << path;
            ScriptVal other(7);
            other.FindKey("y"); // cleans the scratch value
            EXPECT_TRUE(receiver.FindKeyNest(path, true) == nullptr);
        }
}

// ---- the index of large tables against the plain list walk -------------------------------------

namespace
{

void DumpValue(std::string &out, const ScriptVal &v);

void DumpList(std::string &out, const ScriptVal &t)
{
    out += '{';
    for (TableEntry *e = t.FirstEntry(); e; e = e->m_Next)
    {
        DumpValue(out, e->m_Key);
        out += '=';
        DumpValue(out, e->m_Value);
        out += ';';
    }
    int live = 0;
    for (TableEntry *e = nullptr; t.NextKey(e);)
        ++live;
    out += "}#" + std::to_string(t.NumKeys()) + "/" + std::to_string(live);
}

void DumpValue(std::string &out, const ScriptVal &v)
{
    char number[32];
    switch (v.Type())
    {
    case SV_Number:
        std::snprintf(number, sizeof(number), "%.17g", v.ToNumber());
        out += number;
        break;
    case SV_String:
        out += '"';
        out += v.ToString();
        out += '"';
        break;
    case SV_Table:
    case SV_Args:
        DumpList(out, v);
        break;
    default:
        out += "k" + std::to_string(v.Type());
        break;
    }
}

// Drives a few tables through a seeded mix of every operation that changes a list and writes down
// what each one shows. Run with and without the index, the two records must be equal.
class TableScript
{
public:
    explicit TableScript(unsigned seed) : m_Rng(seed) {}

    std::string Run(int steps)
    {
        m_Tables[0] = Table();
        m_Tables[1] = Table();
        m_Tables[2] = ScriptArgs();
        for (m_Step = 0; m_Step < steps; ++m_Step)
        {
            ScriptVal &t = m_Tables[Pick(10) < 7 ? 0 : 1 + Pick(2)];
            Step(t);
            if (m_Step % 16 == 0)
                for (const ScriptVal &table : m_Tables)
                    DumpValue(m_Out, table), m_Out += '\n';
        }
        for (const ScriptVal &table : m_Tables)
            DumpValue(m_Out, table), m_Out += '\n';
        return m_Out;
    }

private:
    unsigned Pick(unsigned n) { return std::uniform_int_distribution<unsigned>(0, n - 1)(m_Rng); }

    std::string Text()
    {
        static const char *const kForms[] = {"key%u", "KEY%u", "Key%u"};
        char text[32];
        std::snprintf(text, sizeof(text), kForms[Pick(3)], Pick(150));
        return text;
    }

    double Number()
    {
        switch (Pick(40))
        {
        case 0:
            return NAN;
        case 1:
            return -0.0;
        case 2:
            return Pick(300) + 0.5;
        case 3: // integers far apart, some past the range that small tables keep in a direct array
            return double(900 + Pick(6) * 700 + Pick(4));
        default:
            return double(int(Pick(500)) - 40);
        }
    }

    ScriptVal Key() { return Pick(2) ? ScriptVal(Text().c_str()) : ScriptVal(Number()); }

    void Note(const ScriptVal *v)
    {
        m_Out += std::to_string(m_Step) + ":";
        if (v)
            DumpValue(m_Out, *v);
        else
            m_Out += "null";
        m_Out += '\n';
    }

    // A list of a few entries in any order, with repeated keys, as a reader might hand over.
    TableEntry *HandBuiltList()
    {
        TableEntry *head = nullptr;
        for (unsigned n = Pick(60); n > 0; --n)
        {
            TableEntry *e = new TableEntry(Key());
            e->m_Value = double(n);
            e->m_Next = head;
            head = e;
        }
        return head;
    }

    void Step(ScriptVal &t)
    {
        const double value = m_Step;
        switch (Pick(20))
        {
        case 0:
        case 1:
        case 2:
            t.FindKey(Text().c_str()) = value;
            break;
        case 3:
        case 4:
        case 5:
            t.FindKey(Number()) = value;
            break;
        case 6:
            t[Key()] = ScriptVal(); // deleting leaves the entry
            break;
        case 7: {
            std::string text = Text() + "-tail";
            Note(&t.FindKeyConst(text.c_str(), int(text.size()) - 5));
            Note(&static_cast<const ScriptVal &>(t).FindKeyConst(Number()));
            ScriptVal key = Key();
            Note(&t.FindKeyConst(key));
            m_Out += t.Exists(key) ? "e\n" : "-\n";
            break;
        }
        case 8: {
            std::string text = Text();
            Note(t.FindKeyNoCaseConst(text.c_str()));
            Note(Pick(2) ? t.FindKeyNoCase(text.c_str()) : t.FindKeyNoCase(ScriptVal(Number())));
            break;
        }
        case 9: {
            ScriptVal other = Table();
            for (unsigned n = Pick(30); n > 0; --n)
                other[Key()] = Pick(2) ? ScriptVal(1) : ScriptVal(t.FindKeyConst(Number()));
            t -= other;
            if (t.IsNil())
                t = Table();
            break;
        }
        case 10: {
            ScriptVal other = Table();
            for (unsigned n = Pick(30); n > 0; --n)
                other[Key()] = value;
            if (Pick(4) == 0)
                other["nested"]["inner"] = value;
            t += other;
            break;
        }
        case 11: {
            ScriptVal copy(t); // the general path, or the array path for a dense array
            t = copy;
            break;
        }
        case 12: {
            if (Pick(16))
                break; // this and the next two start a table anew: rarely, so that tables grow large
            ScriptVal dense = Table();
            for (unsigned i = 1, n = 60 + Pick(20); i <= n; ++i)
                dense[i] = double(i);
            t = dense;
            break;
        }
        case 13:
            if (t.IsTable() && Pick(16) == 0)
                t.SetTable(HandBuiltList());
            break;
        case 14:
            t.AddKey(Pick(4) ? ScriptVal(Text().c_str()) : ScriptVal(Number())) = value;
            break;
        case 15:
            if (Pick(16) == 0)
            {
                t.CleanUp();
                t = Table();
            }
            break;
        case 16:
            TableEntry::HeapCompact();
            break;
        case 17: {
            std::string path = Text() + "." + std::to_string(Pick(5)) + "." + Text();
            if (ScriptVal *v = t.FindKeyNest(path.c_str(), Pick(2)))
                *v = value;
            Note(t.FindKeyNoCaseNest(path.c_str(), false));
            break;
        }
        case 18: {
            ScriptVal moved(std::move(t));
            t = std::move(moved);
            t.FindKey(ScriptVal(true)) = value; // keys of other kinds always append
            break;
        }
        default:
            for (int i = 0; i < 60; ++i)
                t.FindKey(Number()) = value;
            break;
        }
    }

    std::mt19937 m_Rng;
    ScriptVal m_Tables[3];
    std::string m_Out;
    int m_Step = 0;
};

} // namespace

TEST(ScriptValTableIndex, IndexedTablesBehaveLikeTheListWalk)
{
    for (unsigned seed : {1u, 2u, 3u})
    {
        SetTableIndexThreshold(SIZE_MAX); // every look-up walks the list
        std::string walked = TableScript(seed).Run(3000);
        SetTableIndexThreshold(2); // almost every table grows an index
        std::string indexed = TableScript(seed).Run(3000);
        SetTableIndexThreshold(0);
        ASSERT_EQ(walked.size(), indexed.size()) << "seed " << seed;
        size_t at = std::mismatch(walked.begin(), walked.end(), indexed.begin()).first - walked.begin();
        if (at != walked.size())
        {
            size_t from = walked.rfind('\n', at);
            from = from == std::string::npos ? 0 : from + 1;
            FAIL() << "seed " << seed << " differs at step line:\n"
                   << walked.substr(from, 300) << "\n---\n"
                   << indexed.substr(from, 300);
        }
    }
}
