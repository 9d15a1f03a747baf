// Tests of the orvexScript program run as a child process: usage, exit statuses, the environment
// override of the toolkit library, and the example script.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "testsupport/TestSupport.h"

namespace
{

using orvexTest::ProcessResult;
using orvexTest::RunProcess;

const char *const kFrontEnd = ORVEX_FRONTEND;
const std::string kTour = std::string(ORVEX_SOURCE_DIR) + "/examples/tour.lua";

ProcessResult RunFrontEnd(std::vector<std::string> arguments, const std::vector<std::string> &env = {})
{
    arguments.insert(arguments.begin(), kFrontEnd);
    ProcessResult result = RunProcess(arguments, 30000, env);
    EXPECT_FALSE(result.timedOut);
    EXPECT_EQ(0, result.signal);
    return result;
}

size_t Lines(const std::string &text)
{
    return std::count(text.begin(), text.end(), '\n');
}

TEST(FrontEnd, PrintsUsage)
{
    ProcessResult none = RunFrontEnd({});
    EXPECT_EQ(2, none.exitCode);
    EXPECT_NE(std::string::npos, none.err.find("usage: orvexScript FILE")) << none.err;

    ProcessResult help = RunFrontEnd({"-h"});
    EXPECT_EQ(0, help.exitCode);
    EXPECT_NE(std::string::npos, help.out.find("usage: orvexScript FILE")) << help.out;
}

TEST(FrontEnd, ExitStatusIsTheScriptsNumber)
{
    orvexTest::TempDir dir;
    const std::string script = dir.Write("sum.lua", "return arg.n * 10 + tonumber(arg.base) + 0.9");
    ProcessResult result = RunFrontEnd({script, "base=3", "a", "b", "c"});
    EXPECT_EQ(33, result.exitCode) << result.err;
    EXPECT_EQ("", result.err);
}

TEST(FrontEnd, FailuresExitWith254And255AndOneLineOnStderr)
{
    orvexTest::TempDir dir;
    ProcessResult missing = RunFrontEnd({dir.File("nope.lua")});
    EXPECT_EQ(254, missing.exitCode);
    EXPECT_NE(std::string::npos, missing.err.find(dir.File("nope.lua") + ": No such file or directory"));
    EXPECT_EQ(1u, Lines(missing.err)) << missing.err;

    const std::string bad = dir.Write("bad.lua", "local ok = 1\nlocal = 2\n");
    ProcessResult syntax = RunFrontEnd({bad});
    EXPECT_EQ(254, syntax.exitCode);
    EXPECT_NE(std::string::npos, syntax.err.find(bad + ":2:")) << syntax.err;

    const std::string failing = dir.Write("fail.lua", "print('started')\nerror('gave up')\n");
    ProcessResult runtime = RunFrontEnd({failing});
    EXPECT_EQ(255, runtime.exitCode);
    EXPECT_EQ("started\n", runtime.out);
    EXPECT_EQ(failing + ":2: gave up\n", runtime.err);
}

TEST(FrontEnd, ToolkitLibraryComesFromTheEnvironment)
{
    orvexTest::TempDir dir;
    const std::string script = dir.Write(
        "tk.lua", "return (iup and iup.name == 'fake iuplua' and package.preload.cdlua) and 5 or 6");
    EXPECT_EQ(5,
              RunFrontEnd({script}, {std::string("ORVEXSCRIPT_TOOLKIT_LIB=") + ORVEX_FAKE_TOOLKIT}).exitCode);
    EXPECT_EQ(6, RunFrontEnd({script}, {"ORVEXSCRIPT_TOOLKIT_LIB=/nonexistent/lib.so"}).exitCode);
}

TEST(FrontEnd, TourRunsWithAndWithoutArguments)
{
    ProcessResult bare = RunFrontEnd({kTour});
    EXPECT_EQ(0, bare.exitCode) << bare.err;
    EXPECT_EQ("", bare.err);
    EXPECT_NE(std::string::npos, bare.out.find("Hello, world!")) << bare.out;

    ProcessResult named = RunFrontEnd({kTour, "name=Ada", "one", "two"});
    EXPECT_EQ(0, named.exitCode) << named.err;
    EXPECT_NE(std::string::npos, named.out.find("Hello, Ada!")) << named.out;
    EXPECT_NE(std::string::npos, named.out.find("arg[2] = two")) << named.out;
}

} // namespace
