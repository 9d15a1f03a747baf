// Packets: the records two connected processes exchange over one TCP stream. A 32-byte header, then
// two encoded ScriptVal values, little endian, unaligned. This file builds and reads them; the
// connection's object tables are reached through PacketObjects, so the encoding stands on its own.
// Reading takes untrusted bytes: it is bounded by the size it is given and by the packet's own size,
// allocates only for bytes that are present, and refuses what the writer can never produce.
#pragma once

#include <cstddef>
#include <cstdint>

#include "values/base/Export.h"
#include "values/model/ScriptVal.h"

namespace orvexScript
{

enum PacketType : uint32_t
{
    PKT_Command = 1,       // symbol and object set; first value nil, second the ScriptArgs
    PKT_IncRef = 2,        // object set; values nil
    PKT_DecRef = 3,        // object set; values nil
    PKT_NoMoreRefs = 4,    // object set, symbol 0; values nil
    PKT_GetObjectInfo = 5, // second value the query
    PKT_Reply = 0xFFFFFFFFu,
};

// The header as it lies on the wire (and in memory, followed by the values).
struct Packet
{
    uint32_t m_Size;     // total size, header included
    uint32_t m_Type;     // a PacketType
    uint32_t m_Symbol;   // command: a special symbol number
    uint32_t m_Object;   // object id
    uint32_t m_Sequence; // request number, or in a reply the number of the request answered
    uint8_t m_Reserved[12];
};
static_assert(sizeof(Packet) == 32, "the header is 32 bytes on the wire");

constexpr uint32_t kPacketHeaderSize = 32;
// The id of an object that cannot be named on the connection.
constexpr uint32_t kPacketNoObject = 0xFFFFFFFFu;
// An object reference carries the owner's UUID text: exactly this many characters, no terminator.
constexpr size_t kPacketUUIDLength = 36;
constexpr uint32_t kPacketDefaultMaxSize = 64u * 1024u * 1024u;
// Tables and argument records inside one value nest at most this deep when read.
constexpr int kPacketMaxDepth = 128;

// The largest packet built or accepted (default 64 MiB). 0 restores the default; a ceiling below the
// header's size is raised to it.
ORVEX_API void SetMaxPacketSize(uint32_t bytes);
ORVEX_API uint32_t GetMaxPacketSize();
// True for a size field that a reader may go on to receive: at least the header, at most the ceiling.
ORVEX_API bool IsAcceptablePacketSize(uint32_t size);

// Why a read was refused. Every refusal leaves the targets nil.
enum PacketResult : int
{
    PR_Ok = 0,
    PR_Truncated,    // a value runs past the end of the packet
    PR_BadSize,      // the size field is below the header, above the ceiling or beyond the bytes given
    PR_UnknownKind,  // a kind that no writer sends
    PR_BadValue,     // a body the writer never produces: a boolean byte not 0 or 1, a marker byte, a
                     // write protection bit, a count that the remaining bytes cannot hold
    PR_TooDeep,      // tables nested deeper than kPacketMaxDepth
    PR_NoMemory,     // an allocation failed
    PR_TrailingData, // bytes left behind the second value
    PR_WrongKind,    // a ScriptArgs target was sent something other than an argument record
};

// A short English name of a result, for logs.
ORVEX_API const char *PacketResultName(PacketResult result);

class RemoteObject;
class ScriptObject;

// How the encoding names objects on one connection: the connection's object tables.
// Without one (a null pointer) objects are written as unnamed and read as nil.
class ORVEX_API PacketObjects
{
public:
    virtual ~PacketObjects();

    // Writing an object of this process: registers it for the peer (one count for the peer) and gives
    // its id, or kPacketNoObject.
    virtual uint32_t LocalObjectId(ScriptObject *object) = 0;
    // Writing a proxy: its id if it belongs to this connection, else kPacketNoObject.
    virtual uint32_t RemoteObjectId(RemoteObject *object) = 0;
    // The owner's UUID text of a written object: this process's own, or the one the proxy's
    // connection reports. Anything but exactly 36 characters travels as zeros.
    virtual const char *LocalUUID() = 0;
    virtual const char *RemoteUUID(RemoteObject *object) = 0;

    // Reading one of this process's objects that the peer sends back (SV_RemoteObject on the wire):
    // stores the local object into `out`, or leaves it nil. Changes no counts of the peer.
    virtual void ReadOwnObject(uint32_t id, const char *uuid, ScriptVal &out) = 0;
    // Reading an object of the peer (SV_LocalObject on the wire): stores a proxy holding one count
    // into `out`, or leaves it nil. `uuid` points at kPacketUUIDLength bytes, not terminated.
    virtual void ReadPeerObject(uint32_t id, const char *uuid, ScriptVal &out) = 0;
};

// ---- values -------------------------------------------------------------------------------------

// The encoded size of a value.
ORVEX_API size_t CalcPktSize(const ScriptVal &value);
// Writes the value at `cursor` and moves it. False, with the cursor anywhere up to `end`, if the value
// needs more than the space to `end` (a table that changed since its size was taken).
ORVEX_API bool ToPkt(const ScriptVal &value, PacketObjects *objects, unsigned char *&cursor, unsigned char *end);
// Reads one value at `cursor` into `target` (cleared first) and moves the cursor, never past `end`.
// On a refusal the target is nil and the cursor is left where it was.
ORVEX_API PacketResult FromPkt(ScriptVal &target, PacketObjects *objects, const unsigned char *&cursor,
                               const unsigned char *end);

// ---- packets ------------------------------------------------------------------------------------

// A new packet of `type` holding both values (null stands for nil); symbol, object and sequence 0.
// Null if out of memory or larger than the ceiling. Free with FreePkt.
ORVEX_API Packet *CreatePkt(uint32_t type, PacketObjects *objects, const ScriptVal *first,
                            const ScriptVal *second);
// A PKT_Reply to the request number `sequence`, or to `request`.
ORVEX_API Packet *CreateReply(uint32_t sequence, PacketObjects *objects, const ScriptVal *first,
                              const ScriptVal *second);
ORVEX_API Packet *CreateReply(const Packet *request, PacketObjects *objects, const ScriptVal *first,
                              const ScriptVal *second);
ORVEX_API void FreePkt(Packet *packet);

// A PKT_Command of `symbol` to the object `object`.
ORVEX_API Packet *ToPacket(PacketObjects *objects, uint32_t object, uint32_t symbol, const ScriptVal *first,
                           const ScriptVal *second);
// Reads both values of a packet of which `available` bytes are at hand. A null target reads the
// value into a temporary and drops it (object references have effects on counts). A ScriptArgs
// second target keeps its context number, and accepts only an argument record or nil.
ORVEX_API PacketResult FromPacket(PacketObjects *objects, const Packet *packet, size_t available, ScriptVal *first,
                                  ScriptVal *second);
// A reply from a finished argument record: a table whose key -i holds the record's result -i (nil
// where missing) for i up to its return count, as the second value. Arguments and string keys stay.
ORVEX_API Packet *ToReply(PacketObjects *objects, uint32_t sequence, const ScriptVal *first,
                          const ScriptVal *args);
ORVEX_API Packet *ToReply(PacketObjects *objects, const Packet *request, const ScriptVal *first,
                          const ScriptVal *args);

} // namespace orvexScript
