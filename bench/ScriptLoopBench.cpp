// A Lua loop of remote calls against the raw round trip: the front end runs bench/add_loop.lua, whose
// loop calls app:Add(i, 1) 10,000 times on the demo host (both real processes, on a script server port
// of their own), and the same bytes as one such command packet go back and forth over plain loopback
// TCP to a forked echo peer. The summary gives the script's calls per second and the ratio of one call
// to one raw round trip. `taskset -c 0 ScriptLoopBench` keeps the loopback figures steady.
#include "bench/BenchMain.h"
#include "bench/RemoteBenchSupport.h"

#include <arpa/inet.h>
#include <spawn.h>

#include <cstdio>
#include <string>
#include <vector>

#include "remote/Packet.h"
#include "values/model/ScriptArgs.h"
#include "values/model/SymbolNumbers.h"

extern char **environ;

using namespace orvexScript;

namespace
{

constexpr int kCalls = 10000;
double g_RawP50Us = 0;
double g_LoopUsPerCall = 0;
double g_HeldUsPerCall = 0;

// The bytes of the command packet that calls Add(5000, 1) on object 1.
std::vector<unsigned char> AddCommandBytes()
{
    ScriptArgs args;
    args[0] = "Add";
    args[1] = 5000.0;
    args[2] = 1.0;
    std::vector<unsigned char> bytes;
    if (Packet *packet = ToPacket(nullptr, 1, SST_CallMemberFunction, nullptr, &args))
    {
        const auto *raw = reinterpret_cast<const unsigned char *>(packet);
        bytes.assign(raw, raw + packet->m_Size);
        FreePkt(packet);
    }
    return bytes;
}

void BM_RawRoundTrip(benchmark::State &state)
{
    RemoteBench::ForkedPeer &peer = RemoteBench::EchoPeer();
    const int fd = peer.Running() ? RemoteBench::ConnectLoopback(peer.Port()) : -1;
    if (fd < 0)
    {
        state.SkipWithError("no echo peer");
        return;
    }
    const std::vector<unsigned char> message = AddCommandBytes();
    std::vector<unsigned char> reply;
    RemoteBench::Percentiles times;
    for (auto _ : state)
    {
        const RemoteBench::Clock::time_point start = RemoteBench::Clock::now();
        if (!RemoteBench::RawRoundTrip(fd, message, reply))
        {
            state.SkipWithError("the echo failed");
            break;
        }
        times.Add(RemoteBench::MicrosecondsSince(start));
    }
    close(fd);
    times.Report(state);
    g_RawP50Us = times.At(0.50);
}

// Runs argv with stdout to `outFd` (or inherited for -1); its pid, or -1.
pid_t Spawn(const std::vector<std::string> &argv, int outFd)
{
    std::vector<char *> pointers;
    for (const std::string &argument : argv)
        pointers.push_back(const_cast<char *>(argument.c_str()));
    pointers.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (outFd >= 0) posix_spawn_file_actions_adddup2(&actions, outFd, 1);
    pid_t pid = -1;
    if (posix_spawn(&pid, pointers[0], &actions, nullptr, pointers.data(), environ) != 0) pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

// Reads from `fd` until `text` has appeared or kPeerWaitMs passed; everything read.
std::string ReadUntil(int fd, const std::string &text)
{
    std::string seen;
    char buffer[4096];
    const RemoteBench::Clock::time_point start = RemoteBench::Clock::now();
    while (seen.find(text) == std::string::npos &&
           RemoteBench::MicrosecondsSince(start) < RemoteBench::kPeerWaitMs * 1000.0)
    {
        pollfd entry{fd, POLLIN, 0};
        if (poll(&entry, 1, 100) <= 0) continue;
        const ssize_t n = read(fd, buffer, sizeof buffer);
        if (n <= 0) break;
        seen.append(buffer, size_t(n));
    }
    return seen;
}

// A free TCP port on the loopback address, for the host's own script server.
uint16_t FreePort()
{
    uint16_t port = 0;
    const int fd = RemoteBench::ListenLoopback(port);
    if (fd >= 0) close(fd);
    return port == 10251 ? 0 : port;
}

// The demo host on a port of its own, ready, for the life of the object.
struct DemoHost
{
    uint16_t port = FreePort();
    pid_t pid = -1;
    bool ready = false;

    DemoHost()
    {
        int pipeFds[2];
        if (port == 0 || pipe(pipeFds) != 0) return;
        pid = Spawn({ORVEX_DEMO_HOST, "--port", std::to_string(port)}, pipeFds[1]);
        close(pipeFds[1]);
        ready = pid > 0 && ReadUntil(pipeFds[0], "orvexDemo ready").find("ready") != std::string::npos;
        close(pipeFds[0]);
    }
    ~DemoHost()
    {
        if (pid <= 0) return;
        kill(pid, SIGTERM);
        waitpid(pid, nullptr, 0);
    }
};

// One run of the script: the seconds its loop took, or 0 if it failed.
double RunLoopOnce(uint16_t port, bool held)
{
    int pipeFds[2];
    if (pipe(pipeFds) != 0) return 0;
    const pid_t pid = Spawn({ORVEX_FRONT_END, "-p", std::to_string(port), ORVEX_SOURCE_DIR "/bench/add_loop.lua",
                             "calls=" + std::to_string(kCalls), held ? "held=1" : "read=each"},
                            pipeFds[1]);
    close(pipeFds[1]);
    const std::string out = pid > 0 ? ReadUntil(pipeFds[0], "\n") : std::string();
    close(pipeFds[0]);
    int status = 0;
    if (pid > 0) waitpid(pid, &status, 0);
    int calls = 0;
    double seconds = 0;
    if (std::sscanf(out.c_str(), "calls %d seconds %lf", &calls, &seconds) != 2 || calls != kCalls) return 0;
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? seconds : 0;
}

// range(0): 1 reads the member once before the loop, 0 with every call.
void BM_ScriptLoop(benchmark::State &state)
{
    const bool held = state.range(0) != 0;
    DemoHost host;
    if (!host.ready)
    {
        state.SkipWithError("the demo host did not start");
        return;
    }
    double seconds = 0;
    for (auto _ : state)
    {
        const double once = RunLoopOnce(host.port, held);
        if (once <= 0)
        {
            state.SkipWithError("the script failed");
            return;
        }
        state.SetIterationTime(once);
        seconds += once;
    }
    const double calls = double(kCalls) * double(state.iterations());
    state.counters["calls_per_s"] = seconds > 0 ? calls / seconds : 0;
    (held ? g_HeldUsPerCall : g_LoopUsPerCall) = calls > 0 ? seconds * 1e6 / calls : 0;
}

BENCHMARK(BM_RawRoundTrip)->UseRealTime()->MinTime(1.0)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ScriptLoop)->Arg(0)->Arg(1)->UseManualTime()->Iterations(5)->Unit(benchmark::kMillisecond);

void Summary()
{
    if (g_RawP50Us <= 0 || g_LoopUsPerCall <= 0) return;
    std::printf("\nLua loop of %d app:Add(i, 1) calls: %.0f calls/s, %.1f us per call\n", kCalls,
                1e6 / g_LoopUsPerCall, g_LoopUsPerCall);
    std::printf("raw TCP round trip of the same command bytes: p50 %.1f us\n", g_RawP50Us);
    std::printf("one call / one raw round trip: %.2fx (goal: at most 2.2x)\n", g_LoopUsPerCall / g_RawP50Us);
    if (g_HeldUsPerCall > 0)
        std::printf("with the member read once before the loop: %.0f calls/s, %.1f us per call, %.2fx\n",
                    1e6 / g_HeldUsPerCall, g_HeldUsPerCall, g_HeldUsPerCall / g_RawP50Us);
}

} // namespace

int main(int argc, char **argv)
{
    return RunBenchmarksThenSummary(argc, argv, Summary);
}
