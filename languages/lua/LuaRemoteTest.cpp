// Lua scripts that drive the objects of another process: the test host runs as a child and its root
// is a global of a Lua state here. Reads, writes and calls go over loopback TCP; the proxies' counts
// follow Lua's collector on both ends; errors, misuse and a killed host reach the script as Lua errors
// or nil. Every wait is bounded.
#include "languages/lua/LuaBridge.h"

#include <gtest/gtest.h>

#include <lua.hpp>

#include <csignal>
#include <string>

#include "remote/RemoteApp.h"
#include "remote/RemoteObject.h"
#include "remote/testhost/HostObjects.h"
#include "remote/testhost/Loopback.h"
#include "testsupport/LuaState.h"
#include "testsupport/TestSupport.h"
#include "values/model/ScriptVal.h"

namespace orvexScript
{
namespace
{

// This program's scripting (the test host's classes, with a root of its own), made before connecting.
uint16_t WithScripting(uint16_t port)
{
    (void)testhost::InitTestScripting("LuaRemoteTest");
    return port;
}

// The test host as a child, connected to, and a Lua state whose global `root` is the host's root.
// Members go in reverse: the state closes first, giving back its proxies while the connection is up.
struct RemoteScript
{
    orvexTest::ListeningChild host{{ORVEX_TEST_HOST}};
    testhost::Client client{WithScripting(host.Port())};
    orvexTest::LuaState L{true};

    RemoteScript()
    {
        OpenObjectTypes(L);
        PushRoot("root");
        // A hung call ends the test rather than blocking it.
        if (client.app) client.app->SetTimeOut(30);
    }

    bool Connected() const { return host.Port() != 0 && client.root.IsRemoteObject(); }

    // Pushes the host's root as the global `name`.
    void PushRoot(const char *name)
    {
        _PushScriptObject(L, client.root.ToRemoteObject(), true);
        lua_setglobal(L, name);
    }

    // Runs a chunk; its error message, or empty if it ran through.
    std::string Run(const char *code)
    {
        const int top = lua_gettop(L);
        std::string error;
        if (luaL_loadstring(L, code) != 0 || lua_pcall(L, 0, 0, 0) != 0)
        {
            const char *message = lua_tostring(L, -1);
            error = message && *message ? message : "(an error without a message)";
        }
        lua_settop(L, top);
        return error;
    }

