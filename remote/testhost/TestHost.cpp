// The test host: a program that tests start as a real child process. It makes scripting's
// configuration with a Root (see HostObjects.h), listens on a loopback port, wraps every accepted
// socket in a connection and serves commands on its main thread through the script window.
//   orvexTestHost [--no-window] [--port N]
// Prints "PORT <n>" on a line of its own once it listens, then serves until SIGTERM or SIGINT, or
// until standard input reaches its end (the test that started it went away).
//   orvexTestHost --connect PORT [--items N]
// The client mode: connects to 127.0.0.1:PORT, makes N items (3 by default) on the peer's root and
// keeps their proxies, has the peer's root keep an item of its own, prints "READY <n>" with the
// peer's objects it holds, then waits as above.
//   orvexTestHost --register NAME --server-port PORT [--priority SUBTYPE=N]... [--password P]
//                 [--max-seconds S]
// The application mode: registers as NAME with the script server at 127.0.0.1:PORT (info Name,
// ProcessID, UUID, SupportsNewConnect and the priorities given), prints "REGISTERED <uuid>" and serves
// the clients the server hands over on its main thread. With --password, a client must first call
// __Login("user", P). Ends on SIGTERM or SIGINT, at the end of standard input if that is a pipe, or
// after S seconds (60 by default), whichever comes first.
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

#include "objects/ObjectHooks.h"
#include "remote/RemoteApp.h"
#include "remote/ScriptApp.h"
#include "remote/ScriptWindow.h"
#include "remote/Scripting.h"
#include "remote/SocketIo.h"
#include "remote/testhost/HostObjects.h"

using namespace orvexScript;

namespace
{
std::atomic<bool> s_Stop{false};

void OnSignal(int)
{
    s_Stop.store(true);
}

ScriptObject *RootOf(void *user, void *)
{
    return static_cast<testhost::Root *>(user);
}

// The end of standard input stops the program.
void WatchStdin()
{
    std::thread([] {
        while (std::getchar() != EOF)
        {
        }
        s_Stop.store(true);
    }).detach();
}

bool StdinIsPipe()
{
    struct stat info{};
    return fstat(0, &info) == 0 && S_ISFIFO(info.st_mode);
}

const char *s_Password = nullptr;

bool CheckLogin(void *, RemoteApp *, const char *user, const char *password)
{
    return std::strcmp(user, "user") == 0 && std::strcmp(password, s_Password) == 0;
}

int RunRegistered(const char *name, uint16_t port, const std::vector<std::string> &priorities,
                  double maxSeconds)
{
    if (!CreateScriptWindow())
    {
        std::fprintf(stderr, "orvexTestHost: no script window\n");
        return 1;
    }
    AddConnectMembers(GetRootObject()->GetScriptInfo());
    if (s_Password) SetLoginHook(CheckLogin, nullptr);
    g_ScriptServerPort = port;
    ScriptVal server = ScriptApp("", nullptr, nil, "127.0.0.1", 5.0);
    ScriptVal info(SV_Table, nullptr);
    info.FindKey("Name") = ScriptVal(name);
    info.FindKey("ProcessID") = ScriptVal(static_cast<double>(getpid()));
    info.FindKey("UUID") = GetAppUUID();
    info.FindKey("SupportsNewConnect") = ScriptVal(true);
    if (!priorities.empty())
    {
        ScriptVal &table = info.FindKey("Priorities");
        table = ScriptVal(SV_Table, nullptr);
        for (const std::string &pair : priorities)
        {
            const size_t equals = pair.find('=');
            if (equals != std::string::npos)
                table.FindKey(pair.substr(0, equals).c_str()) =
                    ScriptVal(std::strtod(pair.c_str() + equals + 1, nullptr));
        }
    }
    if (server.IsNil() || !server.CallMember("AddHost", info).ToBoolean())
    {
        std::fprintf(stderr, "orvexTestHost: cannot register with the server at port %u\n",
                     static_cast<unsigned>(port));
        return 1;
    }
    std::printf("REGISTERED %s\n", GetAppUUID().ToString(""));
    std::fflush(stdout);
    if (StdinIsPipe()) WatchStdin();
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(maxSeconds);
    int exitCode = 0;
    while (!s_Stop.load() && std::chrono::steady_clock::now() < end)
        (void)GetScriptWnd()->Pump(0, 100, exitCode);
    std::_Exit(0);
}

int RunClient(uint16_t port, unsigned items)
{
    auto *app = new RemoteApp;
    app->Use();
    app->SetHost("127.0.0.1");
    g_ScriptServerPort = port;
    if (!app->Connect())
    {
        std::fprintf(stderr, "orvexTestHost: cannot connect to port %u\n", static_cast<unsigned>(port));
        return 1;
    }
    ScriptVal root = app->FindRemoteObject(GlobalObjectTable::kRootId);
    std::vector<ScriptVal> kept;
    for (unsigned i = 0; i < items; ++i)
    {
        char name[32];
        std::snprintf(name, sizeof(name), "client-%u", i);
        kept.push_back(root.CallMember("Make", name));
    }
    auto *own = new testhost::Item("client's own");
    (void)root.CallMember("Keep", ScriptVal(static_cast<ScriptObject *>(own)));
    own->DecRef(); // the peer's hold keeps it
    std::printf("READY %u\n", app->GetRemoteObjectCount());
    std::fflush(stdout);
    WatchStdin();
    while (!s_Stop.load())
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    std::_Exit(0);
}
} // namespace

