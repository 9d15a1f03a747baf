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

ScriptVal Table()
{
    return ScriptVal(SV_Table, nullptr);
}

// A table with each of `keys` set to 1, in that order.
ScriptVal TableOf(std::initializer_list<ScriptVal> keys)
{
    ScriptVal t = Table();
    for (const ScriptVal &key : keys)
        t[key] = 1;
    return t;
}

ScriptVal NumberArray(int n, int skip = 0)
{
    ScriptVal t = Table();
    for (int i = 1; i <= n + (skip ? 1 : 0); ++i)
        if (i != skip) t[i] = i * 10.0;
    return t;
}

// A value as text; a table with every entry, nil ones too, then its count and the entries NextKey visits.
std::string Dump(const ScriptVal &v)
{
    if (v.IsNumber())
    {
        char number[32];
        std::snprintf(number, sizeof(number), "%.17g", v.ToNumber());
        return number;
    }
    if (v.IsString())
        return '"' + std::string(v.ToString()) + '"';
    if (!v.IsTable() && !v.IsArgs())
        return "k" + std::to_string(v.Type());
    std::string out = "{";
    for (TableEntry *e = v.FirstEntry(); e; e = e->m_Next)
        out += Dump(e->m_Key) + '=' + Dump(e->m_Value) + ';';
    int live = 0;
    for (TableEntry *e = nullptr; v.NextKey(e);)
        ++live;
    return out + "}#" + std::to_string(v.NumKeys()) + "/" + std::to_string(live);
}

} // namespace

TEST(ScriptValTable, NumberKeysInsertInOrder)
{
    EXPECT_EQ(Dump(TableOf({"b", 3, "a", 1})), R"({"b"=1;1=1;3=1;"a"=1;}#4/4)");
    ScriptVal u = TableOf({2, 1, 3});
    EXPECT_EQ(Dump(u), "{1=1;2=1;3=1;}#3/3");
    u[1.5f] = 7;
    EXPECT_EQ(u.FindKeyConst(1.5).ToNumber(), 7.0); // float and double keys are the same key
    u[NAN] = 1;                                      // matches nothing, goes to the tail
    u[NAN] = 1;
    u[0] = 1;
    EXPECT_EQ(Dump(u), "{0=1;1=1;1.5=7;2=1;3=1;nan=1;nan=1;}#7/7");
}

TEST(ScriptValTable, LookupsOnNonTablesChangeNothing)
{
    ScriptVal v(5);
    v["x"] = 1;
    v.SetKey("x", ScriptVal(1));
    EXPECT_EQ(Dump(v), "5");
    EXPECT_TRUE(v.FindKeyConst("x").IsNil() && v.GetKey("x").IsNil() && v.FindKeyNoCase("x") == nullptr);
    EXPECT_TRUE(!v.Exists(ScriptVal("x")) && v.NumKeys() == 0 && v.IsEmpty());
    TableEntry *cursor = reinterpret_cast<TableEntry *>(&v);
    EXPECT_FALSE(v.NextKey(cursor));
    EXPECT_EQ(cursor, reinterpret_cast<TableEntry *>(&v));
}

TEST(ScriptValTable, ConstLookupGivesNilAndAddsNothing)
{
    ScriptVal t = Table();
    const ScriptVal &c = t;
    EXPECT_EQ(&c["missing"], &nil);
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
    t["a"] = 1;
    t["b"] = 2;
    t["a"] = SV_Nil;
    EXPECT_TRUE(t.Exists("a"));
    EXPECT_EQ(Dump(t), R"({"x"=k0;"a"=k0;"b"=2;}#1/1)");
}

