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

TEST(IPFromStr, ReadsDottedTextInNetworkOrder)
{
    EXPECT_EQ(IPFromStr("127.0.0.1"), 0x0100007Fu);
    EXPECT_EQ(IPFromStr("10.1.2.3"), 0x0302010Au);
    EXPECT_EQ(IPFromStr("255.255.255.255"), kNoIPAddress);
    char text[16];
    StrFromIP(0x6401A8C0, text, sizeof(text));
    EXPECT_EQ(IPFromStr(text), 0x6401A8C0u);
}

TEST(IPFromStr, ResolvesNamesAndGivesAllOnesForNonsense)
{
    EXPECT_EQ(IPFromStr("localhost"), 0x0100007Fu);
    EXPECT_EQ(IPFromStr("no such host"), kNoIPAddress);
    EXPECT_EQ(IPFromStr(""), kNoIPAddress);
    EXPECT_EQ(IPFromStr(nullptr), kNoIPAddress);
}

TEST(IsLocalIP, KnowsLoopbackAndThisMachinesInterfaces)
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
}

TEST(IsLocalIP, RejectsOtherAddressesAndText)
{
    EXPECT_FALSE(IsLocalIP("192.0.2.1")); // a documentation address, never assigned
    EXPECT_FALSE(IsLocalIP("localhost")); // names are not read, only dotted text
    EXPECT_FALSE(IsLocalIP(""));
    EXPECT_FALSE(IsLocalIP(nullptr));
}
