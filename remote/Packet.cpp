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

// Writes into [cursor, end). A fixed writer fails where the space ends; a growing one owns its buffer
// and doubles it, up to `limit` bytes in all. Ensure once, then Put without checks.
class Writer
{
public:
    Writer(unsigned char *cursor, unsigned char *end) : m_Base(cursor), m_Cursor(cursor), m_End(end) {}
    Writer(size_t capacity, size_t limit) : m_Limit(limit), m_Grows(true)
    {
        m_Base = static_cast<unsigned char *>(std::malloc(capacity));
        m_Cursor = m_Base;
        m_End = m_Base ? m_Base + capacity : nullptr;
    }
    Writer(const Writer &) = delete;
    Writer &operator=(const Writer &) = delete;
    ~Writer()
    {
        if (m_Grows) std::free(m_Base);
    }

    bool Ensure(size_t size) { return size <= static_cast<size_t>(m_End - m_Cursor) || Grow(size); }
    void Put(const void *data, size_t size)
    {
        std::memcpy(m_Cursor, data, size);
        m_Cursor += size;
    }
    void PutU32(uint32_t v) { Put(&v, 4); }
    // The same for the short texts that most keys and values are: two overlapping moves of a fixed
    // size instead of a call, never reading outside [data, data + size).
    void PutShort(const void *data, size_t size)
    {
        const auto *p = static_cast<const unsigned char *>(data);
        if (size >= 16 && size <= 32)
        {
            std::memcpy(m_Cursor, p, 16);
            std::memcpy(m_Cursor + size - 16, p + size - 16, 16);
        }
        else if (size >= 8 && size < 16)
        {
            std::memcpy(m_Cursor, p, 8);
            std::memcpy(m_Cursor + size - 8, p + size - 8, 8);
        }
        else if (size >= 4 && size < 8)
        {
            std::memcpy(m_Cursor, p, 4);
            std::memcpy(m_Cursor + size - 4, p + size - 4, 4);
        }
        else if (size < 4)
        {
            for (size_t i = 0; i < size; ++i)
                m_Cursor[i] = p[i];
        }
        else
        {
            std::memcpy(m_Cursor, p, size);
        }
        m_Cursor += size;
    }

    bool Bytes(const void *data, size_t size)
    {
        if (!Ensure(size)) return false;
        if (size) Put(data, size);
        return true;
    }
    bool U32(uint32_t v) { return Bytes(&v, 4); }
    bool Zeros(size_t size)
    {
        if (!Ensure(size)) return false;
        std::memset(m_Cursor, 0, size);
        m_Cursor += size;
        return true;
    }

    // Offsets survive a growth where pointers don't.
    size_t Offset() const { return static_cast<size_t>(m_Cursor - m_Base); }
    void PatchU32(size_t offset, uint32_t v) { std::memcpy(m_Base + offset, &v, 4); }
    unsigned char *Cursor() const { return m_Cursor; }

    // A growing writer hands its buffer over, trimmed when much of it is unused.
    unsigned char *Release()
    {
        const size_t used = Offset();
        unsigned char *buffer = m_Base;
        if (static_cast<size_t>(m_End - m_Cursor) > 256)
        {
            if (auto *trimmed = static_cast<unsigned char *>(std::realloc(buffer, used))) buffer = trimmed;
        }
        m_Base = m_Cursor = m_End = nullptr;
        return buffer;
    }

private:
    bool Grow(size_t size)
    {
        if (!m_Grows || !m_Base) return false;
        const size_t used = Offset();
        if (size > m_Limit || used > m_Limit - size) return false;
        size_t capacity = static_cast<size_t>(m_End - m_Base);
        capacity = capacity > m_Limit / 2 ? m_Limit : capacity * 2;
        if (capacity < used + size) capacity = used + size;
        auto *grown = static_cast<unsigned char *>(std::realloc(m_Base, capacity));
        if (!grown) return false;
        m_Base = grown;
        m_Cursor = grown + used;
        m_End = grown + capacity;
        return true;
    }

    unsigned char *m_Base;
    unsigned char *m_Cursor;
    unsigned char *m_End;
    size_t m_Limit = 0;
    bool m_Grows = false;
};

bool WriteObjectRef(Writer &w, uint32_t word, uint32_t id, const char *uuid)
{
    if (!w.Ensure(kHeadSize + kObjectRefSize)) return false;
    w.PutU32(word);
    w.PutU32(id);
    if (uuid && strnlen(uuid, kPacketUUIDLength + 1) == kPacketUUIDLength)
        w.Put(uuid, kPacketUUIDLength);
    else
        return w.Zeros(kPacketUUIDLength);
    return true;
}

// The head and a NUL-terminated text.
bool WriteText(Writer &w, uint32_t word, const char *text)
{
    const size_t size = std::strlen(text) + 1;
    if (!w.Ensure(kHeadSize + size)) return false;
    w.PutU32(word);
    w.PutShort(text, size);
    return true;
}

bool WriteEntries(Writer &w, PacketObjects *objects, const TableEntry *head);