TEST(ScriptValTable, StringKeysByLengthAndCase)
{
    ScriptVal t = TableOf({"key"});
    EXPECT_EQ(t.FindKeyNoCase("KEY")->ToNumber(), 1.0);
    t["KEY"] = 2; // same hash, different bytes: its own entry
    ScriptVal *added = t.FindKeyNoCase("Other");
    EXPECT_EQ(Dump(t), R"({"key"=1;"KEY"=2;"Other"=k0;}#2/2)");
    EXPECT_TRUE(added && t.FindKeyNoCaseConst("OTHER") == added);
    EXPECT_TRUE(t.FindKeyNoCaseConst("nothing") == nullptr && t.FindKeyNoCase(ScriptVal("none")) == nullptr);
    EXPECT_TRUE(t.FindKeyConst("keyboard", 3) == 1.0 && &t.FindKey("keyboard", 3) == &t.FindKey("key"));
    EXPECT_TRUE(t.FindKeyConst("ke", 2).IsNil()); // a prefix of a stored key is another key
}

// "csup" and "hpvohmywtita" share a hash: the look-up of the longer must not read past the shorter's block.
TEST(ScriptValTable, EqualHashesOfDifferentLengthsStayApart)
{
    ASSERT_EQ(StringHash("csup"), StringHash("hpvohmywtita"));
    ScriptVal t = TableOf({"csup"});
    EXPECT_TRUE(t.FindKeyConst("hpvohmywtita").IsNil());
    EXPECT_EQ(t.FindKeyNoCaseConst("HPVOHMYWTITA"), nullptr);
    t["hpvohmywtita"] = 2;
    EXPECT_EQ(Dump(t), R"({"csup"=1;"hpvohmywtita"=2;}#2/2)");
}

// Table keys never match and always append, a boolean key finds its entry; AddKey appends a string key
// without searching, while a number key still finds its sorted place.
TEST(ScriptValTable, TableKeysAndAddKeyAppend)
{
    ScriptVal t = Table();
    ScriptVal tableKey = Table();
    for (int round = 0; round < 2; ++round)
    {
        t.FindKey(tableKey) = 1;
        t.FindKey(ScriptVal(true)) = 1;
        t.AddKey(ScriptVal("a")) = 2;
        t.AddKey(ScriptVal(1)) = 3 + round;
    }
    EXPECT_EQ(Dump(t), R"({{}#0/0=1;k3=1;"a"=2;1=4;{}#0/0=1;"a"=2;}#6/6)");
    EXPECT_EQ(t.FindKeyConst(1).ToNumber(), 4.0);
}

TEST(ScriptValTableNest, CreateBuildsTablesOnTheWay)
{
    ScriptVal t = Table();
    ScriptVal *c = t.FindKeyNest("a.b.c", true);
    ASSERT_NE(c, nullptr);
    EXPECT_TRUE(c->IsNil());
    *c = 5;
    *t.FindKeyNest("a.1", true) = "one";
    EXPECT_EQ(Dump(t), R"({"a"={"b"={"c"=5;}#1/1;1="one";}#2/2;}#1/1)");
    EXPECT_EQ(t.FindKeyNest(static_cast<const char *>(nullptr), true), nullptr);
    EXPECT_EQ(t.FindKeyNest(ScriptVal(3), true), nullptr); // a path that is no string names nothing
    t["n"] = 1;
    ASSERT_NE(t.FindKeyNest("n.b", true), nullptr); // a value on the way is replaced by a table
    EXPECT_TRUE(t["n"].IsTable());
}

TEST(ScriptValTableNest, NumberSegmentsAreThirtyTwoBitIntegers)
{
    // A segment is read as a 32-bit long: out of range it stops at the limit.
    ScriptVal t = Table();
    *t.FindKeyNest("a.4294967297", true) = 1;
    *t.FindKeyNest("a.-4294967297", true) = 2;
    *t.FindKeyNest("5000000000.x", true) = 3;
    EXPECT_EQ(Dump(t), R"({"a"={-2147483648=2;2147483647=1;}#2/2;2147483647={"x"=3;}#1/1;}#2/2)");
    EXPECT_EQ(t.FindKeyNoCaseNestConst("2147483647.X")->ToNumber(), 3.0);
}

