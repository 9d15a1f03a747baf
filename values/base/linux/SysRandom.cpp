// Random bytes for the utilities on Linux, from the kernel's generator (getrandom).
#include "values/base/UtilSys.h"

#include <sys/random.h>

#include <cerrno>

namespace orvexScript::UtilSys
{

bool RandomBytes(void *out, size_t size)
{
    auto *bytes = static_cast<unsigned char *>(out);
    size_t done = 0;
    while (done < size)
    {
        // Large requests may come back short, and a signal may interrupt a wait for entropy.
        ssize_t got = getrandom(bytes + done, size - done, 0);
        if (got < 0)
        {
            if (errno == EINTR) continue;
            return false;
        }
        done += static_cast<size_t>(got);
    }
    return true;
}

} // namespace orvexScript::UtilSys
