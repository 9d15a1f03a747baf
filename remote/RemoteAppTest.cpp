// Connections with both ends in this process, over real TCP on loopback: calls and their results,
// the error replies, time-outs and late replies, concurrent callers, and commands served on the
// script window's thread. Objects crossing with their counts are tested against a real process.
#include "remote/RemoteApp.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "remote/ScriptWindow.h"
#include "remote/Scripting.h"
#include "remote/testhost/HostObjects.h"
#include "remote/testhost/Loopback.h"
#include "testsupport/TestSupport.h"

namespace orvexScript
{
namespace
{

// Scripting once per process, with a test host root; the calling thread is the main thread.
testhost::Root *EnsureScripting()
{
    return testhost::InitTestScripting("RemoteAppTest");
}

// Both ends of a connection in this process.
struct Link
{
    testhost::Root *host = EnsureScripting();
    testhost::Listener listener;
    testhost::Client connection{listener.Port()};
    RemoteApp *client = connection.app;
    ScriptVal &root = connection.root;

    // A raw command to the server and its reply's second value.
    ScriptVal Raw(uint32_t type, uint32_t object, uint32_t symbol)
    {
        ScriptArgs args;
        Packet *packet = CreatePkt(type, client, nullptr, &args);
        packet->m_Object = object;
        packet->m_Symbol = symbol;
        ScriptVal result;
        if (Packet *reply = client->DoPkt(packet))
        {
            EXPECT_EQ(FromPacket(client, reply, nullptr, &result), PR_Ok);
            FreePkt(reply);
        }
        return result;
    }
};

TEST(RemoteApp, MemberCallsGiveTheirResultsAndErrorsComeAsReplies)
{
    Link link;
    ASSERT_TRUE(link.root.IsRemoteObject());
    EXPECT_EQ(link.root.CallMember("Add", 2, 3), 5.0);

    ScriptVal table(SV_Table, nullptr);
    table["name"] = ScriptVal("x");
    table[1] = ScriptVal(true);
    ScriptArgs args;
    args[0] = "Echo";
    args[1] = ScriptVal("text");
    args[2] = table;
    ScriptVal reply = link.root.ToRemoteObject()->DoCommand(SST_CallMemberFunction, args);
    EXPECT_EQ(reply[-1], "text");
    EXPECT_EQ(reply[-2]["name"], "x");
    EXPECT_TRUE(reply[-2][1].ToBoolean());

    EXPECT_TRUE(link.root.CallMember("NoSuchMember").IsNil());
    ScriptArgs fail;
    fail[0] = "Fail";
    fail[1] = "it broke";
    ScriptVal failed = link.root.ToRemoteObject()->DoCommand(SST_CallMemberFunction, fail);
    EXPECT_EQ(failed["Error"], double(SE_Unknown));
    EXPECT_EQ(failed["ErrorString"], "it broke");

    // The failure table: each is a reply, and the connection goes on.
    struct Case
    {
        uint32_t type, object, symbol;
        ScriptError error;
        const char *text;
    } cases[] = {
        {PKT_Command, 1, 0, SE_Unknown, "No object/symbol id specified."},
        {PKT_Command, 0, SST_CallMemberFunction, SE_Unknown, "No object/symbol id specified."},
        {PKT_Command, 987654, SST_CallMemberFunction, SE_InvalidRemoteObject, nullptr},
        {PKT_Command, 1, 127, SE_UnknownSymbol, nullptr},
        {PKT_NoMoreRefs, 987654, 0, SE_InvalidObject, "Cannot find object for PKT_NoMoreRefs."},
        {77, 1, 1, SE_UnknownPacket, nullptr},
    };
    for (const Case &c : cases)
    {
        ScriptVal error = link.Raw(c.type, c.object, c.symbol);
        EXPECT_EQ(error["Error"], double(c.error)) << c.type << " " << c.object << " " << c.symbol;
        EXPECT_EQ(error["ErrorString"], c.text ? c.text : ScriptErrorText(c.error));
    }
    EXPECT_EQ(link.root.CallMember("Add", 1, 1), 2.0);
    // The served types that carry no command: an empty reply each.
    for (uint32_t type : {PKT_IncRef, PKT_DecRef, PKT_GetObjectInfo})
        EXPECT_TRUE(link.Raw(type, 1, 0)["Error"].IsNil()) << type;

    // Variables through the proxy, and a reply deferred by its handler.
    link.root.SetKey("Value", ScriptVal("set remotely"));
    EXPECT_EQ(link.root.GetKey("Value"), "set remotely");
    EXPECT_EQ(link.root.CallMember("Later", 7), 7.0);

    // The text of a proxy names its connection.
    ScriptArgs none;
    ScriptVal text = link.root.ToRemoteObject()->DoCommand(SST_ToString, none);
    EXPECT_NE(std::string(text[-1].ToString("")).find("on 127.0.0.1, UUID: "), std::string::npos)
        << text[-1].ToString("");
}

TEST(RemoteApp, ConnectingByNameNeedsAPeerThatAnswersIt)
{
    Link link;
    EXPECT_FALSE(link.client->ClearUUID()); // not while connected
    ScriptVal &data = link.client->LockData("session");
    data["user"] = ScriptVal("me");
    link.client->UnlockData();
    EXPECT_EQ(link.client->LockData("session")["user"], "me");
    link.client->UnlockData();

    // A peer whose root has no ConnectHost cannot put us through to an application.
    RemoteApp *named = new RemoteApp;
    named->Use();
    named->SetHost("127.0.0.1");
    named->SetName("SomeApplication");
    EXPECT_FALSE(named->Connect());
    EXPECT_FALSE(named->Connected());
    EXPECT_TRUE(named->ClearUUID());
    named->Recycle();
}

TEST(RemoteApp, ATimedOutCallGivesNilAndItsLateReplyIsDropped)
{
    Link link;
    link.client->SetTimeOut(0.2);
    EXPECT_TRUE(link.root.CallMember("Sleep", 1.0).IsNil());
    link.client->SetTimeOut(0);
    // The late reply does not answer a later call.
    EXPECT_EQ(link.root.CallMember("Add", 40, 2), 42.0);
    EXPECT_TRUE(orvexTest::WaitUntil([&] { return link.root.CallMember("Live").IsNumber(); }));

    // A negative time-out only takes what has arrived.
    Packet *packet = ToPacket(link.client, 1, SST_CallMemberFunction, nullptr, nullptr);
    unsigned long sequence = link.client->SendPkt(packet);
    ASSERT_NE(sequence, 0u);
    Packet *reply = nullptr;
    EXPECT_TRUE(orvexTest::WaitUntil([&] { return (reply = link.client->WaitPkt(sequence, -1.0)) != nullptr; }));
    FreePkt(reply);
}

TEST(RemoteApp, ConcurrentCallersEachGetTheirOwnReply)
{
    Link link;
    std::atomic<int> wrong{0};
    std::vector<std::thread> callers;
    for (int t = 0; t < 4; ++t)
        callers.emplace_back([&, t] {
            for (int i = 0; i < 100; ++i)
                if (link.root.CallMember("Add", i, t * 1000) != double(i + t * 1000)) ++wrong;
        });
    for (std::thread &caller : callers)
        caller.join();
    EXPECT_EQ(wrong.load(), 0);
}

TEST(RemoteApp, WithAScriptWindowCommandsRunOnItsThread)
{
    {
        Link link;
        EXPECT_EQ(link.root.CallMember("Thread"), "other"); // no window: the connection thread
    }
    EnsureScripting();
    ASSERT_TRUE(CreateScriptWindow());
    {
        Link link;
        std::atomic<bool> done{false};
        ScriptVal where;
        std::thread caller([&] {
            where = link.root.CallMember("Thread");
            done.store(true);
        });
        int exitCode = 0;
        for (int i = 0; i < 500 && !done.load(); ++i)
            (void)GetScriptWnd()->Pump(0, 10, exitCode);
        caller.join();
        EXPECT_EQ(where, "main");
        std::thread closer([&] { link.root = ScriptVal(); });
        for (int i = 0; i < 50; ++i)
            (void)GetScriptWnd()->Pump(0, 2, exitCode);
        closer.join();
    }
    int exitCode = 0;
    // The host heard of the connection coming and going, on its own thread.
    EXPECT_TRUE(orvexTest::WaitUntil([&] {
        (void)GetScriptWnd()->Pump(0, 5, exitCode);
        return EnsureScripting()->m_Disconnects.load() >= 1;
    }));
    EXPECT_GE(EnsureScripting()->m_Connects.load(), 1);

    // A connect that fails on its own thread is reported there too.
    uint16_t closedPort = 0;
    int listener = SocketIo::kNoFd;
    ASSERT_TRUE(SocketIo::ListenLoopback(0, listener, closedPort));
    SocketIo::CloseFd(listener); // nothing listens there now
    g_ScriptServerPort = closedPort;
    RemoteApp *failing = new RemoteApp;
    failing->Use();
    failing->SetHost("127.0.0.1");
    failing->AsyncConnect();
    EXPECT_TRUE(orvexTest::WaitUntil([&] {
        (void)GetScriptWnd()->Pump(0, 5, exitCode);
        return EnsureScripting()->m_ConnectFailures.load() == 1;
    }));
    failing->Recycle();
    (void)GetScriptWnd()->Pump(0, 0, exitCode);
    DestroyScriptWindow();
}

} // namespace
} // namespace orvexScript