TEST(ScriptValTableNest, WithoutCreateTheLastSegmentStillAdds)
{
    ScriptVal t = Table();
    EXPECT_EQ(t.FindKeyNest("a.b", false), nullptr);
    EXPECT_FALSE(t.Exists("a"));
    t["a"] = SV_Table;
    t["n"] = 4;
    ScriptVal *b = t.FindKeyNest("a.b", false);
    ASSERT_NE(b, nullptr);
    EXPECT_TRUE(t.FindKeyNest("n.x", false) == nullptr && ScriptVal(1).FindKeyNest("x", true) == nullptr);
    const ScriptVal &c = t;
    EXPECT_EQ(c.FindKeyNestConst("a.zzz"), &nil);
    EXPECT_TRUE(c.FindKeyNestConst("missing.x") == nullptr && c.FindKeyNestConst("a.b") == b);
    EXPECT_EQ(Dump(t), R"({"a"={"b"=k0;}#0/0;"n"=4;}#2/2)"); // "b" added, "zzz" not
}

TEST(ScriptValTableNest, NoCaseFormsGiveNullForMissingKeys)
{
    ScriptVal t = Table();
    t["Group"] = SV_Table;
    t["Group"]["Item"] = 3;
    t["Group"][2] = 4;
    const std::pair<const char *, const char *> cases[] = {
        {"group.ITEM", "3"}, {"other.item", "null"}, {"group.9", "null"}, {"group.2", "4"}, {"GROUP.new", "k0"}};
    for (const auto &[path, expected] : cases)
    {
        ScriptVal *found = t.FindKeyNoCaseNest(path, false);
        EXPECT_EQ(found ? Dump(*found) : "null", expected) << path;
    }
    EXPECT_TRUE(t["Group"].Exists("new"));
    ASSERT_NE(t.FindKeyNoCaseNest("fresh.x", true), nullptr);
    EXPECT_TRUE(t["fresh"].IsTable());
    EXPECT_EQ(t.FindKeyNoCaseNestConst("GROUP.item")->ToNumber(), 3.0);
    EXPECT_EQ(t.FindKeyNoCaseNestConst("group.none"), nullptr);
}

// A path walked with `create` on a non-table must not hand out a pointer into the per-thread scratch
// value: the next look-up on any non-table frees what the scratch held.
TEST(ScriptValTableNest, CreateOnANonTableGivesNull)
{
    for (ScriptVal receiver : {ScriptVal(5), ScriptVal("text"), ScriptVal()})
        for (const char *path : {"a.b", "1.x", "a.b.c"})
        {
            EXPECT_EQ(receiver.FindKeyNest(path, true), nullptr) << path;
            ScriptVal(7).FindKey("y"); // cleans the scratch value
            EXPECT_TRUE(receiver.FindKeyNest(path, true) == nullptr);
        }
}

TEST(ScriptValTable, DeepNestingInKeysAndValuesFreesWithoutRecursion)
{
    // Deep enough to exhaust any thread's stack if each level cost a frame.
    ScriptVal root(SV_Table, nullptr);
    ScriptVal *level = &root;
    for (int i = 0; i < 200000; ++i)
    {
        ScriptVal &next = level->FindKey(1);
        next = ScriptVal(SV_Table, nullptr);
        if (i % 1000 == 0) next.AddKey(ScriptVal(SV_Table, nullptr)) = "a table as key";
        level = &next;
    }
    root.CleanUp();
    EXPECT_TRUE(root.IsNil());
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
    EXPECT_EQ(Dump(t), R"({"name"="x";"sub"={1=1;}#1/1;}#2/2)");
    EXPECT_EQ(Dump(copy), R"({"name"="x";"sub"={1=2;}#1/1;}#2/2)");
    EXPECT_TRUE(copy.GetFlags(SVF_Ordered) && copy.m_Value.m_Table.m_Constructor == t.m_Value.m_Table.m_Constructor);
    EXPECT_EQ(copy.FirstEntry()->m_Key.m_Value.m_String.m_String, t.FirstEntry()->m_Key.m_Value.m_String.m_String);
}

