// The value layer's Lua hooks on a real Lua state: the push of an object without a Lua form of its own
// (installed by this library), the small-receiver guard of lw_safe_push, and lf_Buffer as the writer
// of lua_dump.
#include <gtest/gtest.h>

#include <cstdint>

#include "testsupport/LuaState.h"
#include "values/base/DumpBuffer.h"
#include "values/model/ScriptObject.h"

using namespace orvexScript;

namespace
{

class Pusher : public RefObject
{
public:
    int lw_push(lua_State *state) override
    {
        lua_pushinteger(state, 77);
        return 1;
    }
};

// Small integers handed around as objects.
int SafePushAt(uintptr_t address, lua_State *state)
{
    return LuaClass::lw_safe_push(reinterpret_cast<LuaClass *>(address), state);
}

TEST(LuaClassPush, BasePushesNilAndSafePushGuardsSmallReceivers)
{
    orvexTest::LuaState state;
    RefObject plain;
    EXPECT_EQ(plain.lw_push(nullptr), 0);
    EXPECT_EQ(plain.lw_push(state), 1);
    EXPECT_TRUE(lua_isnil(state, -1));
    lua_settop(state, 0);

    EXPECT_EQ(SafePushAt(0x10000, state) + SafePushAt(0, state), 2);
    EXPECT_TRUE(lua_gettop(state) == 2 && lua_isnil(state, 1) && lua_isnil(state, 2));
    lua_settop(state, 0);

    Pusher pusher;
    EXPECT_EQ(pusher.lw_safe_push(state), 1);
    EXPECT_EQ(lua_tointeger(state, -1), 77);
}

TEST(DumpBuffer, TakesALuaDumpThatLoadsBack)
{
    orvexTest::LuaState state;
    ASSERT_EQ(luaL_loadstring(state, "local t = {} for i = 1, 100 do t[i] = i * i end return t[7] + 0.5"), 0);
    lf_Buffer buffer;
    ASSERT_EQ(lua_dump(state, lf_Buffer::Writer, &buffer), 0);
    EXPECT_GT(buffer.m_Length, 32); // more than the first allocation: the buffer grew on the way
    lua_settop(state, 0);
    ASSERT_EQ(luaL_loadbuffer(state, buffer.m_Data, static_cast<size_t>(buffer.m_Length), "dumped"), 0);
    ASSERT_EQ(lua_pcall(state, 0, 1, 0), 0);
    EXPECT_EQ(lua_tonumber(state, -1), 49.5);
}

} // namespace
