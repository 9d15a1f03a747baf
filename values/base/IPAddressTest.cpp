// Tests of IPv4 address text: formatting into short buffers, reading dotted text and names, and
// recognising this machine's own addresses. Only loopback names and addresses are looked up.
#include "values/base/IPAddress.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "values/base/UtilSys.h"

using namespace orvexScript;

static std::string Format(uint32_t ip, int size)
{
    std::string out(static_cast<size_t>(size), '#');
    StrFromIP(ip, out.data(), size);
    return out.c_str();
}

TEST(StrFromIP, WritesLowestByteFirstAndAlwaysTerminates)
{
    EXPECT_EQ(Format(0x0100007F, 16), "127.0.0.1");
    EXPECT_EQ(Format(0xFFFFFFFF, 16), "255.255.255.255");
    EXPECT_EQ(Format(0x0100007F, 4), "127");
    EXPECT_EQ(Format(0x0100007F, 1), "");
}

// Dotted text in network order, names resolved, all ones for nonsense.
TEST(IPFromStr, ReadsDottedTextAndNames)
{
    const std::pair<const char *, uint32_t> cases[] = {
        {"127.0.0.1", 0x0100007Fu}, {"10.1.2.3", 0x0302010Au},       {"192.168.1.100", 0x6401A8C0u},
        {"localhost", 0x0100007Fu}, {"255.255.255.255", kNoIPAddress}, {"no such host", kNoIPAddress},
        {"", kNoIPAddress},         {nullptr, kNoIPAddress},
    };
    for (const auto &[text, ip] : cases)
        EXPECT_EQ(IPFromStr(text), ip) << (text ? text : "(null)");
}

TEST(IsLocalIP, KnowsLoopbackAndThisMachinesInterfacesOnly)
{
    EXPECT_TRUE(IsLocalIP("127.0.0.1"));
    std::vector<uint32_t> mine;
    UtilSys::InterfaceAddresses(mine);
    ASSERT_FALSE(mine.empty());
    for (uint32_t ip : mine)
    {
        char text[16];
        StrFromIP(ip, text, sizeof(text));
        EXPECT_TRUE(IsLocalIP(text)) << text;
    }
    // A documentation address is never assigned; names are not read, only dotted text.
    for (const char *other : {"192.0.2.1", "localhost", ""})
        EXPECT_FALSE(IsLocalIP(other)) << other;
    EXPECT_FALSE(IsLocalIP(nullptr));
}