// Dense arrays of more than 64 entries take the array path, which drops the constructor and flags and
// marks the copy one-line; gaps, 64 entries or mixed keys take the general path.
TEST(ScriptValTableCopy, DenseArraysAboveSixtyFourTakeTheArrayPath)
{
    const struct
    {
        int size, skip;
        bool arrayPath;
    } cases[] = {{64, 0, false}, {65, 0, true}, {65, 30, false}};
    for (const auto &c : cases)
    {
        SCOPED_TRACE(std::to_string(c.size) + " skipping " + std::to_string(c.skip));
        ScriptVal source = NumberArray(c.size, c.skip);
        source.SetConstructor("Vec");
        source.SetFlags(SVF_Ordered);
        source[1] = 0.5f;
        ScriptVal copy(source);
        EXPECT_EQ(copy.GetConstructor() == nullptr, c.arrayPath);
        EXPECT_EQ(copy.GetFlags(SVF_Ordered) != 0, !c.arrayPath);
        EXPECT_EQ(copy.GetFlags(SVF_OneLine) != 0, c.arrayPath);
        EXPECT_EQ(Dump(copy), Dump(source));
        EXPECT_TRUE(copy.FindKeyConst(1).GetFlags(SVF_Single));
        EXPECT_EQ(copy.FindKeyConst(65).GetFlags(SVF_Single) != 0, c.arrayPath); // the array path stores floats
        copy[1000] = 1; // the tail pointer is right
        EXPECT_EQ(copy.m_Value.m_Table.m_Last->m_Key.ToNumber(), 1000.0);
    }
}

TEST(ScriptValTableCopy, KeysOutOfOrderInTheSourceAreSortedByTheCopy)
{
    // As SetTable can give them.
    TableEntry *a = new TableEntry(3.0), *b = new TableEntry(1.0), *c = new TableEntry("s", 1), *d = new TableEntry(2.0);
    a->m_Next = b;
    b->m_Next = c;
    c->m_Next = d;
    ScriptVal raw = Table();
    raw.SetTable(a);
    EXPECT_EQ(raw.m_Value.m_Table.m_Last, d);
    EXPECT_EQ(Dump(ScriptVal(raw)), R"({1=k0;2=k0;3=k0;"s"=k0;}#0/0)");
}

TEST(ScriptValTableCopy, ArgsCopyEntriesOnly)
{
    ScriptArgs args;
    args[0] = "member";
    args[1] = 1;
    args[2] = 2;
    args.m_Value.m_Args.m_Context = 9;
    args.m_Value.m_Args.m_NumReturns = 2;
    ScriptArgs copy(args);
    EXPECT_TRUE(copy.IsArgs());
    EXPECT_TRUE(copy.m_Value.m_Args.m_Context == 0u && copy.m_Value.m_Args.m_NumReturns == 0);
    EXPECT_EQ(Dump(copy), R"({0="member";1=1;2=2;}#3/3)");
}

TEST(ScriptValTablePool, ThreadsShareBlocksAndAllocateEntriesAtOnce)
{
    KeID shared("shared key text");
    const char *block = shared.Raw();
    ASSERT_EQ(StringBlockCount(block), 1);
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int id = 0; id < 4; ++id)
        threads.emplace_back(
            [&]
            {
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
                    if (copy.NumKeys() != 51 || again.Raw() != block) failures.fetch_add(1);
                }
            });
    for (std::thread &t : threads)
        t.join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(StringBlockCount(block), 1);
}

// ---- the index of large tables against the plain list walk -------------------------------------

