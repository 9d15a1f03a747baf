// Benchmarks of finding an application: how long a client waits from ScriptApp("orvexDemo") to the
// first result of a member call, and what a blocking call costs on the connection made that way.
//
// The hosts are demo hosts (the demo host's objects and main loop) forked by a launcher process that
// the program forks before any thread starts, so that every host begins its life single-threaded and
// with nothing initialised. A host starts the script server itself when none runs on its port (the
// front end beside this program, orvexScript, which must be built).
//
//   BM_RawRoundTrip          the bytes of the command packet of root:Add(1, 2) to a forked echo peer
//                            and back over plain TCP: the baseline of a blocking call.
//   BM_ConnectRunningServer  ScriptApp + the first root:Add with the server and the host running.
//   BM_ConnectOnDemand       no server on the port: a host is launched and its StartScripting starts
//                            the server and registers (the host's own time of StartScripting, from the
//                            call to registered, is the counter host_start_us); then the client's
//                            ScriptApp + first root:Add against the server just started is the timed
//                            part. Stopping the host and waiting for the server's end are not timed.
//   BM_CallAfterScriptApp    root:Add on one connection made by ScriptApp: the socket the client
//                            opened to the server and that the server handed over to the host, so the
//                            same path as the raw round trip, with no relay.
// A summary of the ratios follows.
#include "bench/BenchMain.h"
#include "bench/RemoteBenchSupport.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "examples/demohost/DemoObjects.h"
#include "remote/Packet.h"
#include "remote/RemoteApp.h"
#include "remote/ScriptApp.h"
#include "remote/ScriptWindow.h"
#include "remote/Scripting.h"
#include "values/model/ScriptArgs.h"
#include "values/model/SymbolNumbers.h"

using namespace orvexScript;

namespace
{

constexpr const char *kName = "orvexDemo";
std::map<std::string, double> g_Results; // by name, for the summary

// ---- ports and servers --------------------------------------------------------------------------

// A loopback port free for TCP now (never the well-known one).
uint16_t FreePort()
{
    for (int attempt = 0; attempt < 20; ++attempt)
    {
        uint16_t port = 0;
        const int fd = RemoteBench::ListenLoopback(port);
        if (fd >= 0) close(fd);
        if (port && port != 10251) return port;
    }
    return 0;
}

// Whether a script server for `port` runs (found by its command line: it is no child of ours).
bool ServerRuns(uint16_t port)
{
    const std::string wanted = std::string("-s") + '\0' + "-p" + '\0' + std::to_string(port) + '\0';
    DIR *proc = opendir("/proc");
    if (!proc) return false;
    bool found = false;
    while (dirent *entry = readdir(proc))
    {
        if (entry->d_name[0] < '0' || entry->d_name[0] > '9') continue;
        FILE *file = std::fopen((std::string("/proc/") + entry->d_name + "/cmdline").c_str(), "rb");
        if (!file) continue;
        char buffer[4096];
        const size_t size = std::fread(buffer, 1, sizeof(buffer), file);
        std::fclose(file);
        const std::string line(buffer, size);
        if (line.find("orvexScript") != std::string::npos && line.find(wanted) != std::string::npos) found = true;
    }
    closedir(proc);
    return found;
}

bool WaitForNoServer(uint16_t port)
{
    const RemoteBench::Clock::time_point start = RemoteBench::Clock::now();
    while (ServerRuns(port))
    {
        if (RemoteBench::MicrosecondsSince(start) > RemoteBench::kPeerWaitMs * 1000.0) return false;
        usleep(5000);
    }
    return true;
}

// ---- the host launcher --------------------------------------------------------------------------

// What a launched host reports once its StartScripting has returned.
struct HostReport
{
    int32_t pid = 0;
    int32_t started = 0;    // scripting is active with a script window (registering is proven by the client)
    double startUs = 0;     // its StartScripting, from the call to its return
};

volatile sig_atomic_t s_HostStop = 0;

ScriptObject *DemoRootOf(void *user, void *)
{
    return static_cast<orvexDemo::DemoRoot *>(user);
}

// The life of a host: as the demo host's main, with the time of StartScripting reported on `report`.
[[noreturn]] void RunHost(uint16_t port, int report, pid_t launcher)
{
    struct sigaction action = {};
    action.sa_handler = [](int) { s_HostStop = 1; };
    sigemptyset(&action.sa_mask);
    sigaction(SIGTERM, &action, nullptr);

    static ScriptConfig config;
    config.flags = SCF_Host;
    config.name = kName;
    config.user = new orvexDemo::DemoRoot;
    config.root = DemoRootOf;
    g_ScriptServerPort = port;
    InitScripting(config);
    const RemoteBench::Clock::time_point start = RemoteBench::Clock::now();
    StartScripting(nullptr, nil);
    HostReport done;
    done.startUs = RemoteBench::MicrosecondsSince(start);
    done.pid = getpid();
    done.started = g_ScriptingActive && GetScriptWnd() != nullptr;
    (void)!write(report, &done, sizeof(done));
    int exitCode = 0;
    while (!s_HostStop && getppid() == launcher && GetScriptWnd())
        (void)GetScriptWnd()->Pump(0, 100, exitCode);
    StopScripting();
    _exit(0);
}

// A single-threaded process that forks hosts on request: a port (uint16_t) on its request pipe gives
// one host on that port, which answers on the report pipe. It ends with the request pipe, stopping its
// hosts.
class Launcher
{
public:
    // Ends the launcher (it stops its hosts first) and collects it, within a bounded wait.
    ~Launcher()
    {
        if (m_Pid <= 0) return;
        close(m_Requests);
        close(m_Reports);
        for (int waited = 0; waited < 10000 && waitpid(m_Pid, nullptr, WNOHANG) == 0; ++waited)
            usleep(1000);
        if (kill(m_Pid, 0) == 0)
        {
            kill(m_Pid, SIGKILL);
            waitpid(m_Pid, nullptr, 0);
        }
    }

