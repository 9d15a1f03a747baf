// Tests of the result writers: results at -1, -2, ... ahead of the arguments, the 8-bit count and its
// limit, overwriting a protected slot, plain tables, values of other kinds, and function values.

#include <gtest/gtest.h>

#include <vector>

#include "values/model/ScriptArgs.h"
#include "values/model/TableEntry.h"

namespace orvexScript
{
namespace
{

std::vector<double> NumberKeys(const ScriptVal &table)
{
    std::vector<double> keys;
    for (TableEntry *e = table.FirstEntry(); e; e = e->m_Next)
        if (e->m_Key.IsNumber()) keys.push_back(e->m_Key.ToNumber());
    return keys;
}

TEST(ScriptValReturn, ResultsCountDownFromMinusOneAheadOfTheArgumentsOverProtectedSlots)
{
    char symbol[8] = {};
    ScriptArgs args;
    args.FindKey(0) = "Member";
    args.FindKey(1) = 7;
    args.FindKey(-2) = 5;
    args.FindKey(-2).SetFlags(SVF_Const);
    args.ReturnNumber(1);
    args.ReturnString("two");
    args.ReturnFunction(reinterpret_cast<ScriptSymbol *>(symbol));
    args.ReturnFunction(nullptr);
    EXPECT_EQ(args.m_Value.m_Args.m_NumReturns, 4);
    EXPECT_EQ(args.FindKeyConst(-1).ToNumber(), 1.0);
    EXPECT_STREQ(args.FindKeyConst(-2).ToString(), "two");
    EXPECT_EQ(args.FindKeyConst(-2).GetFlags(SVF_Const), 0u);
    EXPECT_EQ(args.FindKeyConst(-3).ToFunction(), reinterpret_cast<uintptr_t>(symbol));
    EXPECT_TRUE(args.FindKeyConst(-4).IsNil());
    EXPECT_EQ(NumberKeys(args), (std::vector<double>{-4, -3, -2, -1, 0, 1}));
}

TEST(ScriptValReturn, CountStopsAt255AndNeverReachesKeyZero)
{
    ScriptArgs args;
    args.FindKey(0) = "Member";
    for (int i = 1; i <= 256; ++i)
        args.ReturnNumber(i);
    EXPECT_EQ(args.m_Value.m_Args.m_NumReturns, 255);
    EXPECT_EQ(args.FindKeyConst(-255).ToNumber(), 255.0);
    EXPECT_STREQ(args.FindKeyConst(0).ToString(), "Member");
    EXPECT_TRUE(args.FindKeyConst(-256).IsNil());
}

TEST(ScriptValReturn, TablesCountTheirResultsAsArgsDoOtherKindsStoreNothing)
{
    ScriptArgs args;
    ScriptVal table(SV_Table, nullptr);
    table.FindKey(1) = "argument";
    for (ScriptVal *target : {static_cast<ScriptVal *>(&args), &table})
    {
        target->ReturnNil(); // counts, so the number after it goes to -2
        target->ReturnNumber(5);
        EXPECT_TRUE(target->Exists(ScriptVal(-1)));
        EXPECT_TRUE(target->FindKeyConst(-1).IsNil());
        EXPECT_EQ(target->FindKeyConst(-2).ToNumber(), 5.0);
    }
    EXPECT_STREQ(table.FindKeyConst(1).ToString(), "argument");

    ScriptVal text("unchanged");
    text.ReturnNumber(1);
    EXPECT_STREQ(text.ToString(), "unchanged");
}

} // namespace
} // namespace orvexScript
