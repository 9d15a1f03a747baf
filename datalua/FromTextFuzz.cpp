// libFuzzer target for the value text reader: any bytes up to the first NUL as a text under the
// serialize prologue. The writing of what a text reads must have the length the writer counted, and
// must read back.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "datalua/DataLua.h"
#include "values/model/ScriptVal.h"

using orvexScript::ScriptVal;

static std::string Write(const ScriptVal &v)
{
    const unsigned long length = v.ToTextLen(0);
    std::vector<char> buffer(length + 1);
    if (v.ToText(buffer.data(), 0) != buffer.data() + length)
    {
        std::fprintf(stderr, "the writer's length is off\n");
        std::abort();
    }
    return std::string(buffer.data(), length);
}

// Texts that loop or grow stop early, so that the fuzzer spends its time on many inputs.
extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    orvexScript::datalua::RunLimits limits;
    limits.maxInstructions = 1000000;
    limits.maxMemory = size_t(256) << 20;
    orvexScript::datalua::SetRunLimits(limits);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size > 1 << 16) return 0;
    const std::string text(reinterpret_cast<const char *>(data), size);
    ScriptVal first;
    char message[256] = "";
    if (!first.FromText(text.c_str(), orvexScript::GetSerializePrologue(), message, sizeof message)) return 0;
    const std::string written = Write(first);
    ScriptVal second;
    if (!second.FromText(written.c_str(), orvexScript::GetSerializePrologue(), nullptr, 0))
    {
        std::fprintf(stderr, "a written text does not read back:\n%s\n", written.c_str());
        std::abort();
    }
    (void)Write(second);
    return 0;
}
