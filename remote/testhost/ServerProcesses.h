// Real processes for the tests of finding applications: a script server (the front end with -s) on
// a port of its own, applications (the test host with --register, or the demo host, which starts the
// server itself) that register with it, and this process made ready to be the client. Header only: it
// uses the test support of the test program.
#pragma once

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "remote/RemoteApp.h"
#include "remote/ScriptApp.h"
#include "remote/Scripting.h"
#include "remote/testhost/HostObjects.h"
#include "testsupport/TestSupport.h"

namespace orvexScript::testhost
{

// A port that is free for TCP and UDP on this machine now (never the well-known one).
inline uint16_t FreeServerPort()
{
    for (int attempt = 0; attempt < 20; ++attempt)
    {
        int tcp = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(address);
        uint16_t port = 0;
        if (bind(tcp, reinterpret_cast<sockaddr *>(&address), sizeof(address)) == 0 &&
            getsockname(tcp, reinterpret_cast<sockaddr *>(&address), &length) == 0)
            port = ntohs(address.sin_port);
        close(tcp);
        int udp = socket(AF_INET, SOCK_DGRAM, 0);
        address.sin_addr.s_addr = htonl(INADDR_ANY);
        const bool udpFree = bind(udp, reinterpret_cast<sockaddr *>(&address), sizeof(address)) == 0;
        close(udp);
        if (port && port != 10251 && udpFree) return port;
    }
    return 0;
}

// This process as a client of the server at `port`: scripting started, pings to the loopback range.
inline void BecomeClient(uint16_t port, const char *name = "ScriptServerTest")
{
    (void)InitTestScripting(name);
    std::atomic_ref<bool>(g_ScriptingActive).store(true);
    g_ScriptServerPort = port;
    SetPingBroadcastAddress("127.255.255.255");
}

// This process as a client the way a script is one: a configuration that is no host, and scripting
// started (no window, no registering), so that named connects go ahead at once.
inline void StartAsClient(uint16_t port, const char *name)
{
    (void)InitTestScripting(name);
    g_ScriptServerPort = port;
    (void)StartScripting(nullptr, nil);
}

// The script servers that serve `port`, found by their command lines: a server a host started is
// detached, so no parent here knows it.
inline std::vector<int> ServersOnPort(uint16_t port)
{
    std::vector<int> pids;
    DIR *proc = opendir("/proc");
    if (!proc) return pids;
    const std::string portText = std::to_string(port);
    while (dirent *entry = readdir(proc))
    {
        if (entry->d_name[0] < '0' || entry->d_name[0] > '9') continue;
        const std::string line = orvexTest::ReadFile(std::string("/proc/") + entry->d_name + "/cmdline");
        std::vector<std::string> argv;
        for (size_t start = 0; start < line.size();)
        {
            const size_t end = line.find('\0', start);
            argv.push_back(line.substr(start, end == std::string::npos ? std::string::npos : end - start));
            if (end == std::string::npos) break;
            start = end + 1;
        }
        const std::string program = argv.empty() ? "" : argv[0].substr(argv[0].find_last_of('/') + 1);
        if (program == "orvexScript" && argv.size() >= 4 && argv[1] == "-s" && argv[2] == "-p" &&
            argv[3] == portText)
            pids.push_back(std::atoi(entry->d_name));
    }
    closedir(proc);
    return pids;
}

// Whether a process that need not be a child of this one has ended: it is gone, or a zombie that its
// parent has not collected yet.
inline bool ProcessEnded(int pid)
{
    const std::string stat = orvexTest::ReadFile("/proc/" + std::to_string(pid) + "/stat");
    const size_t close = stat.rfind(')');
    if (close == std::string::npos) return kill(pid, 0) != 0;
    std::istringstream fields(stat.substr(close + 1));
    std::string state;
    fields >> state;
    return state == "Z" || state == "X";
}

// The one server on `port` once there is one (within `limitMs`); 0 if none or several.
inline int TheServerOn(uint16_t port, int limitMs = 10000)
{
    std::vector<int> pids;
    (void)orvexTest::WaitUntil([&] { return !(pids = ServersOnPort(port)).empty(); }, limitMs);
    return pids.size() == 1 ? pids.front() : 0;
}

// The script server as a child: `orvexScript -s -p PORT -l`. Started once it printed its first line.
struct ServerProcess
{
    explicit ServerProcess(uint16_t port_)
        : port(port_), child({ORVEX_FRONT_END, "-s", "-p", std::to_string(port_), "-l"})
    {
        const std::optional<std::string> line = child.WaitForLine("orvexScript Server [");
        started = line && line->find("Started") != std::string::npos;
        EXPECT_TRUE(started) << (line ? *line : std::string("no line"));
    }
    // The log the server writes when KESCRIPT_LOG_SERVER is "true", in $TMPDIR.
    std::string LogPath(const std::string &folder) const
    {
        return folder + "/orvexScriptServer_" + std::to_string(child.Pid()) + ".log";
    }