    double HostLive() { return client.root.CallMember("Live").ToNumber(-1); }
};

TEST(LuaRemote, ScriptReadsWritesCallsAndLetsGoOfTheHostsObjects)
{
    RemoteScript s;
    ASSERT_TRUE(s.Connected());
    const unsigned proxiesBefore = s.client.app->GetRemoteObjectCount();

    EXPECT_EQ(s.Run(R"(
        root.Value = 42
        assert(root.Value == 42, "a number written is read back")
        root.Value = { list = { 1, 2 }, name = "x" }
        local v = root.Value
        assert(v.list[2] == 2 and v.name == "x", "a table written is read back")
        assert(root:Add(2, 3) == 5)
        assert(root.Add(root, 4, 5) == 9, "a function read with a dot takes the object first")
        assert(root.Add ~= root.Add and root:Add(1, 1) == 2, "a remembered member is a fresh closure each read")

        local n, text, flag, t = root:Echo(1.5, "two", true, { 10, 20, k = "v", nested = { x = 3 } })
        assert(n == 1.5 and text == "two" and flag == true, "plain results come back in order")
        assert(type(t) == "table" and t[1] == 10 and t[2] == 20 and t.k == "v" and t.nested.x == 3,
               "a table comes back equal")
        assert(select("#", root:Echo(1, 2, 3)) == 3, "every result is a Lua result")

        items = {}
        for i = 1, 3 do items[i] = root:Make("item" .. i) end
        assert(root:Live() == 3)
        items[2]:SetName("renamed")
        assert(items[1]:Name() == "item1" and items[2]:Name() == "renamed" and items[3]:Name() == "item3")
        assert(rawequal(root:Echo(items[1]), items[1]), "a proxy sent to its owner comes back as itself")
    )"),
              "");
    EXPECT_EQ(s.client.app->GetRemoteObjectCount(), proxiesBefore + 3);

    EXPECT_EQ(s.Run("items = nil; collectgarbage(); collectgarbage()"), "");
    EXPECT_TRUE(orvexTest::WaitUntil([&] { return s.HostLive() == 0; }));
    EXPECT_TRUE(orvexTest::WaitUntil([&] { return s.client.app->GetRemoteObjectCount() == proxiesBefore; }));
}

TEST(LuaRemote, OnePushedObjectIsOneUserdataAndComparesWithoutAsking)
{
    RemoteScript s;
    ASSERT_TRUE(s.Connected());
    s.PushRoot("again");
    // The metamethod __eq is watched: Lua consults it only for two different userdata, and only then
    // does a comparison go to the peer.
    EXPECT_EQ(s.Run(R"(
        assert(rawequal(root, again), "two pushes give one userdata")
        local mt = getmetatable(root)
        local eq, asked = mt.__eq, 0
        mt.__eq = function(a, b) asked = asked + 1; return eq(a, b) end
        local a, b = root:Make("a"), root:Make("b")
        local same, different = root == again, a == b
        mt.__eq = eq
        assert(same and asked == 1, "asked " .. asked)
        assert(not different)
    )"),
              "");
}

TEST(LuaRemote, ErrorsAndMisuseReachTheScript)
{
    RemoteScript s;
    ASSERT_TRUE(s.Connected());
    const struct
    {
        const char *code;
        const char *error; // a part of the message; null: the chunk runs through
    } cases[] = {
        // A remote error reply is a Lua error with the peer's text, or nothing when probing quietly.
        {"root:Fail('boom')", "boom"},
        {"local ok, m = pcall(root.Fail, root, 'boom') assert(ok == false and m:find('boom'), m)", nullptr},
        {"debug.getregistry().orvexScriptIgnoreErrors = true "
         "local n = select('#', root:Fail('boom')) "
         "debug.getregistry().orvexScriptIgnoreErrors = nil "
         "assert(n == 0, n)",
         nullptr},
        // Keys: a number or a string goes to the peer, anything else is refused here.
        {"local v = root[1] v = root['NoSuchMember']", nullptr},
        {"local v = root[true]", "Unsupported key type!"},
        {"root[false] = 1", "Unsupported key type!"},
        // The member functions of the application object.
        {"root.SetTimeout(5)", "Member functions must be called with a ':', not a '.'"},
        {"local f = root.GetTimeout f(root:Make('other'))", "Member functions must be called with a ':', not a '.'"},
        {"local old = root.SetTimeout(root, 7) "
         "assert(root:GetTimeout() == 7 and root:SetTimeout(old) == 7 and root:GetTimeout() == old)",
         nullptr},
        {"root:Make('x'):GetTimeout()", "Can only set timeout on application object."},
        {"root:Make('x'):IsAppConnected()", "Can only check connection on application object."},
        {"root:Make('x'):GetAppData()", "Can only get data on application object."},
        {"assert(root:IsAppConnected() == true)", nullptr},
        {"local d = root:GetAppData() "
         "assert(type(d.Name) == 'string' and d.Address == '127.0.0.1' and type(d.ID) == 'string')",
         nullptr},
        // Decoration, type tests and the constructor.
        {"local t = tostring(root) assert(t:find(\"[App: '\", 1, true), t)", nullptr},
        {"local mt = getmetatable(root) "
         "assert(mt._istypeof(root, 'LuaClass') == true and mt._istypeof(root, '_ScriptObject') == true) "
         "assert(mt._istypeof(root, 'NoSuchType') == false and mt._typename(root) == '_ScriptObject')",
         nullptr},
        {"assert(select('#', class._ScriptObject(root, 0, 0)) == 0)", nullptr},
    };
    for (const auto &c : cases)
    {
        SCOPED_TRACE(c.code);
        const std::string error = s.Run(c.code);
        if (c.error)
            EXPECT_NE(error.find(c.error), std::string::npos) << error;
        else
            EXPECT_EQ(error, "");
    }
    // Nothing the cases made is left on the host once Lua let go of it.
    EXPECT_EQ(s.Run("collectgarbage(); collectgarbage()"), "");
    EXPECT_TRUE(orvexTest::WaitUntil([&] { return s.HostLive() == 0; }));
}

TEST(LuaRemote, ProxiesOfAKilledHostAnswerNil)
{
    RemoteScript s;
    ASSERT_TRUE(s.Connected());
    ASSERT_EQ(s.Run("item = root:Make('doomed') add = root.Add assert(add(root, 1, 2) == 3)"), "");

    s.host.Process().Signal(SIGKILL);
    // Calls block until the connection notices the loss; none waits for its time-out.
    EXPECT_EQ(s.Run(R"(
        assert(root.Value == nil)
        assert(add(root, 1, 2) == nil)
        assert(item.Name == nil)
        assert(root(1) == nil)
        assert(root + 1 == nil)
        root.Value = 5
        assert(root:IsAppConnected() == false)
        item = nil
        collectgarbage()
    )"),
              "");
    EXPECT_EQ(s.host.Process().Wait().signal, SIGKILL);
}

// The proxies a state holds keep their connection's record: the state may close after the connection
// ended and its owner let go (a leak or a freed record read here is the sanitizers' to find).
TEST(LuaRemote, AStateThatOutlivesItsConnectionGivesBackItsProxiesWhenItCloses)
{
    orvexTest::LuaState L(true);
    OpenObjectTypes(L);
    {
        orvexTest::ListeningChild host({ORVEX_TEST_HOST});
        testhost::Client client(WithScripting(host.Port()));
        ASSERT_TRUE(client.root.IsRemoteObject());
        _PushScriptObject(L, client.root.ToRemoteObject(), true);
        lua_setglobal(L, "root");
        ASSERT_EQ(luaL_dostring(L, "item = root:Make('kept') assert(item:Name() == 'kept')"), 0)
            << lua_tostring(L, -1);
    }
    EXPECT_EQ(RemoteApp::GetNumConnections(), 0);
    EXPECT_EQ(luaL_dostring(L, "assert(root.Value == nil and item.Name == nil and not root:IsAppConnected())"), 0)
        << lua_tostring(L, -1);
}

TEST(LuaRemote, AnObjectOfThisProcessGoesToTheHostAndIsCalledBack)
{
    RemoteScript s;
    ASSERT_TRUE(s.Connected());
    const unsigned localBefore = s.client.app->GetLocalObjectCount();
    auto *mine = new testhost::Item("mine");
    const int usesBefore = mine->GetUseCount();
    // The script gets it as a host would hand it over: named through the connection.
    RemoteObject *record = s.client.app->IncLocalRef(mine);
    ASSERT_NE(record, nullptr);
    _PushScriptObject(s.L, record, true);
    lua_setglobal(s.L, "mine");
    (void)s.client.app->DecLocalRef(mine);

    EXPECT_EQ(s.Run(R"(
        assert(root:Keep(mine) == 1)
        assert(root:Call(mine, "Name") == "mine", "the host calls it back")
        root:Call(mine, "SetName", "set by the host")
        -- The script lets go before the host does: its reference is a count on the connection's
        -- record of the object, which the host's last release clears together with the others.
        mine = nil
        collectgarbage()
        collectgarbage()
        root:Drop()
    )"),
              "");
    EXPECT_EQ(mine->m_Name, "set by the host");
    EXPECT_TRUE(orvexTest::WaitUntil([&] { return s.client.app->GetLocalObjectCount() == localBefore; }));
    EXPECT_TRUE(orvexTest::WaitUntil([&] { return mine->GetUseCount() == usesBefore; }));
    mine->DecRef();
}

} // namespace
} // namespace orvexScript
