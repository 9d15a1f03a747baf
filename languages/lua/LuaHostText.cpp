// The value text functions of the library table `orvex`: readfile, writefile, readstring, writestring.
// Until values can be written as text here they fail: reads give nil, writefile false, writestring nil.
#include "languages/lua/LuaGuard.h"
#include "languages/lua/LuaHostInternal.h"

namespace orvexScript
{

namespace
{

ORVEX_LUA_FUNCTION(orvex_readfile)
{
    lua_pushnil(L);
    return 1;
}

ORVEX_LUA_FUNCTION(orvex_writefile)
{
    lua_pushboolean(L, false);
    return 1;
}

ORVEX_LUA_FUNCTION(orvex_readstring)
{
    lua_pushnil(L);
    return 1;
}

ORVEX_LUA_FUNCTION(orvex_writestring)
{
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
