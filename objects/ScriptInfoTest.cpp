// Tests of class records: the registry, chains that link themselves on the first object, constants
// handed down to the root, symbol look-up (kinds, shadowing, debug-only members, special slots), the
// special symbol names, help built from declaration tags, and ReturnCustomData.

#include <gtest/gtest.h>

#include <memory>

#include "objects/ObjectHooks.h"
#include "objects/ScriptInfo.h"
#include "testsupport/TestObjects.h"
#include "values/tags/TagList.h"

namespace orvexScript
{
namespace
{

using testobjects::NumReturns;
using testobjects::Scripted;
using testobjects::ScriptedOf;

void Nop(void *, ScriptArgs &, ScriptSymbol *, bool) {}

bool InRegistry(const ScriptInfo *record)
{
    for (const ScriptInfo *info = g_ScriptInfoList; info; info = info->m_Next)
        if (info == record) return true;
    return false;
}

// ---- a chain built only by ChainTest -------------------------------------------------------------

ScriptInfoT<Scripted> s_ChainBaseInfo(1, "ChainBase", "base of the chain test");
ScriptInfoT<Scripted> s_ChainDerivedInfo(1, "ChainDerived");
using ChainBase = ScriptedOf<s_ChainBaseInfo>;
using ChainDerived = ScriptedOf<s_ChainDerivedInfo, ChainBase>;

TEST(ScriptInfoChain, LinksToTheBaseOfTheFirstObjectWithoutNamingIt)
{
    EXPECT_TRUE(InRegistry(&s_ChainDerivedInfo));
    EXPECT_FALSE(s_ChainBaseInfo.IsLinked());

    ChainDerived first;
    EXPECT_EQ(first.GetScriptInfo(), &s_ChainDerivedInfo);
    EXPECT_EQ(s_ChainDerivedInfo.m_Parent, &s_ChainBaseInfo);
    EXPECT_EQ(s_ChainBaseInfo.m_Parent, g_RootScriptInfo);
}

TEST(ScriptInfoChain, ExplicitLinkKeepsAnExistingLinkAndADestroyedRecordLeavesTheRegistry)
{
    ScriptInfoT<Scripted> parent(1, "ExplicitParent");
    ScriptInfoT<Scripted> child(1, "ExplicitChild");
    _InitScriptInfo(child, &parent);
    _InitScriptInfo(child, nullptr);
    EXPECT_EQ(child.m_Parent, &parent);

    auto record = std::make_unique<ScriptInfoT<Scripted>>(1, "Passing");
    const ScriptInfo *address = record.get();
    EXPECT_EQ(g_ScriptInfoList, address);
    record.reset();
    EXPECT_FALSE(InRegistry(address));
}

// ---- constants ------------------------------------------------------------------------------------

ScriptInfoT<Scripted> s_ConstHolderInfo(1, "ConstHolder");
using ConstHolder = ScriptedOf<s_ConstHolderInfo>;
ScriptSymbol s_FirstConst(1, "CH_First", SST_Constant, Nop, s_ConstHolderInfo);
ScriptSymbol s_HolderFunc(1, "CH_Func", SST_Function, Nop, s_ConstHolderInfo);
ScriptSymbol s_SecondConst(1, "CH_Second", SST_Constant, Nop, s_ConstHolderInfo);

TEST(ScriptInfoConstants, MoveToTheRootInOrderWhenTheClassIsLinked)
{
    EXPECT_EQ(FindSymbol(g_RootScriptInfo, "CH_First", 0), nullptr);
    ConstHolder holder;

    // Newest first in the class, and still in that order at the front of the root's list.
    EXPECT_EQ(g_RootScriptInfo->m_Symbols, &s_SecondConst);
    EXPECT_EQ(s_SecondConst.m_Next, &s_FirstConst);
    EXPECT_EQ(s_ConstHolderInfo.m_Symbols, &s_HolderFunc);
    EXPECT_EQ(s_HolderFunc.m_Next, nullptr);

    // Any object finds them now, the function stays with its class.
    ScriptInfoT<Scripted> unrelated(1, "Unrelated");
    _InitScriptInfo(unrelated, nullptr);
    EXPECT_EQ(FindSymbol(&unrelated, "CH_First", 0), &s_FirstConst);
    EXPECT_EQ(FindSymbol(&unrelated, "CH_Func", 0), nullptr);
    EXPECT_EQ(FindSymbol(holder.GetScriptInfo(), "CH_Func", 0), &s_HolderFunc);
}

// ---- look-up ----------------------------------------------------------------------------------------

ScriptInfoT<Scripted> s_LookBaseInfo(1, "LookBase");
ScriptSymbol s_BaseValue(1, "Value", SST_Function, Nop, s_LookBaseInfo);
ScriptSymbol s_BaseDescribe(1, "Describe", SST_Function, Nop, s_LookBaseInfo);
ScriptSymbol s_BaseTrace(1, "Trace", SST_Function, Nop, s_LookBaseInfo);
ScriptSymbol s_BaseUnnamed(1, nullptr, SST_HelpTopic, Nop, s_LookBaseInfo);
ScriptSymbol s_BaseCall(1, nullptr, SST_Call, Nop, s_LookBaseInfo);
ScriptInfoT<Scripted> s_LookDerivedInfo(1, "LookDerived");
using LookDerived = ScriptedOf<s_LookDerivedInfo, ScriptedOf<s_LookBaseInfo>>;
ScriptSymbol s_DerivedValue(1, "Value", SST_Variable | SSF_Read, Nop, s_LookDerivedInfo);
ScriptSymbol s_DerivedDescribe(1, "Describe", SST_Function, Nop, s_LookDerivedInfo);
ScriptSymbol s_DerivedTrace(1, "Trace", SST_Function | SSF_DebugOnly, Nop, s_LookDerivedInfo);
ScriptSymbol s_DerivedHidden(1, "DebugOnly", SST_Function | SSF_DebugOnly, Nop, s_LookDerivedInfo);

bool Debugging()
{
    return true;
}

TEST(ScriptInfoLookup, KindsNearestDeclarationsAndSpecialSlotsComeFromTheChain)
{
    LookDerived object;
    const ScriptInfo *derived = object.GetScriptInfo();
    ScriptInfoT<Scripted> lone(1, "Lone"); // never linked: the walk stops at it
    ScriptSymbol own(1, "LoneMember", SST_Function, Nop, lone);
    const struct
    {
        const ScriptInfo *info;
        const char *name;
        uint32_t number;
        const ScriptSymbol *found;
    } cases[] = {
        // Number zero takes any kind, a kind number skips the others.
        {derived, "Value", 0, &s_DerivedValue},
        {derived, "Value", SST_Variable, &s_DerivedValue},
        {derived, "Value", SST_Function, &s_BaseValue},
        // The nearest declaration wins; names are case-sensitive.
        {derived, "Describe", 0, &s_DerivedDescribe},
        {derived, "describe", 0, nullptr},
        // Special numbers and unnamed kinds ignore the name.
        {derived, "ignored", SST_Call, &s_BaseCall},
        {derived, nullptr, SST_GetTable, FindSymbol(g_RootScriptInfo, nullptr, SST_GetTable)},
        {derived, nullptr, SST_HelpTopic, &s_BaseUnnamed},
        {derived, nullptr, 256, nullptr},
        {nullptr, "Value", 0, nullptr},
        {&lone, "LoneMember", 0, &own},
        {&lone, nullptr, SST_GetTable, nullptr},
        // Debug-only members are hidden while not debugging and shadow nothing.
        {derived, "DebugOnly", 0, nullptr},
        {derived, "Trace", 0, &s_BaseTrace},
    };
    for (const auto &c : cases)
        EXPECT_EQ(FindSymbol(c.info, c.name, c.number), c.found)
            << (c.name ? c.name : "(no name)") << " number " << c.number;

    SetIsDebugHook(Debugging);
    EXPECT_EQ(FindSymbol(derived, "Trace", 0), &s_DerivedTrace);
    EXPECT_EQ(FindSymbol(derived, "DebugOnly", SST_Function), &s_DerivedHidden);
    SetIsDebugHook(nullptr);
}

TEST(ScriptSymbolRecord, AddsItselfToItsOwnerAndLeavesWhenDestroyed)
{
    ScriptInfoT<Scripted> owner(1, "Owner");
    {
        ScriptSymbol first(1, "First", SST_Function, Nop, owner);
        ScriptSymbol create(1, nullptr, SST_Create, Nop, owner);
        EXPECT_EQ(owner.m_Special[SST_Create - 128], &create);
        {
            ScriptSymbol second(1, "Second", SST_Variable, Nop, owner);
        }
        EXPECT_EQ(owner.m_Symbols, &first);
    }
    EXPECT_EQ(owner.m_Symbols, nullptr);
    EXPECT_EQ(owner.m_Special[SST_Create - 128], nullptr);
}

TEST(SpecialSymbolNames, CoverTheNumbersFromCreateToIsDebug)
{
    EXPECT_STREQ(SpecialSymbolName(SST_ObjectFromAddress), "SST_ObjectFromAddress");
    EXPECT_EQ(SpecialSymbolName(127), nullptr);
    EXPECT_EQ(SpecialSymbolName(153), nullptr);
    for (uint32_t number = SST_Create; number <= SST_IsDebug; ++number)
        EXPECT_EQ(SpecialSymbolNumber(SpecialSymbolName(number)), number);
}

// ---- help from tags -----------------------------------------------------------------------------------

ScriptInfoT<Scripted> s_HelpInfo(1, "Picture");
ScriptSymbolTags s_Scale(1, "Scale", SST_Function, Nop, s_HelpInfo,                         //
                         SYMS_ShortHelp, "Scales the picture",                              //
                         SYMS_Prototype, "Gives the new width.",                            //
                         SYMS_ReturnType, "number", SYMS_ReturnDesc, "the width",           //
                         SYMS_ArgType, "number", SYMS_ArgName, "factor",                    //
                         SYMB_Optional, true, SYMS_ArgType, "string", SYMS_ArgName, "mode", //
                         SYMS_LongHelp, "Keeps the aspect ratio.", TAG_DONE);

TEST(ScriptSymbolTagsHelp, PrototypesWithTypesOptionalArgumentsAndDescriptions)
{
    EXPECT_STREQ(s_Scale.m_ShortHelp.Text(), "Scales the picture");
    EXPECT_STREQ(s_Scale.m_LongHelp.Text(), "number Picture:Scale(number factor [, string mode])\n"
                                            "  Gives the new width.\n\n"
                                            "Keeps the aspect ratio.\n\n");

    // Untyped function and variable forms; no prototype gives no help.
    const struct
    {
        TagList tags;
        uint32_t kind;
        const char *help;
    } cases[] = {
        {TagList(SYMS_Prototype, "", SYMS_ArgType, "table", TAG_DONE), SST_Function, "Pic:Fill(table)\n"},
        {TagList(SYMS_Prototype, "The width.", SYMS_ReturnType, "number", TAG_DONE), SST_Variable,
         "number = Pic.Fill\n  The width.\n\n"},
        {TagList(SYMS_ShortHelp, "short", TAG_DONE), SST_Function, ""},
    };
    for (const auto &c : cases)
        EXPECT_STREQ(ScriptSymbolTags::BuildHelp(c.tags, c.kind, "Pic", "Fill").Text(), c.help);
}

// ---- custom data ------------------------------------------------------------------------------------

TEST(ReturnCustomData, NamedPathGivesOneResultNilForAMissingLastKeyNoneForNoTableAndNoNameTheKeys)
{
    ScriptVal data(SV_Table, nullptr);
    data.FindKey("Owner") = ScriptVal(SV_Table, nullptr);
    data.FindKey("Owner").FindKey("Name") = "Ada";
    data.FindKey("Count") = 3;
    data.FindKey(7) = 4;

    ScriptArgs args;
    ReturnCustomData(args, "Owner.Name", data);
    EXPECT_EQ(NumReturns(args), 1);
    EXPECT_STREQ(args.FindKeyConst(-1).ToString(), "Ada");

    ReturnCustomData(args, "Owner.Missing", data);
    EXPECT_EQ(NumReturns(args), 2);
    EXPECT_TRUE(args.FindKeyConst(-2).IsNil());

    ReturnCustomData(args, "Count.Deeper", data); // runs through a number
    ReturnCustomData(args, "Count", ScriptVal("not a table"));
    EXPECT_EQ(NumReturns(args), 2);

    ReturnCustomData(args, nullptr, data); // the keys in order
    ASSERT_EQ(NumReturns(args), 3);
    const ScriptVal &keys = args.FindKeyConst(-3);
    ASSERT_TRUE(keys.IsTable());
    EXPECT_EQ(keys.NumKeys(), 3);
    EXPECT_STREQ(keys.FindKeyConst(1).ToString(), "Owner");
    EXPECT_STREQ(keys.FindKeyConst(2).ToString(), "Count");
    EXPECT_EQ(keys.FindKeyConst(3).ToNumber(), 7.0);
}

} // namespace
} // namespace orvexScript
