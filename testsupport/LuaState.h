// A Lua state for tests, closed when the object goes. Header only: the tests that use it link LuaJIT
// through the library they test.
#pragma once

#include <lua.hpp>

namespace orvexTest
{

class LuaState
{
public:
    explicit LuaState(bool openLibs = false) : m_State(luaL_newstate())
    {
        if (m_State && openLibs) luaL_openlibs(m_State);
    }
    ~LuaState()
    {
        if (m_State) lua_close(m_State);
    }
    LuaState(const LuaState &) = delete;
    LuaState &operator=(const LuaState &) = delete;

    operator lua_State *() const { return m_State; }

private:
    lua_State *m_State;
};

} // namespace orvexTest
