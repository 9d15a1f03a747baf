// orvexScript: the command line front end. `orvexScript [-p PORT] FILE [ARGS...]` runs a Lua script;
// `orvexScript -s [-p PORT] [-l]` runs the machine's script server.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "languages/lua/RunScript.h"
#include "remote/RemoteApp.h"
#include "remote/ScriptApp.h"
#include "remote/ScriptServer.h"
#include "remote/Scripting.h"

static void PrintUsage(FILE *to)
{
    fputs("usage: orvexScript [-p PORT] FILE [ARGS...]\n"
          "       orvexScript -s [-p PORT] [-l]\n"
          "  Runs the Lua script FILE. An argument name=value is passed as arg.name = \"value\";\n"
          "  any other argument is numbered in arg[1], arg[2], ... and counted in arg.n.\n"
          "  -p: the script finds applications through the script server at PORT (default 10251).\n"
          "  Exit status: the number the script returns, 254 if FILE can't be read or compiled,\n"
          "  255 if the script raised an error.\n"
          "  -s runs the script server, at TCP and UDP port 10251 or PORT; -l lets it accept\n"
          "  connections and pings from this machine only. It ends by itself when its last\n"
          "  connection has gone; exit status 1 if it can't bind the port (a server runs already).\n",
          to);
}

// Sets g_ScriptServerPort from the text; false (with a message) for anything but 1 to 65535.
static bool SetPort(const char *text)
{
    char *end = nullptr;
    const unsigned long port = strtoul(text, &end, 10);
    if (!end || *end || port == 0 || port > 65535)
    {
        fprintf(stderr, "orvexScript: bad port '%s'\n", text);
        return false;
    }
    orvexScript::g_ScriptServerPort = static_cast<unsigned short>(port);
    return true;
}

static int RunServer(int argc, char **argv)
{
    for (int i = 2; i < argc; ++i)
    {
        if (strcmp(argv[i], "-p") == 0 && i + 1 < argc)
        {
            if (!SetPort(argv[++i])) return 2;
        }
        else if (strcmp(argv[i], "-l") == 0)
            orvexScript::SetLoopbackOnly(true);
        else
        {
            PrintUsage(stderr);
            return 2;
        }
    }
    return orvexScript::ScriptServerMain(nullptr, nullptr);
}

// A script run is a process with scripting started but no host: it registers nothing and has no
// script window, so its connections run the commands of peers on their own threads. Started, the
// connects of the script don't wait for a start that never comes.
static int RunScriptFile(char *file, char **arguments)
{
    orvexScript::StartScripting(nullptr, orvexScript::nil);
    const int result = RunScript(file, arguments);
    orvexScript::CleanupScripting();
    return result;
}

int main(int argc, char **argv)
{
    if (argc < 2)
    {
        PrintUsage(stderr);
        return 2;
    }
    if (strcmp(argv[1], "-h") == 0 || strcmp(argv[1], "--help") == 0)
    {
        PrintUsage(stdout);
        return 0;
    }
    if (strcmp(argv[1], "-s") == 0) return RunServer(argc, argv);
    int first = 1;
    if (strcmp(argv[1], "-p") == 0)
    {
        if (argc < 4)
        {
            PrintUsage(stderr);
            return 2;
        }
        if (!SetPort(argv[2])) return 2;
        first = 3;
    }
    return RunScriptFile(argv[first], argv + first + 1);
}
