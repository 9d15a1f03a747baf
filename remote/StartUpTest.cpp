// Start-up inside a host, watched from outside. Each host is a child process (this program running
// the same test, which then plays the host's side, or the demo host) and registers with this
// process, whose test root records AddHost and RemoveHost as a script server does. Starting a server
// is watched through a stand-in program, a shell script that reports how it was run.

#include "remote/Scripting.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <thread>

#include "remote/RemoteApp.h"
#include "remote/ScriptWindow.h"
#include "remote/testhost/HostObjects.h"
#include "remote/testhost/Loopback.h"
#include "testsupport/TestSupport.h"
#include "values/model/ScriptVal.h"
#include "values/sync/DebugLog.h"

namespace orvexScript
{
namespace
{

constexpr const char *kChildVariable = "ORVEX_STARTUP_CHILD";
constexpr const char *kPortVariable = "ORVEX_STARTUP_PORT";
constexpr const char *kProgramVariable = "ORVEX_STARTUP_PROGRAM";
constexpr const char *kChildName = "startup-child";

// ---- the host's side, in a child process ---------------------------------------------------------

void InitChild(const char *name, uint32_t flags)
{
    static testhost::Root *root = new testhost::Root;
    static ScriptConfig config;
    config.flags = flags;
    config.name = name;
    config.user = root;
    config.root = [](void *user, void *) -> ScriptObject * { return static_cast<testhost::Root *>(user); };
    InitScripting(config);
    g_ScriptServerPort = static_cast<unsigned short>(std::atoi(std::getenv(kPortVariable)));
    if (const char *program = std::getenv(kProgramVariable)) SetServerProgram(program);
}

void WaitForStdinEnd()
{
    while (std::getchar() != EOF)
    {
    }
}

// Start, start again (nothing happens), stop, stop again (nothing happens), and a second life.
void StartTwiceStopAndRestart()
{
    InitChild(kChildName, SCF_Host);
    ScriptVal info(SV_Table, nullptr);
    info["Extra"] = "kept";
    info["Name"] = "replaced by the configuration's";
    EXPECT_TRUE(StartScripting(nullptr, info));
    EXPECT_TRUE(g_ScriptingActive);
    EXPECT_NE(GetScriptWnd(), nullptr);
    EXPECT_TRUE(StartScripting(nullptr, nil));
    StopScripting();
    EXPECT_FALSE(g_ScriptingActive);
    EXPECT_EQ(GetScriptWnd(), nullptr);
    StopScripting();
    EXPECT_TRUE(StartScripting(nullptr, nil));
    EXPECT_TRUE(g_ScriptingActive);
    CleanupScripting();
    EXPECT_FALSE(g_ScriptingActive);
}

// The deferred start waits for the window's first pump, and a stop before it cancels it; the test
// looks in between.
void DeferredStart()
{
    InitChild(kChildName, SCF_Host);
    EXPECT_TRUE(DeferStartScripting(nullptr, nil));
    ScriptWindow *window = GetScriptWnd();
    ASSERT_NE(window, nullptr);
    StopScripting();
    int cancelled = 0;
    EXPECT_EQ(window->Pump(0, 0, cancelled), ScriptWindow::Pump_Idle);
    EXPECT_FALSE(g_ScriptingActive);

    EXPECT_TRUE(DeferStartScripting(nullptr, nil));
    EXPECT_TRUE(DeferStartScripting(nullptr, nil)); // the same start, still waiting
    EXPECT_FALSE(g_ScriptingActive);
    EXPECT_EQ(GetScriptWnd(), window);
    std::printf("POSTED\n");
    std::fflush(stdout);
    WaitForStdinEnd();
    int exitCode = 0;
    EXPECT_EQ(window->Pump(0, 0, exitCode), ScriptWindow::Pump_Idle);
    EXPECT_TRUE(g_ScriptingActive);
    StopScripting();
}

// No name: nobody looks for this host, so no server is started for it and nothing is retried. The
// server log, switched on by the test, tells what was tried.
void UnnamedHost()
{
    InitChild(nullptr, SCF_Host);
    EXPECT_TRUE(StartScripting(nullptr, nil));
    EXPECT_TRUE(g_ScriptingActive);
    EXPECT_NE(GetScriptWnd(), nullptr);
    StopScripting();
    const std::string log = orvexTest::ReadFile(GetServerLog().FileName());
    std::remove(GetServerLog().FileName());
    EXPECT_NE(log.find("RemoteApp::Connect()"), std::string::npos) << log;
    EXPECT_EQ(log.find("StartServer"), std::string::npos) << log;
    EXPECT_EQ(log.find("retrying"), std::string::npos) << log;
}

// Not a host: no window, no registering; still active, so scripts run.
void NotAHost()
{
    InitChild(kChildName, 0);
    EXPECT_TRUE(StartScripting(nullptr, nil));
    EXPECT_TRUE(g_ScriptingActive);
    EXPECT_EQ(GetScriptWnd(), nullptr);
    StopScripting();
    EXPECT_FALSE(g_ScriptingActive);
}

// No server answers at first: the host starts one (the test's stand-in) and registers once it does.
void StartsTheServer()
{
    InitChild(kChildName, SCF_Host);
    EXPECT_TRUE(StartScripting(nullptr, nil));
    EXPECT_TRUE(g_ScriptingActive);
    StopScripting();
}

// ---- the server's side, in this process ----------------------------------------------------------

// A stand-in server program: reports its arguments, folder, standard streams and session into
// `report`, then touches `flag`.
std::string WriteReportingProgram(const orvexTest::TempDir &dir)
{
    const std::string report = dir.File("report"), flag = dir.File("started");
    const std::string path = dir.Write("server.sh", "#!/bin/sh\n"
                                                    "for fd in 0 1 2; do eval \"fd$fd=$(readlink /proc/$$/fd/$fd)\"; done\n"
                                                    "{\n"
                                                    "  echo \"args=$*\"\n"
                                                    "  echo \"cwd=$(pwd -P)\"\n"
                                                    "  echo \"fd0=$fd0\"; echo \"fd1=$fd1\"; echo \"fd2=$fd2\"\n"
                                                    "  echo \"sid=$(cut -d' ' -f6 /proc/$$/stat)\"\n"
                                                    "  echo \"pid=$$\"\n"
                                                    "} > '" + report + ".tmp'\n"
                                                    "mv '" + report + ".tmp' '" + report + "'\n"
                                                    "touch '" + flag + "'\n");
    chmod(path.c_str(), 0755);
    return path;
}

std::map<std::string, std::string> ReadReport(const std::string &path)
{
    std::map<std::string, std::string> fields;
    std::istringstream lines(orvexTest::ReadFile(path));
    for (std::string line; std::getline(lines, line);)
        if (size_t equals = line.find('='); equals != std::string::npos)
            fields[line.substr(0, equals)] = line.substr(equals + 1);
    return fields;
}

// Children of this process that have ended and were not collected.
int ZombieChildren()
{
    int zombies = 0;
    DIR *proc = opendir("/proc");
    if (!proc) return -1;
    const std::string self = std::to_string(getpid());
    while (dirent *entry = readdir(proc))
    {
        if (entry->d_name[0] < '0' || entry->d_name[0] > '9') continue;
        const std::string stat = orvexTest::ReadFile(std::string("/proc/") + entry->d_name + "/stat");
        const size_t close = stat.rfind(')');
        if (close == std::string::npos) continue;
        std::istringstream fields(stat.substr(close + 1));
        std::string state, parent;
        fields >> state >> parent;
        if (state == "Z" && parent == self) ++zombies;
    }
    closedir(proc);
    return zombies;
}

class StartUp : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (std::getenv(kChildVariable)) return; // a child: the host's side makes its own configuration
        m_Root = testhost::InitTestScripting("startup-tests");
        Forget();
    }
    void Forget()
    {
        std::lock_guard<std::mutex> hold(m_Root->m_Lock);
        m_Root->m_Hosts.clear();
        m_Root->m_Removed.clear();
    }
    void TearDown() override
    {
        if (m_Root)
        {
            EXPECT_TRUE(testhost::WaitForNoConnections());
        }
    }

