// Packets: sizes, the writer, the bounded reader and the packet builders.
#include "remote/Packet.h"

#include <atomic>
#include <cstdlib>
#include <cstring>

#include "values/base/StringBlock.h"
#include "values/model/ScriptArgs.h"
#include "values/model/TableEntry.h"

namespace orvexScript
{

namespace
{

std::atomic<uint32_t> s_MaxPacketSize{kPacketDefaultMaxSize};

// Smallest encodings: a value is at least its head, an entry at least two heads.
constexpr size_t kHeadSize = 4;
constexpr size_t kEntryMinSize = 2 * kHeadSize;
constexpr size_t kObjectRefSize = 4 + kPacketUUIDLength;

const char *StringText(const char *block)
{
    if (!block) return "";
    return IsStringBlock(block) ? block + 1 : block;
}

// ---- writing ------------------------------------------------------------------------------------

class Writer
{
public:
    Writer(unsigned char *&cursor, unsigned char *end) : m_Cursor(cursor), m_End(end) {}

    bool Bytes(const void *data, size_t size)
    {
        if (size > static_cast<size_t>(m_End - m_Cursor)) return false;
        if (size) std::memcpy(m_Cursor, data, size);
        m_Cursor += size;
        return true;
    }
    bool U32(uint32_t v) { return Bytes(&v, 4); }
    bool Text(const char *text) { return Bytes(text, std::strlen(text) + 1); }
    bool Zeros(size_t size)
    {
        if (size > static_cast<size_t>(m_End - m_Cursor)) return false;
        std::memset(m_Cursor, 0, size);
        m_Cursor += size;
        return true;
    }

private:
    unsigned char *&m_Cursor;
    unsigned char *m_End;
};

bool WriteObjectRef(Writer &w, uint32_t id, const char *uuid)
{
    if (!w.U32(id)) return false;
    if (uuid && strnlen(uuid, kPacketUUIDLength + 1) == kPacketUUIDLength)
        return w.Bytes(uuid, kPacketUUIDLength);
    return w.Zeros(kPacketUUIDLength);
}

bool WriteEntries(Writer &w, PacketObjects *objects, const TableEntry *head);

bool WriteValue(Writer &w, PacketObjects *objects, const ScriptVal &value)
{
    if (!w.U32(value.m_Flags & ~SVF_Const)) return false;
    const ScriptValue &v = value.GetValue();
    switch (value.Type())
    {
    case SV_Nil:
        return true;
    case SV_Number:
        return w.Bytes(&v.m_Number, 8);
    case SV_String:
        return w.Text(StringText(v.m_String.m_String));
    case SV_Boolean:
    {
        const unsigned char b = v.m_Boolean ? 1 : 0;
        return w.Bytes(&b, 1);
    }
    case SV_Table:
    {
        const char *ctor = value.GetConstructor();
        return w.Text(ctor ? ctor : "") && WriteEntries(w, objects, value.FirstEntry());
    }
    case SV_Function:
        return w.Bytes(&v.m_Function, 8);
    case SV_RemoteObject:
    {
        RemoteObject *object = v.m_RemoteObject;
        const uint32_t id = objects && object ? objects->RemoteObjectId(object) : kPacketNoObject;
        return WriteObjectRef(w, id, objects && object ? objects->RemoteUUID(object) : nullptr);
    }
    case SV_LocalObject:
    {
        ScriptObject *object = v.m_LocalObject;
        const uint32_t id = objects && object ? objects->LocalObjectId(object) : kPacketNoObject;
        return WriteObjectRef(w, id, objects ? objects->LocalUUID() : nullptr);
    }
    case SV_Code:
        return w.U32(v.m_Code.m_Size) && w.Bytes(v.m_Code.m_Ptr, v.m_Code.m_Size);
    case SV_MemBlock:
        return w.U32(v.m_MemBlock.m_Size) && w.Bytes(v.m_MemBlock.m_Ptr, v.m_MemBlock.m_Size);
    case SV_Args:
        return WriteEntries(w, objects, value.FirstEntry());
    default:
        return true; // not storable: the head alone
    }
}

bool WriteEntries(Writer &w, PacketObjects *objects, const TableEntry *head)
{
    uint32_t count = 0;
    for (const TableEntry *e = head; e; e = e->m_Next)
        ++count;
    if (!w.U32(count)) return false;
    for (const TableEntry *e = head; e; e = e->m_Next)
    {
        if (!WriteValue(w, objects, e->m_Key) || !WriteValue(w, objects, e->m_Value)) return false;
    }
    return true;
}

// ---- reading ------------------------------------------------------------------------------------

class Reader
{
public:
    Reader(const unsigned char *cursor, const unsigned char *end, PacketObjects *objects)
        : m_Cursor(cursor), m_End(end), m_Objects(objects)
    {
    }

