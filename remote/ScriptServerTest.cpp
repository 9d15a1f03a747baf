// The script server with real processes: the server (the front end with -s), applications that
// register with it (the test host), and this process as the client. Every wait is bounded.
#include "remote/ScriptServer.h"

#include <gtest/gtest.h>

#include <sys/types.h>
#include <unistd.h>

#include <csignal>
#include <string>
#include <thread>

#include "objects/ObjectHooks.h"
#include "remote/RemoteObject.h"
#include "remote/ServerNet.h"
#include "remote/testhost/ServerProcesses.h"

namespace orvexScript
{
namespace
{
using testhost::HostProcess;
using testhost::ServerProcess;
using testhost::UUIDOf;

bool IsTrue(const ScriptVal &value)
{
    return value.IsBoolean() && value.ToBoolean();
}

bool IsFalse(const ScriptVal &value)
{
    return value.IsBoolean() && !value.ToBoolean();
}

// A server on a free port with this process as its client.
struct ScriptServer : ::testing::Test
{
    ScriptServer() : port(testhost::FreeServerPort()), server(port) { testhost::BecomeClient(port); }

    // The server's own root, over a bare connection.
    ScriptVal Bare(double timeout = 5.0) { return ScriptApp("", nullptr, nil, "127.0.0.1", timeout); }

