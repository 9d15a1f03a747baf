// Three real processes: the demo host, which starts the script server itself when none runs, the
// server it started, and this process as a script's client. The server is found by its command line,
// since it is the host's detached child, not ours. Every wait is bounded.
#include <gtest/gtest.h>

#include <signal.h>

#include <optional>
#include <string>
#include <vector>

#include "remote/ScriptApp.h"
#include "remote/testhost/ServerProcesses.h"

#ifdef ORVEX_DEMO_HOST

namespace orvexScript
{
namespace
{
using testhost::DemoHostProcess;
using testhost::ProcessEnded;
using testhost::ServersOnPort;
using testhost::TheServerOn;

constexpr const char *kDemo = "orvexDemo";

struct ScriptServerDemo : ::testing::Test
{
    // The default server program (the front end beside the demo host), whatever the environment says.
    ScriptServerDemo() : program("ORVEXSCRIPT_SERVER_PROGRAM", nullptr), port(testhost::FreeServerPort())
    {
        testhost::StartAsClient(port, "ScriptServerDemoTest");
    }
    // A server left behind ends once its last connection has gone; one that does not is killed, so
    // that no test leaves a process behind.
    ~ScriptServerDemo() override
    {
        for (int pid : ServersOnPort(port))
            if (!orvexTest::WaitUntil([pid] { return ProcessEnded(pid); }, 10000))
            {
                ADD_FAILURE() << "the server " << pid << " did not end by itself";
                kill(pid, SIGKILL);
            }
    }

    ScriptVal Bare() { return ScriptApp("", nullptr, nil, "127.0.0.1", 5.0); }
    ScriptVal Demo(double timeout = 5.0) { return ScriptApp(kDemo, nullptr, nil, "127.0.0.1", timeout); }
    static double Live(ScriptVal &root) { return root.CallMember("LiveObjects").ToNumber(-1); }