    uint16_t port;
    orvexTest::ChildProcess child;
    bool started = false;
};

// An application that registered with the server at `port` under `name`.
struct HostProcess
{
    HostProcess(const std::string &name, uint16_t port, std::vector<std::string> extra = {})
        : child(Arguments(name, port, std::move(extra)))
    {
        const std::optional<std::string> line = child.WaitForLine("REGISTERED ");
        EXPECT_TRUE(line.has_value()) << "the host " << name << " did not register";
        uuid = line.value_or("");
    }
    static std::vector<std::string> Arguments(const std::string &name, uint16_t port,
                                              std::vector<std::string> extra)
    {
        std::vector<std::string> args{ORVEX_TEST_HOST, "--register", name, "--server-port",
                                      std::to_string(port)};
        args.insert(args.end(), extra.begin(), extra.end());
        return args;
    }

    orvexTest::ChildProcess child;
    std::string uuid;
};

#ifdef ORVEX_DEMO_HOST
// The demo host as a child on the server port `port`: with no server there it starts one itself (the
// front end beside it). `ready` once it said so.
struct DemoHostProcess
{
    explicit DemoHostProcess(uint16_t port, std::string name_ = "orvexDemo")
        : name(std::move(name_)), child({ORVEX_DEMO_HOST, "--port", std::to_string(port), "--name", name})
    {
        ready = WaitReady();
        EXPECT_TRUE(ready) << "the demo host " << name << " did not say it was ready";
    }
    // The next "<name> ready" line (after a start or a restart).
    bool WaitReady() { return child.WaitForLine(name + " ready", 60000).has_value(); }

    std::string name;
    orvexTest::ChildProcess child;
    bool ready = false;
};
#endif

// Waits (at most 5 s) when it goes until this process has no connection record left: the records end
// on their own threads once their peers are gone, and must be done before the process exits.
struct RecordsGone
{
    RecordsGone() = default;
    RecordsGone(const RecordsGone &) = delete;
    RecordsGone &operator=(const RecordsGone &) = delete;
    ~RecordsGone()
    {
        EXPECT_TRUE(orvexTest::WaitUntil([] {
            g_AppLock.ObtainLock();
            const bool none = g_AppList == nullptr;
            g_AppLock.ReleaseLock();
            return none;
        })) << "connection records are left: " << Left();
    }
    static std::string Left()
    {
        std::string names;
        g_AppLock.ObtainLock();
        for (RemoteApp *app = g_AppList; app; app = app->m_NextApp)
            names += std::string("'") + app->GetName() + "' uses " + std::to_string(app->GetUseCount()) +
                     (app->Connected() ? " connected; " : "; ");
        g_AppLock.ReleaseLock();
        return names;
    }
};

// The UUID of the application a root proxy leads to, as the server named it.
inline std::string UUIDOf(const ScriptVal &root)
{
    RemoteApp *app = root.GetApp();
    return app ? app->GetUUID().ToString("") : "";
}

} // namespace orvexScript::testhost
