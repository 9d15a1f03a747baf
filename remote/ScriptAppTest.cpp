// The client's side of finding applications and the members every connectable root has: logins,
// the connect lock's settings, connects that cannot succeed, and the hidden members called in-process.
#include "remote/ScriptApp.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "objects/ObjectHooks.h"
#include "objects/ScriptInfo.h"
#include "remote/testhost/ServerProcesses.h"

namespace orvexScript
{
namespace
{
using testhost::HostProcess;
using testhost::IsFalse;
using testhost::IsTrue;

TEST(ScriptAppLogin, AClientOfAHostThatChecksLoginsCanOnlyLogInFirst)
{
    testhost::ServedClient served("ScriptAppTest");
    HostProcess host("delta", served.port, {"--password", "secret"});

    ScriptVal root = ScriptApp("delta", nullptr, nil, "127.0.0.1", 5.0);
    ASSERT_FALSE(root.IsNil());
    EXPECT_TRUE(root.CallMember("Add", 1, 2).IsNil()); // refused: not logged in
    EXPECT_TRUE(IsFalse(root.CallMember("__Login", "user", "wrong")));
    EXPECT_TRUE(root.CallMember("Add", 1, 2).IsNil());
    EXPECT_TRUE(IsTrue(root.CallMember("__Login", "user", "secret")));
    EXPECT_EQ(root.CallMember("Add", 1, 2), 3.0);

    struct Case
    {
        const char *name, *user, *password;
        bool ok;
    } cases[] = {{"delta", "user", "secret", true},
                 {"delta", "user", "wrong", false},
                 {"nobody", "user", "secret", false}};
    for (const Case &c : cases)
        EXPECT_EQ(ScriptLogin("127.0.0.1", c.name, c.user, c.password), c.ok) << c.name << " " << c.password;
}

TEST(ScriptApp, EveryConnectLockSettingConnectsConcurrentCallers)
{
    testhost::ServedClient served("ScriptAppTest");
    HostProcess host("alpha", served.port);
    struct Case
    {
        const char *lock, *early;
    } cases[] = {{nullptr, nullptr}, {"false", nullptr}, {nullptr, "false"}, {"yes", "false"}};
    for (const Case &c : cases)
    {
        orvexTest::ScopedEnv lock("KELMAR_CONNECTLOCK", c.lock);
        orvexTest::ScopedEnv early("KELMAR_EARLY_CONNECTLOCK", c.early);
        std::vector<ScriptVal> roots(3);
        std::vector<std::thread> callers;
        for (ScriptVal &root : roots)
            callers.emplace_back([&root] { root = ScriptApp("alpha", nullptr, nil, "127.0.0.1", 5.0); });
        for (std::thread &caller : callers)
            caller.join();
        for (size_t i = 0; i < roots.size(); ++i)
        {
            ASSERT_FALSE(roots[i].IsNil()) << (c.lock ? c.lock : "-") << "/" << (c.early ? c.early : "-");
            EXPECT_EQ(roots[i].CallMember("Add", static_cast<int>(i), 1), static_cast<double>(i + 1));
            // Each call made a connection of its own.
            for (size_t j = 0; j < i; ++j)
                EXPECT_NE(roots[i].GetApp(), roots[j].GetApp());
        }
    }
}

TEST(ScriptApp, ConnectsThatCannotSucceedGiveNil)
{
    testhost::RecordsGone gone; // last to go
    const uint16_t port = testhost::FreeServerPort(); // no server there
    testhost::BecomeClient(port, "ScriptAppTest");
    EXPECT_TRUE(ScriptApp("alpha", nullptr, nil, "127.0.0.1", 0.5).IsNil());
    EXPECT_TRUE(ScriptApp("", nullptr, nil, "127.0.0.1", 0.5).IsNil());
    EXPECT_FALSE(ScriptLogin("127.0.0.1", "alpha", "user", "secret"));
    ScriptVal answers;
    EXPECT_FALSE(Ping("", 0.2, answers));
    EXPECT_EQ(answers.NumKeys(), 0);

    // Loopback only: another address is refused before anything is sent.
    SetLoopbackOnly(true);
    EXPECT_TRUE(ScriptApp("alpha", nullptr, nil, "0.0.0.0", 0.5).IsNil());
    EXPECT_TRUE(AsyncScriptApp("alpha", nullptr, nil, "0.0.0.0", 0.5, false).IsNil());
    SetLoopbackOnly(false);

    // Not started: the proxy exists at once and leads nowhere yet.
    ScriptVal waiting = AsyncScriptApp("alpha", nullptr, nil, "127.0.0.1", 0.5, false);
    ASSERT_FALSE(waiting.IsNil());
    EXPECT_FALSE(waiting.GetApp()->Connected());
    EXPECT_STREQ(waiting.GetApp()->GetName(), "alpha");
    EXPECT_TRUE(waiting.CallMember("Add", 1, 2).IsNil());
    RemoteApp *app = waiting.GetApp();
    app->Use();
    waiting.CleanUp();
    app->Abandon(); // never to be connected: it goes with the use
    app->Recycle();

    // A record with no socket.
    EXPECT_TRUE(ScriptApp(kNoSocket, "peer", nil).IsNil());
}

bool Refuse(void *user, RemoteApp *, const char *, const char *)
{
    ++*static_cast<int *>(user);
    return false;
}

TEST(ScriptApp, ConnectMembersAreHiddenFunctionsAddedOnce)
{
    ScriptObject *root = testhost::InitTestScripting("ScriptAppTest");
    ScriptInfo *info = root->GetScriptInfo();
    AddConnectMembers(info);
    AddConnectMembers(info);
    for (const char *name : {"__Connect", "__NewConnect", "__Login"})
    {
        int count = 0;
        for (ScriptSymbol *symbol = info->m_Symbols; symbol; symbol = symbol->m_Next)
            if (symbol->m_Name == name)
            {
                ++count;
                EXPECT_EQ(symbol->m_Flags, 0x400001u) << name;
            }
        EXPECT_EQ(count, 1) << name;
    }

    struct Case
    {
        const char *member;
        ScriptVal block;
        bool result;
    } cases[] = {
        {"__NewConnect", ScriptVal("no block"), false},
        {"__NewConnect", ScriptVal(MemBlock(const_cast<char *>("0123456789"), 10)), false},
        {"__NewConnect", ScriptVal(MemBlock(const_cast<char *>("0123456789abcdefg"), 17)), false},
        {"__Connect", ScriptVal(MemBlock(const_cast<char *>("0123456789abcdef"), 16)), false},
        {"__Login", ScriptVal("user"), true},
    };
    for (const Case &c : cases)
    {
        ScriptArgs args;
        args[1] = c.block;
        args[2] = "client";
        ASSERT_TRUE(CallScriptFunc(root, c.member, args)) << c.member;
        EXPECT_EQ(args[-1].ToBoolean(), c.result) << c.member;
    }

    int asked = 0;
    SetLoginHook(Refuse, &asked);
    EXPECT_TRUE(LoginRequired());
    ScriptArgs login;
    login[1] = "user";
    login[2] = "password";
    ASSERT_TRUE(CallScriptFunc(root, "__Login", login));
    EXPECT_TRUE(IsFalse(login[-1]));
    EXPECT_EQ(asked, 1);
    SetLoginHook(nullptr, nullptr);
    EXPECT_FALSE(LoginRequired());
}

} // namespace
} // namespace orvexScript