    // In a child that StartChild made, runs the host's side and gives true.
    static bool RanAsChild(void (*hostSide)())
    {
        if (!std::getenv(kChildVariable)) return false;
        hostSide();
        return true;
    }

    std::vector<ScriptVal> Hosts()
    {
        std::lock_guard<std::mutex> hold(m_Root->m_Lock);
        return m_Root->m_Hosts;
    }
    std::vector<double> Removed()
    {
        std::lock_guard<std::mutex> hold(m_Root->m_Lock);
        return m_Root->m_Removed;
    }

    // Runs this test again in a child, which plays the host's side against `port` with `program` as
    // its server program and, if asked, the server log on.
    std::unique_ptr<orvexTest::ChildProcess> StartChild(uint16_t port, const std::string &program = "",
                                                        bool log = false)
    {
        orvexTest::ScopedEnv logVariable("KESCRIPT_LOG_SERVER", log ? "true" : nullptr);
        orvexTest::ScopedEnv childVariable(kChildVariable, "1");
        orvexTest::ScopedEnv portVariable(kPortVariable, std::to_string(port).c_str());
        orvexTest::ScopedEnv programVariable(kProgramVariable, program.empty() ? nullptr : program.c_str());
        const ::testing::TestInfo *test = ::testing::UnitTest::GetInstance()->current_test_info();
        const std::string filter = std::string("--gtest_filter=") + test->test_suite_name() + "." + test->name();
        return std::make_unique<orvexTest::ChildProcess>(std::vector<std::string>{"/proc/self/exe", filter});
    }

