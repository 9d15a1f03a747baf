// Tests of an equipped state: what the equipping leaves behind (version, exit, class, empty stack),
// the prelude's helpers that scripts lean on (protected calls, environments, dumps, event suites), and
// the global look-up through the active object. Each case is a chunk that asserts what it expects.
#include "languages/lua/LuaEquip.h"

#include <gtest/gtest.h>
#include <lua.hpp>

#include <string>

#include "languages/lua/RunScript.h"
#include "testsupport/LuaState.h"
#include "testsupport/TestSupport.h"

namespace
{

using orvexScript::OpenAllLibs;

// Runs `code` in `state`; its error message, or empty if it ran through.
std::string RunChunk(lua_State *state, const std::string &code)
{
    std::string error;
    if (luaL_loadstring(state, code.c_str()) != 0 || lua_pcall(state, 0, 0, 0) != 0)
    {
        const char *message = lua_tostring(state, -1);
        error = message ? message : "(an error without a message)";
    }
    lua_settop(state, 0);
    return error;
}

// Every chunk starts with `printed` collecting what the prelude prints, one string per line.
const char *const kCapturePrint = R"(
    printed = {}
    print = function(...)
        local parts = {}
        for i = 1, select("#", ...) do parts[i] = tostring((select(i, ...))) end
        printed[#printed + 1] = table.concat(parts, "\t")
    end
)";

struct Case
{
    const char *name;
    const char *code;
};

class EquippedState : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_NE(m_State, nullptr);
        OpenAllLibs(m_State, nullptr);
        ASSERT_EQ(lua_gettop(m_State), 0) << "the stack is empty after equipping";
    }
    void RunCases(const Case *cases, size_t count)
    {
        for (size_t i = 0; i < count; ++i)
        {
            SCOPED_TRACE(cases[i].name);
            EXPECT_EQ(RunChunk(m_State, std::string(kCapturePrint) + cases[i].code), "");
        }
    }
    orvexTest::LuaState m_State;
};

TEST_F(EquippedState, LeavesVersionExitClassAndBlockConstructors)
{
    const Case cases[] = {
        {"version", R"(assert(orvex._VERSION == "7.00" and _VERSION == "Lua 5.1"))"},
        {"the prelude's short names are the library's functions", R"(
            local aliases = { readdir = "readdir", createdir = "createdir", removedir = "removedir",
                pinghosts = "pinghosts", fileexists = "fileexists", direxists = "direxists",
                executebg = "executebg", getcurrentdir = "getcurrentdir", setcurrentdir = "setcurrentdir",
                getpid = "getpid", touserdata = "touserdata", wait = "wait", stripname = "stripname",
                isvalidname = "isvalidname", fullpath = "fullpath", exit = "exit", getclipboard = "getclipboard",
                setclipboard = "setclipboard", StartServer = "startserver", GetAppName = "getappname",
                GetAppUUID = "getappuuid", CreateUUID = "createuuid", ToUNC = "tounc", ScriptApp = "scriptapp",
                AsyncScriptApp = "asyncscriptapp", SendNotify = "sendnotify", Using = "using",
                SetActiveComp = "using", GetUsing = "getusing", GetActiveComp = "getusing" }
            for short, name in pairs(aliases) do
                assert(type(orvex[name]) == "function" and rawget(_G, short) == orvex[name], short)
            end
            for _, name in ipairs({ "noise", "crash", "readfile", "writefile", "readstring", "writestring" }) do
                assert(type(orvex[name]) == "function" and rawget(_G, name) == nil, name)
            end)"},
        {"exit records and returns", R"(
            assert(os.exit == orvex.exit and exit == orvex.exit)
            assert(select("#", os.exit(7, { reason = "done" })) == 0)
            assert(_EXITCODE == 7 and _EXITDATA.reason == "done")
            exit("seven", 5)
            assert(_EXITCODE == 0 and _EXITDATA == nil, "a code that is no number is 0, data no table nil"))"},
        {"class and the remote object type", R"(
            assert(type(class._ScriptObject) == "function")
            local mt = debug.getregistry()._ScriptObject
            for _, field in ipairs({ "_typename", "_istypeof", "__tostring", "__call", "__gc", "__index",
                                     "__newindex", "__add", "__sub", "__mul", "__div", "__pow", "__unm",
                                     "__eq", "__lt", "__le", "__concat" }) do
                assert(type(mt[field]) == "function", field)
            end)"},
        {"HexData", R"(
            local block = HexData("01 0a FF 100")
            assert(block.Size == 4 and block[1] == 1 and block[2] == 10 and block[3] == 255 and block[4] == 0)
            assert(HexData("zz 01").Size == 0, "reading stops at the first thing that is no number")
            assert(HexData(12) == nil and select("#", HexData()) == 0))"},
    };
    RunCases(cases, std::size(cases));
}