int main(int argc, char **argv)
{
    bool window = true;
    unsigned port = 0;
    unsigned connectPort = 0;
    unsigned items = 3;
    const char *registerName = nullptr;
    unsigned serverPort = 0;
    std::vector<std::string> priorities;
    double maxSeconds = 60.0;
    for (int i = 1; i < argc; ++i)
    {
        if (std::strcmp(argv[i], "--no-window") == 0)
            window = false;
        else if (std::strcmp(argv[i], "--port") == 0 && i + 1 < argc)
            port = static_cast<unsigned>(std::strtoul(argv[++i], nullptr, 10));
        else if (std::strcmp(argv[i], "--connect") == 0 && i + 1 < argc)
            connectPort = static_cast<unsigned>(std::strtoul(argv[++i], nullptr, 10));
        else if (std::strcmp(argv[i], "--items") == 0 && i + 1 < argc)
            items = static_cast<unsigned>(std::strtoul(argv[++i], nullptr, 10));
        else if (std::strcmp(argv[i], "--register") == 0 && i + 1 < argc)
            registerName = argv[++i];
        else if (std::strcmp(argv[i], "--server-port") == 0 && i + 1 < argc)
            serverPort = static_cast<unsigned>(std::strtoul(argv[++i], nullptr, 10));
        else if (std::strcmp(argv[i], "--priority") == 0 && i + 1 < argc)
            priorities.emplace_back(argv[++i]);
        else if (std::strcmp(argv[i], "--password") == 0 && i + 1 < argc)
            s_Password = argv[++i];
        else if (std::strcmp(argv[i], "--max-seconds") == 0 && i + 1 < argc)
            maxSeconds = std::strtod(argv[++i], nullptr);
        else
        {
            std::fprintf(stderr,
                         "usage: %s [--no-window] [--port N] | --connect PORT [--items N] | --register NAME "
                         "--server-port PORT [--priority SUBTYPE=N]... [--password P] [--max-seconds S]\n",
                         argv[0]);
            return 2;
        }
    }
    std::signal(SIGTERM, OnSignal);
    std::signal(SIGINT, OnSignal);

    auto *root = new testhost::Root;
    static ScriptConfig config;
    config.flags = SCF_Host;
    config.name = registerName ? registerName : "orvexTestHost";
    config.user = root;
    config.root = RootOf;
    InitScripting(config);
    if (connectPort) return RunClient(static_cast<uint16_t>(connectPort), items);
    if (registerName)
        return RunRegistered(registerName, static_cast<uint16_t>(serverPort), priorities, maxSeconds);
    if (window && !CreateScriptWindow())
    {
        std::fprintf(stderr, "orvexTestHost: no script window\n");
        return 1;
    }

    int listenFd = SocketIo::kNoFd;
    uint16_t bound = 0;
    if (!SocketIo::ListenLoopback(static_cast<uint16_t>(port), listenFd, bound))
    {
        std::fprintf(stderr, "orvexTestHost: cannot listen on port %u\n", port);
        return 1;
    }
    std::printf("PORT %u\n", static_cast<unsigned>(bound));
    std::fflush(stdout);

    std::thread acceptor([listenFd] {
        while (!s_Stop.load())
        {
            int fd = SocketIo::kNoFd;
            if (SocketIo::Accept(listenFd, 100, fd) == SocketIo::IO_Ok) new RemoteApp(fd); // lives by its counts
        }
    });
    WatchStdin();

    int exitCode = 0;
    while (!s_Stop.load())
    {
        if (window)
            (void)GetScriptWnd()->Pump(0, 100, exitCode);
        else
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    acceptor.join();
    SocketIo::CloseFd(listenFd);
    std::_Exit(0); // connections may still run; the process ends without unwinding them
}
