// Tests of the orvexScript program run as a child process: what only the program shows (usage,
// argument passing, the exit statuses of its failures) and the example script. What a script sees and
// the messages of its failures are RunScript's, tested in-process.
#include <gtest/gtest.h>

#include <string>

#include "testsupport/TestSupport.h"

namespace
{

using orvexTest::ProcessResult;
using orvexTest::RunProcess;

const char *const kFrontEnd = ORVEX_FRONTEND;
const std::string kTour = std::string(ORVEX_SOURCE_DIR) + "/examples/tour.lua";

ProcessResult RunFrontEnd(std::vector<std::string> arguments)
{
    arguments.insert(arguments.begin(), kFrontEnd);
    ProcessResult result = RunProcess(arguments);
    EXPECT_FALSE(result.timedOut);
    EXPECT_EQ(0, result.signal);
    return result;
}

// Usage without arguments or a file (status 2, on stderr) and for -h (status 0, on stdout); a bad
// server port is refused before anything runs.
TEST(FrontEnd, PrintsUsage)
{
    ProcessResult none = RunFrontEnd({}), help = RunFrontEnd({"-h"}), noFile = RunFrontEnd({"-p", "4000"});
    EXPECT_EQ(2, none.exitCode);
    EXPECT_NE(std::string::npos, none.err.find("usage: orvexScript [-p PORT] FILE")) << none.err;
    EXPECT_EQ(0, help.exitCode);
    EXPECT_NE(std::string::npos, help.out.find("usage: orvexScript [-p PORT] FILE")) << help.out;
    EXPECT_EQ(2, noFile.exitCode);
    ProcessResult badPort = RunFrontEnd({"-p", "70000", kTour});
    EXPECT_EQ(2, badPort.exitCode);
    EXPECT_EQ("orvexScript: bad port '70000'\n", badPort.err);
    EXPECT_EQ("", badPort.out);
}

// The exit status is the script's number; failures to load exit with 254, failures to run with 255.
TEST(FrontEnd, ExitStatusIsTheScriptsNumberOrTellsTheFailure)
{
    orvexTest::TempDir dir;
    const std::string script = dir.Write("sum.lua", "return arg.n * 10 + tonumber(arg.base) + 0.9");
    ProcessResult result = RunFrontEnd({script, "base=3", "a", "b", "c"});
    EXPECT_EQ(33, result.exitCode) << result.err;
    EXPECT_EQ("", result.err);
    ProcessResult missing = RunFrontEnd({dir.File("nope.lua")});
    EXPECT_EQ(254, missing.exitCode);
    EXPECT_NE(std::string::npos, missing.err.find(dir.File("nope.lua") + ": No such file or directory"));
    EXPECT_EQ(254, RunFrontEnd({dir.Write("bad.lua", "local = 2\n")}).exitCode);

    const std::string failing = dir.Write("fail.lua", "print('started')\nerror('gave up')\n");
    ProcessResult runtime = RunFrontEnd({failing});
    EXPECT_EQ(255, runtime.exitCode);
    EXPECT_EQ("started\n", runtime.out);
    EXPECT_EQ(failing + ":2: gave up\n", runtime.err);
}

TEST(FrontEnd, TourRunsWithArguments)
{
    ProcessResult named = RunFrontEnd({kTour, "name=Ada", "one", "two"});
    EXPECT_EQ(0, named.exitCode) << named.err;
    EXPECT_EQ("", named.err);
    EXPECT_NE(std::string::npos, named.out.find("Hello, Ada!")) << named.out;
    EXPECT_NE(std::string::npos, named.out.find("arg[2] = two")) << named.out;
}

} // namespace