    // Waits for the child's end: it must pass its own checks.
    static void ExpectPassed(orvexTest::ChildProcess &child)
    {
        child.CloseStdin();
        std::string out;
        while (auto line = child.ReadLine(60000))
            out += *line + "\n";
        orvexTest::ProcessResult result = child.Wait(10000);
        EXPECT_FALSE(result.timedOut);
        EXPECT_EQ(result.exitCode, 0) << out;
        EXPECT_NE(out.find("[  PASSED  ] 1 test"), std::string::npos) << out;
    }

    static void ExpectEntryOf(const ScriptVal &info, const char *name, int pid)
    {
        EXPECT_EQ(info["Name"].ToString(""), std::string(name));
        EXPECT_EQ(info["ProcessID"].ToNumber(), pid);
        EXPECT_TRUE(std::regex_match(info["UUID"].ToString(""),
                                     std::regex("[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12}")));
        EXPECT_TRUE(info["SupportsNewConnect"].IsBoolean() && info["SupportsNewConnect"].ToBoolean());
    }

    testhost::Root *m_Root = nullptr;
};

TEST_F(StartUp, RegistersOnceWhenStartedTwiceAndLeavesWhenStopped)
{
    if (RanAsChild(StartTwiceStopAndRestart)) return;
    testhost::Listener server;
    auto child = StartChild(server.Port());
    ASSERT_TRUE(child->Running());
    const int pid = child->Pid();
    ExpectPassed(*child);

    // Two lives, one registration each; the host's own keys are kept, Name comes from the config.
    const std::vector<ScriptVal> hosts = Hosts();
    ASSERT_EQ(hosts.size(), 2u);
    ExpectEntryOf(hosts[0], kChildName, pid);
    ExpectEntryOf(hosts[1], kChildName, pid);
    EXPECT_EQ(hosts[0]["Extra"].ToString(""), std::string("kept"));
    EXPECT_TRUE(hosts[1]["Extra"].IsNil());
    EXPECT_EQ(hosts[0]["UUID"], hosts[1]["UUID"]);
    EXPECT_EQ(Removed(), (std::vector<double>{double(pid), double(pid)}));
}

TEST_F(StartUp, DeferredStartRegistersOnlyAtTheFirstPump)
{
    if (RanAsChild(DeferredStart)) return;
    testhost::Listener server;
    auto child = StartChild(server.Port());
    ASSERT_TRUE(child->Running());
    const int pid = child->Pid();
    ASSERT_TRUE(child->WaitForLine("POSTED", 30000));
    EXPECT_EQ(server.Accepted(), 0);
    EXPECT_TRUE(Hosts().empty());
    ExpectPassed(*child);
    ASSERT_EQ(Hosts().size(), 1u);
    ExpectEntryOf(Hosts()[0], kChildName, pid);
    EXPECT_EQ(Removed(), std::vector<double>{double(pid)});
}

