#include "remote/Packet.h"

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "remote/PacketLoadCheck.h"
#include "testsupport/TestSupport.h"
#include "values/model/MemBlock.h"
#include "values/model/ScriptArgs.h"
#include "values/model/ScriptObject.h"
#include "values/model/SymbolNumbers.h"
#include "values/model/TableEntry.h"

namespace orvexScript
{
namespace
{

using Bytes = std::vector<unsigned char>;
using Keys = std::vector<std::string>;

// Little-endian byte strings, written the long way so the expectations don't share the writer's code.
struct Wire
{
    Bytes b;
    Wire &U32(uint32_t v) { return Int(v, 4); }
    Wire &F64(double d)
    {
        uint64_t v;
        std::memcpy(&v, &d, 8);
        return Int(v, 8);
    }
    Wire &Int(uint64_t v, int bytes)
    {
        for (int i = 0; i < bytes; ++i)
            b.push_back(static_cast<unsigned char>(v >> (8 * i)));
        return *this;
    }
    Wire &Str(const std::string &s) { return Raw(Bytes(s.c_str(), s.c_str() + s.size() + 1)); }
    Wire &Raw(const Bytes &more)
    {
        b.insert(b.end(), more.begin(), more.end());
        return *this;
    }
};

// A whole packet around `body`, its size field counting the body. Kept in 8-aligned storage.
struct Buffer
{
    std::vector<uint64_t> words;
    size_t size = 0;
    const Packet *packet() const { return reinterpret_cast<const Packet *>(words.data()); }
};

Buffer Frame(const Bytes &body)
{
    Wire w;
    w.U32(uint32_t(32 + body.size())).U32(PKT_Reply).Raw(Bytes(24, 0)).Raw(body);
    Buffer out{std::vector<uint64_t>(w.b.size() / 8 + 1, 0), w.b.size()};
    std::memcpy(out.words.data(), w.b.data(), out.size);
    return out;
}

// The bytes of a packet from `from` on: 0 for all of it, 32 for its values.
Bytes ToBytes(const Packet *p, size_t from = 0)
{
    const auto *raw = reinterpret_cast<const unsigned char *>(p);
    return Bytes(raw + from, raw + p->m_Size);
}

// A table whose entries stand in exactly the order given.
ScriptVal Ordered(std::initializer_list<std::pair<ScriptVal, ScriptVal>> entries, const char *ctor = nullptr,
                  uint32_t flags = 0)
{
    ScriptVal t(SVType(SV_Table, flags), nullptr);
    TableEntry *head = nullptr, *last = nullptr;
    for (const auto &[k, v] : entries)
    {
        auto *e = new TableEntry(k);
        e->m_Value = v;
        (last ? last->m_Next : head) = e;
        last = e;
    }
    t.SetTable(head);
    if (ctor) t.SetConstructor(ctor);
    return t;
}

Keys KeysOf(const ScriptVal &t)
{
    Keys keys;
    for (const TableEntry *e = t.FirstEntry(); e; e = e->m_Next)
        keys.push_back(e->m_Key.IsString() ? e->m_Key.ToString() : std::to_string(e->m_Key.ToInteger()));
    return keys;
}

TEST(Packet, CommandCallingFooWithTwoIsTheDocumentedEightyEightBytesAndReadsIntoArgs)
{
    ScriptArgs args;
    args[0] = "Foo";
    args[1] = 2.0;
    Packet *p = ToPacket(nullptr, 1, SST_CallMemberFunction, nullptr, &args);
    ASSERT_NE(p, nullptr);
    p->m_Sequence = 7;
    Wire want;
    want.U32(88).U32(PKT_Command).U32(144).U32(1).U32(7).U32(0).U32(0).U32(0).U32(SV_Nil).U32(SV_Args).U32(2);
    want.U32(SV_Number).F64(0.0).U32(SV_String).Str("Foo").U32(SV_Number).F64(1.0).U32(SV_Number).F64(2.0);
    EXPECT_EQ(ToBytes(p), want.b);
    // A ScriptArgs target keeps its context.
    ScriptArgs target;
    target.GetValue().m_Args.m_Context = 77;
    ASSERT_EQ(FromPacket(nullptr, p, p->m_Size, nullptr, &target), PR_Ok);
    EXPECT_TRUE(target[0] == "Foo" && target[1] == 2.0);
    EXPECT_EQ(target.GetValue().m_Args.m_Context, 77u);
    FreePkt(p);
}

TEST(Packet, EveryKindHasItsSizeAndRoundTripsWithOrderConstructorsAndFlags)
{
    ScriptValue f{};
    f.m_Function = 0xDEADBEEF12345678ull;
    const unsigned char code[4] = {0x1B, 'L', 0, 'J'};
    const unsigned char block[5] = {0, 0xFF, 1, 0, 7};
    ScriptArgs call;
    call[0] = "Member";
    call[1] = "x";
    call[2] = Ordered({{"inner", 1.0}});
    const ScriptVal nested =
        Ordered({{"z", 1.0},
                 {3.0, "three"},
                 {"a", Ordered({{"y", false}, {"x", Ordered({}, "Deep", SVF_OneLine)}}, "Mid")},
                 {1.0, ScriptVal(code, 4, 1)},
                 {Ordered({{"key", "table"}}), "table as key"}},
                "Outer", SVF_OneLine);
    const struct
    {
        ScriptVal value;
        size_t size; // encoded; 0: not checked
    } cases[] = {
        {ScriptVal(), 4},
        {ScriptVal(-0.25), 12},
        {ScriptVal(1.5f), 12},
        {ScriptVal(""), 5},
        {ScriptVal("text \xC3\xA9 \xFF inside"), 21},
        {ScriptVal(true), 5},
        {ScriptVal(false), 5},
        {ScriptVal(SVType(SV_Function, 0x00400000u), &f), 12},
        {ScriptVal(code, 4, 3), 12},
        {ScriptVal(MemBlock(const_cast<unsigned char *>(block), 5)), 13},
        {ScriptVal(MemBlock(nullptr, 0)), 8},
        {ScriptVal(SV_Table, nullptr), 9},
        {Ordered({{1.0, true}}, "Vec"), 9 + 3 + 12 + 5},
        {nested, 0},
        {call, 92},
    };
    for (const auto &[v, size] : cases)
    {
        SCOPED_TRACE(testing::Message() << "kind " << v.Type() << " size " << size);
        EXPECT_EQ(size ? CalcPktSize(v) : 0, size);
        Packet *p = CreatePkt(PKT_GetObjectInfo, nullptr, &v, &nested);
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(p->m_Size, 32 + CalcPktSize(v) + CalcPktSize(nested));
        ScriptVal a, b;
        ASSERT_EQ(FromPacket(nullptr, p, p->m_Size, &a, &b), PR_Ok);
        EXPECT_EQ(a.m_Flags, v.m_Flags);
        // Tables, arguments and code equal nothing: the bytes built again below stand for them.
        EXPECT_TRUE(v.Type() >= SV_Table || a == v);
        EXPECT_EQ(a.ToFunction(), v.ToFunction());
        if (v.IsCode())
        {
            // The bytes travel, the argument count does not.
            EXPECT_EQ(a.ToCodeLen(), v.ToCodeLen());
            EXPECT_EQ(std::memcmp(a.ToCodePtr(), v.ToCodePtr(), v.ToCodeLen()), 0);
            EXPECT_EQ(a.ToCodeArgs(), 0u);
        }
        EXPECT_EQ(KeysOf(b), (Keys{"z", "3", "a", "1", "0"}));
        EXPECT_STREQ(b.GetConstructor(), "Outer");
        EXPECT_EQ(KeysOf(b["a"]), (Keys{"y", "x"}));
        EXPECT_STREQ(b["a"]["x"].GetConstructor(), "Deep");
        EXPECT_EQ(b["a"]["x"].GetFlags(SVF_OneLine), SVF_OneLine);
        Packet *again = CreatePkt(PKT_GetObjectInfo, nullptr, &a, &b);
        ASSERT_NE(again, nullptr);
        EXPECT_EQ(ToBytes(again), ToBytes(p));
        FreePkt(again);
        FreePkt(p);
    }
}

TEST(Packet, WriterStopsAtTheEndOfItsSpace)
{
    const ScriptVal v = Ordered({{"key", "value"}, {1.0, Ordered({{2.0, true}}, "Inner")}}, "Outer");
    const size_t size = CalcPktSize(v);
    for (size_t space : {size - 1, size_t(3), size})
    {
        Bytes buf(space); // exact: ASan sees a write past it
        unsigned char *cursor = buf.data();
        EXPECT_EQ(ToPkt(v, nullptr, cursor, buf.data() + space), space == size) << space;
        EXPECT_LE(cursor, buf.data() + space);
    }
}

// Object tables of a test connection: local objects get ids from 2 on, the peer's objects read as a
// stand-in local object, and every call is noted.
class TestObjects : public PacketObjects
{
public:
    std::map<uint32_t, ScriptObject *> m_Local;
    std::vector<std::pair<uint32_t, std::string>> m_PeerReads;
    _Object m_Proxy;
    const char *m_UUID = "0123456789abcdef0123456789abcdef0123";

