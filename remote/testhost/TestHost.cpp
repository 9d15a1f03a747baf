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
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include "remote/RemoteApp.h"
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
        else
        {
            std::fprintf(stderr, "usage: %s [--no-window] [--port N] | --connect PORT [--items N]\n", argv[0]);
            return 2;
        }
    }
    std::signal(SIGTERM, OnSignal);
    std::signal(SIGINT, OnSignal);

    auto *root = new testhost::Root;
    static ScriptConfig config;
    config.flags = SCF_Host;
    config.name = "orvexTestHost";
    config.user = root;
    config.root = RootOf;
    InitScripting(config);
    if (connectPort) return RunClient(static_cast<uint16_t>(connectPort), items);
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