TEST_F(StartUp, AProcessThatIsNoHostNeitherConnectsNorRegisters)
{
    if (RanAsChild(NotAHost)) return;
    testhost::Listener server;
    auto child = StartChild(server.Port());
    ASSERT_TRUE(child->Running());
    ExpectPassed(*child);
    EXPECT_EQ(server.Accepted(), 0);
    EXPECT_TRUE(Hosts().empty());
    EXPECT_TRUE(Removed().empty());
}

TEST_F(StartUp, AnUnnamedHostWithNoServerStartsNoneAndDoesNotRetry)
{
    if (RanAsChild(UnnamedHost)) return;
    orvexTest::TempDir dir;
    testhost::Listener nobody{std::string()}; // refuses, and never listens
    auto child = StartChild(nobody.Port(), WriteReportingProgram(dir), true);
    ASSERT_TRUE(child->Running());
    ExpectPassed(*child);
    EXPECT_NE(access(dir.File("started").c_str(), F_OK), 0);
}

TEST_F(StartUp, ANamedHostStartsTheServerWhenNoneAnswersAndRegistersWithIt)
{
    if (RanAsChild(StartsTheServer)) return;
    orvexTest::TempDir dir;
    testhost::Listener server(dir.File("started"));
    ASSERT_NE(server.Port(), 0);
    auto child = StartChild(server.Port(), WriteReportingProgram(dir));
    ASSERT_TRUE(child->Running());
    const int pid = child->Pid();
    ExpectPassed(*child);
    // Registered (a reply slower than the connection's second may have made it try once more).
    ASSERT_FALSE(Hosts().empty());
    for (const ScriptVal &host : Hosts())
        ExpectEntryOf(host, kChildName, pid);
    EXPECT_EQ(Removed(), std::vector<double>{double(pid)});
    EXPECT_EQ(ReadReport(dir.File("report"))["args"], "-s -p " + std::to_string(server.Port()));
}

// StartServer in this process: the program set, detached in a session of its own with nothing of
// this process but /dev/null, the port named only when it is not the default, and no zombie after.
TEST_F(StartUp, StartServerRunsTheProgramDetachedAndLeavesNoZombie)
{
    const unsigned short savedPort = g_ScriptServerPort;
    struct Case
    {
        unsigned short port;
        std::string args;
    };
    for (const Case &c : {Case{10251, "-s"}, Case{20251, "-s -p 20251"}})
    {
        SCOPED_TRACE(c.port);
        orvexTest::TempDir dir;
        SetServerProgram(WriteReportingProgram(dir).c_str());
        g_ScriptServerPort = c.port;
        EXPECT_TRUE(StartServer());
        ASSERT_TRUE(orvexTest::WaitUntil([&] { return access(dir.File("started").c_str(), F_OK) == 0; }, 30000));
        auto report = ReadReport(dir.File("report"));
        EXPECT_EQ(report["args"], c.args);
        char real[PATH_MAX];
        ASSERT_NE(realpath(dir.Path().c_str(), real), nullptr);
        EXPECT_EQ(report["cwd"], real);
        for (const char *fd : {"fd0", "fd1", "fd2"})
            EXPECT_EQ(report[fd], "/dev/null") << fd;
        EXPECT_EQ(report["sid"], report["pid"]);
        EXPECT_TRUE(orvexTest::WaitUntil([] { return ZombieChildren() == 0; }, 10000));
    }
    // A program that can't be run is logged, not fatal.
    SetServerProgram("/nonexistent/orvexScript");
    EXPECT_TRUE(StartServer());
    EXPECT_EQ(ZombieChildren(), 0);
    SetServerProgram(nullptr);
    g_ScriptServerPort = savedPort;
}

} // namespace
} // namespace orvexScript
