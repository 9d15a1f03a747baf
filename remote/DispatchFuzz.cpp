// libFuzzer target for reading and dispatch: any bytes at all arrive from a peer on a live connection
// to a test host root. The connection must serve them, close at the peer's end and let go of every
// count; a run that does not aborts with the reason.

#include <cstdio>
#include <cstdlib>

#include "remote/linux/DispatchCheck.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    orvexScript::testhost::Root::s_MaxSleep.store(0.0);
    const orvexScript::DispatchCheck result = orvexScript::RunDispatch(data, size);
    if (!result.failure.empty())
    {
        std::fprintf(stderr, "Dispatch check: %s\n", result.failure.c_str());
        std::abort();
    }
    return 0;
}