bool WriteValue(Writer &w, PacketObjects *objects, const ScriptVal &value)
{
    const uint32_t word = value.m_Flags & ~SVF_Const;
    const ScriptValue &v = value.GetValue();
    switch (value.Type())
    {
    case SV_Number:
        if (!w.Ensure(kHeadSize + 8)) return false;
        w.PutU32(word);
        w.Put(&v.m_Number, 8);
        return true;
    case SV_Function:
        if (!w.Ensure(kHeadSize + 8)) return false;
        w.PutU32(word);
        w.Put(&v.m_Function, 8);
        return true;
    case SV_String:
        return WriteText(w, word, StringText(v.m_String.m_String));
    case SV_Boolean:
    {
        if (!w.Ensure(kHeadSize + 1)) return false;
        const unsigned char b = v.m_Boolean ? 1 : 0;
        w.PutU32(word);
        w.Put(&b, 1);
        return true;
    }
    case SV_Table:
    {
        const char *ctor = value.GetConstructor();
        return WriteText(w, word, ctor ? ctor : "") && WriteEntries(w, objects, v.m_Table.m_Table);
    }
    case SV_RemoteObject:
    {
        RemoteObject *object = v.m_RemoteObject;
        const uint32_t id = objects && object ? objects->RemoteObjectId(object) : kPacketNoObject;
        return WriteObjectRef(w, word, id, objects && object ? objects->RemoteUUID(object) : nullptr);
    }
    case SV_LocalObject:
    {
        ScriptObject *object = v.m_LocalObject;
        const uint32_t id = objects && object ? objects->LocalObjectId(object) : kPacketNoObject;
        return WriteObjectRef(w, word, id, objects ? objects->LocalUUID() : nullptr);
    }
    case SV_Code:
        return w.U32(word) && w.U32(v.m_Code.m_Size) && w.Bytes(v.m_Code.m_Ptr, v.m_Code.m_Size);
    case SV_MemBlock:
        return w.U32(word) && w.U32(v.m_MemBlock.m_Size) && w.Bytes(v.m_MemBlock.m_Ptr, v.m_MemBlock.m_Size);
    case SV_Args:
        return w.U32(word) && WriteEntries(w, objects, v.m_Args.m_Table);
    default:
        return w.U32(word); // nil, or not storable: the head alone
    }
}

// Numbers and strings, the common keys and values, written without a call. False for any other kind
// (then WriteValue writes it) and where the space ends (then `failed`).
inline __attribute__((always_inline)) bool WriteCommon(Writer &w, const ScriptVal &value, bool &failed)
{
    const uint32_t word = value.m_Flags & ~SVF_Const;
    if (value.Type() == SV_Number)
    {
        if (!w.Ensure(kHeadSize + 8)) return failed = true;
        w.PutU32(word);
        w.Put(&value.m_Value.m_Number, 8);
        return true;
    }
    if (value.Type() == SV_String)
    {
        if (!WriteText(w, word, StringText(value.m_Value.m_String.m_String))) failed = true;
        return true;
    }
    return false;
}

// The count goes in front of the entries: its place is kept and filled in behind them, so that the
// list is walked once.
bool WriteEntries(Writer &w, PacketObjects *objects, const TableEntry *head)
{
    const size_t countAt = w.Offset();
    if (!w.U32(0)) return false;
    uint32_t count = 0;
    bool failed = false;
    for (const TableEntry *e = head; e; e = e->m_Next, ++count)
    {
        if (!WriteCommon(w, e->m_Key, failed) && !WriteValue(w, objects, e->m_Key)) return false;
        if (!WriteCommon(w, e->m_Value, failed) && !WriteValue(w, objects, e->m_Value)) return false;
        if (failed) return false;
    }
    w.PatchU32(countAt, count);
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

    // Clears `out`, then reads into it.
    PacketResult Value(ScriptVal &out, int depth);

private:
    // Reads into a value that is nil, without flags, and owns nothing (cleared or new): the payload
    // is stored directly, as Set would build it, and the word only once the payload is complete.
    PacketResult Fresh(ScriptVal &out, int depth);
    bool Bytes(void *out, size_t size)
    {
        if (size > Left()) return false;
        std::memcpy(out, m_Cursor, size);
        m_Cursor += size;
        return true;
    }
    bool U32(uint32_t &v) { return Bytes(&v, 4); }
    // A NUL-terminated text that lies wholly inside the packet and doesn't start with the marker.
    PacketResult Text(const char *&text, size_t &length);
    PacketResult Entries(TableEntry *&head, TableEntry *&last, int depth);
    PacketResult Block(uint32_t word, ScriptVal &out);
    PacketResult ObjectRef(uint32_t kind, ScriptVal &out);

    const unsigned char *m_Cursor;
    const unsigned char *m_End;
    PacketObjects *m_Objects;
};

PacketResult Reader::Text(const char *&text, size_t &length)
{
    const void *nul = std::memchr(m_Cursor, 0, Left());
    if (!nul) return PR_Truncated;
    if (*m_Cursor == kStringBlockMarker) return PR_BadValue;
    text = reinterpret_cast<const char *>(m_Cursor);
    length = static_cast<size_t>(static_cast<const unsigned char *>(nul) - m_Cursor);
    m_Cursor = static_cast<const unsigned char *>(nul) + 1;
    return PR_Ok;
}

