// libFuzzer target for TagList::Load: any bytes at all, checked by the shared round-trip invariants;
// a broken invariant aborts with its description.

#include <cstdio>
#include <cstdlib>

#include "values/tags/TagListLoadCheck.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const orvexScript::TagListLoadCheck result = orvexScript::CheckTagListLoad(data, size);
    if (!result.failure.empty())
    {
        std::fprintf(stderr, "TagList load check: %s\n", result.failure.c_str());
        std::abort();
    }
    return 0;
}
