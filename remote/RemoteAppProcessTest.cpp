// Connections to a real child process, the test host: calls and objects in both directions with and
// without its script window, a host killed while callers block, and a client killed while it holds
// proxies of our objects. Every wait is bounded.
#include "remote/RemoteApp.h"

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "remote/testhost/HostObjects.h"
#include "remote/testhost/Loopback.h"
#include "testsupport/TestSupport.h"

namespace orvexScript
{
namespace
{

// The test host as a child, listening on a port of its own.
struct HostProcess
{
    explicit HostProcess(std::vector<std::string> args = {}) : server(WithProgram(std::move(args)))
    {
        EXPECT_NE(port, 0);
    }

    static std::vector<std::string> WithProgram(std::vector<std::string> args)
    {
        args.insert(args.begin(), ORVEX_TEST_HOST);
        return args;
    }

    orvexTest::ListeningChild server;
    orvexTest::ChildProcess &child = server.Process();
    uint16_t port = server.Port();
};

// This program's scripting, made before the first connection.
uint16_t WithScripting(uint16_t port)
{
    (void)testhost::InitTestScripting("RemoteAppProcessTest");
    return port;
}

// A connection of this process to `port`, with the peer's root.
struct Client : testhost::Client
{
    explicit Client(uint16_t port) : testhost::Client(WithScripting(port)) {}
};

// A listening end in this process; accepted connections live by their counts.
struct Listener : testhost::Listener
{
    Listener() : testhost::Listener(WithScripting(0) != 0) {}
};

TEST(RemoteAppProcess, AKilledHostWakesEveryBlockedCallerWithNil)
{
    HostProcess host({"--no-window"});
    Client client(host.port);
    ASSERT_EQ(client.root.CallMember("Add", 1, 2), 3.0);
    client.app->SetTimeOut(0); // only the loss of the connection can end the calls

    std::atomic<int> returned{0}, nil{0};
    std::vector<std::thread> callers;
    for (int i = 0; i < 3; ++i)
        callers.emplace_back([&] {
            if (client.root.CallMember("Sleep", 10).IsNil()) ++nil;
            ++returned;
        });
    // Let the calls go out (a call that has not yet gone out fails at once, which is nil too).
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(returned.load(), 0);
    host.child.Signal(SIGKILL);

    EXPECT_TRUE(orvexTest::WaitUntil([&] { return returned.load() == 3; }));
    for (std::thread &caller : callers)
        caller.join();
    EXPECT_EQ(nil.load(), 3);
    EXPECT_TRUE(orvexTest::WaitUntil([&] { return !client.app->Connected(); }));
    EXPECT_EQ(host.child.Wait().signal, SIGKILL);
    // A call on the proxy of a connection that has gone gives nil at once.
    EXPECT_TRUE(client.root.CallMember("Add", 1, 2).IsNil());
}

TEST(RemoteAppProcess, ObjectsCrossBothWaysWithAndWithoutTheHostsWindow)
{
    const struct
    {
        std::vector<std::string> args;
        const char *thread; // where the host runs commands
    } cases[] = {{{}, "main"}, {{"--no-window"}, "other"}};
    for (const auto &c : cases)
    {
        SCOPED_TRACE(c.thread);
        HostProcess host(c.args);
        Client client(host.port);
        EXPECT_EQ(client.root.CallMember("Thread"), c.thread);
        {
            ScriptVal item = client.root.CallMember("Make", "first");
            ASSERT_TRUE(item.IsRemoteObject());
            (void)item.CallMember("SetName", "renamed");
            EXPECT_EQ(item.CallMember("Name"), "renamed");
            EXPECT_EQ(client.root.CallMember("Live"), 1.0);
            EXPECT_TRUE(client.root.CallMember("Echo", item) == item); // back to its owner and back again
            EXPECT_EQ(client.app->GetRemoteObjectCount(), 2u);         // the root and the item
        }
        EXPECT_TRUE(orvexTest::WaitUntil([&] { return client.root.CallMember("Live") == 0.0; }));

        // An object of ours, kept by the host three times (counted on its record, referenced once) and
        // called back by it.
        auto *mine = new testhost::Item("mine");
        const ScriptVal value(static_cast<ScriptObject *>(mine));
        const int before = mine->GetUseCount();
        for (int i = 1; i <= 3; ++i)
            EXPECT_EQ(client.root.CallMember("Keep", value), double(i));
        EXPECT_EQ(mine->GetUseCount(), before + 1);
        EXPECT_EQ(client.root.CallMember("Call", value, "Name"), "mine");
        (void)client.root.CallMember("Call", value, "SetName", "set by the host");
        EXPECT_EQ(mine->m_Name, "set by the host");
        EXPECT_EQ(client.app->GetLocalObjectCount(), 2u); // our root and the item
        (void)client.root.CallMember("Drop");
        EXPECT_TRUE(orvexTest::WaitUntil([&] { return client.app->GetLocalObjectCount() == 1u; }));
        EXPECT_EQ(mine->GetUseCount(), before);
        mine->DecRef();
    }
}

TEST(RemoteAppProcess, AClientKilledWhileHoldingProxiesLetsGoOfItsObjects)
{
    Listener listener;
    testhost::Root *root = testhost::InitTestScripting("RemoteAppProcessTest");
    (void)ScriptVal(static_cast<ScriptObject *>(root)).CallMember("Drop");
    const int liveBefore = testhost::Item::s_Live.load();
    const int connectionsBefore = RemoteApp::GetNumConnections();
    orvexTest::ChildProcess client(
        {ORVEX_TEST_HOST, "--connect", std::to_string(listener.Port()), "--items", "3"});
    const std::optional<std::string> ready = client.WaitForLine("READY ");
    ASSERT_TRUE(ready.has_value());
    EXPECT_EQ(*ready, "4"); // our root and three items
    EXPECT_EQ(testhost::Item::s_Live.load(), liveBefore + 3);
    EXPECT_EQ(RemoteApp::GetNumConnections(), connectionsBefore + 1);

    // Our root keeps a proxy of the client's own item.
    ScriptVal kept;
    {
        std::lock_guard<std::mutex> hold(root->m_Lock);
        ASSERT_EQ(root->m_Kept.size(), 1u);
        kept = root->m_Kept[0];
    }
    EXPECT_EQ(kept.CallMember("Name"), "client's own");

    client.Signal(SIGKILL);
    EXPECT_TRUE(orvexTest::WaitUntil([&] { return testhost::Item::s_Live.load() == liveBefore; }));
    EXPECT_TRUE(orvexTest::WaitUntil([&] { return RemoteApp::GetNumConnections() == connectionsBefore; }));
    EXPECT_EQ(client.Wait().signal, SIGKILL);
    EXPECT_EQ(listener.Accepted(), 1);
    // The proxy of the dead client's object answers nil, and letting it go frees the record.
    EXPECT_TRUE(kept.CallMember("Name").IsNil());
    kept = ScriptVal();
    (void)ScriptVal(static_cast<ScriptObject *>(root)).CallMember("Drop");
}

TEST(RemoteAppProcess, AHostWithAWindowLetsGoOfAKilledClientsObjects)
{
    HostProcess host;
    orvexTest::ChildProcess client({ORVEX_TEST_HOST, "--connect", std::to_string(host.port), "--items", "3"});
    ASSERT_TRUE(client.WaitForLine("READY ").has_value());
    Client observer(host.port);
    EXPECT_EQ(observer.root.CallMember("Live"), 3.0);

    client.Signal(SIGKILL);
    EXPECT_TRUE(orvexTest::WaitUntil([&] { return observer.root.CallMember("Live") == 0.0; }));
    (void)observer.root.CallMember("Drop"); // the proxy of the client's own item, on a dead connection
    EXPECT_EQ(observer.root.CallMember("Add", 1, 1), 2.0);
}

} // namespace
} // namespace orvexScript
