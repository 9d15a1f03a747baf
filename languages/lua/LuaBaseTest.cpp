// Tests of the base opening: LPeg, the stack left as found, and the optional toolkit library, played
// by a small stand-in library built beside the tests that exports two of the twenty module openers.
#include "languages/lua/LuaBase.h"

#include <gtest/gtest.h>
#include <lua.hpp>

#include <string>

#include "testsupport/LuaState.h"
#include "testsupport/TestSupport.h"

namespace
{

class LuaBaseTest : public ::testing::Test
{
protected:
    void TearDown() override { orvexScript::SetToolkitLibrary(nullptr); }

    // Runs `chunk` on the state; gives "" if it ran, else the error message.
    std::string Run(const char *chunk)
    {
        if (luaL_dostring(m_State, chunk) == 0) return "";
        std::string message = lua_tostring(m_State, -1);
        lua_pop(m_State, 1);
        return message;
    }

    // Opens the base libraries and checks that the stack is left as it was found.
    void Open()
    {
        lua_pushliteral(m_State, "sentinel");
        orvexScript::OpenBaseLibs(m_State);
        ASSERT_EQ(1, lua_gettop(m_State));
        ASSERT_STREQ("sentinel", lua_tostring(m_State, 1));
        lua_settop(m_State, 0);
    }

    orvexTest::ScopedEnv m_Toolkit{"ORVEXSCRIPT_TOOLKIT_LIB", nullptr};
    orvexTest::LuaState m_State;
};

// With the toolkit turned off or missing: the standard libraries and LPeg, no toolkit, and not a word.
TEST_F(LuaBaseTest, OpensStandardLibrariesAndLpegAndPassesOverAMissingToolkit)
{
    for (const char *toolkit : {"", "/nonexistent/libnothing-here.so"})
    {
        SCOPED_TRACE(toolkit);
        orvexScript::SetToolkitLibrary(toolkit);
        ::testing::internal::CaptureStderr();
        Open();
        EXPECT_EQ("", ::testing::internal::GetCapturedStderr());
        EXPECT_EQ("", Run(R"(
            assert(string and table and math and io and os and debug and coroutine and bit and jit)
            assert(type(package.preload.ffi) == "function" or package.loaded.ffi ~= nil)
            assert(lpeg == package.loaded.lpeg and type(package.preload.lpeg) == "function")
            assert(lpeg.match(lpeg.P("ab")^1 * -1, "ababab") == 7)
            assert(package.preload.iuplua == nil and iup == nil))"));
        EXPECT_NE("", Run("require('iuplua')"));
    }
}

TEST_F(LuaBaseTest, ToolkitModulesLandInPreloadAndIupluaIsRequiredAtOnce)
{
    orvexScript::SetToolkitLibrary(ORVEX_FAKE_TOOLKIT);
    Open();
    EXPECT_EQ("", Run(R"(
        local preload = package.preload
        assert(type(preload.iuplua) == "function", "iuplua loader")
        assert(type(preload.cdlua) == "function", "cdlua loader")
        for _, absent in ipairs{"iupluacontrols", "imlua", "cdluapdf", "iupluacd"} do
            assert(preload[absent] == nil, absent)
        end
        assert(package.loaded.iuplua.name == "fake iuplua" and iup == package.loaded.iuplua, "iuplua loaded")
        assert(package.loaded.cdlua == nil, "cdlua waits for require")
        assert(fake_toolkit_opened == 1, "only iuplua opened")
        assert(require("cdlua").name == "fake cdlua", "cdlua on demand"))"));
}

TEST_F(LuaBaseTest, ToolkitNameDefaultsCanBeTurnedOffAndTheEnvironmentOverridesIt)
{
    EXPECT_EQ("libiuplua.so", orvexScript::ToolkitLibraryName());
    orvexScript::SetToolkitLibrary("");
    EXPECT_EQ("", orvexScript::ToolkitLibraryName());
    {
        orvexTest::ScopedEnv env("ORVEXSCRIPT_TOOLKIT_LIB", "");
        EXPECT_EQ("", orvexScript::ToolkitLibraryName()) << "an empty variable is no override";
    }
    orvexScript::SetToolkitLibrary("/nonexistent/libnothing-here.so");
    orvexTest::ScopedEnv env("ORVEXSCRIPT_TOOLKIT_LIB", ORVEX_FAKE_TOOLKIT);
    EXPECT_EQ(ORVEX_FAKE_TOOLKIT, orvexScript::ToolkitLibraryName());
    Open();
    EXPECT_EQ("", Run("assert(package.preload.cdlua ~= nil)"));
}

} // namespace