    size_t Left() const { return static_cast<size_t>(m_End - m_Cursor); }
    const unsigned char *Cursor() const { return m_Cursor; }

    PacketResult Value(ScriptVal &out, int depth);

private:
    bool Bytes(void *out, size_t size)
    {
        if (size > Left()) return false;
        std::memcpy(out, m_Cursor, size);
        m_Cursor += size;
        return true;
    }
    bool U32(uint32_t &v) { return Bytes(&v, 4); }
    // A NUL-terminated text that lies wholly inside the packet and doesn't start with the marker.
    PacketResult Text(const char *&text);
    PacketResult Entries(TableEntry *&head, int depth);
    PacketResult Block(uint32_t word, ScriptVal &out);
    PacketResult ObjectRef(uint32_t kind, ScriptVal &out);

    const unsigned char *m_Cursor;
    const unsigned char *m_End;
    PacketObjects *m_Objects;
};

PacketResult Reader::Text(const char *&text)
{
    const void *nul = std::memchr(m_Cursor, 0, Left());
    if (!nul) return PR_Truncated;
    if (*m_Cursor == kStringBlockMarker) return PR_BadValue;
    text = reinterpret_cast<const char *>(m_Cursor);
    m_Cursor = static_cast<const unsigned char *>(nul) + 1;
    return PR_Ok;
}

void FreeEntries(TableEntry *head)
{
    while (head)
    {
        TableEntry *next = head->m_Next;
        delete head;
        head = next;
    }
}

PacketResult Reader::Entries(TableEntry *&head, int depth)
{
    head = nullptr;
    uint32_t count = 0;
    if (!U32(count)) return PR_Truncated;
    // Each entry takes at least two heads: a count the rest of the packet can't hold is refused before
    // anything is allocated for it.
    if (count > Left() / kEntryMinSize) return PR_BadValue;
    TableEntry *last = nullptr;
    for (uint32_t i = 0; i < count; ++i)
    {
        TableEntry *entry = new TableEntry;
        if (!entry)
        {
            FreeEntries(head);
            head = nullptr;
            return PR_NoMemory;
        }
        PacketResult r = Value(entry->m_Key, depth);
        if (r == PR_Ok) r = Value(entry->m_Value, depth);
        if (r != PR_Ok)
        {
            delete entry;
            FreeEntries(head);
            head = nullptr;
            return r;
        }
        if (last)
            last->m_Next = entry;
        else
            head = entry;
        last = entry;
    }
    return PR_Ok;
}

// Code and byte blocks: a size, then that many bytes, which must all be present.
PacketResult Reader::Block(uint32_t word, ScriptVal &out)
{
    uint32_t size = 0;
    if (!U32(size)) return PR_Truncated;
    if (size > Left()) return PR_Truncated;
    ScriptValue payload{};
    if ((word & SV_TypeMask) == SV_Code)
    {
        payload.m_Code.m_Ptr = const_cast<unsigned char *>(m_Cursor);
        payload.m_Code.m_Size = size;
    }
    else
    {
        payload.m_MemBlock.m_Ptr = const_cast<unsigned char *>(m_Cursor);
        payload.m_MemBlock.m_Size = size;
    }
    out.Set(static_cast<ScriptValType>(word), &payload); // copies the bytes
    if (out.Type() != (word & SV_TypeMask)) return PR_NoMemory;
    const ScriptValue &v = out.GetValue();
    const void *ptr = (word & SV_TypeMask) == SV_Code ? v.m_Code.m_Ptr : v.m_MemBlock.m_Ptr;
    if (!ptr) return PR_NoMemory;
    m_Cursor += size;
    return PR_Ok;
}

PacketResult Reader::ObjectRef(uint32_t kind, ScriptVal &out)
{
    uint32_t id = 0;
    char uuid[kPacketUUIDLength];
    if (!U32(id) || !Bytes(uuid, sizeof uuid)) return PR_Truncated;
    if (!m_Objects) return PR_Ok; // nobody to name objects: nil
    // The writer's view: its remote object is one of ours, its local object one of the peer's.
    if (kind == SV_RemoteObject)
        m_Objects->ReadOwnObject(id, uuid, out);
    else
        m_Objects->ReadPeerObject(id, uuid, out);
    return PR_Ok;
}

PacketResult Reader::Value(ScriptVal &out, int depth)
{
    out.CleanUp();
    const unsigned char *start = m_Cursor;
    uint32_t word = 0;
    if (!U32(word)) return PR_Truncated;
    PacketResult r = PR_Ok;
    const uint32_t kind = word & SV_TypeMask;
    if (word & SVF_Const)
        r = PR_BadValue;
    else if (kind > SV_Args)
        r = PR_UnknownKind;
    else
    {
        const ScriptValType type = static_cast<ScriptValType>(word);
        ScriptValue payload{};
        switch (kind)
        {
        case SV_Nil:
            out.Set(type, nullptr);
            break;
        case SV_Number:
            if (!Bytes(&payload.m_Number, 8)) r = PR_Truncated;
            if (r == PR_Ok) out.Set(type, &payload);
            break;
        case SV_Boolean:
        {
            unsigned char b = 0;
            if (!Bytes(&b, 1))
                r = PR_Truncated;
            else if (b > 1)
                r = PR_BadValue;
            payload.m_Boolean = b != 0;
            if (r == PR_Ok) out.Set(type, &payload);
            break;
        }
        case SV_String:
        {
            const char *text = nullptr;
            r = Text(text);
            if (r != PR_Ok) break;
            payload.m_String.m_String = const_cast<char *>(text);
            out.Set(type, &payload); // copies the text into a block of its own
            if (out.Type() != SV_String) r = PR_NoMemory;
            break;
        }
        case SV_Function:
            if (!Bytes(&payload.m_Function, 8)) r = PR_Truncated;
            // The sender's symbol address: held as a number, handed back only, never followed here.
            if (r == PR_Ok) out.Set(type, &payload);
            break;
        case SV_RemoteObject:
        case SV_LocalObject:
            r = ObjectRef(kind, out);
            break;
        case SV_Code:
        case SV_MemBlock:
            r = Block(word, out);
            break;
        case SV_Table:
        case SV_Args:
        {
            if (depth >= kPacketMaxDepth)
            {
                r = PR_TooDeep;
                break;
            }
            const char *ctor = nullptr;
            if (kind == SV_Table) r = Text(ctor);
            TableEntry *head = nullptr;
            if (r == PR_Ok) r = Entries(head, depth + 1);
            if (r != PR_Ok) break;
            out.Set(type, nullptr);
            if (kind == SV_Table)
            {
                out.SetTable(head); // kept in the order it came
                if (*ctor) out.SetConstructor(ctor);
                if (*ctor && !out.GetConstructor()) r = PR_NoMemory;
            }
            else
            {
                out.GetValue().m_Args.m_Table = head;
            }
            break;
        }
        }
    }
    if (r != PR_Ok)
    {
        out.CleanUp();
        m_Cursor = start;
    }
    return r;
}

Packet *BuildPacket(uint32_t type, uint32_t sequence, PacketObjects *objects, const ScriptVal *first,
                    const ScriptVal *second)
{
    const ScriptVal &a = first ? *first : nil;
    const ScriptVal &b = second ? *second : nil;
    const size_t size = kPacketHeaderSize + CalcPktSize(a) + CalcPktSize(b);
    if (size > GetMaxPacketSize()) return nullptr;
    auto *packet = static_cast<Packet *>(std::malloc(size));
    if (!packet) return nullptr;
    std::memset(packet, 0, kPacketHeaderSize);
    packet->m_Size = static_cast<uint32_t>(size);
    packet->m_Type = type;
    packet->m_Sequence = sequence;
    unsigned char *cursor = reinterpret_cast<unsigned char *>(packet) + kPacketHeaderSize;
    unsigned char *end = reinterpret_cast<unsigned char *>(packet) + size;
    // The sizes were taken in a first pass: a value that changed since then doesn't fit exactly.
    if (!ToPkt(a, objects, cursor, end) || !ToPkt(b, objects, cursor, end) || cursor != end)
    {
        std::free(packet);
        return nullptr;
    }
    return packet;
}

} // namespace

// ---- sizes and limits ---------------------------------------------------------------------------

void SetMaxPacketSize(uint32_t bytes)
{
    if (bytes == 0) bytes = kPacketDefaultMaxSize;
    if (bytes < kPacketHeaderSize) bytes = kPacketHeaderSize;
    s_MaxPacketSize.store(bytes, std::memory_order_relaxed);
}

uint32_t GetMaxPacketSize()
{
    return s_MaxPacketSize.load(std::memory_order_relaxed);
}

bool IsAcceptablePacketSize(uint32_t size)
{
    return size >= kPacketHeaderSize && size <= GetMaxPacketSize();
}

const char *PacketResultName(PacketResult result)
{
    switch (result)
    {
    case PR_Ok:
        return "ok";
    case PR_Truncated:
        return "value runs past the packet's end";
    case PR_BadSize:
        return "bad packet size";
    case PR_UnknownKind:
        return "unknown value kind";
    case PR_BadValue:
        return "malformed value";
    case PR_TooDeep:
        return "tables nested too deep";
    case PR_NoMemory:
        return "out of memory";
    case PR_TrailingData:
        return "bytes behind the last value";
    case PR_WrongKind:
        return "argument record expected";
    }
    return "unknown result";
}

PacketObjects::~PacketObjects() = default;

size_t CalcPktSize(const ScriptVal &value)
{
    const ScriptValue &v = value.GetValue();
    switch (value.Type())
    {
    case SV_Number:
    case SV_Function:
        return kHeadSize + 8;
    case SV_String:
        return kHeadSize + std::strlen(StringText(v.m_String.m_String)) + 1;
    case SV_Boolean:
        return kHeadSize + 1;
    case SV_RemoteObject:
    case SV_LocalObject:
        return kHeadSize + kObjectRefSize;
    case SV_Code:
        return kHeadSize + 4 + v.m_Code.m_Size;
    case SV_MemBlock:
        return kHeadSize + 4 + v.m_MemBlock.m_Size;
    case SV_Table:
    case SV_Args:
    {
        size_t size = kHeadSize + 4;
        if (value.Type() == SV_Table)
        {
            const char *ctor = value.GetConstructor();
            size += (ctor ? std::strlen(ctor) : 0) + 1;
        }
        for (const TableEntry *e = value.FirstEntry(); e; e = e->m_Next)
            size += CalcPktSize(e->m_Key) + CalcPktSize(e->m_Value);
        return size;
    }
    default:
        return kHeadSize;
    }
}

bool ToPkt(const ScriptVal &value, PacketObjects *objects, unsigned char *&cursor, unsigned char *end)
{
    Writer w(cursor, end);
    return WriteValue(w, objects, value);
}

PacketResult FromPkt(ScriptVal &target, PacketObjects *objects, const unsigned char *&cursor,
                     const unsigned char *end)
{
    if (!cursor || !end || end < cursor)
    {
        target.CleanUp();
        return PR_Truncated;
    }
    Reader reader(cursor, end, objects);
    const PacketResult r = reader.Value(target, 0);
    if (r == PR_Ok) cursor = reader.Cursor();
    return r;
}

// ---- packets ------------------------------------------------------------------------------------

Packet *CreatePkt(uint32_t type, PacketObjects *objects, const ScriptVal *first, const ScriptVal *second)
{
    return BuildPacket(type, 0, objects, first, second);
}

Packet *CreateReply(uint32_t sequence, PacketObjects *objects, const ScriptVal *first, const ScriptVal *second)
{
    return BuildPacket(PKT_Reply, sequence, objects, first, second);
}

Packet *CreateReply(const Packet *request, PacketObjects *objects, const ScriptVal *first,
                    const ScriptVal *second)
{
    return CreateReply(request ? request->m_Sequence : 0, objects, first, second);
}

void FreePkt(Packet *packet)
{
    std::free(packet);
}

Packet *ToPacket(PacketObjects *objects, uint32_t object, uint32_t symbol, const ScriptVal *first,
                 const ScriptVal *second)
{
    Packet *packet = CreatePkt(PKT_Command, objects, first, second);
    if (packet)
    {
        packet->m_Object = object;
        packet->m_Symbol = symbol;
    }
    return packet;
}

PacketResult FromPacket(PacketObjects *objects, const Packet *packet, size_t available, ScriptVal *first,
                        ScriptVal *second)
{
    ScriptVal firstTemp, secondTemp;
    ScriptVal &a = first ? *first : firstTemp;
    ScriptVal &b = second ? *second : secondTemp;
    auto *args = dynamic_cast<ScriptArgs *>(second);
    const uint32_t context = args ? args->GetValue().m_Args.m_Context : 0;
    a.CleanUp();
    b.CleanUp();

    PacketResult r = PR_Ok;
    if (!packet || available < kPacketHeaderSize || !IsAcceptablePacketSize(packet->m_Size) ||
        packet->m_Size > available)
        r = PR_BadSize;
    if (r == PR_Ok)
    {
        const auto *base = reinterpret_cast<const unsigned char *>(packet);
        const unsigned char *cursor = base + kPacketHeaderSize;
        const unsigned char *end = base + packet->m_Size;
        r = FromPkt(a, objects, cursor, end);
        if (r == PR_Ok) r = FromPkt(b, objects, cursor, end);
        if (r == PR_Ok && cursor != end) r = PR_TrailingData;
    }
    if (r == PR_Ok && args && !b.IsArgs() && !b.IsNil()) r = PR_WrongKind;
    if (r != PR_Ok)
    {
        a.CleanUp();
        b.CleanUp();
    }
    if (args)
    {
        // An argument record stays one: nil on the wire (or a refusal) leaves it empty.
        if (!b.IsArgs()) b.Set(SV_Args, nullptr);
        b.GetValue().m_Args.m_Context = context;
    }
    return r;
}

Packet *ToReply(PacketObjects *objects, uint32_t sequence, const ScriptVal *first, const ScriptVal *args)
{
    // Results never travel as an argument record: a plain table of keys -1 .. -n, in that order.
    ScriptVal results(SV_Table, nullptr);
    const int count = args && args->IsArgs() ? args->GetValue().m_Args.m_NumReturns : 0;
    TableEntry *head = nullptr;
    TableEntry *last = nullptr;
    for (int i = 1; i <= count; ++i)
    {
        TableEntry *entry = new TableEntry(static_cast<double>(-i));
        if (!entry)
        {
            FreeEntries(head);
            return nullptr;
        }
        entry->m_Value = args->FindKeyConst(static_cast<double>(-i));
        entry->m_Value.ClearFlags(SVF_Const);
        if (last)
            last->m_Next = entry;
        else
            head = entry;
        last = entry;
    }
    results.SetTable(head);
    return CreateReply(sequence, objects, first, &results);
}

Packet *ToReply(PacketObjects *objects, const Packet *request, const ScriptVal *first, const ScriptVal *args)
{
    return ToReply(objects, request ? request->m_Sequence : 0, first, args);
}

} // namespace orvexScript
