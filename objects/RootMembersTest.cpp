// Tests of the members every object has through the root class: member reads and writes with the
// "Table" rule and constructors of registered classes, function values and member calls end to end,
// CallScriptFunc, equality and text form, objects named by address, and GetAttrs / SetAttrs / GetApp.

#include <gtest/gtest.h>

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
using testobjects::ScriptedOf;

// A class with a function of two results, a variable, a function literally named "Table", and an
// attribute table.
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
using Stranger = ScriptedOf<s_StrangerInfo>;

// A class whose member reads answer every name with the stranger's function.
void ForgerGetTable(void *, ScriptArgs &args, ScriptSymbol *, bool)
{
    args.ReturnFunction(&s_StrangerPoke);
}
ScriptInfoT<Scripted> s_ForgerInfo(1, "Forger");
ScriptSymbol s_ForgerGetTable(1, nullptr, SST_GetTable, ForgerGetTable, s_ForgerInfo);
using Forger = ScriptedOf<s_ForgerInfo>;

// A registered class with a constructor.
ScriptInfoT<Scripted> s_GadgetInfo(1, "Gadget");
ScriptSymbol s_GadgetCreate(1, nullptr, SST_Create, WidgetName, s_GadgetInfo);

// The error number a call left in `args`, SE_None if none.
int Error(const ScriptArgs &args)
{
    return static_cast<int>(args.FindKeyConst("Error").ToNumber(SE_None));
}

class RootMembers : public ::testing::Test
{
protected:
    void TearDown() override { SetRootObjectHook(nullptr); }

    // Runs special `number` of `self` (the widget if null) with key 0 `name` and key 1 `arg`, where
    // they are not nil. The args stay in the fixture, since a copy would drop the result count.
    ScriptArgs &Run(uint32_t number, const ScriptVal &name, const ScriptVal &arg = ScriptVal(),
                    ScriptObject *self = nullptr)
    {
        m_Args = ScriptArgs();
        if (!name.IsNil()) m_Args.FindKey(0) = name;
        if (!arg.IsNil()) m_Args.FindKey(1) = arg;
        RunSpecial(self ? self : &m_Widget, number, m_Args, number == SST_SetTable);
        return m_Args;
    }
    // Reads member `name` of the widget and gives the first result.
    ScriptVal Get(const char *name) { return Run(SST_GetTable, name).FindKeyConst(-1); }

    // Asks SST_ObjectFromAddress of the widget for the object at `low` + `high` * 2^32; gives the
    // number of results.
    int Ask(ScriptArgs &args, double low, double high)
    {
        args = ScriptArgs();
        args.FindKey(1) = low;
        args.FindKey(2) = high;
        RunSpecial(&m_Widget, SST_ObjectFromAddress, args);
        return NumReturns(args);
    }
    // The object found at `address`, or null; the args are local, so no result outlives its object.
    ScriptObject *AtAddress(const void *address)
    {
        const uint64_t number = reinterpret_cast<uintptr_t>(address);
        ScriptArgs args;
        const int found =
            Ask(args, static_cast<double>(number & 0xFFFFFFFFu), static_cast<double>(number >> 32));
        return found == 1 ? args.FindKeyConst(-1).ToLocalObject() : nullptr;
    }

    Widget m_Widget;
    ScriptArgs m_Args;
};

TEST_F(RootMembers, GetTableGivesFunctionsAsValuesAndCallsVariablesSetTableWritesVariablesOnly)
{
    struct Case
    {
        const char *name;
        const ScriptSymbol *function;
        bool packed;
    };
    const Case functions[] = {
        {"MinMax", &s_MinMax, false},
        {"MinMaxTable", &s_MinMax, true},
        {"Table", &s_TableFunc, false},     // an ordinary name
        {"Gadget", &s_GadgetCreate, false}, // a registered class gives its constructor
    };
    for (const Case &c : functions)
    {
        SCOPED_TRACE(c.name);
        ScriptVal value = Get(c.name);
        ASSERT_TRUE(value.IsFunction());
        EXPECT_EQ(value.ToFunction(), FunctionValue(*c.function));
        EXPECT_EQ(value.GetFlags(SVF_PackResults) != 0, c.packed);
    }
    EXPECT_EQ(Get("Size").ToNumber(), 4.0);
    // Help topics, a variable with the suffix, a class without a constructor.
    for (const char *none : {"Topic", "NoSuchMember", "SizeTable", "Widget"})
        EXPECT_TRUE(Get(none).IsNil()) << none;

    EXPECT_EQ(Error(Run(SST_GetTable, 5)), SE_InvalidIndex);

    // SetTable writes variables only.
    Run(SST_SetTable, "Size", 9);
    EXPECT_EQ(m_Widget.m_Size, 9.0);
    Run(SST_SetTable, "MinMax", 1);
    EXPECT_EQ(m_Widget.m_Calls, 0);
}

TEST_F(RootMembers, FunctionValuesAndMemberCallsGiveResultsPackedOrNot)
{
    ScriptArgs &packedValue = Run(SST_CallFunction, Get("MinMaxTable"), 10);
    ASSERT_EQ(NumReturns(packedValue), 1);
    EXPECT_EQ(packedValue.FindKeyConst(-1).FindKeyConst(2).ToNumber(), 11.0);

    ScriptArgs &member = Run(SST_CallMemberFunction, "MinMax", 5);
    ASSERT_EQ(NumReturns(member), 2);
    EXPECT_EQ(member.FindKeyConst(-2).ToNumber(), 6.0);

    ScriptArgs &packedMember = Run(SST_CallMemberFunction, "MinMaxTable", 5);
    ASSERT_EQ(NumReturns(packedMember), 1);
    EXPECT_EQ(packedMember.FindKeyConst(-1).FindKeyConst(2).ToNumber(), 6.0);

    EXPECT_EQ(NumReturns(Run(SST_CallMemberFunction, "Size")), 0);
    EXPECT_EQ(m_Widget.m_Calls, 3);
}

