// The result writers of ScriptVal: a handler puts its results at keys -1, -2, ... of its arguments.
// An SV_Args value counts its results in m_NumReturns; a plain table has no room for a count (its
// payload holds the constructor there), so its count is the run of result keys it holds. A nil result
// is an entry too, so both kinds count a nil result alike.

#include <cstdint>

#include "values/model/KeID.h"
#include "values/model/MemBlock.h"
#include "values/model/ScriptVal.h"

namespace orvexScript
{

namespace
{
constexpr int kMaxReturns = 255; // the count is 8 bits wide

// The number of results already stored in a table: the keys -1, -2, ... present in a row, whatever
// their values.
int TableResultCount(const ScriptVal &table)
{
    int count = 0;
    while (count < kMaxReturns && table.Exists(ScriptVal(-(count + 1))))
        ++count;
    return count;
}
} // namespace

void ScriptVal::Return(const ScriptVal &value)
{
    int count;
    if (Type() == SV_Args)
        count = m_Value.m_Args.m_NumReturns;
    else if (Type() == SV_Table)
        count = TableResultCount(*this);
    else
        return;
    // A full count drops the result: one more would wrap to key 0, where the member name stands.
    if (count >= kMaxReturns) return;
    ++count;
    if (Type() == SV_Args) m_Value.m_Args.m_NumReturns = static_cast<uint8_t>(count);
    ScriptVal &slot = FindKey(-count);
    slot.ClearFlags(SVF_Const);
    slot = value;
}

void ScriptVal::ReturnNil()
{
    Return(ScriptVal());
}

void ScriptVal::ReturnNumber(double value)
{
    Return(ScriptVal(value));
}

void ScriptVal::ReturnString(const char *text)
{
    Return(ScriptVal(text));
}

void ScriptVal::ReturnBoolean(bool value)
{
    Return(ScriptVal(value));
}

void ScriptVal::ReturnMemBlock(const MemBlock &block)
{
    Return(ScriptVal(block));
}

void ScriptVal::ReturnCode(const void *code, unsigned long size, unsigned long argc)
{
    Return(ScriptVal(code, size, argc));
}

void ScriptVal::ReturnFunction(ScriptSymbol *symbol)
{
    if (!symbol)
    {
        ReturnNil();
        return;
    }
    ScriptValue payload{};
    payload.m_Function = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(symbol));
    Return(ScriptVal(SV_Function, &payload));
}

void ScriptVal::ReturnObject(ScriptObject *object)
{
    Return(ScriptVal(object));
}

} // namespace orvexScript
