// orvexDemoHost: a small host application that scripts and remote peers can drive. It registers with
// the machine's script server as "orvexDemo" (starting the server if none runs) and serves commands on
// its main thread by pumping the script window. Its objects are in DemoObjects.h.
//
//   orvexDemoHost [--name NAME] [--port PORT]
//
// --name registers under another application name; --port talks to a script server on another port
// than the default 10251. Once start-up has completed it prints one line, "<name> ready", on standard
// output. SIGINT or SIGTERM ends it: it takes itself out of the server's list and exits with 0. SIGHUP
// stops scripting and starts it again, which registers anew (starting a server if none runs now) and
// prints the ready line again; connections that peers have open go on.
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "examples/demohost/DemoObjects.h"
#include "remote/RemoteApp.h"
#include "remote/ScriptWindow.h"
#include "remote/Scripting.h"
#include "values/model/ScriptVal.h"

using namespace orvexScript;

namespace
{
volatile std::sig_atomic_t s_Stop = 0;
volatile std::sig_atomic_t s_Restart = 0;

void OnSignal(int)
{
    s_Stop = 1;
}

void OnRestart(int)
{
    s_Restart = 1;
}

void SayReady(const char *name)
{
    std::printf("%s ready\n", name);
    std::fflush(stdout);
}

ScriptObject *RootOf(void *user, void *)
{
    return static_cast<orvexDemo::DemoRoot *>(user);
}

int Usage(const char *program)
{
    std::fprintf(stderr, "usage: %s [--name NAME] [--port PORT]\n", program);
    return 2;
}
} // namespace

int main(int argc, char **argv)
{
    const char *name = "orvexDemo";
    for (int i = 1; i < argc; ++i)
    {
        if (std::strcmp(argv[i], "--name") == 0 && i + 1 < argc && argv[i + 1][0])
            name = argv[++i];
        else if (std::strcmp(argv[i], "--port") == 0 && i + 1 < argc)
        {
            char *end = nullptr;
            const unsigned long port = std::strtoul(argv[++i], &end, 10);
            if (!end || *end || port == 0 || port > 65535) return Usage(argv[0]);
            g_ScriptServerPort = static_cast<unsigned short>(port);
        }
        else
            return Usage(argv[0]);
    }

    struct sigaction action = {};
    action.sa_handler = OnSignal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    action.sa_handler = OnRestart;
    sigaction(SIGHUP, &action, nullptr);

    auto *root = new orvexDemo::DemoRoot;
    static ScriptConfig config;
    config.flags = SCF_Host;
    config.name = name;
    config.user = root;
    config.root = RootOf;
    InitScripting(config);
    StartScripting(nullptr, nil);
    if (!GetScriptWnd())
    {
        std::fprintf(stderr, "%s: no script window\n", argv[0]);
        return 1;
    }
    SayReady(name);

    // The main loop: commands of peers run here. The pump wakes at least every 100 ms to see a signal.
    int exitCode = 0;
    bool failed = false;
    while (!s_Stop)
    {
        if (s_Restart)
        {
            s_Restart = 0;
            StopScripting();
            StartScripting(nullptr, nil);
            if (!GetScriptWnd())
            {
                std::fprintf(stderr, "%s: no script window\n", argv[0]);
                failed = true;
                break;
            }
            SayReady(name);
        }
        if (GetScriptWnd()->Pump(0, 100, exitCode) == ScriptWindow::Pump_Quit) break;
    }

    StopScripting();
    root->CloseAll();
    // Peers may still hold proxies of objects here; their connections end with the process.
    return failed ? 1 : 0;
}