TEST_F(RootMembers, CallScriptFuncReportsWhetherItCalled)
{
    ScriptArgs args;
    args.FindKey(1) = 1;
    EXPECT_TRUE(CallScriptFunc(&m_Widget, "MinMax", args));
    EXPECT_EQ(args.FindKeyConst(-2).ToNumber(), 2.0);

    ScriptArgs other;
    EXPECT_FALSE(CallScriptFunc(&m_Widget, "Size", other));
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
        SCOPED_TRACE(c.what);
        ScriptValue value{};
        value.m_Function = c.value;
        ScriptArgs &args = Run(SST_CallFunction, ScriptVal(SV_Function, &value));
        EXPECT_EQ(Error(args), SE_UnknownSymbol);
        EXPECT_EQ(NumReturns(args), 0);
    }
    EXPECT_EQ(m_Widget.m_Calls, 0);
    EXPECT_EQ(Error(Run(SST_CallFunction, ScriptVal())), SE_None);

    // Both ways of calling a member by name refuse a function of another class.
    Forger forger;
    ScriptArgs native;
    EXPECT_FALSE(CallScriptFunc(&forger, "Poke", native));
    EXPECT_EQ(Error(native), SE_UnknownSymbol);
    EXPECT_EQ(Error(Run(SST_CallMemberFunction, "Poke", ScriptVal(), &forger)), SE_UnknownSymbol);
    EXPECT_EQ(s_StrangerCalls, 0);

    // A class's own constructor is a function of its chain.
    Stranger stranger;
    EXPECT_EQ(Error(Run(SST_CallFunction, Get("Stranger"), ScriptVal(), &stranger)), SE_None);
    EXPECT_EQ(s_StrangerCalls, 1);
}

TEST_F(RootMembers, EqualityAndTextForm)
{
    Widget other;
    EXPECT_TRUE(
        Run(SST_EQ, ScriptVal(), static_cast<ScriptObject *>(&m_Widget)).FindKeyConst(-1).ToBoolean());
    EXPECT_FALSE(Run(SST_EQ, ScriptVal(), static_cast<ScriptObject *>(&other)).FindKeyConst(-1).ToBoolean());
    // The class name and the address.
    EXPECT_EQ(std::string(Run(SST_ToString, ScriptVal()).FindKeyConst(-1).ToString()).rfind("Widget (0x", 0),
              0u);
}

TEST_F(RootMembers, ObjectFromAddressAnswersOnlyForRegisteredObjects)
{
    const uint64_t address = reinterpret_cast<uintptr_t>(&m_Widget);
    const double low = static_cast<double>(address & 0xFFFFFFFFu);
    const double high = static_cast<double>(address >> 32);

    // A live object that nobody registered is as unknown as any other number.
    EXPECT_EQ(Ask(m_Args, low, high), 0);
    EXPECT_EQ(Error(m_Args), SE_InvalidObject);

    RegisterObjectAddress(&m_Widget);
    EXPECT_EQ(AtAddress(&m_Widget), &m_Widget);
    EXPECT_EQ(Ask(m_Args, -1, high), 0);
    EXPECT_EQ(Ask(m_Args, low, 4294967296.0), 0);
    UnregisterObjectAddress(&m_Widget);
    EXPECT_EQ(AtAddress(&m_Widget), nullptr);
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
    ASSERT_EQ(AtAddress(storage), gone);
    {
        Widget copy(*gone); // a copy is not registered, and its end takes nothing out
    }
    EXPECT_EQ(AtAddress(storage), gone);
    gone->~Widget();
    Widget *fresh = new (storage) Widget;
    EXPECT_EQ(AtAddress(storage), nullptr);
    fresh->~Widget();

    // Assignment keeps the target registered, so that its end still takes it out.
    alignas(Plain) unsigned char plainStorage[sizeof(Plain)];
    Plain *target = new (plainStorage) Plain;
    RegisterObjectAddress(target);
    *target = Plain();
    target->~Plain();
    Plain *reused = new (plainStorage) Plain;
    EXPECT_EQ(AtAddress(plainStorage), nullptr);
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

Widget *s_App = nullptr;
ScriptObject *App()
{
    return s_App;
}

TEST_F(RootMembers, AttributesAndTheAppGoThroughTheirMembers)
{
    EXPECT_EQ(Run(SST_CallMemberFunction, "GetAttrs").FindKeyConst(-1).FindKeyConst("Size").ToNumber(), 4.0);
    EXPECT_EQ(Run(SST_CallMemberFunction, "GetAttrs", "Size").FindKeyConst(-1).ToNumber(), 4.0);
    ScriptVal attrs(SV_Table, nullptr);
    attrs.FindKey("Size") = 12;
    Run(SST_CallMemberFunction, "SetAttrs", attrs);
    EXPECT_EQ(m_Widget.m_Size, 12.0);

    EXPECT_EQ(NumReturns(Run(SST_CallMemberFunction, "GetApp")), 1); // nil without an app hook
    Widget app;
    s_App = &app;
    SetRootObjectHook(App);
    EXPECT_EQ(Run(SST_CallMemberFunction, "GetApp").FindKeyConst(-1).ToLocalObject(), &app);
    m_Args = ScriptArgs(); // lets go of the app before it goes
    s_App = nullptr;
}

} // namespace
} // namespace orvexScript
