// Tests of the ScriptVal value model: kinds and flags, conversions, ownership of strings, blocks and
// objects, comparison, merging, errors, and the remote hooks.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <tuple>

#include "values/model/KeID.h"
#include "values/model/MemBlock.h"
#include "values/model/RemoteHooks.h"
#include "values/model/ScriptArgs.h"
#include "values/model/ScriptObject.h"
#include "values/model/ScriptVal.h"
#include "values/model/SymbolNumbers.h"
#include "values/base/StringBlock.h"
#include "values/model/TableEntry.h"

using namespace orvexScript;

namespace
{

class CountedObject : public _Object
{
public:
    void IncRef() override { ++refs; }
    void DecRef() override { --refs; }
    int refs = 0;
};

} // namespace

TEST(ScriptValConst, NilIgnoresAssignmentButItsCopyAcceptsIt)
{
    nil = 5;
    nil.Set(SV_Table, nullptr);
    EXPECT_TRUE(nil.IsNil() && nil.GetFlags(SVF_Const));

    ScriptVal copy(nil);
    EXPECT_FALSE(copy.GetFlags(SVF_Const));
    copy = 5;
    EXPECT_EQ(copy.ToNumber(), 5.0);

    ScriptVal moved(std::move(nil));
    EXPECT_TRUE(nil.GetFlags(SVF_Const)); // a constant is copied, never emptied by a move
}

TEST(ScriptValFlags, FloatMarksSingleAndScalarAssignmentReplacesTheWord)
{
    ScriptVal v(1.5f);
    EXPECT_TRUE(v.IsNumber() && v.GetFlags(SVF_Single) && ScriptVal(v).GetFlags(SVF_Single));
    v = 1.5;
    EXPECT_FALSE(v.GetFlags(SVF_Single));

    v.SetFlags(0xFFFFFFFFu);
    v.ClearFlags(0xFFFFFFFFu);
    EXPECT_EQ(v.m_Flags, static_cast<uint32_t>(SV_Number)); // flag operations never reach the kind byte
}

TEST(ScriptValKinds, RequestKindsAreNeverStored)
{
    ScriptVal v(SV_StringCopy, nullptr);
    EXPECT_EQ(v.Type(), SV_String);
    EXPECT_STREQ(v.ToString(), "");
    // Request kinds, unknown kinds and kinds that need a payload give nil without one.
    for (ScriptValType kind : {SV_Ref, static_cast<ScriptValType>(13), SV_Function, SV_RemoteObject,
                               SV_LocalObject, SV_MemBlock})
    {
        v.Set(kind, nullptr);
        EXPECT_TRUE(v.IsNil() && ScriptVal(kind, nullptr).IsNil()) << kind;
    }
}

TEST(ScriptValConvert, WrongKindsGiveTheDefaultIntegersTruncateAndGetCrossesNothing)
{
    EXPECT_EQ(ScriptVal("7").ToInteger(7), 7);
    EXPECT_EQ(ScriptVal(3).ToString("d"), std::string("d"));

    for (const auto &[number, expected] : std::initializer_list<std::pair<double, long>>{
             {3.9, 3}, {-3.9, -3}, {2147483647.0, 2147483647L}, {4294967301.0, INT32_MIN}, {NAN, INT32_MIN}})
        EXPECT_EQ(ScriptVal(number).ToInteger(), expected) << number;
    EXPECT_EQ(ScriptVal(18446744073709551615ull).ToNumber(), 18446744073709551615.0);

    // Get stores the payload of its own kind and crosses nothing else.
    double d = 0;
    const char *text = nullptr;
    ScriptVal s("abc");
    EXPECT_TRUE(s.Get(SV_String, &text));
    EXPECT_STREQ(text, "abc");
    EXPECT_FALSE(s.Get(SV_Number, &d));
}

TEST(ScriptValAssign, SelfAssignmentAndAssignmentFromInsideKeepTheValue)
{
    ScriptVal s("shared");
    const ScriptVal &sameS = s; // an alias, as self-assignment reaches the code in practice
    s = sameS;
    EXPECT_STREQ(s.ToString(), "shared");
    s = s.ToString(); // a text pointer into the value's own block
    EXPECT_STREQ(s.ToString(), "shared");

    ScriptVal t(SV_Table, nullptr);
    t["a"] = 1;
    const ScriptVal &sameT = t;
    t = sameT;
    EXPECT_EQ(t.FindKeyConst("a").ToNumber(), 1.0);

    // A table from a value inside itself, by copy and by move.
    t["inner"] = SV_Table;
    t["inner"]["x"] = "deep";
    t = t["inner"];
    EXPECT_STREQ(t.FindKeyConst("x").ToString(), "deep");
    EXPECT_FALSE(t.Exists("inner"));

    ScriptVal u(SV_Table, nullptr);
    u["inner"] = SV_Table;
    u["inner"]["y"] = 2;
    u = std::move(u["inner"]);
    EXPECT_EQ(u.FindKeyConst("y").ToNumber(), 2.0);
}

