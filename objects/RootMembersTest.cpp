// Tests of the members every object has through the root class: member reads and writes with the
// "Table" rule and constructors of registered classes, function values and member calls end to end,
// CallScriptFunc, equality and text form, objects named by address, and GetAttrs / SetAttrs / GetApp.

#include <gtest/gtest.h>

#include <cinttypes>
#include <cstdio>
#include <new>
#include <string>

#include "objects/ObjectHooks.h"
#include "objects/ScriptInfo.h"
#include "testsupport/TestObjects.h"

namespace orvexScript
{
namespace
{

using testobjects::FunctionValue;
using testobjects::NumReturns;
using testobjects::RunSpecial;
using testobjects::Scripted;

// A class with a function of two results, a variable, a function literally named "Table", a
// one-letter function for the shortest "Table" form, and an attribute table.
class Widget : public Scripted
{
public:
    Widget() { _SetScriptInfo(this, s_Info); }
    static ScriptInfoT<Widget> s_Info;
    double m_Size = 4;
    int m_Calls = 0;
};

void WidgetMinMax(void *self, ScriptArgs &args, ScriptSymbol *, bool)
{
    static_cast<Widget *>(self)->m_Calls++;
    args.ReturnNumber(args.FindKeyConst(1).ToNumber() - 1);
    args.ReturnNumber(args.FindKeyConst(1).ToNumber() + 1);
}

void WidgetSize(void *self, ScriptArgs &args, ScriptSymbol *, bool set)
{
    Widget *widget = static_cast<Widget *>(self);
    if (set)
        widget->m_Size = args.FindKeyConst(1).ToNumber();
    else
        args.ReturnNumber(widget->m_Size);
}

void WidgetName(void *, ScriptArgs &args, ScriptSymbol *symbol, bool)
{
    args.ReturnString(symbol->m_Name);
}

// Key 1 is the attribute table: filled on a read, taken from on a write.
void WidgetAttrs(void *self, ScriptArgs &args, ScriptSymbol *, bool set)
{
    Widget *widget = static_cast<Widget *>(self);
    ScriptVal &table = args.FindKey(1);
    if (set)
        widget->m_Size = table.FindKeyConst("Size").ToNumber(widget->m_Size);
    else
        table.FindKey("Size") = widget->m_Size;
}

ScriptInfoT<Widget> Widget::s_Info(1, "Widget");
ScriptSymbol s_MinMax(1, "MinMax", SST_Function, WidgetMinMax, Widget::s_Info);
ScriptSymbol s_Size(1, "Size", SST_Variable | SSF_Read | SSF_Write, WidgetSize, Widget::s_Info);
ScriptSymbol s_TableFunc(1, "Table", SST_Function, WidgetName, Widget::s_Info);
ScriptSymbol s_X(1, "X", SST_Function, WidgetName, Widget::s_Info);
ScriptSymbol s_Topic(1, "Topic", SST_HelpTopic, WidgetName, Widget::s_Info);
ScriptSymbol s_Attrs(1, nullptr, SST_GetSetAttrs, WidgetAttrs, Widget::s_Info);

// A function that only debugging shows.
ScriptSymbol s_Secret(1, "Secret", SST_Function | SSF_DebugOnly, WidgetMinMax, Widget::s_Info);

// A class unrelated to Widget, with a function and a constructor. Its handler counts calls and never
// touches `self`, so a call that wrongly gets a Widget shows as a count rather than as a fault.
int s_StrangerCalls = 0;
void StrangerCount(void *, ScriptArgs &, ScriptSymbol *, bool)
{
    ++s_StrangerCalls;
}
ScriptInfoT<Scripted> s_StrangerInfo(1, "Stranger");
ScriptSymbol s_StrangerPoke(1, "Poke", SST_Function, StrangerCount, s_StrangerInfo);
ScriptSymbol s_StrangerCreate(1, nullptr, SST_Create, StrangerCount, s_StrangerInfo);
class Stranger : public Scripted
{
public:
    Stranger() { _SetScriptInfo(this, s_StrangerInfo); }
};

// A class whose member reads answer every name with the stranger's function.
void ForgerGetTable(void *, ScriptArgs &args, ScriptSymbol *, bool)
{
    args.ReturnFunction(&s_StrangerPoke);
}
ScriptInfoT<Scripted> s_ForgerInfo(1, "Forger");
ScriptSymbol s_ForgerGetTable(1, nullptr, SST_GetTable, ForgerGetTable, s_ForgerInfo);
class Forger : public Scripted
{
public:
    Forger() { _SetScriptInfo(this, s_ForgerInfo); }
};

// A registered class with a constructor.
ScriptInfoT<Scripted> s_GadgetInfo(1, "Gadget");
ScriptSymbol s_GadgetCreate(1, nullptr, SST_Create, WidgetName, s_GadgetInfo);

// A class that can't look members up: its chain is not linked to the root.
ScriptInfoT<Scripted> s_IslandInfo(1, "Island");
class Island : public Scripted
{
public:
    Island() { SetScriptInfo(&s_IslandInfo); }
};

ScriptArgs Named(const char *name)
{
    ScriptArgs args;
    args.FindKey(0) = name;
    return args;
}

class RootMembers : public ::testing::Test
{
protected:
    void TearDown() override { SetRootObjectHook(nullptr); }
    // Reads member `name` of the widget and gives the first result.
    ScriptVal Get(const char *name)
    {
        ScriptArgs args = Named(name);
        RunSpecial(&m_Widget, SST_GetTable, args);
        return args.FindKeyConst(-1);
    }
    Widget m_Widget;
};

TEST_F(RootMembers, GetTableGivesFunctionsAsValuesAndCallsVariables)
{
    struct Case
    {
        const char *name;
        const ScriptSymbol *function;
        bool packed;
    };
    const Case functions[] = {
        {"MinMax", &s_MinMax, false},       {"MinMaxTable", &s_MinMax, true},
        {"Table", &s_TableFunc, false},     // an ordinary name
        {"XTable", &s_X, true},             // the shortest packed form
        {"Gadget", &s_GadgetCreate, false}, // a registered class gives its constructor
    };
    for (const Case &c : functions)
    {
        ScriptVal value = Get(c.name);
        ASSERT_TRUE(value.IsFunction()) << c.name;
        EXPECT_EQ(value.ToFunction(), FunctionValue(*c.function)) << c.name;
        EXPECT_EQ(value.GetFlags(SVF_PackResults) != 0, c.packed) << c.name;
    }
    EXPECT_EQ(Get("Size").ToNumber(), 4.0);
    // Help topics, a variable with the suffix, a class without a constructor.
    for (const char *none : {"Topic", "NoSuchMember", "SizeTable", "Widget"})
        EXPECT_TRUE(Get(none).IsNil()) << none;
}

TEST_F(RootMembers, GetTableNeedsAStringName)
{
    ScriptArgs args;
    args.FindKey(0) = 5;
    RunSpecial(&m_Widget, SST_GetTable, args);
    EXPECT_EQ(args.FindKeyConst("Error").ToNumber(), static_cast<double>(SE_InvalidIndex));
    EXPECT_STREQ(args.FindKeyConst("ErrorString").ToString(), "Invalid index.");
    EXPECT_EQ(NumReturns(args), 0);
}

TEST_F(RootMembers, SetTableWritesVariablesOnly)
{
    ScriptArgs args = Named("Size");
    args.FindKey(1) = 9;
    RunSpecial(&m_Widget, SST_SetTable, args, true);
    EXPECT_EQ(m_Widget.m_Size, 9.0);

    ScriptArgs call = Named("MinMax");
    call.FindKey(1) = 1;
    RunSpecial(&m_Widget, SST_SetTable, call, true);
    EXPECT_EQ(m_Widget.m_Calls, 0);
}

TEST_F(RootMembers, PackedFunctionValueGivesItsResultsInOneTable)
{
    ScriptArgs args;
    args.FindKey(0) = Get("MinMaxTable");
    args.FindKey(1) = 10;
    RunSpecial(&m_Widget, SST_CallFunction, args);
    ASSERT_EQ(NumReturns(args), 1);
    const ScriptVal &table = args.FindKeyConst(-1);
    ASSERT_TRUE(table.IsTable());
    EXPECT_EQ(table.FindKeyConst(1).ToNumber(), 9.0);
    EXPECT_EQ(table.FindKeyConst(2).ToNumber(), 11.0);
    EXPECT_TRUE(args.FindKeyConst(-2).IsNil());
}

TEST_F(RootMembers, CallMemberFunctionRunsAMemberInOneCommand)
{
    ScriptArgs args = Named("MinMax");
    args.FindKey(1) = 5;
    RunSpecial(&m_Widget, SST_CallMemberFunction, args);
    ASSERT_EQ(NumReturns(args), 2);
    EXPECT_EQ(args.FindKeyConst(-1).ToNumber(), 4.0);
    EXPECT_EQ(args.FindKeyConst(-2).ToNumber(), 6.0);

    ScriptArgs packed = Named("MinMaxTable");
    packed.FindKey(1) = 5;
    RunSpecial(&m_Widget, SST_CallMemberFunction, packed);
    ASSERT_EQ(NumReturns(packed), 1);
    EXPECT_EQ(packed.FindKeyConst(-1).FindKeyConst(2).ToNumber(), 6.0);

    ScriptArgs variable = Named("Size");
    RunSpecial(&m_Widget, SST_CallMemberFunction, variable);
    EXPECT_EQ(NumReturns(variable), 0);
    EXPECT_EQ(m_Widget.m_Calls, 2);
}

TEST_F(RootMembers, CallScriptFuncReportsWhetherItCalled)
{
    ScriptArgs args;
    args.FindKey(1) = 1;
    EXPECT_TRUE(CallScriptFunc(&m_Widget, "MinMax", args));
    EXPECT_EQ(args.FindKeyConst(-2).ToNumber(), 2.0);

    ScriptArgs other;
    EXPECT_FALSE(CallScriptFunc(&m_Widget, "Size", other));
    EXPECT_FALSE(CallScriptFunc(&m_Widget, "Nothing", other));
    Island island;
    EXPECT_FALSE(CallScriptFunc(&island, "MinMax", other));
    EXPECT_FALSE(CallScriptFunc(nullptr, "MinMax", other));
}

TEST_F(RootMembers, CallFunctionCallsOnlyFunctionsOfTheObjectsOwnChain)
{
    s_StrangerCalls = 0;
    const struct
    {
        const char *what;
        uint64_t value;
    } refused[] = {
        {"no symbol at all", FunctionValue(s_MinMax) + 8},
        {"another class's function", FunctionValue(s_StrangerPoke)},
        {"another class's constructor", FunctionValue(s_StrangerCreate)},
        {"a special of the own chain", FunctionValue(*FindSymbol(&Widget::s_Info, nullptr, SST_ToString))},
        {"a debug-only function while not debugging", FunctionValue(s_Secret)},
    };
    for (const auto &c : refused)
    {
        ScriptArgs args;
        ScriptValue value{};
        value.m_Function = c.value;
        args.FindKey(0) = ScriptVal(SV_Function, &value);
        RunSpecial(&m_Widget, SST_CallFunction, args);
        EXPECT_EQ(args.FindKeyConst("Error").ToNumber(), static_cast<double>(SE_UnknownSymbol)) << c.what;
        EXPECT_EQ(NumReturns(args), 0) << c.what;
    }
    EXPECT_EQ(s_StrangerCalls, 0);
    EXPECT_EQ(m_Widget.m_Calls, 0);

    // A class's own constructor is a function of its chain.
    Stranger stranger;
    ScriptArgs create;
    create.FindKey(0) = Get("Stranger");
    RunSpecial(&stranger, SST_CallFunction, create);
    EXPECT_EQ(s_StrangerCalls, 1);
    EXPECT_TRUE(create.FindKeyConst("Error").IsNil());

    ScriptArgs none;
    RunSpecial(&m_Widget, SST_CallFunction, none);
    EXPECT_TRUE(none.FindKeyConst("Error").IsNil());
}

TEST_F(RootMembers, MemberCallsRefuseAFunctionOfAnotherClass)
{
    s_StrangerCalls = 0;
    Forger forger;
    ScriptArgs native;
    EXPECT_FALSE(CallScriptFunc(&forger, "Poke", native));
    EXPECT_EQ(native.FindKeyConst("Error").ToNumber(), static_cast<double>(SE_UnknownSymbol));

    ScriptArgs remote = Named("Poke");
    RunSpecial(&forger, SST_CallMemberFunction, remote);
    EXPECT_EQ(remote.FindKeyConst("Error").ToNumber(), static_cast<double>(SE_UnknownSymbol));
    EXPECT_EQ(s_StrangerCalls, 0);
}

TEST_F(RootMembers, EqualityAndTextForm)
{
    Widget other;
    ScriptArgs same;
    same.FindKey(1) = static_cast<ScriptObject *>(&m_Widget);
    RunSpecial(&m_Widget, SST_EQ, same);
    EXPECT_TRUE(same.FindKeyConst(-1).ToBoolean());

    ScriptArgs different;
    different.FindKey(1) = static_cast<ScriptObject *>(&other);
    RunSpecial(&m_Widget, SST_EQ, different);
    ASSERT_TRUE(different.FindKeyConst(-1).IsBoolean());
    EXPECT_FALSE(different.FindKeyConst(-1).ToBoolean());

    ScriptArgs text; // the class name and the address
    RunSpecial(&m_Widget, SST_ToString, text);
    EXPECT_EQ(std::string(text.FindKeyConst(-1).ToString()).rfind("Widget (0x", 0), 0u);
}

TEST_F(RootMembers, ObjectFromAddressAnswersOnlyForRegisteredObjects)
{
    const uint64_t address = reinterpret_cast<uintptr_t>(&m_Widget);
    // Gives the number of results; `args` keeps them (a copy of args would drop the count).
    ScriptArgs args;
    auto ask = [&](double low, double high)
    {
        args = ScriptArgs();
        args.FindKey(1) = low;
        args.FindKey(2) = high;
        RunSpecial(&m_Widget, SST_ObjectFromAddress, args);
        return NumReturns(args);
    };
    const double low = static_cast<double>(address & 0xFFFFFFFFu);
    const double high = static_cast<double>(address >> 32);

    // A live object that nobody registered is as unknown as any other number.
    EXPECT_EQ(ask(low, high), 0);
    EXPECT_EQ(args.FindKeyConst("Error").ToNumber(), static_cast<double>(SE_InvalidObject));
    EXPECT_STREQ(args.FindKeyConst("ErrorString").ToString(), "Invalid object.");

    RegisterObjectAddress(&m_Widget);
    EXPECT_EQ(ask(low, high), 1);
    EXPECT_EQ(args.FindKeyConst(-1).ToLocalObject(), &m_Widget);
    EXPECT_EQ(ask(low + 8, high), 0);
    EXPECT_EQ(ask(-1, high), 0);
    EXPECT_EQ(ask(low, 4294967296.0), 0);
    UnregisterObjectAddress(&m_Widget);

    EXPECT_EQ(ask(low, high), 0);
}

// Asks SST_ObjectFromAddress of `asker` for the object at `address`; gives the object found or null.
ScriptObject *AtAddress(ScriptObject *asker, const void *address)
{
    const uint64_t number = reinterpret_cast<uintptr_t>(address);
    ScriptArgs args;
    args.FindKey(1) = static_cast<double>(number & 0xFFFFFFFFu);
    args.FindKey(2) = static_cast<double>(number >> 32);
    RunSpecial(asker, SST_ObjectFromAddress, args);
    return NumReturns(args) == 1 ? args.FindKeyConst(-1).ToLocalObject() : nullptr;
}

// A plain object whose assignment reaches ScriptObject's (RefObject's keeps its own state).
class Plain : public _Object
{
};

TEST_F(RootMembers, ObjectFromAddressForgetsAnObjectWhenItIsDestroyed)
{
    // A new object at the very address of a destroyed one, as a reused allocation gives.
    alignas(Widget) unsigned char storage[sizeof(Widget)];
    Widget *gone = new (storage) Widget;
    RegisterObjectAddress(gone);
    ASSERT_EQ(AtAddress(&m_Widget, storage), gone);
    {
        Widget copy(*gone); // a copy is not registered, and its end takes nothing out
    }
    EXPECT_EQ(AtAddress(&m_Widget, storage), gone);
    gone->~Widget();
    Widget *fresh = new (storage) Widget;
    EXPECT_EQ(AtAddress(&m_Widget, storage), nullptr);
    fresh->~Widget();

    // Assignment keeps the target registered, so that its end still takes it out.
    alignas(Plain) unsigned char plainStorage[sizeof(Plain)];
    Plain *target = new (plainStorage) Plain;
    RegisterObjectAddress(target);
    *target = Plain();
    target->~Plain();
    Plain *reused = new (plainStorage) Plain;
    EXPECT_EQ(AtAddress(&m_Widget, plainStorage), nullptr);
    reused->~Plain();
}

// An object whose value counts are its use count, so that the last value to let go destroys it.
class Counted : public Scripted
{
public:
    void IncRef() override { Use(); }
    void DecRef() override { Recycle(); }
};

TEST_F(RootMembers, ObjectFromAddressMayReleaseARegisteredObjectWhileStoringItsResult)
{
    auto *victim = new Counted;
    RegisterObjectAddress(victim);
    RegisterObjectAddress(&m_Widget);
    const uint64_t widget = reinterpret_cast<uintptr_t>(&m_Widget);
    ScriptArgs args;
    args.FindKey(-1) = static_cast<ScriptObject *>(victim); // a stale value in the result's place
    victim->Recycle();                                      // that value holds the last count
    args.FindKey(1) = static_cast<double>(widget & 0xFFFFFFFFu);
    args.FindKey(2) = static_cast<double>(widget >> 32);
    // Storing the result destroys the victim, whose destructor unregisters it meanwhile.
    RunSpecial(&m_Widget, SST_ObjectFromAddress, args);
    EXPECT_EQ(args.FindKeyConst(-1).ToLocalObject(), &m_Widget);
    UnregisterObjectAddress(&m_Widget);
}

TEST_F(RootMembers, GetAttrsAndSetAttrsGoThroughTheAttributeMember)
{
    ScriptArgs all = Named("GetAttrs");
    RunSpecial(&m_Widget, SST_CallMemberFunction, all);
    ASSERT_TRUE(all.FindKeyConst(-1).IsTable());
    EXPECT_EQ(all.FindKeyConst(-1).FindKeyConst("Size").ToNumber(), 4.0);

    ScriptArgs one = Named("GetAttrs");
    one.FindKey(1) = "Size";
    RunSpecial(&m_Widget, SST_CallMemberFunction, one);
    EXPECT_EQ(one.FindKeyConst(-1).ToNumber(), 4.0);

    ScriptArgs set = Named("SetAttrs");
    set.FindKey(1) = ScriptVal(SV_Table, nullptr);
    set.FindKey(1).FindKey("Size") = 12;
    RunSpecial(&m_Widget, SST_CallMemberFunction, set);
    EXPECT_EQ(m_Widget.m_Size, 12.0);
}

Widget *s_App = nullptr;
ScriptObject *App()
{
    return s_App;
}

TEST_F(RootMembers, GetAppGivesTheConfiguredRootObject)
{
    ScriptArgs none = Named("GetApp");
    RunSpecial(&m_Widget, SST_CallMemberFunction, none);
    EXPECT_EQ(NumReturns(none), 1);
    EXPECT_TRUE(none.FindKeyConst(-1).IsNil());

    Widget app;
    s_App = &app;
    SetRootObjectHook(App);
    ScriptArgs args = Named("GetApp");
    RunSpecial(&m_Widget, SST_CallMemberFunction, args);
    EXPECT_EQ(args.FindKeyConst(-1).ToLocalObject(), &app);
    s_App = nullptr;
}

} // namespace
} // namespace orvexScript
