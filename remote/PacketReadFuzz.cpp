// libFuzzer target for the packet reader: any bytes at all, checked by the shared invariants; a broken
// invariant aborts with its description.

#include <cstdio>
#include <cstdlib>

#include "remote/PacketLoadCheck.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const orvexScript::PacketLoadCheck result = orvexScript::CheckPacketRead(data, size);
    if (!result.failure.empty())
    {
        std::fprintf(stderr, "Packet read check: %s\n", result.failure.c_str());
        std::abort();
    }
    return 0;
}