    bool Start()
    {
        int requests[2], reports[2];
        if (pipe2(requests, O_CLOEXEC) != 0 || pipe2(reports, O_CLOEXEC) != 0) return false;
        std::fflush(nullptr);
        m_Pid = fork();
        if (m_Pid == 0)
        {
            close(requests[1]);
            close(reports[0]);
            Serve(requests[0], reports[1]);
        }
        close(requests[0]);
        close(reports[1]);
        m_Requests = requests[1];
        m_Reports = reports[0];
        return m_Pid > 0;
    }

    // A new host on `port`; false if it did not report within the wait.
    bool Launch(uint16_t port, HostReport &report)
    {
        if (m_Pid <= 0 || write(m_Requests, &port, sizeof(port)) != sizeof(port)) return false;
        pollfd entry{m_Reports, POLLIN, 0};
        if (poll(&entry, 1, 30000) <= 0) return false;
        return read(m_Reports, &report, sizeof(report)) == sizeof(report);
    }

    // Stops a host it launched and waits (bounded) until it has ended.
    static bool Stop(int pid)
    {
        if (pid <= 0 || kill(pid, SIGTERM) != 0) return false;
        const RemoteBench::Clock::time_point start = RemoteBench::Clock::now();
        while (!Ended(pid))
        {
            if (RemoteBench::MicrosecondsSince(start) > RemoteBench::kPeerWaitMs * 1000.0)
            {
                kill(pid, SIGKILL);
                return false;
            }
            usleep(1000);
        }
        return true;
    }

private:
    // Gone, or a zombie the launcher has not collected yet.
    static bool Ended(int pid)
    {
        FILE *file = std::fopen(("/proc/" + std::to_string(pid) + "/stat").c_str(), "r");
        if (!file) return true;
        char buffer[512];
        const size_t size = std::fread(buffer, 1, sizeof(buffer) - 1, file);
        std::fclose(file);
        buffer[size] = 0;
        const char *close = std::strrchr(buffer, ')');
        return !close || close[1] == 0 || close[2] == 'Z' || close[2] == 'X';
    }

    [[noreturn]] static void Serve(int requests, int reports)
    {
        const pid_t self = getpid();
        std::vector<pid_t> hosts; // launched and not yet collected
        auto collect = [&hosts] {
            for (pid_t pid; (pid = waitpid(-1, nullptr, WNOHANG)) > 0;)
                hosts.erase(std::remove(hosts.begin(), hosts.end(), pid), hosts.end());
        };
        for (;;)
        {
            collect();
            pollfd entry{requests, POLLIN, 0};
            if (poll(&entry, 1, 100) == 0) continue;
            uint16_t port = 0;
            if (read(requests, &port, sizeof(port)) != sizeof(port)) break;
            const pid_t host = fork();
            if (host == 0) RunHost(port, reports, self);
            if (host > 0) hosts.push_back(host);
        }
        for (pid_t host : hosts)
            kill(host, SIGTERM);
        for (int waited = 0; waited < 5000 && !hosts.empty(); ++waited)
        {
            usleep(1000);
            collect();
        }
        for (pid_t host : hosts) // uncollected, so the pid is still theirs
            kill(host, SIGKILL);
        for (pid_t host : hosts)
            waitpid(host, nullptr, 0);
        _exit(0);
    }

