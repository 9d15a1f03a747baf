// orvexScript: the command line front end. `orvexScript FILE [ARGS...]` runs a Lua script.
#include <cstdio>
#include <cstring>

#include "languages/lua/RunScript.h"

static void PrintUsage(FILE *to)
{
    fputs("usage: orvexScript FILE [ARGS...]\n"
          "  Runs the Lua script FILE. An argument name=value is passed as arg.name = \"value\";\n"
          "  any other argument is numbered in arg[1], arg[2], ... and counted in arg.n.\n"
          "  Exit status: the number the script returns, 254 if FILE can't be read or compiled,\n"
          "  255 if the script raised an error.\n",
          to);
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
    return RunScript(argv[1], argv + 2);
}
