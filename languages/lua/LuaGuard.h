// The exception guard that every lua_CFunction of the library runs its body in: a C++ exception
// becomes a Lua error with its message, while Lua's own errors pass through untouched.
#pragma once

#include <lua.hpp>

#include <exception>

namespace orvexScript
{

// Runs `body(state)` and gives its result count. A std::exception turns into a Lua error carrying
// what(), any other C++ exception into the error "C++ exception". LuaJIT raises its errors as foreign
// exceptions, which a catch (...) also sees: those are rethrown as they are. They are told apart by
// std::current_exception(), which is empty for a foreign exception; the runtime's exception header
// must not be read for one (LuaJIT's exception object has none, so its "type" would be whatever lies
// in front of it).
template <typename Body> int LuaGuard(lua_State *state, Body &&body)
{
    try
    {
        return body(state);
    }
    catch (const std::exception &e)
    {
        lua_pushstring(state, e.what());
    }
    catch (...)
    {
        if (!std::current_exception()) throw;
        lua_pushliteral(state, "C++ exception");
    }
    return lua_error(state);
}

} // namespace orvexScript

// Defines `extern "C"`-compatible lua_CFunction `name` whose body runs under LuaGuard:
//   ORVEX_LUA_FUNCTION(l_answer) { lua_pushinteger(L, 42); return 1; }
#define ORVEX_LUA_FUNCTION(name)                                                                             \
    static int name##_body(lua_State *L);                                                                    \
    static int name(lua_State *L)                                                                            \
    {                                                                                                        \
        return ::orvexScript::LuaGuard(L, name##_body);                                                      \
    }                                                                                                        \
    static int name##_body(lua_State *L)
