// IPv4 look-ups for the utilities on Linux: dotted text, host names through the resolver, this
// machine's own addresses by its host name and by its interfaces (getifaddrs).
#include "values/base/UtilSys.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

namespace orvexScript::UtilSys
{

bool ParseIPv4(const char *text, uint32_t &ip)
{
    in_addr addr{};
    if (!text || inet_aton(text, &addr) == 0) return false;
    ip = addr.s_addr;
    return true;
}

// Calls `take` with each IPv4 address the resolver knows for `host`, in its order, until it says stop.
template <typename Take> static bool ForEachHostAddress(const char *host, Take take)
{
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM; // one entry per address instead of one per socket type
    addrinfo *list = nullptr;
    if (getaddrinfo(host, nullptr, &hints, &list) != 0) return false;
    for (addrinfo *entry = list; entry; entry = entry->ai_next)
    {
        if (entry->ai_family != AF_INET || entry->ai_addrlen < sizeof(sockaddr_in)) continue;
        uint32_t ip = reinterpret_cast<const sockaddr_in *>(entry->ai_addr)->sin_addr.s_addr;
        if (!take(ip)) break;
    }
    freeaddrinfo(list);
    return true;
}

bool ResolveIPv4(const char *host, uint32_t &ip)
{
    bool found = false;
    ForEachHostAddress(host,
                       [&](uint32_t each)
                       {
                           ip = each;
                           found = true;
                           return false;
                       });
    return found;
}

bool HostNameAddresses(std::vector<uint32_t> &ips)
{
    char name[256] = {};
    if (gethostname(name, sizeof(name) - 1) != 0) return false;
    return ForEachHostAddress(name,
                              [&](uint32_t each)
                              {
                                  ips.push_back(each);
                                  return true;
                              });
}

void InterfaceAddresses(std::vector<uint32_t> &ips)
{
    ifaddrs *list = nullptr;
    if (getifaddrs(&list) != 0) return;
    for (ifaddrs *entry = list; entry; entry = entry->ifa_next)
    {
        if (entry->ifa_addr && entry->ifa_addr->sa_family == AF_INET)
            ips.push_back(reinterpret_cast<const sockaddr_in *>(entry->ifa_addr)->sin_addr.s_addr);
    }
    freeifaddrs(list);
}

} // namespace orvexScript::UtilSys