    pid_t m_Pid = -1;
    int m_Requests = -1;
    int m_Reports = -1;
};

Launcher g_Launcher;

// ---- the client ---------------------------------------------------------------------------------

// This process is a client: a configuration that is no host, and scripting started.
void BecomeClient()
{
    static ScriptConfig config;
    config.name = "ConnectBench";
    InitScripting(config);
    StartScripting(nullptr, nil);
}

// ScriptApp for the demo host and its first root:Add; true if the answer came.
bool ConnectAndAdd(ScriptVal &root)
{
    root = ScriptApp(kName, nullptr, nil, "127.0.0.1", RemoteBench::kPeerWaitMs / 1000.0);
    return root.IsRemoteObject() && root.CallMember("Add", 1, 2) == 3.0;
}

// A host on a port of its own, launched when the benchmark starts and stopped when it ends, with its
// server started on demand.
struct RunningHost
{
    uint16_t port = FreePort();
    HostReport report;
    bool ok = false;

    RunningHost()
    {
        g_ScriptServerPort = port;
        ok = port && g_Launcher.Launch(port, report) && report.started;
    }
    ~RunningHost()
    {
        Launcher::Stop(report.pid);
        WaitForNoServer(port);
    }
};

// ---- the benchmarks -----------------------------------------------------------------------------

// The bytes of the PKT_Command of root:Add(1, 2).
const std::vector<unsigned char> &AddBytes()
{
    static std::vector<unsigned char> bytes;
    if (bytes.empty())
    {
        ScriptArgs args;
        args[0] = "Add";
        args[1] = 1.0;
        args[2] = 2.0;
        if (Packet *packet = ToPacket(static_cast<PacketObjects *>(nullptr), 1, SST_CallMemberFunction, nullptr,
                                      &args))
        {
            const auto *raw = reinterpret_cast<const unsigned char *>(packet);
            bytes.assign(raw, raw + packet->m_Size);
            FreePkt(packet);
        }
    }
    return bytes;
}

void BM_RawRoundTrip(benchmark::State &state)
{
    RemoteBench::ForkedPeer &peer = RemoteBench::EchoPeer();
    const int fd = peer.Running() ? RemoteBench::ConnectLoopback(peer.Port()) : -1;
    if (fd < 0 || AddBytes().empty())
    {
        state.SkipWithError("no echo peer");
        return;
    }
    std::vector<unsigned char> reply;
    RemoteBench::Percentiles times;
    for (auto _ : state)
    {
        const RemoteBench::Clock::time_point start = RemoteBench::Clock::now();
        if (!RemoteBench::RawRoundTrip(fd, AddBytes(), reply))
        {
            state.SkipWithError("the echo failed");
            break;
        }
        times.Add(RemoteBench::MicrosecondsSince(start));
    }
    close(fd);
    times.Report(state);
    g_Results["raw p50 us"] = times.At(0.50);
    g_Results["raw p99 us"] = times.At(0.99);
}

void BM_ConnectRunningServer(benchmark::State &state)
{
    RunningHost host;
    if (!host.ok)
    {
        state.SkipWithError("no host");
        return;
    }
    RemoteBench::Percentiles times;
    for (auto _ : state)
    {
        ScriptVal root;
        const RemoteBench::Clock::time_point start = RemoteBench::Clock::now();
        const bool ok = ConnectAndAdd(root);
        times.Add(RemoteBench::MicrosecondsSince(start));
        if (!ok)
        {
            state.SkipWithError("the connect failed");
            break;
        }
    }
    times.Report(state);
    g_Results["connect running p50 us"] = times.At(0.50);
    g_Results["connect running p99 us"] = times.At(0.99);
}

void BM_ConnectOnDemand(benchmark::State &state)
{
    RemoteBench::Percentiles client, hostStart;
    for (auto _ : state)
    {
        const uint16_t port = FreePort();
        HostReport report;
        if (!port || ServerRuns(port) || !g_Launcher.Launch(port, report) || !report.started)
        {
            state.SkipWithError("no host");
            break;
        }
        g_ScriptServerPort = port;
        ScriptVal root;
        const RemoteBench::Clock::time_point start = RemoteBench::Clock::now();
        const bool ok = ConnectAndAdd(root);
        const double us = RemoteBench::MicrosecondsSince(start);
        state.SetIterationTime(us / 1e6);
        root = nil;
        Launcher::Stop(report.pid);
        if (!ok || !WaitForNoServer(port))
        {
            state.SkipWithError(ok ? "the server did not end" : "the connect failed");
            break;
        }
        client.Add(us);
        hostStart.Add(report.startUs);
    }
    client.Report(state);
    state.counters["host_start_p50_us"] = hostStart.At(0.50);
    state.counters["host_start_p99_us"] = hostStart.At(0.99);
    g_Results["connect on demand p50 us"] = client.At(0.50);
    g_Results["connect on demand p99 us"] = client.At(0.99);
    g_Results["host start p50 us"] = hostStart.At(0.50);
    g_Results["host start p99 us"] = hostStart.At(0.99);
}

void BM_CallAfterScriptApp(benchmark::State &state)
{
    RunningHost host;
    ScriptVal root;
    if (!host.ok || !ConnectAndAdd(root))
    {
        state.SkipWithError("no host");
        return;
    }
    RemoteBench::Percentiles times;
    for (auto _ : state)
    {
        const RemoteBench::Clock::time_point start = RemoteBench::Clock::now();
        ScriptVal result = root.CallMember("Add", 1, 2);
        times.Add(RemoteBench::MicrosecondsSince(start));
        if (result != 3.0)
        {
            state.SkipWithError("the call failed");
            break;
        }
    }
    times.Report(state);
    g_Results["call p50 us"] = times.At(0.50);
    g_Results["call p99 us"] = times.At(0.99);
}

BENCHMARK(BM_RawRoundTrip)->UseRealTime()->MinTime(1.0)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ConnectRunningServer)->UseRealTime()->Iterations(300)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ConnectOnDemand)->UseManualTime()->Iterations(20)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CallAfterScriptApp)->UseRealTime()->MinTime(1.0)->Unit(benchmark::kMicrosecond);

