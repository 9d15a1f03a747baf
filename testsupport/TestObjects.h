// Shared by the object tests (header only: they link the object layer): an object that keeps the
// record its constructors give it, one of a given class, and helpers to run a special and read results.
#pragma once

#include <gtest/gtest.h>

#include "objects/ScriptInfo.h"

namespace orvexScript::testobjects
{

class Scripted : public RefObject
{
public:
    ScriptInfo *GetScriptInfo() const override { return m_Info; }
    void SetScriptInfo(ScriptInfo *info) override { m_Info = info; }

private:
    ScriptInfo *m_Info = nullptr;
};

// An object of the class whose record is `Info` (a ScriptInfoT<Scripted>) and whose base class is
// `Base`: its constructor links the record on first use, as a class's own constructor does.
template <auto &Info, class Base = Scripted> class ScriptedOf : public Base
{
public:
    ScriptedOf() { _SetScriptInfo(this, Info); }
};

inline int NumReturns(const ScriptArgs &args)
{
    return args.m_Value.m_Args.m_NumReturns;
}

// Runs the special member `number` of `object`'s class chain, as the command runner does.
inline void RunSpecial(ScriptObject *object, uint32_t number, ScriptArgs &args, bool set = false)
{
    ScriptSymbol *symbol = FindSymbol(object->GetScriptInfo(), nullptr, number);
    ASSERT_NE(symbol, nullptr) << SpecialSymbolName(number);
    symbol->Call(object, args, set);
}

inline uint64_t FunctionValue(const ScriptSymbol &symbol)
{
    return reinterpret_cast<uintptr_t>(&symbol);
}

} // namespace orvexScript::testobjects
