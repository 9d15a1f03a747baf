// Tests of RunScript run in-process on script files in a temporary folder: result codes, the argument
// table, what reaches stderr, and what a fresh state offers (lpeg, ffi, object types, the registry flag).
#include "languages/lua/RunScript.h"

#include <gtest/gtest.h>
#include <lua.hpp>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "testsupport/LuaState.h"
#include "testsupport/TestSupport.h"

namespace
{

struct RunResult
{
    int32_t code;
    std::string err;
};

class RunScriptTest : public ::testing::Test
{
protected:
    std::string Script(const std::string &text)
    {
        return m_Dir.Write("script" + std::to_string(++m_Count) + ".lua", text);
    }

    // Runs the script at `path` (null for none) on writable copies of the arguments.
    RunResult Run(std::string path, std::vector<std::string> arguments = {})
    {
        std::vector<char *> pointers;
        for (std::string &argument : arguments)
            pointers.push_back(argument.data());
        pointers.push_back(nullptr);
        ::testing::internal::CaptureStderr();
        const int32_t code = RunScript(path.empty() ? nullptr : path.data(), pointers.data());
        return {code, ::testing::internal::GetCapturedStderr()};
    }

    RunResult RunText(const std::string &text) { return Run(Script(text)); }

    orvexTest::TempDir m_Dir;
    int m_Count = 0;
};

TEST_F(RunScriptTest, ResultCodeIsTheFirstResultNumberTruncatedAndSaturated)
{
    // A string result gives 0: the Lua type counts, not convertibility.
    const std::pair<const char *, int32_t> cases[] = {
        {"return 3.9", 3}, {"return -3.9", -3}, {"return 1e20", INT32_MAX}, {"return -1e20", INT32_MIN},
        {"return 0/0", 0}, {"return '3'", 0},   {"local x = 1", 0},         {"return nil, 5", 0},
    };
    for (const auto &[text, code] : cases)
    {
        SCOPED_TRACE(text);
        RunResult result = RunText(text);
        EXPECT_EQ(code, result.code) << result.err;
    }
}

// Each script checks what it finds in `arg` and returns 7.
TEST_F(RunScriptTest, NamedAndNumberedArgumentsFillArg)
{
    const std::pair<std::vector<std::string>, const char *> cases[] = {
        {{"a=1", "x", "b=", "y"}, R"(assert(arg.a == "1" and arg.b == "", "named")
            assert(arg[1] == "x" and arg[2] == "y" and arg[3] == nil, "numbered")
            assert(arg.n == 2 and type(arg.n) == "number", "n"))"},
        {{"=v", "1=x", "first", "k=b=c"}, R"(assert(arg[""] == "v", "empty name")
            assert(arg["1"] == "x" and arg[1] == "first", "a name 1 stays a string key")
            assert(arg.k == "b=c", "only the first = splits")
            assert(arg.n == 1, "n counts numbered arguments only"))"},
        {{}, "assert(arg.n == 0 and next(arg) == 'n' and next(arg, 'n') == nil)"},
    };
    for (const auto &[arguments, check] : cases)
    {
        SCOPED_TRACE(check);
        EXPECT_EQ(7, Run(Script(std::string(check) + " return 7"), arguments).code);
    }
}

// A run failure gives -1 and one line on stderr: no traceback, and a line for a non-string error too.
TEST_F(RunScriptTest, RunFailuresReportOneLineOnStderr)
{
    const std::pair<const char *, const char *> cases[] = {
        {"local function f() error('boom') end\nf()\n", ":1: boom\n"},
        {"error({})", "unknown error\n"},
    };
    for (const auto &[script, err] : cases)
    {
        SCOPED_TRACE(script);
        RunResult result = RunText(script);
        EXPECT_EQ(-1, result.code);
        EXPECT_TRUE(result.err.ends_with(err)) << result.err;
        EXPECT_EQ(1, std::count(result.err.begin(), result.err.end(), '\n')) << result.err;
    }
}

TEST_F(RunScriptTest, NullFileNameFailsWithoutReadingStandardInput)
{
    // Standard input holds a valid script for the length of the call, so reading it would give 5.
    const int savedInput = dup(0);
    ASSERT_GE(savedInput, 0);
    const int script = open(Script("return 5").c_str(), O_RDONLY);
    ASSERT_GE(script, 0);
    ASSERT_EQ(dup2(script, 0), 0);
    close(script);
    RunResult result = Run("");
    dup2(savedInput, 0);
    close(savedInput);
    EXPECT_EQ(-2, result.code);
    EXPECT_NE("", result.err);
}

// A missing file and a syntax error fail to load, and nothing of the script runs.
TEST_F(RunScriptTest, LoadFailuresNameTheFileWithoutRunning)
{
    for (const std::string &path : {m_Dir.File("absent.lua"), Script("print('ran')\nlocal = 1\n")})
    {
        ::testing::internal::CaptureStdout();
        RunResult result = Run(path);
        EXPECT_EQ("", ::testing::internal::GetCapturedStdout());
        EXPECT_EQ(-2, result.code);
        EXPECT_NE(std::string::npos, result.err.find(path)) << result.err;
        EXPECT_EQ(1, std::count(result.err.begin(), result.err.end(), '\n')) << result.err;
    }
}

TEST_F(RunScriptTest, FreshStateOffersLpegFfiObjectTypesAndTheLocalConnectFlag)
{
    RunResult result = RunText(R"(
        assert(type(lpeg) == "table" and lpeg == require("lpeg"), "lpeg global")
        local ffi = require("ffi")
        ffi.cdef("size_t strlen(const char *s);")
        assert(ffi.C.strlen("hello") == 5, "ffi")
        assert(bit.band(6, 3) == 2 and jit ~= nil, "bit and jit")
        assert(debug.getregistry().QMLocalConnect == true, "registry flag")
        assert(_ALERT == nil, "no _ALERT")
        assert(MemBlock(3).Size == 3 and type(class._ScriptObject) == "function", "object types")
        leftover = 1 lpeg.mark = true
        return 7)");
    EXPECT_EQ(7, result.code) << result.err;
    RunResult second = RunText("assert(leftover == nil and lpeg.mark == nil) return 7"); // each run is fresh
    EXPECT_EQ(7, second.code) << second.err;
}

TEST(Traceback, AddsTracebackToMessageOnlyWithTheDebugLibrary)
{
    orvexTest::LuaState state(true);
    lua_pushcfunction(state, ltraceback);
    ASSERT_EQ(0, luaL_loadstring(state, "local function inner() error('deep') end inner()"));
    EXPECT_EQ(LUA_ERRRUN, lua_pcall(state, 0, 0, 1));
    const std::string message = lua_tostring(state, -1);
    EXPECT_NE(std::string::npos, message.find("stack traceback:")) << message;
    EXPECT_NE(std::string::npos, message.find("inner")) << message;

    orvexTest::LuaState bare;
    lua_pushcfunction(bare, ltraceback);
    lua_pushliteral(bare, "plain");
    lua_call(bare, 1, 1);
    EXPECT_STREQ("plain", lua_tostring(bare, -1));
}

} // namespace
