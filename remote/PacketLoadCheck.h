// The checks that the packet reader's fuzz target and its corpus test share: a refused packet leaves
// both targets nil, and a packet that reads (with no object references in it) builds again to the
// same bytes behind the header. Header only: it is no part of the library.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "remote/Packet.h"

namespace orvexScript
{

struct PacketLoadCheck
{
    bool read = false;   // the reader accepted the input
    std::string failure; // the broken invariant, empty if all held
};

// Object tables that name nothing and count what the reader asked for.
class CountingPacketObjects : public PacketObjects
{
public:
    int m_Reads = 0;
    uint32_t LocalObjectId(ScriptObject *) override { return kPacketNoObject; }
    uint32_t RemoteObjectId(RemoteObject *) override { return kPacketNoObject; }
    const char *LocalUUID() override { return nullptr; }
    const char *RemoteUUID(RemoteObject *) override { return nullptr; }
    void ReadOwnObject(uint32_t, const char *, ScriptVal &) override { ++m_Reads; }
    void ReadPeerObject(uint32_t, const char *, ScriptVal &) override { ++m_Reads; }
};

inline PacketLoadCheck CheckPacketRead(const uint8_t *data, size_t size)
{
    PacketLoadCheck result;
    // The header is read in place: give the reader an aligned copy, as a receive buffer would be.
    std::vector<uint64_t> buffer((size + 7) / 8 + 1, 0);
    if (size) std::memcpy(buffer.data(), data, size);
    const auto *packet = reinterpret_cast<const Packet *>(buffer.data());

    CountingPacketObjects objects;
    ScriptVal first(3.0), second("old");
    const PacketResult r = FromPacket(&objects, packet, size, &first, &second);
    result.read = r == PR_Ok;
    if (!result.read)
    {
        if (!first.IsNil() || !second.IsNil()) result.failure = "a refused packet left a value behind";
        return result;
    }
    if (objects.m_Reads) return result; // objects read as nil: no byte-for-byte round trip
    Packet *again = CreatePkt(packet->m_Type, &objects, &first, &second);
    if (!again)
    {
        result.failure = "a packet that reads does not build again";
        return result;
    }
    if (again->m_Size != packet->m_Size)
        result.failure = "the packet built again has another size";
    else if (std::memcmp(reinterpret_cast<const unsigned char *>(again) + kPacketHeaderSize,
                         reinterpret_cast<const unsigned char *>(packet) + kPacketHeaderSize,
                         packet->m_Size - kPacketHeaderSize) != 0)
        result.failure = "the packet built again has other values";
    FreePkt(again);
    return result;
}

} // namespace orvexScript
