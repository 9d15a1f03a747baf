#include "remote/Packet.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
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

// Little-endian byte strings, written the long way so the expectations don't share the writer's code.
struct Wire
{
    Bytes b;
    Wire &U32(uint32_t v)
    {
        for (int i = 0; i < 4; ++i)
            b.push_back(static_cast<unsigned char>(v >> (8 * i)));
        return *this;
    }
    Wire &F64(double d)
    {
        uint64_t v;
        std::memcpy(&v, &d, 8);
        for (int i = 0; i < 8; ++i)
            b.push_back(static_cast<unsigned char>(v >> (8 * i)));
        return *this;
    }
    Wire &Str(const std::string &s)
    {
        b.insert(b.end(), s.begin(), s.end());
        b.push_back(0);
        return *this;
    }
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

Buffer Frame(const Bytes &body, uint32_t type = PKT_Reply)
{
    Wire w;
    w.U32(uint32_t(32 + body.size())).U32(type).U32(0).U32(0).U32(0).U32(0).U32(0).U32(0).Raw(body);
    Buffer out;
    out.size = w.b.size();
    out.words.assign(out.size / 8 + 1, 0);
    std::memcpy(out.words.data(), w.b.data(), out.size);
    return out;
}

Bytes ToBytes(const Packet *p)
{
    const auto *raw = reinterpret_cast<const unsigned char *>(p);
    return Bytes(raw, raw + p->m_Size);
}

// The values of a packet: what follows the header.
Bytes Body(const Packet *p)
{
    const Bytes all = ToBytes(p);
    return Bytes(all.begin() + 32, all.end());
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

std::vector<std::string> KeysOf(const ScriptVal &t)
{
    std::vector<std::string> keys;
    for (const TableEntry *e = t.FirstEntry(); e; e = e->m_Next)
        keys.push_back(e->m_Key.IsString() ? e->m_Key.ToString() : std::to_string(e->m_Key.ToInteger()));
    return keys;
}

TEST(Packet, CommandCallingFooWithTwoIsTheDocumentedEightyEightBytes)
{
    ScriptArgs args;
    args[0] = "Foo";
    args[1] = 2.0;
    Packet *p = ToPacket(nullptr, 1, SST_CallMemberFunction, nullptr, &args);
    ASSERT_NE(p, nullptr);
    p->m_Sequence = 7;
    Wire want;
    want.U32(88).U32(PKT_Command).U32(144).U32(1).U32(7).U32(0).U32(0).U32(0);
    want.U32(SV_Nil);
    want.U32(SV_Args).U32(2);
    want.U32(SV_Number).F64(0.0).U32(SV_String).Str("Foo");
    want.U32(SV_Number).F64(1.0).U32(SV_Number).F64(2.0);
    EXPECT_EQ(ToBytes(p), want.b);
    FreePkt(p);
}

TEST(Packet, EncodedSizesFollowTheKind)
{
    ScriptVal fn(SV_Function, nullptr);
    ScriptValue f{};
    f.m_Function = 0x1234;
    fn.Set(SV_Function, &f);
    const unsigned char bytes[3] = {1, 0, 2};
    struct Case
    {
        const char *name;
        ScriptVal value;
        size_t size;
    } cases[] = {
        {"nil", ScriptVal(), 4},
        {"number", ScriptVal(1.5), 12},
        {"empty string", ScriptVal(""), 5},
        {"string", ScriptVal("abc"), 8},
        {"boolean", ScriptVal(true), 5},
        {"empty table", ScriptVal(SV_Table, nullptr), 9},
        {"table with constructor", Ordered({{1.0, true}}, "Vec"), 9 + 3 + 12 + 5},
        {"function", fn, 12},
        {"code", ScriptVal(bytes, 3, 2), 11},
        {"byte block", ScriptVal(MemBlock(const_cast<unsigned char *>(bytes), 3)), 11},
        {"empty args", ScriptArgs(), 8},
    };
    for (const Case &c : cases)
        EXPECT_EQ(CalcPktSize(c.value), c.size) << c.name;
}

TEST(Packet, EveryKindRoundTripsWithOrderConstructorsAndFlags)
{
    ScriptValue f{};
    f.m_Function = 0xDEADBEEF12345678ull;
    const ScriptVal fn(SVType(SV_Function, 0x00400000u), &f);
    const unsigned char code[4] = {0x1B, 'L', 0, 'J'};
    const unsigned char block[5] = {0, 0xFF, 1, 0, 7};
    ScriptArgs call;
    call[0] = "Member";
    call[1] = "x";
    call[2] = Ordered({{"inner", 1.0}});
    const ScriptVal nested = Ordered(
        {{"z", 1.0},
         {3.0, "three"},
         {"a", Ordered({{"y", false}, {"x", Ordered({}, "Deep", SVF_OneLine)}}, "Mid")},
         {1.0, ScriptVal(code, 4, 1)},
         {Ordered({{"key", "table"}}), "table as key"}},
        "Outer", SVF_OneLine);
    const ScriptVal values[] = {
        ScriptVal(),
        ScriptVal(-0.25),
        ScriptVal(1.5f),
        ScriptVal(""),
        ScriptVal("text \xC3\xA9 \xFF inside"),
        ScriptVal(true),
        ScriptVal(false),
        fn,
        ScriptVal(code, 4, 3),
        ScriptVal(MemBlock(const_cast<unsigned char *>(block), 5)),
        ScriptVal(MemBlock(nullptr, 0)),
        ScriptVal(SV_Table, nullptr),
        nested,
        call,
    };
    for (const ScriptVal &v : values)
    {
        Packet *p = CreatePkt(PKT_GetObjectInfo, nullptr, &v, &nested);
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(p->m_Size, 32 + CalcPktSize(v) + CalcPktSize(nested));
        ScriptVal a, b;
        ASSERT_EQ(FromPacket(nullptr, p, p->m_Size, &a, &b), PR_Ok);
        EXPECT_EQ(a.m_Flags, v.m_Flags);
        // Tables, arguments and code equal nothing: the bytes built again below stand for them.
        if (v.Type() < SV_Table)
        {
            EXPECT_TRUE(a == v) << "kind " << v.Type();
        }
        EXPECT_EQ(a.ToFunction(), v.ToFunction());
        if (v.IsCode())
        {
            // The bytes travel, the argument count does not.
            EXPECT_EQ(a.ToCodeLen(), v.ToCodeLen());
            EXPECT_EQ(std::memcmp(a.ToCodePtr(), v.ToCodePtr(), v.ToCodeLen()), 0);
            EXPECT_EQ(a.ToCodeArgs(), 0u);
        }
        EXPECT_EQ(KeysOf(b), (std::vector<std::string>{"z", "3", "a", "1", "0"}));
        EXPECT_STREQ(b.GetConstructor(), "Outer");
        EXPECT_EQ(KeysOf(b["a"]), (std::vector<std::string>{"y", "x"}));
        EXPECT_STREQ(b["a"]["x"].GetConstructor(), "Deep");
        EXPECT_EQ(b["a"]["x"].GetFlags(SVF_OneLine), SVF_OneLine);
        // What was read builds the same bytes again.
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
    for (size_t space : {size - 1, size - 5, size_t(3)})
    {
        std::vector<unsigned char> buf(space); // exact: ASan sees a write past it
        unsigned char *cursor = buf.data();
        EXPECT_FALSE(ToPkt(v, nullptr, cursor, buf.data() + space)) << space;
        EXPECT_LE(cursor, buf.data() + space);
    }
    std::vector<unsigned char> buf(size);
    unsigned char *cursor = buf.data();
    EXPECT_TRUE(ToPkt(v, nullptr, cursor, buf.data() + size));
    EXPECT_EQ(cursor, buf.data() + size);
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
        auto it = m_Local.find(id);
        if (it != m_Local.end()) out = it->second;
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
    Packet *p = CreatePkt(PKT_Reply, &objects, &local, nullptr);
    ASSERT_EQ(p->m_Size, 32u + 44u + 4u);
    Wire want;
    want.U32(SV_LocalObject).U32(2).Raw(Bytes(objects.m_UUID, objects.m_UUID + 36)).U32(SV_Nil);
    EXPECT_EQ(Body(p), want.b);

    // The peer sees an object of ours: it becomes a proxy there.
    ScriptVal a;
    ASSERT_EQ(FromPacket(&objects, p, p->m_Size, &a, nullptr), PR_Ok);
    EXPECT_EQ(a.ToLocalObject(), &objects.m_Proxy);
    ASSERT_EQ(objects.m_PeerReads.size(), 1u);
    EXPECT_EQ(objects.m_PeerReads[0], std::make_pair(2u, std::string(objects.m_UUID)));
    FreePkt(p);

    // Sent back as the peer's remote object, the id finds our own object; an unknown id reads as nil.
    for (uint32_t id : {2u, 5u})
    {
        Wire w;
        w.U32(SV_RemoteObject).U32(id).Raw(Bytes(36, 0)).U32(SV_Nil);
        const Buffer back = Frame(w.b);
        ScriptVal v(1.0);
        ASSERT_EQ(FromPacket(&objects, back.packet(), back.size, &v, nullptr), PR_Ok);
        EXPECT_EQ(v.ToLocalObject(), id == 2 ? &mine : nullptr) << id;
    }

    // A proxy's connection reports a UUID that is not 36 characters: zeros travel instead.
    ScriptValue payload{};
    payload.m_RemoteObject = reinterpret_cast<RemoteObject *>(&mine); // only passed through
    const ScriptVal proxy(SV_RemoteObject, &payload);
    p = CreatePkt(PKT_Reply, &objects, &proxy, nullptr);
    Wire remote;
    remote.U32(SV_RemoteObject).U32(9).Raw(Bytes(36, 0)).U32(SV_Nil);
    EXPECT_EQ(Body(p), remote.b);
    FreePkt(p);

    // No tables at all: unnamed on writing, nil on reading.
    p = CreatePkt(PKT_Reply, nullptr, &local, nullptr);
    Wire unnamed;
    unnamed.U32(SV_LocalObject).U32(kPacketNoObject).Raw(Bytes(36, 0)).U32(SV_Nil);
    EXPECT_EQ(Body(p), unnamed.b);
    ScriptVal v(1.0);
    EXPECT_EQ(FromPacket(nullptr, p, p->m_Size, &v, nullptr), PR_Ok);
    EXPECT_TRUE(v.IsNil());
    FreePkt(p);
}

TEST(Packet, ReplyCarriesTheResultsAsATableInOrder)
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
    ASSERT_TRUE(b.IsTable());
    EXPECT_EQ(KeysOf(b), (std::vector<std::string>{"-1", "-2", "-3"}));
    EXPECT_TRUE(b[-1.0] == 10.0);
    EXPECT_TRUE(b[-2.0].IsNil());
    EXPECT_TRUE(b[-3.0] == "third");
    FreePkt(p);
}

TEST(Packet, ArgsTargetKeepsItsContextAndWantsAnArgumentRecord)
{
    ScriptArgs sent;
    sent[0] = "Foo";
    Packet *p = ToPacket(nullptr, 1, SST_CallMemberFunction, nullptr, &sent);
    ScriptArgs target;
    target.GetValue().m_Args.m_Context = 77;
    ASSERT_EQ(FromPacket(nullptr, p, p->m_Size, nullptr, &target), PR_Ok);
    EXPECT_TRUE(target[0] == "Foo");
    EXPECT_EQ(target.GetValue().m_Args.m_Context, 77u);
    FreePkt(p);

    const ScriptVal table(SV_Table, nullptr);
    p = CreatePkt(PKT_Command, nullptr, nullptr, &table);
    EXPECT_EQ(FromPacket(nullptr, p, p->m_Size, nullptr, &target), PR_WrongKind);
    EXPECT_TRUE(target.IsArgs());
    EXPECT_EQ(target.NumKeys(), 0);
    EXPECT_EQ(target.GetValue().m_Args.m_Context, 77u);
    FreePkt(p);
}

Bytes Nested(int depth)
{
    Wire w;
    for (int i = 0; i < depth; ++i)
        w.U32(SV_Table).Str("").U32(i + 1 < depth ? 1 : 0).U32(SV_Number).F64(1.0);
    // The innermost table has no entries: drop the key that was written for it.
    w.b.resize(w.b.size() - 12);
    return w.b;
}

TEST(Packet, DamagedInputsAreRefusedAndLeaveNil)
{
    const Bytes nilv = Wire().U32(SV_Nil).b;
    struct Case
    {
        const char *name;
        Bytes body; // both values
        PacketResult want;
    } cases[] = {
        {"entry count 0xFFFFFFFF", Wire().U32(SV_Nil).U32(SV_Args).U32(0xFFFFFFFFu).U32(SV_Nil).U32(SV_Nil).b,
         PR_BadValue},
        {"entry count one past", Wire().U32(SV_Nil).U32(SV_Table).Str("").U32(2).U32(SV_Nil).U32(SV_Nil).b,
         PR_BadValue},
        {"string without NUL", Wire().U32(SV_Nil).U32(SV_String).Raw({'a', 'b'}).b, PR_Truncated},
        {"constructor without NUL", Wire().U32(SV_Nil).U32(SV_Table).Raw({'V', 'e', 'c'}).b, PR_Truncated},
        {"string with marker", Wire().U32(SV_Nil).U32(SV_String).Raw({0xFF, 'a', 0}).b, PR_BadValue},
        {"constructor with marker", Wire().U32(SV_Nil).U32(SV_Table).Raw({0xFF, 0}).U32(0).b, PR_BadValue},
        {"kind 11", Wire().U32(SV_Nil).U32(SV_Ref).b, PR_UnknownKind},
        {"kind 0xFF", Wire().U32(SV_Nil).U32(0x1FF).b, PR_UnknownKind},
        {"boolean 2", Wire().U32(SV_Nil).U32(SV_Boolean).Raw({2}).b, PR_BadValue},
        {"write protection bit", Wire().U32(SV_Nil).U32(SV_Nil | SVF_Const).b, PR_BadValue},
        {"byte block past the end", Wire().U32(SV_Nil).U32(SV_MemBlock).U32(5).Raw({1, 2, 3, 4}).b,
         PR_Truncated},
        {"code size 0xFFFFFFFF", Wire().U32(SV_Nil).U32(SV_Code).U32(0xFFFFFFFFu).b, PR_Truncated},
        {"object reference cut", Wire().U32(SV_Nil).U32(SV_LocalObject).U32(1).Raw(Bytes(35, 0)).b, PR_Truncated},
        {"one value only", nilv, PR_Truncated},
        {"trailing byte", Wire().U32(SV_Nil).U32(SV_Nil).Raw({0}).b, PR_TrailingData},
        {"nesting at the limit", Wire().U32(SV_Nil).Raw(Nested(kPacketMaxDepth)).b, PR_Ok},
        {"nesting past the limit", Wire().U32(SV_Nil).Raw(Nested(kPacketMaxDepth + 1)).b, PR_TooDeep},
        {"nesting in a key", Wire().U32(SV_Nil).U32(SV_Args).U32(1).Raw(Nested(kPacketMaxDepth)).U32(SV_Nil).b,
         PR_TooDeep},
    };
    for (const Case &c : cases)
    {
        const Buffer buf = Frame(c.body);
        ScriptVal a(1.0), b("old");
        EXPECT_EQ(FromPacket(nullptr, buf.packet(), buf.size, &a, &b), c.want) << c.name;
        if (c.want != PR_Ok)
        {
            EXPECT_TRUE(a.IsNil() && b.IsNil()) << c.name;
        }
    }
}

TEST(Packet, EveryTruncationOfAValidPacketIsRefused)
{
    ScriptArgs args;
    args[0] = "Foo";
    args[1] = Ordered({{"k", MemBlock(const_cast<char *>("bytes"), 5)}}, "Ctor");
    args[2] = ScriptVal("code", 4, 0);
    Packet *p = ToPacket(nullptr, 1, SST_CallMemberFunction, nullptr, &args);
    const Bytes whole = ToBytes(p);
    FreePkt(p);
    for (size_t cut = 0; cut < whole.size(); ++cut)
    {
        Buffer buf = Frame(Bytes(whole.begin() + 32, whole.end()));
        // Once with the size field telling the truth about the cut, once with fewer bytes at hand.
        const uint32_t size = uint32_t(cut);
        std::memcpy(buf.words.data(), &size, 4);
        ScriptVal a(1.0), b(2.0);
        const PacketResult told = FromPacket(nullptr, buf.packet(), whole.size(), &a, &b);
        // A cut inside a table can also show as a count the rest cannot hold.
        EXPECT_TRUE(cut < 32 ? told == PR_BadSize : (told == PR_Truncated || told == PR_BadValue)) << cut;
        EXPECT_TRUE(a.IsNil() && b.IsNil()) << cut;
        const uint32_t full = uint32_t(whole.size());
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

TEST(Packet, FuzzCorpusKeepsTheReadInvariants)
{
    namespace fs = std::filesystem;
    size_t files = 0;
    for (const fs::directory_entry &entry : fs::directory_iterator(ORVEX_PACKET_CORPUS))
    {
        if (!entry.is_regular_file()) continue;
        const std::string name = entry.path().filename().string();
        const std::string data = orvexTest::ReadFile(entry.path().string());
        const PacketLoadCheck result = CheckPacketRead(reinterpret_cast<const uint8_t *>(data.data()), data.size());
        EXPECT_EQ(result.failure, "") << name;
        if (name.rfind("valid-", 0) == 0 || name.rfind("broken-", 0) == 0)
        {
            EXPECT_EQ(result.read, name[0] == 'v') << name;
        }
        ++files;
    }
    EXPECT_GE(files, 6u);
}

} // namespace
} // namespace orvexScript
