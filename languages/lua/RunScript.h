// The stand-alone entry: run one Lua script file to its end on the calling thread.
#pragma once

#include <cstdint>

#include "values/base/Export.h"

struct lua_State;

// Runs `fileName` with the null-terminated argument array `arguments` (never null, may be empty;
// arguments of the form name=value are split in place). Gives the script's first result truncated to
// an integer if it is a number, else 0; -1 for a run-time error; -2 if the file can't be read or compiled,
// or if `fileName` is null (standard input is never read).
ORVEX_C_API int32_t RunScript(char *fileName, char **arguments);

// A lua_pcall message handler: debug.traceback(message, 2).
ORVEX_C_API int ltraceback(lua_State *state);