    testhost::RecordsGone gone; // last to go
    orvexTest::ScopedEnv program;
    uint16_t port;
};

TEST_F(ScriptServerDemo, TheHostStartsTheServerAndAClientDrivesItsObjectsDirectly)
{
    ASSERT_TRUE(ServersOnPort(port).empty());
    DemoHostProcess host(port);
    ASSERT_TRUE(host.ready);
    const int server = TheServerOn(port);
    ASSERT_GT(server, 0) << "the host started no server, or several";

    ScriptVal root = Demo();
    ASSERT_TRUE(root.IsRemoteObject());
    EXPECT_EQ(root.GetKey("Version"), "1.0");
    EXPECT_EQ(root.CallMember("Echo", "through the handed-over socket"), "through the handed-over socket");
    EXPECT_EQ(root.CallMember("Add", 2, 3), 5.0);
    EXPECT_EQ(Live(root), 0.0);
    {
        ScriptVal document = root.CallMember("NewDocument", "plan");
        ASSERT_TRUE(document.IsRemoteObject());
        EXPECT_EQ(document.GetKey("Name"), "plan");
        document.SetKey("Name", ScriptVal("plan B"));
        EXPECT_EQ(document.GetKey("Name"), "plan B");
        ScriptVal background = document.CallMember("AddLayer", "background");
        ScriptVal ink = document.CallMember("AddLayer", "ink");
        ASSERT_TRUE(ink.IsRemoteObject());
        EXPECT_EQ(ink.GetKey("Opacity"), 1.0);
        ink.SetKey("Opacity", ScriptVal(0.25));
        EXPECT_EQ(ink.GetKey("Opacity"), 0.25);
        EXPECT_EQ(background.GetKey("Opacity"), 1.0);

        ScriptVal layers = document.CallMember("Layers");
        ASSERT_TRUE(layers.IsTable());
        ASSERT_EQ(layers.NumKeys(), 2);
        EXPECT_EQ(layers[1].GetKey("Name"), "background");
        EXPECT_EQ(layers[2].GetKey("Opacity"), 0.25); // the same layer, by another proxy value
        EXPECT_EQ(Live(root), 3.0);
        EXPECT_TRUE(document.CallMember("Close").ToBoolean());
        EXPECT_EQ(Live(root), 3.0); // still named from here
    }
    // Every proxy value has gone: the host drops its counts and the objects die.
    EXPECT_TRUE(orvexTest::WaitUntil([&] { return Live(root) == 0.0; }, 10000)) << Live(root);

    // The server carries no traffic of the connection: it is the host's own.
    ScriptVal bare = Bare();
    ASSERT_TRUE(bare.IsRemoteObject());
    const ScriptVal entry = bare.CallMember("FindHost", kDemo);
    ASSERT_TRUE(entry.IsTable());
    EXPECT_EQ(entry["ProcessID"], static_cast<double>(host.child.Pid()));
    EXPECT_EQ(testhost::UUIDOf(root), entry["UUID"].ToString(""));
}

// A server killed under a running host: the host serves on; its next start registers with a new
// server that it starts, both when scripting restarts in the host (SIGHUP) and when the host itself is
// started again.
TEST_F(ScriptServerDemo, AKilledServerIsStartedAgainOnTheHostsNextStart)
{
    std::optional<DemoHostProcess> host(std::in_place, port);
    ASSERT_TRUE(host->ready);
    const int first = TheServerOn(port);
    ASSERT_GT(first, 0);
    ScriptVal root = Demo();
    ASSERT_TRUE(root.IsRemoteObject());

    ASSERT_EQ(kill(first, SIGKILL), 0);
    ASSERT_TRUE(orvexTest::WaitUntil([&] { return ProcessEnded(first); }));
    EXPECT_EQ(root.CallMember("Add", 4, 5), 9.0);
    EXPECT_EQ(root.CallMember("Echo", "still here"), "still here");
    EXPECT_TRUE(Demo(1.0).IsNil()); // nobody to ask

    // Scripting restarted in the host: a second server, the host registered with it, and the
    // connection of before still served.
    host->child.Signal(SIGHUP);
    ASSERT_TRUE(host->WaitReady());
    const int second = TheServerOn(port);
    ASSERT_GT(second, 0);
    EXPECT_NE(second, first);
    EXPECT_EQ(root.CallMember("Add", 1, 1), 2.0);
    {
        ScriptVal again = Demo();
        ASSERT_TRUE(again.IsRemoteObject());
        EXPECT_NE(again.GetApp(), root.GetApp());
        EXPECT_EQ(again.CallMember("Add", 2, 2), 4.0);
    }

    // The host started again after the server died: a third server.
    ASSERT_EQ(kill(second, SIGKILL), 0);
    ASSERT_TRUE(orvexTest::WaitUntil([&] { return ProcessEnded(second); }));
    root = nil;
    host->child.Signal(SIGTERM);
    const orvexTest::ProcessResult end = host->child.Wait(30000);
    EXPECT_FALSE(end.timedOut);
    EXPECT_EQ(end.exitCode, 0);
    host.reset();
    DemoHostProcess restarted(port);
    ASSERT_TRUE(restarted.ready);
    const int third = TheServerOn(port);
    ASSERT_GT(third, 0);
    EXPECT_NE(third, second);
    ScriptVal fresh = Demo();
    ASSERT_TRUE(fresh.IsRemoteObject());
    EXPECT_EQ(fresh.CallMember("Add", 3, 3), 6.0);
}

// A killed host leaves the list at the end of its connection; asking for it, or for an application
// nobody registered, gives nil, and the server serves on: the next host registers with it.
TEST_F(ScriptServerDemo, AKilledHostVanishesAndUnknownNamesGiveNil)
{
    std::optional<DemoHostProcess> host(std::in_place, port);
    ASSERT_TRUE(host->ready);
    const int server = TheServerOn(port);
    ASSERT_GT(server, 0);
    ScriptVal bare = Bare();
    ASSERT_TRUE(bare.IsRemoteObject());
    ASSERT_EQ(bare.CallMember("GetHostList").NumKeys(), 1);

    host->child.Signal(SIGKILL);
    EXPECT_FALSE(host->child.Wait(10000).timedOut);
    host.reset();
    EXPECT_TRUE(orvexTest::WaitUntil([&] { return bare.CallMember("GetHostList").NumKeys() == 0; }));
    EXPECT_TRUE(bare.CallMember("FindHost", kDemo).IsNil());
    EXPECT_TRUE(Demo().IsNil());
    EXPECT_TRUE(ScriptApp("nobody", nullptr, nil, "127.0.0.1", 5.0).IsNil());

    DemoHostProcess next(port);
    ASSERT_TRUE(next.ready);
    EXPECT_EQ(ServersOnPort(port), std::vector<int>{server}); // registered with the running server
    ScriptVal root = Demo();
    ASSERT_TRUE(root.IsRemoteObject());
    EXPECT_EQ(root.CallMember("Add", 20, 22), 42.0);
    EXPECT_EQ(bare.CallMember("FindHost", kDemo)["ProcessID"], static_cast<double>(next.child.Pid()));
}

// SIGTERM and SIGINT: the host unregisters and exits with 0, and the server it started, with no
// connection left, ends by itself.
TEST_F(ScriptServerDemo, ASignalledHostUnregistersAndTheServerThenEnds)
{
    for (int signal : {SIGTERM, SIGINT})
    {
        SCOPED_TRACE(signal);
        DemoHostProcess host(port);
        ASSERT_TRUE(host.ready);
        const int server = TheServerOn(port);
        ASSERT_GT(server, 0);
        {
            ScriptVal bare = Bare();
            ASSERT_TRUE(bare.IsRemoteObject());
            ASSERT_TRUE(bare.CallMember("FindHost", kDemo).IsTable());
            ScriptVal root = Demo();
            ASSERT_TRUE(root.IsRemoteObject());
            ScriptVal document = root.CallMember("NewDocument", "left open");
            ASSERT_TRUE(document.IsRemoteObject());

            host.child.Signal(signal);
            const orvexTest::ProcessResult end = host.child.Wait(30000);
            EXPECT_FALSE(end.timedOut);
            EXPECT_EQ(end.exitCode, 0);
            EXPECT_TRUE(bare.CallMember("FindHost", kDemo).IsNil());
            EXPECT_EQ(bare.CallMember("GetHostList").NumKeys(), 0);
            EXPECT_TRUE(root.CallMember("Add", 1, 2).IsNil()); // the host's end closed our connection
        }
        // Our bare connection went with its value: nobody needs the server any more.
        EXPECT_TRUE(orvexTest::WaitUntil([server] { return ProcessEnded(server); }, 15000));
        EXPECT_TRUE(ServersOnPort(port).empty());
    }
}

} // namespace
} // namespace orvexScript

#endif
