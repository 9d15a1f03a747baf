// IPv4 address text. The look-ups themselves (resolver, interfaces) are behind UtilSys.
#include "values/base/IPAddress.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <vector>

#include "values/base/UtilSys.h"

namespace orvexScript
{

// Whether `text` could be a host name at all: texts with blanks or control characters, and overlong
// ones, can't, and are not worth a trip to the resolver.
static bool CouldBeHostName(const char *text)
{
    size_t length = strlen(text);
    if (length == 0 || length > 253) return false;
    for (const char *p = text; *p; ++p)
        if (static_cast<unsigned char>(*p) <= ' ' || *p == 0x7F) return false;
    return true;
}

uint32_t IPFromStr(const char *text, TagList *)
{
    if (!text) return kNoIPAddress;
    uint32_t ip = 0;
    if (UtilSys::ParseIPv4(text, ip)) return ip;
    if (CouldBeHostName(text) && UtilSys::ResolveIPv4(text, ip)) return ip;
    return kNoIPAddress;
}

void StrFromIP(uint32_t ip, char *out, int size, TagList *)
{
    if (!out || size < 1) return;
    snprintf(out, static_cast<size_t>(size), "%u.%u.%u.%u", ip & 0xFF, (ip >> 8) & 0xFF, (ip >> 16) & 0xFF,
             ip >> 24);
    out[size - 1] = '\0';
}

bool IsLocalIP(const char *text, TagList *)
{
    if (!text) return false;
    if (strcmp(text, "127.0.0.1") == 0) return true;
    uint32_t ip = 0;
    if (!UtilSys::ParseIPv4(text, ip)) return false;
    std::vector<uint32_t> mine;
    UtilSys::InterfaceAddresses(mine);
    if (std::find(mine.begin(), mine.end(), ip) != mine.end()) return true;
    mine.clear();
    return UtilSys::HostNameAddresses(mine) && std::find(mine.begin(), mine.end(), ip) != mine.end();
}

} // namespace orvexScript
