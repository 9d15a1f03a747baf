// The library table `orvex` as scripts use it: directories and their path limits, processes, named
// locks between processes, names, noise, the active object, exit, and connections that find nobody or
// must log in with a saved user.
#include "languages/lua/LuaHostLib.h"

#include <gtest/gtest.h>

#include <lua.hpp>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <sys/wait.h>
#include <unistd.h>

#include "languages/lua/HostSystem.h"
#include "languages/lua/LuaBridge.h"
#include "remote/testhost/ServerProcesses.h"
#include "testsupport/LuaState.h"
#include "testsupport/TestSupport.h"

namespace orvexScript
{
namespace
{

// A state with the standard libraries and `orvex`.
struct HostLib
{
    orvexTest::LuaState L{true};

    HostLib()
    {
        OpenObjectTypes(L); // proxies of applications give their references back when collected
        OpenHostLibrary(L);
        lua_pop(L, 1);
    }

    // Runs a chunk and gives what it returns as text ("nil", "true", numbers as %.9g, strings as
    // they are), joined by ","; an error as "error: <message>".
    std::string Run(const std::string &code)
    {
        const int top = lua_gettop(L);
        std::string out;
        if (luaL_loadstring(L, code.c_str()) != 0 || lua_pcall(L, 0, LUA_MULTRET, 0) != 0)
            out = std::string("error: ") + lua_tostring(L, -1);
        else
            for (int i = top + 1; i <= lua_gettop(L); ++i)
            {
                if (i > top + 1) out += ",";
                char number[32];
                switch (lua_type(L, i))
                {
                case LUA_TNIL: out += "nil"; break;
                case LUA_TBOOLEAN: out += lua_toboolean(L, i) ? "true" : "false"; break;
                case LUA_TNUMBER:
                    std::snprintf(number, sizeof(number), "%.9g", lua_tonumber(L, i));
                    out += number;
                    break;
                case LUA_TSTRING: out += lua_tostring(L, i); break;
                default: out += luaL_typename(L, i);
                }
            }
        lua_settop(L, top);
        return out;
    }
};

// Switches to a folder for a scope and back.
struct InFolder
{
    explicit InFolder(const std::string &path) : m_Old(std::filesystem::current_path())
    {
        std::filesystem::current_path(path);
    }
    ~InFolder() { std::filesystem::current_path(m_Old); }
    std::filesystem::path m_Old;
};

TEST(HostLibrary, OpensEveryFunctionAndLeavesTheTable)
{
    orvexTest::LuaState L(true);
    const int top = lua_gettop(L);
    OpenHostLibrary(L);
    ASSERT_EQ(lua_gettop(L), top + 1);
    ASSERT_TRUE(lua_istable(L, -1));
    int count = 0;
    for (lua_pushnil(L); lua_next(L, -2); lua_pop(L, 1))
        count += lua_iscfunction(L, -1) ? 1 : 0;
    EXPECT_EQ(count, 38);
}

TEST(HostFiles, ReadDirListsEntriesWithoutDotsAndNamesThePattern)
{
    orvexTest::TempDir dir;
    dir.Write("a.txt", "12345");
    dir.Write("b.txt", "");
    std::filesystem::create_directory(dir.File("sub"));
    HostLib h;
    const std::string pattern = dir.Path() + "\\*.txt";
    const std::string code = "local t = orvex.readdir([[" + pattern + "]]) "
                             "local names = {} for i, e in ipairs(t) do names[e.Name] = e end "
                             "return #t, names['a.txt'].Size, names['a.txt'].IsArchive, names['b.txt'].IsDir, "
                             "t.Pattern, t.Parent == [[" + dir.Path() + "/]], t[1].CreateTime > 0";
    EXPECT_EQ(h.Run(code), "2,5,true,false,*.txt,true,true");

    const std::string all = "local t = orvex.readdir([[" + dir.Path() + "/*]]) local s = '' "
                            "for _, e in ipairs(t) do if e.Name == '.' or e.Name == '..' then return 'dots' end "
                            "if e.IsDir then s = s .. e.Name end end return #t, s";
    EXPECT_EQ(h.Run(all), "3,sub");
    EXPECT_EQ(h.Run("local t = orvex.readdir([[" + dir.Path() + "/none*]]) return #t, t.Pattern"), "0,none*");
    EXPECT_EQ(h.Run("return next(orvex.readdir({}))"), "nil") << "no pattern, still a table";
}

TEST(HostFiles, CreateDirMakesAllLevelsOnceAndDirExistsTrimsOneSeparator)
{
    orvexTest::TempDir dir;
    HostLib h;
    const std::string deep = dir.Path() + "/one\\two/three\\";
    EXPECT_EQ(h.Run("return orvex.createdir([[" + deep + "]])"), "true");
    EXPECT_TRUE(std::filesystem::is_directory(dir.Path() + "/one/two/three"));
    EXPECT_EQ(h.Run("return orvex.createdir([[" + deep + "]])"), "false") << "exists already";

    struct Case
    {
        std::string path;
        const char *expect;
    } cases[] = {
        {dir.Path() + "/one/", "true"},      // trailing separator cut
        {dir.Path() + "\\one\\", "true"},
        {dir.Path() + "/one//", "true"},     // one cut; the next one stays and does no harm
        {"/", "true"},                       // one character: not cut
        {dir.Path() + "/one/two/three", "true"},
        {dir.Path() + "/missing/", "false"},
    };
    for (const Case &c : cases)
        EXPECT_EQ(h.Run("return orvex.direxists([[" + c.path + "]])"), c.expect) << c.path;
    EXPECT_EQ(h.Run("return orvex.direxists(1), orvex.direxists()"), "false,false");

    EXPECT_EQ(h.Run("return orvex.removedir([[" + dir.Path() + "/one]])"), "false") << "not empty";
    EXPECT_EQ(h.Run("return orvex.removedir([[" + dir.Path() + "/one/two/three]])"), "true");

    const std::string file = dir.Write("f", "x");
    EXPECT_EQ(h.Run("return orvex.fileexists([[" + file + "]]), orvex.fileexists([[" + dir.Path() + "]])"),
              "true,false");
    EXPECT_EQ(h.Run("return orvex.fileexists({})"), "table") << "the argument comes back";
    EXPECT_EQ(h.Run("return orvex.fileexists()"), "nil");
}

TEST(HostFiles, PathsBeyondTheBuffersFailCleanly)
{
    orvexTest::TempDir dir;
    HostLib h;
    const std::string longName(300, 'x');
    const std::string longPath = dir.Path() + "/" + longName;
    for (const char *function : {"fullpath", "createdir", "direxists"})
        EXPECT_EQ(h.Run(std::string("return orvex.") + function + "([[" + longPath + "]])"),
                  std::string(function) == "fullpath" ? "nil" : "false")
            << function;
    EXPECT_EQ(h.Run("return next(orvex.readdir([[" + longPath + "/*]]))"), "nil");
    EXPECT_EQ(h.Run("return orvex.tounc([[" + longPath + "]])"), "");

    // A current folder deeper than getcurrentdir's buffer: nil, not a cut path.
    std::string deep = dir.Path();
    while (deep.size() < 1100)
    {
        deep += "/" + std::string(100, 'd');
        ASSERT_TRUE(std::filesystem::create_directory(deep));
    }
    {
        InFolder in(deep);
        EXPECT_EQ(h.Run("return orvex.getcurrentdir()"), "nil");
    }
    InFolder in(dir.Path());
    EXPECT_EQ(h.Run("return orvex.getcurrentdir()"), dir.Path() + "/");
    EXPECT_EQ(h.Run("return orvex.fullpath('a\\\\.\\\\b\\\\..\\\\c')"), dir.Path() + "/a/c");
    EXPECT_EQ(h.Run("return orvex.setcurrentdir('nowhere'), orvex.tounc('relative')"), "false");
    EXPECT_EQ(h.Run("return orvex.tounc('\\\\\\\\server\\\\share')"), "\\\\server\\share");
}

TEST(HostText, ValuesGoToTextAndBack)
{
    orvexTest::TempDir dir;
    HostLib h;
    const std::string file = dir.File("value.txt");
    EXPECT_EQ(h.Run("return orvex.writefile([[" + file + "]], {a = 1, b = {'x', true}})"), "true");
    EXPECT_EQ(h.Run("local t = orvex.readfile([[" + file + "]]) return t.a, t.b[1], t.b[2]"), "1,x,true");
    EXPECT_EQ(h.Run("local t = orvex.readstring(orvex.writestring({3, 'y'})) return t[1], t[2]"), "3,y");
    EXPECT_EQ(h.Run("return orvex.writestring('q'), orvex.readstring(orvex.writestring(2.5))"), "\"q\",2.5");
    // An unknown dotted name before a table reads as that table.
    EXPECT_EQ(h.Run("local t = orvex.readstring('Some.Point { x = 1 }') return t.x"), "1");
    // With a name: the text runs as statements and that global is the value.
    dir.Write("named.txt", "settings = { depth = 4 }\nother = 1\n");
    EXPECT_EQ(h.Run("return orvex.readfile([[" + dir.File("named.txt") + "]], 'settings').depth"), "4");
    EXPECT_EQ(h.Run("return orvex.readstring('x = 5', 'x')"), "5");

    struct Case
    {
        const char *code, *expect;
    } failures[] = {
        {"return orvex.readstring('{'), orvex.readstring({})", "nil,nil"},
        {"return orvex.readfile('/no/such/file'), orvex.readfile()", "nil,nil"},
        {"return orvex.writefile('/no/such/folder/file', 1), orvex.writefile(nil, 1)", "false,false"},
        {"return pcall(orvex.writestring, coroutine.create(print))", "false"},
        {"return pcall(orvex.writefile, '/tmp/never', coroutine.create(print))", "false"},
    };
    for (const Case &c : failures)
        EXPECT_EQ(h.Run(c.code).substr(0, std::strlen(c.expect)), c.expect) << c.code;
    EXPECT_NE(h.Run("return select(2, pcall(orvex.writestring, coroutine.create(print)))")
                  .find("Unsupported type for custom data!"),
              std::string::npos);
}

TEST(HostProcesses, ExecuteBgWaitsWithTwoResultsOrReturnsAtOnce)
{
    HostLib h;
    EXPECT_EQ(h.Run("return orvex.executebg('sh -c \"exit 3\"', true)"), "true,3");
    EXPECT_EQ(h.Run("return orvex.executebg('true')"), "true");
    EXPECT_EQ(h.Run("return orvex.executebg('/no/such/program', true)"), "false");
    EXPECT_EQ(h.Run("return orvex.executebg(nil, true), orvex.executebg('')"), "false,false");
    // Waits of nothing or less return at once; a non-number is no wait.
    EXPECT_EQ(h.Run("orvex.wait(0) orvex.wait(-1) orvex.wait('x') return orvex.getpid()"),
              std::to_string(getpid()));
    EXPECT_EQ(h.Run("return orvex.suspend()"), "");
}

TEST(HostProcesses, WithoutDisplayOrTerminalClipboardAndConsoleFail)
{
    orvexTest::ScopedEnv noDisplay("DISPLAY", nullptr);
    HostLib h;
    EXPECT_EQ(h.Run("return orvex.getclipboard()"), "nil");
    EXPECT_EQ(h.Run("return select('#', orvex.setclipboard('x'))"), "0");
    EXPECT_EQ(h.Run("return select('#', orvex.setclipboard(nil))"), "0");

    // A process of a session of its own has no terminal to reopen its standard files on.
    const pid_t child = fork();
    if (child == 0)
    {
        (void)setsid();
        HostLib c;
        _exit(c.Run("return orvex.allocconsole()") == "false" ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

TEST(HostProcesses, CrashIsARealFault)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            HostLib h;
            h.Run("orvex.crash()");
        },
        "");
}

TEST(HostLocks, NamedLockExcludesAnotherProcessUntilReleased)
{
    const std::string name = "HostLocks-" + std::to_string(getpid());
    // A child that waits for a byte on `go`, then tries the lock for 0.2 s: exit status 0 if it got it.
    auto startChild = [&](int go) {
        const pid_t child = fork();
        if (child == 0)
        {
            char byte = 0;
            if (read(go, &byte, 1) != 1) _exit(2);
            HostLib c;
            _exit(c.Run("return orvex.obtaingloballock('" + name + "', 0.2)") == "true" ? 0 : 1);
        }
        return child;
    };
    auto result = [](pid_t child, int go) {
        (void)!write(go, "g", 1);
        int status = -1;
        waitpid(child, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    };
    int pipes[2];
    ASSERT_EQ(pipe(pipes), 0);
    // Started before this process has the lock, so it shares nothing of it.
    const pid_t early = startChild(pipes[0]);

    HostLib h;
    EXPECT_EQ(h.Run("return orvex.obtaingloballock('" + name + "', 1)"), "true");
    EXPECT_EQ(h.Run("return orvex.obtaingloballock('" + name + "', 0)"), "true") << "again by its owner";
    EXPECT_EQ(result(early, pipes[1]), 1) << "held here";
    EXPECT_EQ(h.Run("return orvex.releasegloballock('" + name + "'), orvex.releasegloballock('" + name + "')"),
              "true,true");
    EXPECT_EQ(h.Run("return orvex.releasegloballock('" + name + "')"), "false") << "no longer held";
    const pid_t late = startChild(pipes[0]);
    EXPECT_EQ(result(late, pipes[1]), 0);
    close(pipes[0]);
    close(pipes[1]);

    EXPECT_EQ(h.Run("return orvex.obtaingloballock(5, 1), orvex.releasegloballock('never-taken')"), "false,false");
}

// Within one process a lock belongs to the thread that took it, as between processes.
TEST(HostLocks, AnotherThreadWaitsForTheOwner)
{
    const std::string name = "HostLocksThreads-" + std::to_string(getpid());
    ASSERT_TRUE(HostSystem::ObtainGlobalLock(name.c_str(), 1000));
    bool got = true, released = true;
    std::thread([&] {
        got = HostSystem::ObtainGlobalLock(name.c_str(), 100);
        released = HostSystem::ReleaseGlobalLock(name.c_str());
    }).join();
    EXPECT_FALSE(got);
    EXPECT_FALSE(released) << "only the owner releases";
    ASSERT_TRUE(HostSystem::ReleaseGlobalLock(name.c_str()));
    std::thread([&] {
        got = HostSystem::ObtainGlobalLock(name.c_str(), 100);
        released = HostSystem::ReleaseGlobalLock(name.c_str());
    }).join();
    EXPECT_TRUE(got && released);
}

TEST(HostNames, StripAndValidNamesAndUserdata)
{
    HostLib h;
    struct Case
    {
        const char *code;
        const char *expect;
    } cases[] = {
        {"return orvex.isvalidname('WHILE')", "false"},
        {"return orvex.isvalidname('Render')", "false"},
        {"return orvex.isvalidname('1 2')", "true"},
        {"return orvex.isvalidname({})", "false"},
        {"return orvex.stripname('9a b-c')", "abc"},
        {"return orvex.stripname({})", ""},
        {"return #orvex.createuuid()", "36"},
        {"return orvex.getappname()", ""},
        {"return type(orvex.touserdata(5, 1))", "userdata"},
    };
    for (const Case &c : cases)
        EXPECT_EQ(h.Run(c.code), c.expect) << c.code;
    ASSERT_EQ(h.Run("u = orvex.touserdata(5.9, 1)"), "");
    lua_getglobal(h.L, "u");
    EXPECT_EQ(lua_touserdata(h.L, -1), reinterpret_cast<void *>(0x100000005ull));
    lua_pop(h.L, 1);
}

TEST(HostNoise, MatchesWorkedValuesAndWeighsOctaves)
{
    // Worked out independently, in single precision step by step.
    struct Case
    {
        float x, y, z, octaves, expect;
    } cases[] = {
        {0, 0, 0, 1, 0.0f},
        {0.5f, 0.25f, 0.125f, 1, 0.091869056224823f},
        {1.3f, -2.7f, 0.4f, 1, 0.13219782710075378f},
        {-0.75f, 3.1f, -1.9f, 1, 0.1896737813949585f},
        {10.2f, 4.4f, -7.3f, 1, -0.13242276012897491f},
        {-1, -1, -1, 1, 0.0f},
        {-2, 1.3f, 0.7f, 1, 0.13235585391521454f}, // x + s is exactly -2: its floor is taken as -3
        {0.3f, 0.6f, 0.9f, 1.5f, -0.020356304943561554f},
        {2.2f, 0.1f, 5.5f, 3, 0.1807268112897873f},
    };
    for (const Case &c : cases)
        EXPECT_FLOAT_EQ(FractalNoise(c.x, c.y, c.z, c.octaves), c.expect) << c.x << " " << c.y << " " << c.z;

    // Half an octave more adds the second octave (x doubled, weight 1/2) at half strength.
    const float x = 0.7f, y = -0.2f, z = 1.9f;
    EXPECT_FLOAT_EQ(FractalNoise(x, y, z, 1.5f), FractalNoise(x, y, z, 1) + 0.25f * FractalNoise(2 * x, y, z, 1));
    EXPECT_FLOAT_EQ(FractalNoise(x, y, z, 2), FractalNoise(x, y, z, 1) + 0.5f * FractalNoise(2 * x, y, z, 1));
    EXPECT_TRUE(std::isfinite(FractalNoise(x, y, z, 1e9f)));

    HostLib h;
    EXPECT_EQ(h.Run("return orvex.noise(0.5, 0.25, 0.125) == orvex.noise(0.5, 0.25, 0.125, 1)"), "true");
    EXPECT_EQ(h.Run("return orvex.noise()"), "0");
}

TEST(HostActiveObject, UsingGivesThePreviousAndExitOnlyRecords)
{
    HostLib h;
    EXPECT_EQ(h.Run("return orvex.getusing()"), "nil");
    EXPECT_EQ(h.Run("return orvex.using('first')"), "nil");
    EXPECT_EQ(h.Run("return orvex.using('second'), orvex.getusing()"), "first,second");
    lua_getfield(h.L, LUA_REGISTRYINDEX, kActiveObjectKey);
    EXPECT_STREQ(lua_tostring(h.L, -1), "second");
    lua_pop(h.L, 1);
    EXPECT_EQ(h.Run("orvex.using() return orvex.getusing()"), "nil");

    EXPECT_EQ(h.Run("orvex.exit(7, {1}) return _EXITCODE, #_EXITDATA"), "7,1");
    EXPECT_EQ(h.Run("orvex.exit('x', 'y') return _EXITCODE, _EXITDATA"), "0,nil");
}

TEST(HostRemote, NobodyServingGivesNilAndPingsNothing)
{
    const uint16_t port = testhost::FreeServerPort();
    ASSERT_NE(port, 0);
    const unsigned short saved = g_ScriptServerPort;
    g_ScriptServerPort = port;
    {
        testhost::RecordsGone gone;
        HostLib h;
        EXPECT_EQ(h.Run("return orvex.scriptapp('NobodyHere', 42, 0.5, {}, 1)"), "nil");
        EXPECT_EQ(h.Run("return select('#', orvex.pinghosts('NobodyHere', 0.2))"), "0");
        EXPECT_EQ(h.Run("return select('#', orvex.sendnotify({1, 2}, 'x'))"), "0");
        EXPECT_EQ(h.Run("return select('#', orvex.sendnotify(5, 'x', coroutine.create(print)))"), "0");
    }
    g_ScriptServerPort = saved;
}

// An application that demands a login: the saved user and password get a connection, none or wrong
// ones get nil, and the local flag skips the login for the local address only.
TEST(HostRemote, ScriptAppLogsInWithTheSavedLogin)
{
    orvexTest::TempDir config;
    orvexTest::ScopedEnv env("XDG_CONFIG_HOME", config.Path().c_str());
    const uint16_t port = testhost::FreeServerPort();
    ASSERT_NE(port, 0);
    const unsigned short saved = g_ScriptServerPort;
    testhost::BecomeClient(port, "HostLibTest");
    {
        testhost::RecordsGone gone; // last to go
        testhost::ServerProcess server(port);
        ASSERT_TRUE(server.started);
        testhost::HostProcess host("LoginHost", port, {"--password", "secret"});
        HostLib h;
        auto saveLogin = [&](const char *address, const char *password) {
            std::filesystem::create_directories(config.Path() +
                                                "/orvexScript/registry/Software/orvex/orvexScript/Logins/" +
                                                address + "/LoginHost");
            config.Write(std::string("orvexScript/registry/Software/orvex/orvexScript/Logins/") + address +
                             "/LoginHost/Name.key",
                         "=user\n");
            config.Write(std::string("orvexScript/registry/Software/orvex/orvexScript/Logins/") + address +
                             "/LoginHost/Password.key",
                         std::string("=") + password + "\n");
        };
        const std::string connect = "local a = orvex.scriptapp('LoginHost', nil, 5) return a ~= nil";
        EXPECT_EQ(h.Run(connect), "false") << "no saved login";
        saveLogin("127.0.0.1", "wrong");
        EXPECT_EQ(h.Run(connect), "false");
        saveLogin("127.0.0.1", "secret");
        EXPECT_EQ(h.Run(connect), "true");
        // A notification reaches the objects of a table in order with later calls on the connection.
        EXPECT_EQ(h.Run("local a = orvex.scriptapp('LoginHost', nil, 5) local item = a:Make('old') "
                        "orvex.sendnotify({item, 7}, 'SetName', 'new') return item:Name()"),
                  "new");

        saveLogin("127.0.0.1", "wrong");
        lua_pushboolean(h.L, true);
        lua_setfield(h.L, LUA_REGISTRYINDEX, kLocalConnectKey);
        EXPECT_EQ(h.Run("return orvex.scriptapp('LoginHost', nil, 5) ~= nil"), "true") << "no login made";

        EXPECT_EQ(h.Run("local t = orvex.pinghosts('LoginHost', 0.3) return type(t), type(t[1].IP)"), "table,string");
        EXPECT_EQ(h.Run("collectgarbage() collectgarbage()"), "");
    }
    g_ScriptServerPort = saved;
}

} // namespace
} // namespace orvexScript
