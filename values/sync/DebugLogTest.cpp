// Tests of the diagnostic log: the switch, the file name, the header and entries, reopening, and entries
// from several threads staying whole.
#include "values/sync/DebugLog.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "testsupport/TestSupport.h"
#include "values/base/Platform.h"
#include "values/base/UtilSys.h"

using namespace orvexScript;

namespace
{

using orvexTest::ScopedEnv;

std::vector<std::string> Lines(const std::string &text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

} // namespace

TEST(DebugLogSwitch, VariableMustReadTrueInAnyCase)
{
    const char *name = "ORVEX_TEST_LOG_SWITCH";
    for (const char *value : {"TRUE", "1", "yes", "", "true ", "tru", "false"})
    {
        ScopedEnv env(name, value);
        EXPECT_EQ(DebugLog::IsSwitchedOn(name, value[0] != 'T'), value[0] == 'T') << "'" << value << "'";
    }
    ScopedEnv unset(name, nullptr);
    EXPECT_TRUE(DebugLog::IsSwitchedOn(name, true));
    EXPECT_FALSE(DebugLog::IsSwitchedOn(name, false));
}

// Off, the log makes no file; Open reads the switch again; a file that can't be made leaves it closed.
TEST(DebugLogFile, OpensOnlyWhenSwitchedOnAndTheFileCanBeMade)
{
    orvexTest::TempDir dir;
    const char *name = "ORVEX_TEST_LOG_LATER";
    ScopedEnv off(name, "no");
    std::string base = dir.File("later");
    DebugLog log(name, base.c_str(), false);
    EXPECT_EQ(std::string(log.FileName()), base + "_" + std::to_string(UtilSys::ProcessId()) + ".log");
    EXPECT_FALSE(log.IsOpen());
    log.PrintF("dropped\n");
    EXPECT_FALSE(std::filesystem::exists(log.FileName()));
    ScopedEnv on(name, "TRUE");
    log.Open();
    EXPECT_TRUE(log.IsOpen());
    log.PrintF("now\n");
    log.Close();
    EXPECT_EQ(orvexTest::ReadFile(log.FileName()).find("--------"), std::string::npos); // no header

    DebugLog bad(name, dir.File("missing/folder/log").c_str(), false);
    EXPECT_FALSE(bad.IsOpen());
    bad.PrintF("nowhere %s\n", "to go");
}

// A header (two empty lines, the time, the command line), then entries with tick and thread; a reopened
// log appends without another header and what is printed while it is closed is lost.
TEST(DebugLogFile, WritesHeaderThenEntriesAndReopensWithoutAnotherHeader)
{
    orvexTest::TempDir dir;
    ScopedEnv env("ORVEX_TEST_LOG_ON", nullptr); // unset: the default given to the log holds
    std::string fileName;
    {
        DebugLog log("ORVEX_TEST_LOG_ON", dir.File("log").c_str(), true);
        ASSERT_TRUE(log.IsOpen());
        fileName = log.FileName();
        log.PrintF("hello %d\n", 42);
        log.PrintF("part ");
        log.PrintF("two\n");
        log.Close();
        log.PrintF("lost\n");
        log.Open();
        log.PrintF("three\n");
    }
    std::string text = orvexTest::ReadFile(fileName);
    std::vector<std::string> lines = Lines(text);
    ASSERT_EQ(lines.size(), 7u) << text;
    EXPECT_EQ(lines[0] + lines[1], "");
    EXPECT_TRUE(std::regex_match(lines[2], std::regex(R"(-------- \d\d/\w{3}/\d\d \d\d:\d\d:\d\d --------)")))
        << lines[2];
    EXPECT_NE(lines[3].find("tests"), std::string::npos) << lines[3]; // the command line, with this program
    const std::string thread = std::to_string(Platform::CurrentThreadId());
    EXPECT_TRUE(std::regex_match(lines[4], std::regex(R"(-?\d+ \[ *)" + thread + R"(\] hello 42)"))) << lines[4];
    // PrintF adds no line end: the second entry's prefix follows "part " on the same line.
    EXPECT_TRUE(std::regex_match(lines[5], std::regex(R"(-?\d+ \[ *\d+\] part -?\d+ \[ *\d+\] two)"))) << lines[5];
    EXPECT_TRUE(std::regex_match(lines[6], std::regex(R"(-?\d+ \[ *\d+\] three)"))) << lines[6];
}

TEST(DebugLogFile, EntriesFromSeveralThreadsStayWhole)
{
    orvexTest::TempDir dir;
    ScopedEnv env("ORVEX_TEST_LOG_THREADS", "true");
    constexpr int kThreads = 4, kEntries = 200;
    std::string fileName;
    {
        DebugLog log("ORVEX_TEST_LOG_THREADS", dir.File("mt").c_str(), false);
        fileName = log.FileName();
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t)
            threads.emplace_back(
                [&log, t]
                {
                    for (int i = 0; i < kEntries; ++i)
                        log.PrintF("thread %d entry %d of a line long enough to interleave\n", t, i);
                });
        for (std::thread &thread : threads)
            thread.join();
    }
    std::vector<std::string> lines = Lines(orvexTest::ReadFile(fileName));
    ASSERT_EQ(lines.size(), 4u + kThreads * kEntries);
    std::regex entry(R"(-?\d+ \[ *\d+\] thread \d entry \d+ of a line long enough to interleave)");
    for (size_t i = 4; i < lines.size(); ++i)
        ASSERT_TRUE(std::regex_match(lines[i], entry)) << lines[i];
}
