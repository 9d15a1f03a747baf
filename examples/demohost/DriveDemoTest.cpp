// The example script examples/drive_demo.lua run by the front end against the demo host, both real
// processes on a script server port of the test's own: the whole run, and a host killed in the middle,
// which the script reports and survives. Every wait is bounded.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <optional>
#include <string>
#include <vector>

#include "testsupport/TestSupport.h"

namespace
{

using orvexTest::ChildProcess;

const std::string kScript = std::string(ORVEX_SOURCE_DIR) + "/examples/drive_demo.lua";

// True if nothing listens on TCP `port` any more. Connections of the port that wait out their close
// (TIME_WAIT, after a host was killed) don't count.
bool PortFree(uint16_t port)
{
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    const bool free = bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)) == 0;
    close(fd);
    return free;
}

// A port that the kernel just handed out for TCP and that UDP has free too (the server binds both).
uint16_t FreePort()
{
    for (int attempt = 0; attempt < 20; ++attempt)
    {
        const int fd = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(address);
        uint16_t port = 0;
        if (bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)) == 0 &&
            getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length) == 0)
            port = ntohs(address.sin_port);
        close(fd);
        const int udp = socket(AF_INET, SOCK_DGRAM, 0);
        address.sin_addr.s_addr = htonl(INADDR_ANY);
        const bool udpFree = bind(udp, reinterpret_cast<sockaddr *>(&address), sizeof(address)) == 0;
        close(udp);
        if (port != 0 && port != 10251 && udpFree) return port;
    }
    return 0;
}

// The demo host on its own server port; it starts that server itself.
struct DemoHost
{
    uint16_t port = FreePort();
    ChildProcess process{{ORVEX_DEMO_HOST, "--port", std::to_string(port)}};
    bool ready = process.WaitForLine("orvexDemo ready", 20000).has_value();

    // Ends the host with `signal` and waits for it; then the server, left without connections, ends
    // by itself and frees the port.
    void Stop(int signal, int expectedExit)
    {
        process.Signal(signal);
        const orvexTest::ProcessResult result = process.Wait(20000);
        EXPECT_FALSE(result.timedOut);
        if (signal == SIGTERM)
        {
            EXPECT_EQ(result.exitCode, expectedExit);
        }
        EXPECT_TRUE(orvexTest::WaitUntil([&] { return PortFree(port); }, 20000)) << "the server stays";
    }
};

// The front end with its stderr joined to its stdout, so that the test reads both in order.
std::vector<std::string> FrontEnd(uint16_t port, std::vector<std::string> arguments)
{
    std::vector<std::string> argv = {"/bin/sh", "-c", "exec \"$0\" \"$@\" 2>&1", ORVEX_FRONT_END,
                                     "-p",      std::to_string(port), kScript};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    return argv;
}

TEST(DriveDemo, ScriptDrivesTheHostAndLetsGoOfEverything)
{
    DemoHost host;
    ASSERT_TRUE(host.ready);
    const orvexTest::ProcessResult run = orvexTest::RunProcess(FrontEnd(host.port, {}), 60000);
    EXPECT_FALSE(run.timedOut);
    EXPECT_EQ(run.exitCode, 0) << run.out;
    for (const char *line : {
             "  Version       = \"1.0\"\n",
             "  Echo(...)     = { \"hello\", 42, true, { 1, 2, colour = \"teal\" } }\n",
             "  Add(2, 3)     = 5\n",
             "  Version = \"1.0\", Add(20, 22) = 42, NoSuchMember = nil\n",
             "  document \"Poster\"\n    layer \"Background\"   opacity 1.00\n    layer \"Title\"        opacity 1.00\n"
             "  document \"Letter\"\n    layer \"Body\"         opacity 1.00\n  LiveObjects() = 5\n",
             "  Background opacity 0.25 after setting 0.25\n",
             "            Opacity = 0.25,\n", // the order of the keys in the saved text is Lua's
             "  the same as saved: true\n",
             "  open documents after Close: 0\n  LiveObjects() = 0\ndone\n",
         })
        EXPECT_NE(run.out.find(line), std::string::npos) << "missing:\n" << line << "\nin:\n" << run.out;
    host.Stop(SIGTERM, 0);
}

// The host dies while the script holds its objects: the next answers are nil, the script says what it
// was doing and ends with status 3 instead of waiting.
TEST(DriveDemo, KilledHostEndsTheScriptWithAClearMessage)
{
    DemoHost host;
    ASSERT_TRUE(host.ready);
    ChildProcess script(FrontEnd(host.port, {"pause=1", "timeout=10"}));
    ASSERT_TRUE(script.WaitForLine("paused", 30000).has_value());
    host.Stop(SIGKILL, 0);
    script.CloseStdin();
    const std::optional<std::string> message = script.WaitForLine("drive_demo: ", 30000);
    ASSERT_TRUE(message.has_value());
    EXPECT_EQ(*message, "no answer from \"orvexDemo\" while reading Opacity: the application has gone or "
                        "stopped answering");
    const orvexTest::ProcessResult result = script.Wait(10000);
    EXPECT_FALSE(result.timedOut);
    EXPECT_EQ(result.exitCode, 3);
}

} // namespace