void PrintSummary()
{
    auto get = [](const std::string &name) { return g_Results.count(name) ? g_Results[name] : 0.0; };
    auto ratio = [](double a, double b) { return b > 0 ? a / b : 0.0; };
    const double raw = get("raw p50 us");
    std::printf("\nSummary\n");
    if (raw > 0)
        std::printf("  raw TCP round trip of the %zu-byte root:Add command packet: p50 %.1f us, p99 %.1f us\n",
                    AddBytes().size(), raw, get("raw p99 us"));
    if (get("call p50 us") > 0)
        std::printf("  root:Add on a connection made by ScriptApp (handed-over socket, no relay): p50 %.1f us, "
                    "p99 %.1f us; p50 x%.2f of raw p50, p99 x%.2f of raw p50\n",
                    get("call p50 us"), get("call p99 us"), ratio(get("call p50 us"), raw),
                    ratio(get("call p99 us"), raw));
    if (get("connect running p50 us") > 0)
        std::printf("  ScriptApp to the first result, server running: p50 %.1f us, p99 %.1f us; p50 x%.1f of "
                    "raw p50\n",
                    get("connect running p50 us"), get("connect running p99 us"),
                    ratio(get("connect running p50 us"), raw));
    if (get("connect on demand p50 us") > 0)
    {
        std::printf("  ScriptApp to the first result, server just started by the host: p50 %.1f us, p99 %.1f us; "
                    "x%.2f of the running case\n",
                    get("connect on demand p50 us"), get("connect on demand p99 us"),
                    ratio(get("connect on demand p50 us"), get("connect running p50 us")));
        std::printf("  the host's StartScripting to registered, starting the server: p50 %.1f ms, p99 %.1f ms; "
                    "x%.0f of the client's connect with the server running\n",
                    get("host start p50 us") / 1e3, get("host start p99 us") / 1e3,
                    ratio(get("host start p50 us"), get("connect running p50 us")));
    }
}

} // namespace

int main(int argc, char **argv)
{
    // Both forks come before any thread: the echo peer and the launcher of hosts.
    RemoteBench::EchoPeer();
    if (!g_Launcher.Start()) std::fprintf(stderr, "ConnectBench: no launcher\n");
    BecomeClient();
    return RunBenchmarksThenSummary(argc, argv, PrintSummary);
}
