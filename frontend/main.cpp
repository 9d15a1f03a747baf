// orvexScript: the command line front end. `orvexScript FILE [ARGS...]` runs a Lua script;
// `orvexScript -s [-p PORT] [-l]` runs the machine's script server.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "languages/lua/RunScript.h"
#include "remote/RemoteApp.h"
#include "remote/ScriptApp.h"
#include "remote/ScriptServer.h"

static void PrintUsage(FILE *to)
{
    fputs("usage: orvexScript FILE [ARGS...]\n"
          "       orvexScript -s [-p PORT] [-l]\n"
          "  Runs the Lua script FILE. An argument name=value is passed as arg.name = \"value\";\n"
          "  any other argument is numbered in arg[1], arg[2], ... and counted in arg.n.\n"
          "  Exit status: the number the script returns, 254 if FILE can't be read or compiled,\n"
          "  255 if the script raised an error.\n"
          "  -s runs the script server, at TCP and UDP port 10251 or PORT; -l lets it accept\n"
          "  connections and pings from this machine only. It ends by itself when its last\n"
          "  connection has gone; exit status 1 if it can't bind the port (a server runs already).\n",
          to);
}

static int RunServer(int argc, char **argv)
{
    for (int i = 2; i < argc; ++i)
    {
        if (strcmp(argv[i], "-p") == 0 && i + 1 < argc)
        {
            char *end = nullptr;
            const unsigned long port = strtoul(argv[++i], &end, 10);
            if (!end || *end || port == 0 || port > 65535)
            {
                fprintf(stderr, "orvexScript: bad port '%s'\n", argv[i]);
                return 2;
            }
            orvexScript::g_ScriptServerPort = static_cast<unsigned short>(port);
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
    return RunScript(argv[1], argv + 2);
}