// A host that made `class` before keeps its entries; anything else there is replaced.
TEST(EquipClassTable, KeepsAnExistingTableAndReplacesAnythingElse)
{
    const std::pair<const char *, const char *> cases[] = {
        {"class = { mine = 1 }", "assert(class.mine == 1 and type(class._ScriptObject) == 'function')"},
        {"class = 'text'", "assert(type(class) == 'table' and next(class) == '_ScriptObject')"},
    };
    for (const auto &[before, check] : cases)
    {
        SCOPED_TRACE(before);
        orvexTest::LuaState state(true);
        ASSERT_EQ(RunChunk(state, before), "");
        OpenAllLibs(state, nullptr);
        EXPECT_EQ(RunChunk(state, check), "");
    }
}

// The script goes on after os.exit: the run's result comes from its main chunk.
TEST(EquipRunScript, ExitContinuesAndTheChunkDecidesTheResult)
{
    orvexTest::TempDir dir;
    std::string path = dir.Write("exit.lua", "os.exit(7) assert(_EXITCODE == 7) return 2");
    char *arguments[] = {nullptr};
    EXPECT_EQ(RunScript(path.data(), arguments), 2);
}

TEST_F(EquippedState, PreludeHelpers)
{
    const Case cases[] = {
        {"iif and trace", R"(
            assert(iif(1, "a", "b") == "a" and iif(false, "a", "b") == "b" and iif(nil, "a") == nil)
            local a, b, c = trace(1, nil, "x")
            assert(a == 1 and b == nil and c == "x" and printed[1] == "1\tnil\tx"))"},
        {"do_ and dostring", R"(
            assert(select("#", do_(nil, "no function")) == 0 and printed[1] == "no function")
            assert(do_(function() return false end) == true and do_(function() return 4 end) == 4)
            assert(do_(function() error("broke", 0) end) == nil and printed[2] == "broke")
            assert(dostring("return 5") == 5)
            assert(dostring("this is not Lua") == nil and printed[3]:find("expected"), printed[3]))"},
        {"callglob keeps writes private and reaches the globals at any depth", R"(
            local function outer()
                secret = "outer's"
                local function inner()
                    assert(secret == "outer's", "an inner chunk reads its caller's names")
                    mine = true
                    return globals
                end
                local innerGlobals = callglob(inner)
                assert(mine == nil, "the inner chunk's writes stay its own")
                return innerGlobals, globals, getfenv(1)
            end
            local innerGlobals, outerGlobals, env = callglob(outer)
            assert(innerGlobals == _G and outerGlobals == _G and env ~= _G)
            assert(secret == nil and rawget(env, "secret") == "outer's")
            assert(select("#", callglob(function(...) return ... end, 1, nil, 3)) == 3))"},
        {"dump marks a table met again and the global table below the top", R"(
            local t = { name = "x" }
            t.self = t
            dump(t, nil)
            local text = table.concat(printed, "\n")
            assert(text:find("\tself = table: 0x%x+\n\t\t<<recursive reference>>"), text)
            assert(text:find("\tname = x") and printed[#printed] == "nil", text)
            assert(type(_dump) == "function")
            local s = dumptostring({ g = _G }, { t })
            assert(s:find("^table: 0x%x+\n\tg = <<global table>>\n"), s)
            assert(s:find("\n\t\tself = <<recursive reference>>\n"), s)
            assert(dumptostring(nil, 1) == "nil\n1\n"))"},
        {"match needs a global gsub", R"(
            assert(not pcall(match, "abc", "a.c"), "without an active object gsub is missing")
            gsub = string.gsub
            assert(match("abc", "a.c") == true and match("abcd", "a.c") == false)
            gsub = nil)"},
        {"ordered, shortcuts and help are defined", R"(
            for _, name in ipairs({ "ordered", "Kelmar", "orvexServer", "Sorbanet", "Marloweave", "ThisApp",
                                    "Help", "ldofile" }) do
                assert(type(_G[name]) == "function", name)
            end
            Help("topic")
            assert(printed[1] == "No object for help lookup")
            Help("topic", { GetHelp = function(self, topic) return nil end })
            assert(printed[2] == "No help available on 'topic'"))"},
    };
    RunCases(cases, std::size(cases));
}

TEST_F(EquippedState, EventSuitesOfferAnEventToTheNewestFirst)
{
    const Case cases[] = {
        {"chain order, removal and unknown suites", R"(
            local log = {}
            local base = DefineEventSuite("Doc")
            function base.Save(suite, event) log[#log + 1] = "base" return "saved " .. event._Name end
            local a = AddEventSuite("Doc", "A")
            function a.Save(suite, event) log[#log + 1] = suite._Object return suite:Default(event) end
            local b = AddEventSuite("Doc", "B")
            function b.Save(suite, event) log[#log + 1] = suite._Object return suite:Default(event) end
            assert(DispatchEvent("Doc", "Save", {}) == "saved Save" and table.concat(log, ",") == "B,A,base")
            assert(suite == b, "the head is left in the global suite")

            assert(RemoveEventSuite(a) == false and a._Name == nil and a._Next == nil and a.Save ~= nil)
            log = {}
            DispatchEvent("Doc", "Save", {})
            assert(table.concat(log, ",") == "B,base" and base._Prev == b)
            RemoveEventSuite(b)
            assert(_Events.Doc == base and base._Prev == nil)
            assert(DispatchEvent("Doc", "Unhandled", {}) == nil)
            assert(AddEventSuite("Nothing", 1) == nil and DispatchEvent("Nothing", "Save", {}) == nil))"},
    };
    RunCases(cases, std::size(cases));
}

TEST_F(EquippedState, GlobalsFallThroughToTheActiveObject)
{
    const Case cases[] = {
        {"no active object", R"(assert(GetUsing() == nil and not_defined == nil))"},
        {"C functions become calls on the object", R"(
            assert(Using("ab") == nil)
            assert(rep(3) == "ababab" and upper() == "AB", "string methods of the active string")
            assert(print ~= nil and not_defined == nil, "globals win, and a miss is nil")
            assert(Using(nil) == "ab" and rep == nil))"},
        {"other values come as they are", R"(
            local f = function() end
            Using({ value = 3, f = f })
            assert(value == 3 and rawequal(f, _G.f))
            Using(nil))"},
        {"the probe is quiet and the flag comes back, also after an error", R"(
            local registry = debug.getregistry()
            local seen
            Using(setmetatable({}, { __index = function(t, k)
                seen = registry.orvexScriptIgnoreErrors
                if k == "bad" then error("probe failed", 0) end
                return k
            end }))
            assert(anything == "anything" and seen == true and registry.orvexScriptIgnoreErrors == false)
            local ok, message = pcall(function() return bad end)
            assert(not ok and message == "probe failed" and registry.orvexScriptIgnoreErrors == false)
            registry.orvexScriptIgnoreErrors = true
            assert(anything == "anything" and registry.orvexScriptIgnoreErrors == true, "an outer probe keeps it")
            registry.orvexScriptIgnoreErrors = nil
            Using(nil))"},
    };
    RunCases(cases, std::size(cases));
}

} // namespace
