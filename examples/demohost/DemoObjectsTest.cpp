// The demo host's objects driven in-process through their members, as a peer's commands drive them:
// results, errors, documents and layers in order, and the lifetime of objects held and let go.
#include "examples/demohost/DemoObjects.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "remote/RemoteApp.h"
#include "values/model/ScriptArgs.h"

namespace orvexDemo
{
namespace
{

using namespace orvexScript;

// Runs member `name` of the object in `value` as the command runner does: a function, a variable read
// or (with `set`) a variable write of args[1], with the name at key 0. Gives the whole argument
// record with its results.
ScriptArgs RunMember(const ScriptVal &value, const char *name, ScriptArgs args = ScriptArgs(), bool set = false)
{
    ScriptObject *object = value.ToLocalObject();
    ScriptSymbol *symbol = object ? FindSymbol(object->GetScriptInfo(), name, 0) : nullptr;
    EXPECT_NE(symbol, nullptr) << name;
    args[0] = name;
    if (symbol) symbol->Call(object, args, set);
    return args;
}

ScriptVal Get(const ScriptVal &value, const char *name)
{
    return ScriptVal(RunMember(value, name).FindKeyConst(-1));
}

void Set(const ScriptVal &value, const char *name, const ScriptVal &to)
{
    ScriptArgs args;
    args[1] = to;
    (void)RunMember(value, name, args, true);
}

std::vector<std::string> Names(const ScriptVal &table)
{
    std::vector<std::string> names;
    for (int i = 1; i <= table.NumKeys(); ++i)
        names.push_back(Get(table[i], "Name").ToString("?"));
    return names;
}

class DemoObjects : public ::testing::Test
{
protected:
    void SetUp() override
    {
        InstallRemoteHooks(); // member calls on object values
        auto *root = new DemoRoot;
        m_Root = static_cast<ScriptObject *>(root);
        root->DecRef(); // the value holds it alone
    }
    void TearDown() override
    {
        m_Root = nil;
        EXPECT_EQ(DemoObject::Live(), 0);
    }

    ScriptVal m_Root;
};

TEST_F(DemoObjects, RootMembersAnswerAsDocumented)
{
    EXPECT_EQ(Get(m_Root, "Version").ToString(""), std::string(DemoRoot::kVersion));
    EXPECT_EQ(m_Root.CallMember("Add", 2, 3.5).ToNumber(), 5.5);
    EXPECT_EQ(m_Root.CallMember("Add", -1).ToNumber(), -1); // a missing argument counts as 0
    EXPECT_TRUE(m_Root.CallMember("Sleep", 0).ToBoolean());
    EXPECT_TRUE(m_Root.CallMember("Sleep", -5).ToBoolean());

    // Echo gives back every argument, kinds kept, tables deep.
    ScriptVal inner(SV_Table, nullptr), table(SV_Table, nullptr);
    inner[1] = "deep";
    table["inner"] = inner;
    ScriptArgs echo;
    echo[1] = 7;
    echo[2] = "two";
    echo[3] = true;
    echo[4] = table;
    ScriptArgs echoed = RunMember(m_Root, "Echo", echo);
    for (int i = 1; i <= 3; ++i)
        EXPECT_EQ(echoed.FindKeyConst(-i), echo.FindKeyConst(i)) << i;
    EXPECT_EQ(echoed.FindKeyConst(-4)["inner"][1].ToString(""), std::string("deep"));
    EXPECT_TRUE(echoed.FindKeyConst(-5).IsNil());

    ScriptArgs fail;
    fail[1] = "no such layer";
    try
    {
        RunMember(m_Root, "Fail", fail);
        ADD_FAILURE() << "Fail returned";
    }
    catch (const std::runtime_error &e)
    {
        EXPECT_STREQ(e.what(), "no such layer");
    }
}

TEST_F(DemoObjects, DocumentsAndLayersKeepTheirOrderAndValues)
{
    ScriptVal first = m_Root.CallMember("NewDocument", "first");
    ScriptVal second = m_Root.CallMember("NewDocument", "second");
    EXPECT_EQ(Names(m_Root.CallMember("Documents")), (std::vector<std::string>{"first", "second"}));

    Set(first, "Name", "renamed");
    EXPECT_EQ(Get(first, "Name").ToString(""), std::string("renamed"));

    ScriptVal back = first.CallMember("AddLayer", "back");
    ScriptVal front = first.CallMember("AddLayer", "front");
    EXPECT_EQ(Names(first.CallMember("Layers")), (std::vector<std::string>{"back", "front"}));
    EXPECT_EQ(second.CallMember("Layers").NumKeys(), 0);

    EXPECT_EQ(Get(back, "Opacity").ToNumber(), 1.0);
    Set(back, "Opacity", 0.25);
    Set(front, "Name", "top");
    EXPECT_EQ(Get(back, "Opacity").ToNumber(), 0.25);
    EXPECT_EQ(Names(first.CallMember("Layers")), (std::vector<std::string>{"back", "top"}));
    EXPECT_EQ(m_Root.CallMember("LiveObjects").ToNumber(), 4);
}

TEST_F(DemoObjects, AClosedDocumentLivesWhileHeldAndGoesWithItsLastReference)
{
    ScriptVal kept = m_Root.CallMember("NewDocument", "kept");
    (void)m_Root.CallMember("NewDocument", "dropped").CallMember("AddLayer", "gone with it");
    ScriptVal layer = kept.CallMember("AddLayer", "layer");
    EXPECT_EQ(m_Root.CallMember("LiveObjects").ToNumber(), 4);

    // Closing takes a document out of the list once; what nobody holds then goes at once.
    EXPECT_TRUE(m_Root.CallMember("Documents")[2].CallMember("Close").ToBoolean());
    EXPECT_EQ(m_Root.CallMember("LiveObjects").ToNumber(), 2);
    EXPECT_TRUE(kept.CallMember("Close").ToBoolean());
    EXPECT_FALSE(kept.CallMember("Close").ToBoolean());
    EXPECT_EQ(m_Root.CallMember("Documents").NumKeys(), 0);

    // Held here, the closed document and its layer still answer.
    EXPECT_EQ(m_Root.CallMember("LiveObjects").ToNumber(), 2);
    EXPECT_EQ(Get(kept, "Name").ToString(""), std::string("kept"));
    kept = nil;
    EXPECT_EQ(m_Root.CallMember("LiveObjects").ToNumber(), 1); // the layer, held on its own
    EXPECT_EQ(Get(layer, "Name").ToString(""), std::string("layer"));
    layer = nil;
    EXPECT_EQ(m_Root.CallMember("LiveObjects").ToNumber(), 0);
}

TEST_F(DemoObjects, OpenDocumentsGoWithTheRoot)
{
    (void)m_Root.CallMember("NewDocument", "a").CallMember("AddLayer", "x");
    (void)m_Root.CallMember("NewDocument", "b");
    EXPECT_EQ(DemoObject::Live(), 3);
    // TearDown lets go of the root and expects nothing left.
}

} // namespace
} // namespace orvexDemo