namespace
{

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
        for (m_Step = 0; m_Step <= steps; ++m_Step)
        {
            if (m_Step < steps) Step(m_Tables[Pick(10) < 7 ? 0 : 1 + Pick(2)]);
            if (m_Step % 16 == 0 || m_Step == steps)
                for (const ScriptVal &table : m_Tables)
                    m_Out += Dump(table) + '\n';
        }
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
        m_Out += std::to_string(m_Step) + ":" + (v ? Dump(*v) : "null") + '\n';
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
        const unsigned op = Pick(20);
        if (op < 3)
            t.FindKey(Text().c_str()) = value;
        else if (op < 6)
            t.FindKey(Number()) = value;
        else if (op == 6)
            t[Key()] = ScriptVal(); // deleting leaves the entry
        else if (op == 7)
        {
            std::string text = Text() + "-tail";
            Note(&t.FindKeyConst(text.c_str(), int(text.size()) - 5));
            Note(&static_cast<const ScriptVal &>(t).FindKeyConst(Number()));
            ScriptVal key = Key();
            Note(&t.FindKeyConst(key));
            m_Out += t.Exists(key) ? "e\n" : "-\n";
        }
        else if (op == 8)
        {
            std::string text = Text();
            Note(t.FindKeyNoCaseConst(text.c_str()));
            Note(Pick(2) ? t.FindKeyNoCase(text.c_str()) : t.FindKeyNoCase(ScriptVal(Number())));
        }
        else if (op == 9 || op == 10)
        {
            ScriptVal other = Table();
            for (unsigned n = Pick(30); n > 0; --n)
                other[Key()] = op == 10 ? ScriptVal(value) : Pick(2) ? ScriptVal(1) : ScriptVal(t.FindKeyConst(Number()));
            if (op == 10 && Pick(4) == 0) other["nested"]["inner"] = value;
            if (op == 10)
                t += other;
            else if ((t -= other).IsNil())
                t = Table();
        }
        else if (op == 11)
        {
            ScriptVal copy(t); // the general path, or the array path for a dense array
            t = copy;
        }
        else if (op == 12 && Pick(16) == 0) // 12, 13 and 15 start a table anew: rarely, so tables grow large
        {
            ScriptVal dense = Table();
            for (unsigned i = 1, n = 60 + Pick(20); i <= n; ++i)
                dense[i] = double(i);
            t = dense;
        }
        else if (op == 13 && t.IsTable() && Pick(16) == 0)
            t.SetTable(HandBuiltList());
        else if (op == 14)
            t.AddKey(Pick(4) ? ScriptVal(Text().c_str()) : ScriptVal(Number())) = value;
        else if (op == 15 && Pick(16) == 0)
        {
            t.CleanUp();
            t = Table();
        }
        else if (op == 16)
            TableEntry::HeapCompact();
        else if (op == 17)
        {
            std::string path = Text() + "." + std::to_string(Pick(5)) + "." + Text();
            if (ScriptVal *v = t.FindKeyNest(path.c_str(), Pick(2))) *v = value;
            Note(t.FindKeyNoCaseNest(path.c_str(), false));
        }
        else if (op == 18)
        {
            ScriptVal moved(std::move(t));
            t = std::move(moved);
            t.FindKey(ScriptVal(true)) = value; // keys of other kinds always append
        }
        else if (op == 19)
            for (int i = 0; i < 60; ++i)
                t.FindKey(Number()) = value;
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
        // The first line that differs, and a little after it.
        const size_t at = std::mismatch(walked.begin(), walked.end(), indexed.begin(), indexed.end()).first -
                          walked.begin();
        const size_t from = at == 0 ? 0 : walked.rfind('\n', at - 1) + 1; // npos + 1 is 0
        ASSERT_EQ(walked.substr(from, 300), indexed.substr(from, 300)) << "seed " << seed;
        ASSERT_EQ(walked.size(), indexed.size()) << "seed " << seed;
    }
}