    testhost::RecordsGone gone; // last to go
    uint16_t port;
    ServerProcess server;
};

TEST_F(ScriptServer, HandsTheClientsOwnSocketToTheHost)
{
    HostProcess host("alpha", port);
    ScriptVal root = ScriptApp("alpha", nullptr, nil, "127.0.0.1", 5.0);
    ASSERT_FALSE(root.IsNil());
    EXPECT_EQ(UUIDOf(root), host.uuid);
    EXPECT_EQ(root.CallMember("Add", 2, 3), 5.0);
    EXPECT_EQ(root.CallMember("Thread"), "main"); // the host's main thread ran it

    // The server is out of the path: the calls go on without it.
    server.child.Signal(SIGKILL);
    EXPECT_FALSE(server.child.Wait(5000).timedOut);
    EXPECT_EQ(root.CallMember("Add", 4, 5), 9.0);
    EXPECT_EQ(root.CallMember("Echo", "still here"), "still here");

    // A second ScriptApp makes a connection of its own; with the server gone it finds nothing.
    EXPECT_TRUE(ScriptApp("alpha", nullptr, nil, "127.0.0.1", 1.0).IsNil());
    EXPECT_EQ(root.CallMember("Add", 1, 1), 2.0);
}

TEST_F(ScriptServer, AnswersQueriesAndKeepsServingAfterAnUnknownName)
{
    HostProcess host("alpha", port);
    ScriptVal bare = Bare();
    ASSERT_FALSE(bare.IsNil());
    const ScriptVal found = bare.CallMember("FindHost", "alpha");
    ASSERT_TRUE(found.IsTable());
    EXPECT_EQ(found["ProcessID"], static_cast<double>(host.child.Pid()));
    EXPECT_EQ(found["UUID"], host.uuid.c_str());
    EXPECT_TRUE(found["SupportsNewConnect"].ToBoolean());
    EXPECT_TRUE(bare.CallMember("FindHost", "nobody").IsNil());
    EXPECT_TRUE(bare.CallMember("FindHost", 12).IsNil());
    const ScriptVal list = bare.CallMember("GetHostList");
    ASSERT_TRUE(list.IsTable());
    EXPECT_EQ(list.NumKeys(), 1);
    EXPECT_EQ(list[1]["Name"], "alpha");
    EXPECT_FALSE(bare.CallMember("AddHost", "no table").ToBoolean());
    EXPECT_FALSE(bare.CallMember("RemoveHost", 999999999).ToBoolean());

    // No such application: nil, promptly (the server answers with no result), and the server goes on.
    EXPECT_TRUE(ScriptApp("nobody", nullptr, nil, "127.0.0.1", 5.0).IsNil());
    ScriptVal root = ScriptApp("alpha", nullptr, nil, "127.0.0.1", 5.0);
    ASSERT_FALSE(root.IsNil());
    EXPECT_EQ(root.CallMember("Add", 20, 22), 42.0);

    // RemoveHost by process id takes it out of the list.
    EXPECT_TRUE(bare.CallMember("RemoveHost", host.child.Pid()).ToBoolean());
    EXPECT_TRUE(bare.CallMember("FindHost", "alpha").IsNil());
}

TEST_F(ScriptServer, AKilledHostVanishesAndTheServerEndsWithItsLastConnection)
{
    {
        HostProcess host("alpha", port);
        ScriptVal bare = Bare();
        ASSERT_FALSE(bare.IsNil());
        host.child.Signal(SIGKILL);
        EXPECT_TRUE(orvexTest::WaitUntil([&] { return bare.CallMember("GetHostList").NumKeys() == 0; }));
        EXPECT_TRUE(server.child.WaitForLine("Host 'alpha' Killed", 5000).has_value());
        EXPECT_TRUE(ScriptApp("alpha", nullptr, nil, "127.0.0.1", 5.0).IsNil());
    }
    // The bare connection went with its value: nobody needs the server any more.
    EXPECT_TRUE(server.child.WaitForLine("orvexScript Server [", 10000).has_value());
    const orvexTest::ProcessResult end = server.child.Wait(5000);
    EXPECT_FALSE(end.timedOut);
    EXPECT_EQ(end.exitCode, 0);
}

// Loopback only (the server runs with -l): every address of 127.0.0.0/8 is loopback, for the client's
// dialing and for the server's accepting; any other address is refused before anything is sent.
TEST_F(ScriptServer, LoopbackOnlyServesTheWholeLoopbackRange)
{
    HostProcess host("alpha", port);
    SetLoopbackOnly(true);
    struct Case
    {
        const char *address;
        bool served;
    } cases[] = {{"127.0.0.1", true}, {"127.0.0.2", true}, {"127.255.1.9", true}, {"10.0.0.1", false},
                 {"128.0.0.127", false}};
    for (const Case &c : cases)
    {
        ScriptVal root = ScriptApp("alpha", nullptr, nil, c.address, 2.0);
        EXPECT_EQ(root.IsRemoteObject(), c.served) << c.address;
        if (c.served)
        {
            EXPECT_EQ(root.CallMember("Add", 1, 2), 3.0) << c.address;
        }
    }
    SetLoopbackOnly(false);
}

TEST_F(ScriptServer, ASecondServerOnThePortExitsWithOne)
{
    const orvexTest::ProcessResult second =
        orvexTest::RunProcess({ORVEX_FRONT_END, "-s", "-p", std::to_string(port), "-l"}, 10000);
    EXPECT_EQ(second.exitCode, 1);
    EXPECT_NE(second.out.find("failed to bind socket"), std::string::npos) << second.out;
}

TEST_F(ScriptServer, ChoosesAmongHostsOfOneName)
{
    HostProcess first("beta", port, {"--priority", "draft=1", "--priority", "final=5"});
    HostProcess second("beta", port, {"--priority", "draft=3"});
    const std::string unknown = "00000000-0000-4000-8000-000000000000";
    struct Case
    {
        const char *what;
        const char *subtype;
        const std::string *uuid;     // asked for; null: any
        const std::string *expected; // null: none is chosen
    } cases[] = {
        {"first registered wins", nullptr, nullptr, &first.uuid},
        {"a UUID picks the other", nullptr, &second.uuid, &second.uuid},
        {"the highest priority wins", "draft", nullptr, &second.uuid},
        {"only hosts with a priority count", "final", nullptr, &first.uuid},
        {"a UUID and a subtype together", "draft", &first.uuid, &first.uuid},
        {"a subtype nobody has", "sketch", nullptr, nullptr},
        {"an unknown UUID", nullptr, &unknown, nullptr},
    };
    for (const Case &c : cases)
    {
        const ScriptVal uuid = c.uuid ? ScriptVal(c.uuid->c_str()) : ScriptVal();
        ScriptVal root = ScriptApp("beta", c.subtype, uuid, "127.0.0.1", 5.0);
        if (!c.expected)
        {
            EXPECT_TRUE(root.IsNil()) << c.what;
            continue;
        }
        ASSERT_FALSE(root.IsNil()) << c.what;
        EXPECT_EQ(UUIDOf(root), *c.expected) << c.what;
        EXPECT_EQ(root.CallMember("Add", 1, 2), 3.0) << c.what;
    }
}

TEST_F(ScriptServer, PingIsAnsweredForTheServerAndForRegisteredNamesOnly)
{
    HostProcess host("alpha", port);
    struct Case
    {
        const char *name;
        bool answered;
    } cases[] = {{"", true}, {nullptr, true}, {"alpha", true}, {"nobody", false}, {"alph", false}};
    for (const Case &c : cases)
    {
        ScriptVal result;
        EXPECT_EQ(Ping(c.name, c.answered ? 0.5 : 0.3, result), c.answered) << (c.name ? c.name : "null");
        ASSERT_TRUE(result.IsTable());
        EXPECT_EQ(result.NumKeys(), c.answered ? 1 : 0);
        if (c.answered)
        {
            EXPECT_EQ(result[1]["IP"], "127.0.0.1");
        }
    }
}

TEST_F(ScriptServer, AnUnansweredPktTestTimesOutAndTheConnectionGoesOn)
{
    ScriptVal bare = Bare(0.5);
    ASSERT_FALSE(bare.IsNil());
    EXPECT_TRUE(IsTrue(bare.CallMember("PktTest", true)));
    EXPECT_TRUE(bare.CallMember("PktTest", false).IsNil());
    EXPECT_TRUE(IsTrue(bare.CallMember("PktTest", true)));
}

// The hand-over refuses what does not come from the chosen host, and says so in the server's log.
struct ScriptServerHandover : ::testing::Test
{
    ScriptServerHandover()
        : log("KESCRIPT_LOG_SERVER", "true"), tmp("TMPDIR", dir.Path().c_str()),
          port(testhost::FreeServerPort()), server(port)
    {
        testhost::BecomeClient(port);
    }
    std::string Log() const { return orvexTest::ReadFile(server.LogPath(dir.Path())); }

