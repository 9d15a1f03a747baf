// The value text functions of the library table `orvex`: readfile, writefile, readstring, writestring.
// Values are written in their text form (a Lua expression that rebuilds them) and read back from it.
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "languages/lua/LuaBridge.h"
#include "languages/lua/LuaGuard.h"
#include "languages/lua/LuaHostInternal.h"
#include "values/base/FileUtil.h"
#include "values/model/ScriptVal.h"

namespace orvexScript
{

namespace
{

struct FreeBlock
{
    void operator()(char *block) const { std::free(block); }
};
using Block = std::unique_ptr<char, FreeBlock>;

std::string Native(const char *path)
{
    std::string out(path);
    for (char &c : out)
        if (c == '\\') c = '/';
    return out;
}

// Reads a value from `text`: by running it and taking the global `name`, or (no name) as a value text
// under the serialize prologue. Pushes the value, or nil if it doesn't read.
void PushValueFromText(lua_State *L, const char *text, const char *name)
{
    ScriptVal value;
    char error[256] = "";
    const bool read = name ? value.FromTextByName(text, name, error, sizeof(error), false)
                           : value.FromText(text, GetSerializePrologue(), error, sizeof(error));
    if (!read || !ToLua(nullptr, L, value)) lua_pushnil(L);
}

// The text form of the value at `index` in a new block, its length in `length`; null if memory fails.
// A value with no ScriptVal form raises FromLua's error.
Block TextOf(lua_State *L, int index, size_t &length)
{
    ScriptVal value;
    (void)FromLua(L, index, value);
    length = value.ToTextLen(0);
    Block text(static_cast<char *>(std::malloc(length + 1)));
    if (text) value.ToText(text.get(), 0);
    return text;
}

const char *NameArgument(lua_State *L, int index)
{
    return lua_type(L, index) == LUA_TSTRING ? lua_tostring(L, index) : nullptr;
}

ORVEX_LUA_FUNCTION(orvex_readfile)
{
    const char *path = lua_isstring(L, 1) ? lua_tostring(L, 1) : nullptr;
    Block text(path ? FileLoadText(Native(path).c_str()) : nullptr);
    if (!text)
    {
        lua_pushnil(L);
        return 1;
    }
    PushValueFromText(L, text.get(), NameArgument(L, 2));
    return 1;
}

ORVEX_LUA_FUNCTION(orvex_writefile)
{
    const char *path = lua_isstring(L, 1) ? lua_tostring(L, 1) : nullptr;
    size_t length = 0;
    Block text = TextOf(L, 2, length);
    FILE *file = path && text ? std::fopen(Native(path).c_str(), "w") : nullptr;
    if (!file)
    {
        lua_pushboolean(L, false);
        return 1;
    }
    const bool whole = std::fwrite(text.get(), 1, length, file) == length;
    const bool closed = std::fclose(file) == 0;
    lua_pushboolean(L, whole && closed);
    return 1;
}

ORVEX_LUA_FUNCTION(orvex_readstring)
{
    const char *text = lua_isstring(L, 1) ? lua_tostring(L, 1) : nullptr;
    if (!text)
    {
        lua_pushnil(L);
        return 1;
    }
    PushValueFromText(L, text, NameArgument(L, 2));
    return 1;
}

ORVEX_LUA_FUNCTION(orvex_writestring)
{
    size_t length = 0;
    Block text = TextOf(L, 1, length);
    if (text)
        lua_pushlstring(L, text.get(), length);
    else
        lua_pushnil(L);
    return 1;
}

} // namespace

void AddTextFunctions(std::vector<luaL_Reg> &functions)
{
    functions.insert(functions.end(), {
                                          {"readfile", orvex_readfile},
                                          {"writefile", orvex_writefile},
                                          {"readstring", orvex_readstring},
                                          {"writestring", orvex_writestring},
                                      });
}

} // namespace orvexScript