// A string block holding exactly `length` bytes of `text` (no NUL among them); null without memory.
char *TextBlock(const char *text, size_t length)
{
    return StringBlockJoin(text, length, nullptr, 0);
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

PacketResult Reader::Entries(TableEntry *&head, TableEntry *&last, int depth)
{
    head = last = nullptr;
    uint32_t count = 0;
    if (!U32(count)) return PR_Truncated;
    // Each entry takes at least two heads: a count the rest of the packet can't hold is refused before
    // anything is allocated for it.
    if (count > Left() / kEntryMinSize) return PR_BadValue;
    for (uint32_t i = 0; i < count; ++i)
    {
        TableEntry *entry = new TableEntry;
        if (!entry)
        {
            FreeEntries(head);
            head = last = nullptr;
            return PR_NoMemory;
        }
        PacketResult r = Fresh(entry->m_Key, depth);
        if (r == PR_Ok) r = Fresh(entry->m_Value, depth);
        if (r != PR_Ok)
        {
            delete entry;
            FreeEntries(head);
            head = last = nullptr;
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
    return Fresh(out, depth);
}

PacketResult Reader::Fresh(ScriptVal &out, int depth)
{
    const unsigned char *start = m_Cursor;
    uint32_t word = 0;
    if (!U32(word)) return PR_Truncated;
    PacketResult r = PR_Ok;
    const uint32_t kind = word & SV_TypeMask;
    ScriptValue &v = out.m_Value;
    if (word & SVF_Const)
        r = PR_BadValue;
    else if (kind > SV_Args)
        r = PR_UnknownKind;
    else
    {
        switch (kind)
        {
        case SV_Nil:
            out.m_Type = word;
            break;
        case SV_Number:
            if (!Bytes(&v.m_Number, 8))
                r = PR_Truncated;
            else
                out.m_Type = word;
            break;
        case SV_Boolean:
        {
            unsigned char b = 0;
            if (!Bytes(&b, 1))
                r = PR_Truncated;
            else if (b > 1)
                r = PR_BadValue;
            else
            {
                v.m_Boolean = b != 0;
                out.m_Type = word;
            }
            break;
        }
        case SV_String:
        {
            const char *text = nullptr;
            size_t length = 0;
            r = Text(text, length);
            if (r != PR_Ok) break;
            char *block = TextBlock(text, length); // a block of its own, as Set copies the text
            if (!block)
            {
                r = PR_NoMemory;
                break;
            }
            v.m_String.m_String = block;
            v.m_String.m_StringCopy = block;
            v.m_String.m_Hash = StringHash(block + 1, length);
            out.m_Type = word;
            break;
        }
        case SV_Function:
            // The sender's symbol address: held as a number, handed back only, never followed here.
            if (!Bytes(&v.m_Function, 8))
                r = PR_Truncated;
            else
                out.m_Type = word;
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
            const char *ctor = "";
            size_t ctorLength = 0;
            if (kind == SV_Table) r = Text(ctor, ctorLength);
            TableEntry *head = nullptr, *last = nullptr;
            if (r == PR_Ok) r = Entries(head, last, depth + 1);
            if (r != PR_Ok) break;
            char *ctorBlock = ctorLength ? TextBlock(ctor, ctorLength) : nullptr;
            if (ctorLength && !ctorBlock)
            {
                FreeEntries(head);
                r = PR_NoMemory;
                break;
            }
            v = ScriptValue{};
            if (kind == SV_Table)
            {
                // Kept in the order it came.
                v.m_Table.m_Table = head;
                v.m_Table.m_Last = last;
                v.m_Table.m_Constructor = ctorBlock;
                v.m_Table.m_ConstructorCopy = ctorBlock;
            }
            else
            {
                v.m_Args.m_Table = head;
            }
            out.m_Type = word;
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

// The first guess of a packet's size: a command or a reply of a few values fits; larger ones double.
constexpr size_t kPacketFirstCapacity = 256;

Packet *BuildPacket(uint32_t type, uint32_t sequence, PacketObjects *objects, const ScriptVal *first,
                    const ScriptVal *second)
{
    const ScriptVal &a = first ? *first : nil;
    const ScriptVal &b = second ? *second : nil;
    // One pass: the values are written into a buffer that grows up to the ceiling, instead of being
    // measured first.
    const size_t limit = GetMaxPacketSize();
    Writer w(kPacketFirstCapacity < limit ? kPacketFirstCapacity : limit, limit);
    if (!w.Zeros(kPacketHeaderSize) || !WriteValue(w, objects, a) || !WriteValue(w, objects, b))
        return nullptr;
    const auto size = static_cast<uint32_t>(w.Offset());
    auto *packet = reinterpret_cast<Packet *>(w.Release());
    packet->m_Size = size;
    packet->m_Type = type;
    packet->m_Sequence = sequence;
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
    const bool ok = WriteValue(w, objects, value);
    cursor = w.Cursor();
    return ok;
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
