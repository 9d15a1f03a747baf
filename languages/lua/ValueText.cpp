// Value texts on the script Lua: loadstringval, and ScriptVal::FromTextByName, which runs a text of
// statements in a throw-away LuaJIT state (base library, MemBlock, HexData, ordered) and converts one
// global with FromLua.
#include "languages/lua/ValueText.h"

#include <lua.hpp>

#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "languages/lua/LuaBridge.h"
#include "languages/lua/LuaGuard.h"
#include "values/model/ScriptVal.h"

namespace orvexScript
{

namespace
{

// The pieces of one chunk, handed to lua_load in turn.
struct Pieces
{
    const char *text[3];
    size_t length[3];
    int next = 0;
};

const char *ReadPieces(lua_State *, void *data, size_t *size)
{
    auto *pieces = static_cast<Pieces *>(data);
    while (pieces->next < 3)
    {
        const int i = pieces->next++;
        if (pieces->length[i])
        {
            *size = pieces->length[i];
            return pieces->text[i];
        }
    }
    *size = 0;
    return nullptr;
}

void Alert(lua_State *L, const char *message)
{
    lua_getglobal(L, "_ALERT");
    if (lua_isfunction(L, -1))
    {
        lua_pushstring(L, message);
        if (lua_pcall(L, 1, 0, 0) == 0) return;
    }
    std::fprintf(stderr, "%s\n", message);
    lua_pop(L, 1);
}

// Converts its argument into the ScriptVal of its upvalue; under a protected call, as FromLua raises
// an error for values it has no form for.
ORVEX_LUA_FUNCTION(ConvertArgument)
{
    auto *out = static_cast<ScriptVal *>(lua_touserdata(L, lua_upvalueindex(1)));
    lua_pushboolean(L, FromLua(L, 1, *out));
    return 1;
}

void CopyOut(char *buffer, int size, const char *text)
{
    if (!buffer || size <= 0) return;
    std::strncpy(buffer, text ? text : "", static_cast<size_t>(size));
    buffer[size - 1] = '\0';
}

const char kOrderedDefinition[] =
    "include = dofile\nfunction ordered()\n  sethashstate(0)\n\treturn function(t) return t; end\nend\n";

} // namespace

int loadstringval(lua_State *L, const char *text, int length, const char *chunkName, const char *prefix,
                  const char *suffix)
{
    std::setlocale(LC_ALL, "C");
    Pieces pieces;
    pieces.text[0] = prefix ? prefix : "return ";
    pieces.text[1] = text ? text : "";
    pieces.text[2] = suffix ? suffix : "";
    pieces.length[0] = std::strlen(pieces.text[0]);
    pieces.length[1] = length < 0 ? std::strlen(pieces.text[1]) : static_cast<size_t>(length);
    pieces.length[2] = std::strlen(pieces.text[2]);
    return lua_load(L, ReadPieces, &pieces, chunkName ? chunkName : "loadstringval");
}

bool ScriptVal::FromTextByName(const char *text, const char *name, char *errorBuffer, int errorSize, bool freeText)
{
    CleanUp();
    std::string chunkName = "FromText";
    if (errorBuffer && errorSize > 0)
    {
        const size_t n = strnlen(errorBuffer, static_cast<size_t>(errorSize));
        if (n) chunkName.assign(errorBuffer, n);
    }
    lua_State *L = luaL_newstate();
    if (!L)
    {
        if (freeText) std::free(const_cast<char *>(text));
        CopyOut(errorBuffer, errorSize, "not enough memory");
        return false;
    }
    lua_pushcfunction(L, luaopen_base);
    lua_call(L, 0, 0);
    lua_settop(L, 0);
    OpenMemBlock(L); // MemBlock and HexData, both giving block userdata
    if (luaL_loadbuffer(L, kOrderedDefinition, sizeof kOrderedDefinition - 1, "=ordered") != 0 ||
        lua_pcall(L, 0, 0, 0) != 0)
    {
        Alert(L, lua_tostring(L, -1));
        lua_settop(L, 0);
    }

    // The prologue without its closing "return ", the statements, then on a line of its own the named
    // global, so that a text whose last line has no line end still reads.
    const char *prologue = GetSerializePrologue();
    const std::string front(prologue, std::strlen(prologue) - std::strlen("return "));
    char tail[300];
    std::snprintf(tail, sizeof tail, "\nreturn %s", name ? name : "");
    const int status = loadstringval(L, text, -1, chunkName.c_str(), front.c_str(), tail);
    if (freeText) std::free(const_cast<char *>(text));
    bool ok = false;
    if (status == 0 && lua_pcall(L, 0, 1, 0) == 0)
    {
        lua_gc(L, LUA_GCCOLLECT, 0);
        const int result = lua_gettop(L);
        lua_pushlightuserdata(L, this);
        lua_pushcclosure(L, ConvertArgument, 1);
        lua_pushvalue(L, result);
        if (lua_pcall(L, 1, 1, 0) == 0)
        {
            ok = lua_toboolean(L, -1) != 0;
            lua_settop(L, result);
        }
    }
    const int top = lua_type(L, -1);
    CopyOut(errorBuffer, errorSize, top == LUA_TSTRING || top == LUA_TNUMBER ? lua_tostring(L, -1) : "");
    if (!ok) CleanUp();
    lua_close(L);
    return ok;
}

} // namespace orvexScript
