// Process facts for the utilities on Linux: the process id and the command line from /proc.
#include "values/base/UtilSys.h"

#include <unistd.h>

#include <fstream>
#include <iterator>

namespace orvexScript::UtilSys
{

uint32_t ProcessId()
{
    return static_cast<uint32_t>(getpid());
}

std::string CommandLine()
{
    // The arguments stand in /proc/self/cmdline, each ended by a NUL.
    std::ifstream in("/proc/self/cmdline", std::ios::binary);
    std::string raw((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    while (!raw.empty() && raw.back() == '\0')
        raw.pop_back();
    for (char &c : raw)
        if (c == '\0') c = ' ';
    return raw;
}

} // namespace orvexScript::UtilSys
