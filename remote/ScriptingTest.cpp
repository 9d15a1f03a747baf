// InitScripting: first call wins, the caller becomes the main thread and the window's only possible
// owner, the application UUID, and the configuration's callbacks behind the object layer's hooks.
// InitScripting is once per process, so the checks run in a child: this program started again with
// ORVEX_SCRIPTING_CHILD set, running only this test.

#include "remote/Scripting.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <regex>
#include <string>
#include <thread>

#include "objects/ObjectHooks.h"
#include "remote/ScriptWindow.h"
#include "testsupport/TestObjects.h"
#include "testsupport/TestSupport.h"
#include "values/model/ScriptVal.h"

namespace orvexScript
{
namespace
{

struct Host
{
    bool debugging = false;
    testobjects::Scripted root;
};

bool HostIsDebug(void *user, void *)
{
    return static_cast<Host *>(user)->debugging;
}

ScriptObject *HostRoot(void *user, void *)
{
    return &static_cast<Host *>(user)->root;
}

ScriptConfig MakeConfig(Host &host, const char *name)
{
    return ScriptConfig{1, SCF_Host, name, &host, HostIsDebug, HostRoot};
}

void RunInitChecks()
{
    EXPECT_TRUE(GetAppUUID().IsNil());
    EXPECT_EQ(g_ScriptConfig, nullptr);

    Host first, second;
    ScriptConfig firstConfig = MakeConfig(first, "first");
    ScriptConfig secondConfig = MakeConfig(second, "second");
    InitScripting(firstConfig);
    std::thread([&] { InitScripting(secondConfig); }).join();
    InitScripting(secondConfig);

    // The first configuration, the first caller's thread; start-up has not happened.
    EXPECT_EQ(g_ScriptConfig, &firstConfig);
    EXPECT_EQ(GetScriptingMainThread(), std::this_thread::get_id());
    EXPECT_FALSE(g_ScriptingActive);

    const std::string uuid = GetAppUUID().ToString("");
    EXPECT_TRUE(std::regex_match(uuid, std::regex("[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12}")))
        << uuid;
    EXPECT_EQ(uuid, GetAppUUID().ToString(""));

    // The object layer asks the first configuration, with its user pointer.
    EXPECT_EQ(GetRootObject(), &first.root);
    EXPECT_FALSE(IsScriptDebug());
    first.debugging = true;
    second.debugging = true;
    EXPECT_TRUE(IsScriptDebug());
    first.debugging = false;
    EXPECT_FALSE(IsScriptDebug());

    // Only the main thread may own the window.
    bool madeElsewhere = true;
    std::thread([&] { madeElsewhere = CreateScriptWindow(); }).join();
    EXPECT_FALSE(madeElsewhere);
    EXPECT_EQ(GetScriptWnd(), nullptr);
    ASSERT_TRUE(CreateScriptWindow());
    ASSERT_NE(GetScriptWnd(), nullptr);
    EXPECT_TRUE(GetScriptWnd()->IsOwnerThread());
    DestroyScriptWindow();
    EXPECT_EQ(GetScriptWnd(), nullptr);
}

constexpr const char *kChildVariable = "ORVEX_SCRIPTING_CHILD";

TEST(ScriptingInit, FirstCallWinsOnItsThreadInAFreshProcess)
{
    if (std::getenv(kChildVariable))
    {
        RunInitChecks();
        return;
    }
    orvexTest::ScopedEnv child(kChildVariable, "1");
    auto result = orvexTest::RunProcess(
        {"/proc/self/exe", "--gtest_filter=ScriptingInit.FirstCallWinsOnItsThreadInAFreshProcess"}, 60000);
    EXPECT_FALSE(result.timedOut);
    EXPECT_EQ(result.exitCode, 0) << result.out << result.err;
    EXPECT_NE(result.out.find("[  PASSED  ] 1 test"), std::string::npos) << result.out;
}

} // namespace
} // namespace orvexScript