TEST(ScriptValString, BlocksAreSharedByValuesAndCopiedFromText)
{
    ScriptVal a("text");
    const char *block = a.m_Value.m_String.m_String;
    EXPECT_EQ(static_cast<unsigned char>(block[0]), 0xFF);
    EXPECT_EQ(StringBlockCount(block), 1);
    {
        ScriptVal shared(a), fromText(a.ToString()); // a block is shared, a text is copied
        KeID id(a.ToString()), sharedId(block);
        ScriptVal fromId(sharedId);
        EXPECT_TRUE(shared.m_Value.m_String.m_String == block && sharedId.Raw() == block);
        EXPECT_TRUE(fromId.m_Value.m_String.m_String == block);
        EXPECT_TRUE(fromText.m_Value.m_String.m_String != block && id.Raw() != block);
        EXPECT_EQ(StringBlockCount(block), 4);
    }
    EXPECT_EQ(StringBlockCount(block), 1);
}

TEST(ScriptValString, LengthFormCopiesExactlyAndNeverShares)
{
    EXPECT_STREQ(ScriptVal("abcdef", 3).ToString(), "abc");
    EXPECT_STREQ(ScriptVal("ab\0cd", 5).ToString(), "ab");
    ScriptVal source("xyz");
    const char *block = source.m_Value.m_String.m_String;
    EXPECT_STREQ(ScriptVal(block, 2).ToString(), "xy");
    EXPECT_EQ(StringBlockCount(block), 1);
    EXPECT_TRUE(ScriptVal(static_cast<const char *>(nullptr), 4).IsNil());
}

TEST(ScriptValString, HashFoldsCaseButEqualityDoesNot)
{
    ScriptVal a("Abc"), b("aBC");
    EXPECT_NE(a, b);
    EXPECT_EQ(a.m_Value.m_String.m_Hash, KeID("ABC").GetHashValue());
    EXPECT_TRUE(a == "Abc" && a == KeID("Abc") && !(a == "abc"));
}

TEST(ScriptValCompare, KindsThatNeverCompareEqual)
{
    ScriptVal t(SV_Table, nullptr);
    uint64_t id = 7;
    ScriptVal f(SV_Function, &id);
    EXPECT_TRUE(!(t == t) && t != t && !(t == ScriptVal(t)) && !(f == f));
    EXPECT_TRUE(ScriptVal() == ScriptVal() && ScriptVal(2) == 2.0);
    EXPECT_FALSE(ScriptVal(NAN) == ScriptVal(NAN) || ScriptVal(1) == ScriptVal(true) || ScriptVal("2") == 2.0);
}

TEST(ScriptValBlocks, MemBlockAndCodeOwnTheirBytes)
{
    char bytes[4] = {1, 2, 3, 4};
    ScriptVal m(MemBlock(bytes, 4));
    EXPECT_NE(m.ToMemBlock().m_Ptr, static_cast<void *>(bytes));
    ScriptVal same(MemBlock(bytes, 4));
    EXPECT_EQ(m, same);
    ScriptVal copy(m);
    EXPECT_NE(copy.ToMemBlock().m_Ptr, m.ToMemBlock().m_Ptr);
    static_cast<char *>(copy.ToMemBlock().m_Ptr)[0] = 9;
    EXPECT_NE(m, copy);

    ScriptVal unfilled(MemBlock(nullptr, 16));
    EXPECT_TRUE(unfilled.IsMemBlock() && unfilled.ToMemBlock().m_Ptr && unfilled.ToMemBlock().m_Size == 16u);

    ScriptVal code(bytes, 3, 2);
    EXPECT_TRUE(code.IsCode() && code.ToCodeLen() == 3u && code.ToCodeArgs() == 2u);
    EXPECT_EQ(std::memcmp(code.ToCodePtr(), bytes, 3), 0);
    EXPECT_FALSE(code == code);
}

TEST(ScriptValObjects, LocalObjectCopiesCountTheObject)
{
    CountedObject object;
    {
        ScriptVal v(static_cast<ScriptObject *>(&object));
        EXPECT_EQ(object.refs, 1);
        ScriptVal copy(v);
        EXPECT_EQ(object.refs, 2);
        EXPECT_TRUE(copy == v && copy.ToLocalObject() == &object);
        copy = 1;
        EXPECT_EQ(object.refs, 1);
    }
    EXPECT_EQ(object.refs, 0);
    EXPECT_TRUE(ScriptVal(static_cast<ScriptObject *>(nullptr)).IsNil());
}

