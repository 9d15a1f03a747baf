// A stand-in for the optional toolkit library, for tests: it exports the openers of two of the
// toolkit's modules, "iuplua" and "cdlua", and nothing else. The Lua functions come from the process
// that loads it.
#include <lua.hpp>

#define FAKE_EXPORT extern "C" __attribute__((visibility("default")))

// Opens a module table {name = ...} and counts the opening in the global fake_toolkit_opened.
static int OpenFakeModule(lua_State *state, const char *name)
{
    lua_getglobal(state, "fake_toolkit_opened");
    const lua_Integer opened = lua_tointeger(state, -1);
    lua_pop(state, 1);
    lua_pushinteger(state, opened + 1);
    lua_setglobal(state, "fake_toolkit_opened");
    lua_newtable(state);
    lua_pushstring(state, name);
    lua_setfield(state, -2, "name");
    return 1;
}

FAKE_EXPORT int luaopen_iuplua(lua_State *state)
{
    OpenFakeModule(state, "fake iuplua");
    lua_pushvalue(state, -1);
    lua_setglobal(state, "iup");
    return 1;
}

FAKE_EXPORT int luaopen_cdlua(lua_State *state)
{
    return OpenFakeModule(state, "fake cdlua");
}
