// The base opening of a Lua state: standard libraries, LPeg in package.preload and the global `lpeg`,
// and the loaders of the optional toolkit library (user interface, imaging and canvas bindings).
#include "languages/lua/LuaBase.h"

#include <lua.hpp>

#include <cstdlib>
#include <mutex>

#include "languages/lua/DynamicLibrary.h"
#include "values/model/ScriptObject.h"

extern "C" int luaopen_lpeg(lua_State *state);

namespace orvexScript
{

namespace
{

// An object without a Lua form of its own pushes nil. Installed before main, since the value layer
// that calls it includes no Lua header.
int PushNilOnStack(lua_State *state)
{
    lua_pushnil(state);
    return 1;
}

struct InstallPushNil
{
    InstallPushNil() { LuaClass::SetPushNil(&PushNilOnStack); }
} s_InstallPushNil;

const char *const kDefaultToolkitLibrary = "libiuplua.so";
const char *const kToolkitEnvironment = "ORVEXSCRIPT_TOOLKIT_LIB";

// The modules the toolkit library may export, each as "luaopen_" + name, in the order they are offered.
const char *const kToolkitModules[] = {
    "iuplua",     "iupluaimglib",  "iupluagl",          "iupluaole",      "iuplua_scintilla", "iupluatuio",
    "iupluaweb",  "iupluacd",      "iupluacontrols",    "iuplua_mglplot", "iuplua_pplot",     "imlua",
    "imlua_fftw", "imlua_process", "imlua_process_omp", "cdlua",          "cdluacontextplus", "cdluagl",
    "cdluaim",    "cdluapdf",
};

// Only these are required during the opening; the others wait for a script's own require.
const char *const kToolkitRequiredAtOnce[] = {"iuplua", "iupluacontrols"};

std::mutex s_ToolkitLock;
std::string s_ToolkitLibrary = kDefaultToolkitLibrary;

// Calls require(name) under lua_pcall and leaves its one result, or the error message, on the stack.
int RequireProtected(lua_State *state, const char *name)
{
    lua_getglobal(state, "require");
    lua_pushstring(state, name);
    return lua_pcall(state, 1, 1, 0);
}

void OpenLpeg(lua_State *state, int preload)
{
    lua_pushcfunction(state, luaopen_lpeg);
    lua_setfield(state, preload, "lpeg");
    RequireProtected(state, "lpeg");
    lua_setglobal(state, "lpeg");
}

// Puts a loader into package.preload for each module the toolkit library exports; false if the library
// can't be loaded.
bool OfferToolkitModules(lua_State *state, int preload)
{
    const std::string name = ToolkitLibraryName();
    void *library = OpenDynamicLibrary(name.c_str());
    if (library == nullptr) return false;
    for (const char *module : kToolkitModules)
    {
        const std::string symbol = std::string("luaopen_") + module;
        void *opener = FindDynamicSymbol(library, symbol.c_str());
        if (opener == nullptr) continue;
        lua_pushcfunction(state, reinterpret_cast<lua_CFunction>(opener));
        lua_setfield(state, preload, module);
    }
    return true;
}

void OpenToolkit(lua_State *state, int preload)
{
    if (!OfferToolkitModules(state, preload)) return;
    for (const char *module : kToolkitRequiredAtOnce)
    {
        RequireProtected(state, module);
        lua_pop(state, 1); // the module, or an error that an optional module may well raise
    }
}

} // namespace

void SetToolkitLibrary(const char *name)
{
    std::lock_guard<std::mutex> hold(s_ToolkitLock);
    s_ToolkitLibrary = name != nullptr ? name : kDefaultToolkitLibrary;
}

std::string ToolkitLibraryName()
{
    const char *fromEnvironment = getenv(kToolkitEnvironment);
    if (fromEnvironment != nullptr && *fromEnvironment != '\0') return fromEnvironment;
    std::lock_guard<std::mutex> hold(s_ToolkitLock);
    return s_ToolkitLibrary;
}

void OpenBaseLibs(lua_State *state)
{
    const int top = lua_gettop(state);
    luaL_openlibs(state);
    lua_getglobal(state, "package");
    lua_getfield(state, -1, "preload");
    const int preload = lua_gettop(state);
    OpenLpeg(state, preload);
    OpenToolkit(state, preload);
    lua_settop(state, top);
}

} // namespace orvexScript
