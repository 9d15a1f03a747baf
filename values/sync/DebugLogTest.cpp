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

size_t Count(const std::string &text, const std::string &what)
{
    size_t count = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        ++count;
    return count;
}

} // namespace

TEST(DebugLogSwitch, VariableMustReadTrueInAnyCase)
{
    const char *name = "ORVEX_TEST_LOG_SWITCH";
    {
        ScopedEnv env(name, "TRUE");
        EXPECT_TRUE(DebugLog::IsSwitchedOn(name, false));
    }
    for (const char *off : {"1", "yes", "", "true ", "tru", "false"})
    {
        ScopedEnv env(name, off);
        EXPECT_FALSE(DebugLog::IsSwitchedOn(name, true)) << "'" << off << "'";
    }
    ScopedEnv unset(name, nullptr);
    EXPECT_TRUE(DebugLog::IsSwitchedOn(name, true));
    EXPECT_FALSE(DebugLog::IsSwitchedOn(name, false));
}

TEST(DebugLogFile, NamedAfterTheBaseAndTheProcessId)
{
    orvexTest::TempDir dir;
    ScopedEnv env("ORVEX_TEST_LOG_NAME", nullptr);
    std::string base = dir.File("server");
    DebugLog log("ORVEX_TEST_LOG_NAME", base.c_str(), false);
    EXPECT_EQ(std::string(log.FileName()), base + "_" + std::to_string(UtilSys::ProcessId()) + ".log");
    EXPECT_FALSE(log.IsOpen());
    log.PrintF("dropped\n");
    EXPECT_FALSE(std::filesystem::exists(log.FileName())); // off: no file at all
}

TEST(DebugLogFile, WritesHeaderThenEntriesWithTickAndThread)
{
    orvexTest::TempDir dir;
    ScopedEnv env("ORVEX_TEST_LOG_ON", "True");
    std::string base = dir.File("log");
    {
        DebugLog log("ORVEX_TEST_LOG_ON", base.c_str(), false);
        ASSERT_TRUE(log.IsOpen());
        log.PrintF("hello %d\n", 42);
        log.PrintF("part ");
        log.PrintF("two\n");
    }
    std::string text = orvexTest::ReadFile(base + "_" + std::to_string(UtilSys::ProcessId()) + ".log");
    std::vector<std::string> lines = Lines(text);
    ASSERT_EQ(lines.size(), 6u) << text;
    EXPECT_EQ(lines[0], "");
    EXPECT_EQ(lines[1], "");
    EXPECT_TRUE(std::regex_match(lines[2], std::regex(R"(-------- \d\d/\w{3}/\d\d \d\d:\d\d:\d\d --------)")))
        << lines[2];
    EXPECT_NE(lines[3].find("tests"), std::string::npos) << lines[3]; // the command line, with this program
    std::string thread = std::to_string(Platform::CurrentThreadId());
    std::regex entry(R"(-?\d+ \[ *)" + thread + R"(\] (.*))");
    std::smatch match;
    ASSERT_TRUE(std::regex_match(lines[4], match, entry)) << lines[4];
    EXPECT_EQ(match[1].str(), "hello 42");
    // PrintF adds no line end: the second entry's prefix follows "part " on the same line.
    ASSERT_TRUE(std::regex_match(lines[5], match, std::regex(R"(-?\d+ \[ *\d+\] part -?\d+ \[ *\d+\] two)")))
        << lines[5];
}

TEST(DebugLogFile, ReopeningAppendsWithoutAnotherHeader)
{
    orvexTest::TempDir dir;
    ScopedEnv env("ORVEX_TEST_LOG_REOPEN", nullptr);
    DebugLog log("ORVEX_TEST_LOG_REOPEN", dir.File("re").c_str(), true);
    ASSERT_TRUE(log.IsOpen());
    log.PrintF("one\n");
    log.Close();
    log.PrintF("lost\n");
    log.Open();
    log.PrintF("two\n");
    log.Close();
    std::string text = orvexTest::ReadFile(log.FileName());
    EXPECT_EQ(Count(text, "--------"), 2u); // one header line, two markers
    EXPECT_NE(text.find("] one\n"), std::string::npos);
    EXPECT_NE(text.find("] two\n"), std::string::npos);
    EXPECT_EQ(text.find("lost"), std::string::npos);
}

TEST(DebugLogFile, OpenHonoursTheSwitchAtThatTime)
{
    orvexTest::TempDir dir;
    const char *name = "ORVEX_TEST_LOG_LATER";
    ScopedEnv off(name, "no");
    DebugLog log(name, dir.File("later").c_str(), true);
    EXPECT_FALSE(log.IsOpen());
    ScopedEnv on(name, "TRUE");
    log.Open();
    EXPECT_TRUE(log.IsOpen());
    log.PrintF("now\n");
    log.Close();
    EXPECT_EQ(orvexTest::ReadFile(log.FileName()).find("--------"), std::string::npos); // no header
}

TEST(DebugLogFile, UnopenableFileLeavesTheLogClosed)
{
    orvexTest::TempDir dir;
    ScopedEnv env("ORVEX_TEST_LOG_BAD", "true");
    DebugLog log("ORVEX_TEST_LOG_BAD", dir.File("missing/folder/log").c_str(), false);
    EXPECT_FALSE(log.IsOpen());
    log.PrintF("nowhere %s\n", "to go");
    log.Open();
    EXPECT_FALSE(log.IsOpen());
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