namespace
{
int s_RemoteRefs = 0;
unsigned long s_LastCommand = 0;
CountedObject s_Local;

RemoteHooks TestHooks()
{
    RemoteHooks hooks;
    hooks.incRef = [](RemoteObject *) { ++s_RemoteRefs; };
    hooks.decRef = [](RemoteObject *) { --s_RemoteRefs; };
    hooks.localObject = [](const RemoteObject *) -> ScriptObject * { return &s_Local; };
    hooks.doCommand = [](RemoteObject *, unsigned long cmd, ScriptArgs &args) {
        s_LastCommand = cmd;
        if (cmd == SST_GetTable)
            args[-1] = ScriptVal(args.FindKeyConst(0.0).ToString()) ; // echo the member name
        return true;
    };
    return hooks;
}
} // namespace

TEST(ScriptValObjects, RemoteObjectsGoThroughTheHooks)
{
    RemoteObject *remote = reinterpret_cast<RemoteObject *>(0x1000);
    {
        ScriptVal inert(SV_RemoteObject, &remote); // no hooks: nothing is counted or sent
        EXPECT_TRUE(inert.GetKey("x").IsNil() && inert.ToLocalObject() == nullptr);
    }
    SetRemoteHooks(TestHooks());
    {
        ScriptVal v(SV_RemoteObject, &remote);
        ScriptVal copy(v);
        EXPECT_EQ(s_RemoteRefs, 2);
        copy.Set(SV_RemoteObject, &remote); // the same object again changes nothing
        EXPECT_EQ(s_RemoteRefs, 2);
        EXPECT_TRUE(v.ToLocalObject() == &s_Local && v.IsLocalObject(false) && !v.IsLocalObject(true));
        EXPECT_STREQ(v.GetKey("Name").ToString(), "Name");
        v.SetKey("Name", ScriptVal(1));
        EXPECT_EQ(s_LastCommand, SST_SetTable);
    }
    EXPECT_EQ(s_RemoteRefs, 0);
    SetRemoteHooks(RemoteHooks());
}

// += merges with the right side winning: a scalar of another kind is ignored, nil takes anything, the
// same kind is replaced, tables merge deeply. -= removes equal values, and a table it empties becomes nil.
TEST(ScriptValMerge, PlusMergesAndMinusRemovesEqualValues)
{
    const std::tuple<char, ScriptVal, ScriptVal, ScriptVal> scalars[] = {
        {'+', 1, "s", 1}, {'+', ScriptVal(), "s", "s"}, {'+', 1, 2, 2}, {'-', "x", "y", "x"}, {'-', "x", "x", ScriptVal()}};
    for (auto [op, left, right, expected] : scalars)
        EXPECT_EQ(op == '+' ? (left += right) : (left -= right), expected) << op;

    ScriptVal t(SV_Table, nullptr), u(SV_Table, nullptr);
    t["keep"] = 1;
    t["sub"] = SV_Table;
    t["sub"]["a"] = 1;
    u["sub"] = SV_Table;
    u["sub"]["b"] = 2;
    u["new"] = "n";
    t += u;
    EXPECT_TRUE(t.FindKeyConst("keep") == 1 && t.FindKeyConst("new") == "n");
    EXPECT_TRUE(*t.FindKeyNestConst("sub.a") == 1 && *t.FindKeyNestConst("sub.b") == 2);
    const ScriptVal &sameT = t;
    t += sameT;
    EXPECT_EQ(t.NumKeys(), 3);

    ScriptVal whole(t);
    u["sub"]["a"] = 1;
    t -= u; // "keep" stays
    EXPECT_TRUE(t.FindKeyConst("sub").IsNil() && t.Exists("sub") && t.FindKeyConst("new").IsNil());
    const ScriptVal &sameWhole = whole;
    whole -= sameWhole;
    EXPECT_TRUE(whole.IsNil());
}

TEST(ScriptValError, SetErrorOverwritesNumberAndMessageOfTablesOnly)
{
    ScriptVal t(SV_Table, nullptr);
    t.SetError(static_cast<ScriptError>(11));
    EXPECT_TRUE(t.FindKeyConst("Error") == 11.0 && t.FindKeyConst("ErrorString") == "Unknown error number 11.");
    t.SetError(SE_Unknown, "custom");
    EXPECT_STREQ(t.FindKeyConst("ErrorString").ToString(), "custom");
    EXPECT_EQ(t.NumKeys(), 2); // overwritten, not appended
    t.SetError(SE_None);
    EXPECT_TRUE(t.FindKeyConst("ErrorString").IsNil());
    ScriptVal n(1);
    n.SetError(SE_Unknown);
    EXPECT_TRUE(n == 1.0);
    ScriptArgs args; // argument lists take errors as tables do
    args.SetError(SE_InvalidRemoteObject);
    EXPECT_EQ(args.FindKeyConst("Error").ToNumber(), static_cast<double>(SE_InvalidRemoteObject));
}