    testhost::RecordsGone gone; // last to go
    orvexTest::TempDir dir;
    orvexTest::ScopedEnv log, tmp;
    uint16_t port;
    ServerProcess server;
};

TEST_F(ScriptServerHandover, RefusesAHostOfAnotherProcessAndUnknownTokens)
{
    // This process registers "fake" under another process id: when asked to take a client over it
    // shows up at the local socket as itself, and the server refuses.
    AddConnectMembers(GetRootObject()->GetScriptInfo());
    ScriptVal bare = ScriptApp("", nullptr, nil, "127.0.0.1", 5.0);
    ASSERT_FALSE(bare.IsNil());
    ScriptVal info(SV_Table, nullptr);
    info["Name"] = "fake";
    info["ProcessID"] = static_cast<double>(server.child.Pid());
    info["UUID"] = "fake-uuid";
    info["SupportsNewConnect"] = true;
    ASSERT_TRUE(bare.CallMember("AddHost", info).ToBoolean());
    EXPECT_TRUE(ScriptApp("fake", nullptr, nil, "127.0.0.1", 5.0).IsNil());
    EXPECT_TRUE(
        orvexTest::WaitUntil([&] { return Log().find("offered to another process") != std::string::npos; }));

    // A token the server never offered.
    const char *why = nullptr;
    EXPECT_EQ(ServerNet::TakeHandedSocket(port, server.child.Pid(), 123456789, 2000, why), -1);
    EXPECT_TRUE(orvexTest::WaitUntil([&] { return Log().find("no socket offered") != std::string::npos; }));
    // A server process that does not listen there.
    EXPECT_EQ(ServerNet::TakeHandedSocket(port, getpid(), 1, 2000, why), -1);

    // Malformed blocks are refused by the application before anything is asked.
    HostProcess host("alpha", port);
    ScriptVal root = ScriptApp("alpha", nullptr, nil, "127.0.0.1", 5.0);
    ASSERT_FALSE(root.IsNil());
    char bytes[16] = {};
    EXPECT_TRUE(IsFalse(root.CallMember("__NewConnect", ScriptVal(MemBlock(bytes, 5)), "x", nil)));
    EXPECT_TRUE(IsFalse(root.CallMember("__NewConnect", "not a block", "x", nil)));
    EXPECT_TRUE(IsFalse(root.CallMember("__NewConnect", ScriptVal(MemBlock(bytes, 16)), "x", nil))); // pid 0
    EXPECT_TRUE(IsFalse(root.CallMember("__Connect", ScriptVal(MemBlock(bytes, 16)), "x", nil)));
    EXPECT_EQ(root.CallMember("Add", 1, 2), 3.0); // and the connection goes on
}

TEST_F(ScriptServer, StartHostRunsADetachedApplicationAndReapsIt)
{
    ScriptVal bare = Bare();
    ASSERT_FALSE(bare.IsNil());
    const std::string command = std::string(ORVEX_TEST_HOST) + " --register gamma --server-port " +
                                std::to_string(port) + " --max-seconds 30";
    ScriptArgs args;
    args[1] = "gamma";
    args[2] = command.c_str();
    args[3] = false;
    args[0] = "StartHost";
    const ScriptVal reply = bare.ToRemoteObject()->DoCommand(SST_CallMemberFunction, args);
    ASSERT_TRUE(IsTrue(reply[-1]));
    const auto pid = static_cast<pid_t>(reply[-2].ToNumber());
    ASSERT_GT(pid, 0);
    EXPECT_TRUE(orvexTest::WaitUntil([&] { return bare.CallMember("FindHost", "gamma").IsTable(); }, 10000));
    EXPECT_EQ(bare.CallMember("FindHost", "gamma")["ProcessID"], static_cast<double>(pid));
    EXPECT_EQ(getsid(pid), pid); // a session of its own

    // Running already: found, not started again.
    EXPECT_TRUE(IsTrue(bare.CallMember("StartHost", "gamma", command.c_str(), false)));
    EXPECT_TRUE(server.child.WaitForLine("Host 'gamma'", 5000).has_value());
    EXPECT_TRUE(IsFalse(bare.CallMember("StartHost", "gamma"))); // no command line
    EXPECT_TRUE(IsFalse(bare.CallMember("StartHost", "delta", "/nonexistent/program", true)));

    // Ended, it is reaped by the server: no zombie stays.
    ASSERT_EQ(kill(pid, SIGTERM), 0);
    EXPECT_TRUE(orvexTest::WaitUntil([&] { return kill(pid, 0) != 0; }, 10000));
}

} // namespace
} // namespace orvexScript