    uint32_t LocalObjectId(ScriptObject *object) override
    {
        for (const auto &[id, o] : m_Local)
            if (o == object) return id;
        const uint32_t id = uint32_t(m_Local.size() + 2);
        m_Local[id] = object;
        return id;
    }
    uint32_t RemoteObjectId(RemoteObject *) override { return 9; }
    const char *LocalUUID() override { return m_UUID; }
    const char *RemoteUUID(RemoteObject *) override { return "short"; }
    void ReadOwnObject(uint32_t id, const char *, ScriptVal &out) override
    {
        if (m_Local.count(id)) out = m_Local[id];
    }
    void ReadPeerObject(uint32_t id, const char *uuid, ScriptVal &out) override
    {
        m_PeerReads.emplace_back(id, std::string(uuid, kPacketUUIDLength));
        out = &m_Proxy;
    }
};

TEST(Packet, ObjectsAreNamedThroughTheConnectionsTables)
{
    TestObjects objects;
    _Object mine;
    const ScriptVal local(&mine);
    ScriptValue payload{};
    payload.m_RemoteObject = reinterpret_cast<RemoteObject *>(&mine); // only passed through
    const Bytes zeros(36, 0);
    // A proxy's connection reports a UUID that is not 36 characters: zeros travel instead. Without
    // tables an object is unnamed.
    const struct
    {
        PacketObjects *objects;
        ScriptVal value;
        Bytes want;
    } writes[] = {
        {&objects, local, Wire().U32(SV_LocalObject).U32(2).Str(objects.m_UUID).b},
        {&objects, ScriptVal(SV_RemoteObject, &payload), Wire().U32(SV_RemoteObject).U32(9).Raw(zeros).b},
        {nullptr, local, Wire().U32(SV_LocalObject).U32(kPacketNoObject).Raw(zeros).b},
    };
    for (const auto &w : writes)
    {
        Packet *p = CreatePkt(PKT_Reply, w.objects, &w.value, nullptr);
        Bytes want = w.want;
        want.resize(44); // drops the terminator Str wrote
        EXPECT_EQ(ToBytes(p, 32), Wire().Raw(want).U32(SV_Nil).b);
        // Read back by the peer: a proxy there, or nil without tables.
        ScriptVal a(1.0);
        ASSERT_EQ(FromPacket(w.objects, p, p->m_Size, &a, nullptr), PR_Ok);
        EXPECT_EQ(a.ToLocalObject(), w.value.IsLocalObject() && w.objects ? &objects.m_Proxy : nullptr);
        FreePkt(p);
    }
    ASSERT_EQ(objects.m_PeerReads.size(), 1u);
    EXPECT_EQ(objects.m_PeerReads[0], std::make_pair(2u, std::string(objects.m_UUID)));

    // Sent back as the peer's remote object, the id finds our own object; an unknown id reads as nil.
    for (uint32_t id : {2u, 5u})
    {
        const Buffer back = Frame(Wire().U32(SV_RemoteObject).U32(id).Raw(zeros).U32(SV_Nil).b);
        ScriptVal v(1.0);
        ASSERT_EQ(FromPacket(&objects, back.packet(), back.size, &v, nullptr), PR_Ok);
        EXPECT_EQ(v.ToLocalObject(), id == 2 ? &mine : nullptr) << id;
    }
}

TEST(Packet, ReplyCarriesTheResultsAsATableInOrderWhichAnArgsTargetRefuses)
{
    ScriptArgs args;
    args[0] = "Member";
    args[1] = "argument";
    args["name"] = 1.0;
    args[-1] = 10.0;
    args[-3] = "third";
    args.GetValue().m_Args.m_NumReturns = 3;
    const ScriptVal first("first");
    Packet request{};
    request.m_Sequence = 42;
    Packet *p = ToReply(nullptr, &request, &first, &args);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->m_Type, PKT_Reply);
    EXPECT_EQ(p->m_Sequence, 42u);
    ScriptVal a, b;
    ASSERT_EQ(FromPacket(nullptr, p, p->m_Size, &a, &b), PR_Ok);
    EXPECT_TRUE(a == "first");
    EXPECT_EQ(KeysOf(b), (Keys{"-1", "-2", "-3"}));
    EXPECT_TRUE(b[-1.0] == 10.0 && b[-2.0].IsNil() && b[-3.0] == "third");
    ScriptArgs target;
    target[0] = "old";
    target.GetValue().m_Args.m_Context = 77;
    EXPECT_EQ(FromPacket(nullptr, p, p->m_Size, nullptr, &target), PR_WrongKind);
    EXPECT_EQ(target.NumKeys(), 0);
    EXPECT_EQ(target.GetValue().m_Args.m_Context, 77u);
    FreePkt(p);
}

// Tables nested `depth` deep, each the value of key 1.0 in the one around it.
Bytes Nested(int depth)
{
    Wire w;
    for (int i = 0; i < depth; ++i)
        w.U32(SV_Table).Str("").U32(i + 1 < depth ? 1 : 0).U32(SV_Number).F64(1.0);
    w.b.resize(w.b.size() - 12); // the innermost table has no key
    return w.b;
}

TEST(Packet, DamagedInputsAreRefusedAndLeaveNil)
{
    // The first value is nil; these are the bytes of the second.
    const struct
    {
        const char *name;
        Bytes second;
        PacketResult want;
    } cases[] = {
        {"entry count 0xFFFFFFFF", Wire().U32(SV_Args).U32(0xFFFFFFFFu).U32(SV_Nil).U32(SV_Nil).b,
         PR_BadValue},
        {"entry count one past", Wire().U32(SV_Table).Str("").U32(2).U32(SV_Nil).U32(SV_Nil).b, PR_BadValue},
        {"string without NUL", Wire().U32(SV_String).Raw({'a', 'b'}).b, PR_Truncated},
        {"constructor without NUL", Wire().U32(SV_Table).Raw({'V', 'e', 'c'}).b, PR_Truncated},
        {"string with marker", Wire().U32(SV_String).Raw({0xFF, 'a', 0}).b, PR_BadValue},
        {"constructor with marker", Wire().U32(SV_Table).Raw({0xFF, 0}).U32(0).b, PR_BadValue},
        {"kind 11", Wire().U32(SV_Ref).b, PR_UnknownKind},
        {"kind 0xFF", Wire().U32(0x1FF).b, PR_UnknownKind},
        {"boolean 2", Wire().U32(SV_Boolean).Raw({2}).b, PR_BadValue},
        {"write protection bit", Wire().U32(SV_Nil | SVF_Const).b, PR_BadValue},
        {"byte block past the end", Wire().U32(SV_MemBlock).U32(5).Raw({1, 2, 3, 4}).b, PR_Truncated},
        {"code size 0xFFFFFFFF", Wire().U32(SV_Code).U32(0xFFFFFFFFu).b, PR_Truncated},
        {"object reference cut", Wire().U32(SV_LocalObject).U32(1).Raw(Bytes(35, 0)).b, PR_Truncated},
        {"one value only", {}, PR_Truncated},
        {"trailing byte", Wire().U32(SV_Nil).Raw({0}).b, PR_TrailingData},
        {"nesting at the limit", Nested(kPacketMaxDepth), PR_Ok},
        {"nesting past the limit", Nested(kPacketMaxDepth + 1), PR_TooDeep},
        {"nesting in a key", Wire().U32(SV_Args).U32(1).Raw(Nested(kPacketMaxDepth)).U32(SV_Nil).b,
         PR_TooDeep},
    };
    for (const auto &c : cases)
    {
        const Buffer buf = Frame(Wire().U32(SV_Nil).Raw(c.second).b);
        ScriptVal a(1.0), b("old");
        EXPECT_EQ(FromPacket(nullptr, buf.packet(), buf.size, &a, &b), c.want) << c.name;
        EXPECT_TRUE(c.want == PR_Ok || (a.IsNil() && b.IsNil())) << c.name;
    }
}

TEST(Packet, EveryTruncationOfAValidPacketIsRefused)
{
    ScriptArgs args;
    args[0] = "Foo";
    args[1] = Ordered({{"k", MemBlock(const_cast<char *>("bytes"), 5)}}, "Ctor");
    args[2] = ScriptVal("code", 4, 0);
    Packet *p = ToPacket(nullptr, 1, SST_CallMemberFunction, nullptr, &args);
    const Bytes values = ToBytes(p, 32);
    const uint32_t full = p->m_Size;
    FreePkt(p);
    for (uint32_t cut = 0; cut < full; ++cut)
    {
        // Once with the size field telling the truth about the cut, once with fewer bytes at hand.
        Buffer buf = Frame(values);
        std::memcpy(buf.words.data(), &cut, 4);
        ScriptVal a(1.0), b(2.0);
        const PacketResult told = FromPacket(nullptr, buf.packet(), full, &a, &b);
        // A cut inside a table can also show as a count the rest cannot hold.
        EXPECT_TRUE(cut < 32 ? told == PR_BadSize : (told == PR_Truncated || told == PR_BadValue)) << cut;
        EXPECT_TRUE(a.IsNil() && b.IsNil()) << cut;
        std::memcpy(buf.words.data(), &full, 4);
        EXPECT_EQ(FromPacket(nullptr, buf.packet(), cut, &a, &b), PR_BadSize) << cut;
    }
}

TEST(Packet, SizeCeilingIsSettable)
{
    const Buffer buf = Frame(Wire().U32(SV_Nil).U32(SV_String).Str(std::string(100, 'x')).b);
    ScriptVal a, b;
    SetMaxPacketSize(64);
    EXPECT_FALSE(IsAcceptablePacketSize(buf.size));
    EXPECT_EQ(FromPacket(nullptr, buf.packet(), buf.size, &a, &b), PR_BadSize);
    const ScriptVal big(std::string(100, 'x').c_str());
    EXPECT_EQ(CreatePkt(PKT_Reply, nullptr, nullptr, &big), nullptr);
    SetMaxPacketSize(0);
    EXPECT_EQ(GetMaxPacketSize(), kPacketDefaultMaxSize);
    EXPECT_EQ(FromPacket(nullptr, buf.packet(), buf.size, &a, &b), PR_Ok);
    EXPECT_FALSE(IsAcceptablePacketSize(31));
    EXPECT_EQ(FromPacket(nullptr, nullptr, 64, &a, &b), PR_BadSize);
}

// Packets are written into a buffer that grows while they are built: one exactly at a ceiling that is
// no power of two is built whole, one byte more is refused, with strings or with many entries.
TEST(Packet, BuildingGrowsUpToTheCeilingExactly)
{
    SetMaxPacketSize(5000);
    // nil + string: 32 + 4 + 4 + length + 1 bytes.
    const std::string exact(5000 - 41, 'x');
    const ScriptVal fits(exact.c_str()), over((exact + "y").c_str());
    Packet *p = CreatePkt(PKT_Reply, nullptr, nullptr, &fits);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->m_Size, 5000u);
    ScriptVal a, b;
    EXPECT_EQ(FromPacket(nullptr, p, p->m_Size, &a, &b), PR_Ok);
    EXPECT_TRUE(b == exact.c_str());
    FreePkt(p);
    EXPECT_EQ(CreatePkt(PKT_Reply, nullptr, nullptr, &over), nullptr);
    // nil + a table of n number entries: 32 + 4 + (4 + 1 + 4) + 24 n bytes.
    SetMaxPacketSize(45 + 24 * 207);
    ScriptVal table(SV_Table, nullptr);
    for (int i = 1; i <= 207; ++i)
        table.FindKey(double(i)) = double(i) / 3;
    p = CreatePkt(PKT_Reply, nullptr, nullptr, &table);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->m_Size, 45u + 24u * 207u);
    EXPECT_EQ(FromPacket(nullptr, p, p->m_Size, &a, &b), PR_Ok);
    EXPECT_EQ(b.NumKeys(), 207);
    EXPECT_TRUE(b.FindKeyConst(207.0) == 69.0);
    FreePkt(p);
    table.FindKey(208.0) = 1.0;
    EXPECT_EQ(CreatePkt(PKT_Reply, nullptr, nullptr, &table), nullptr);
    SetMaxPacketSize(0);
}

TEST(Packet, FuzzCorpusKeepsTheReadInvariants)
{
    using orvexTest::CorpusExpect;
    const auto check = [](const std::string &name, const std::string &data, CorpusExpect expect)
    {
        const PacketLoadCheck result =
            CheckPacketRead(reinterpret_cast<const uint8_t *>(data.data()), data.size());
        EXPECT_EQ(result.failure, "") << name;
        EXPECT_TRUE(expect == CorpusExpect::Either || result.read == (expect == CorpusExpect::Read)) << name;
    };
    EXPECT_GE(orvexTest::ForEachCorpusFile(ORVEX_PACKET_CORPUS, check), 6u);
}

} // namespace
} // namespace orvexScript
