// The root class record (name "") and the members every object has through it: member reads and
// writes, equality, text form, calling function values and members, objects named by address, and the
// named members "GetAttrs", "SetAttrs" and "GetApp". Also CallScriptFunc, the native member call.
// The members are defined here, beside the record, so that linking the record links them too.

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <string>

#include "objects/ObjectHooks.h"
#include "objects/ScriptInfo.h"

namespace orvexScript
{

namespace
{
ScriptInfoT<ScriptObject> s_RootInfo(1, "", "", nullptr);
}

// Constant-initialized: the root's constructor already finds itself here.
constinit ScriptInfo *const g_RootScriptInfo = &s_RootInfo;

namespace
{
constexpr size_t kTableSuffix = 5; // "Table"
constexpr size_t kTableNameMin = 6;
constexpr size_t kTableNameMax = 79;

ScriptObject *Self(void *self)
{
    return static_cast<ScriptObject *>(self);
}

// The record of an object's class; the root for an object that has none.
ScriptInfo *ClassOf(const ScriptObject *object)
{
    ScriptInfo *info = object ? object->GetScriptInfo() : nullptr;
    return info ? info : g_RootScriptInfo;
}

ScriptVal &LastResult(ScriptArgs &args)
{
    return args.FindKey(-static_cast<int>(args.m_Value.m_Args.m_NumReturns));
}

// "<F>Table" for a function F: the same function, its results to be packed into one table.
ScriptSymbol *FindTableForm(const ScriptInfo *info, const char *name)
{
    const size_t length = std::strlen(name);
    if (length < kTableNameMin || length > kTableNameMax) return nullptr;
    if (std::strcmp(name + length - kTableSuffix, "Table") != 0) return nullptr;
    const std::string base(name, length - kTableSuffix);
    return FindSymbol(info, base.c_str(), SST_Function);
}

// A registered class of that exact name hands out its constructor.
void ReturnConstructor(ScriptArgs &args, const char *name)
{
    for (ScriptInfo *info = g_ScriptInfoList; info; info = info->m_Next)
    {
        if (std::strcmp(info->m_Name, name) != 0) continue;
        args.ReturnFunction(FindSymbol(info, nullptr, SST_Create));
        return;
    }
    args.ReturnNil();
}

// Moves the results -1..-n into one table at -1.
void PackResults(ScriptArgs &args)
{
    const int count = args.m_Value.m_Args.m_NumReturns;
    ScriptVal table(SV_Table, nullptr);
    for (int i = 1; i <= count; ++i)
    {
        ScriptVal &result = args.FindKey(-i);
        table.FindKey(i) = result;
        result.CleanUp();
    }
    args.m_Value.m_Args.m_NumReturns = 0;
    args.Return(table);
}

// Looks up `name` with the class's SST_GetTable and, if it is a function, calls it with `args`.
bool CallMember(ScriptObject *object, const ScriptVal &name, ScriptArgs &args)
{
    const ScriptInfo *info = ClassOf(object);
    ScriptSymbol *getTable = FindSymbol(info, nullptr, SST_GetTable);
    ScriptSymbol *callFunction = FindSymbol(info, nullptr, SST_CallFunction);
    if (!getTable || !callFunction) return false;
    ScriptArgs lookup;
    lookup.FindKey(0) = name;
    getTable->Call(object, lookup, false);
    const ScriptVal &function = lookup.FindKeyConst(-1);
    if (!function.IsFunction()) return false;
    // A class's own SST_GetTable may hand out any value, and a class's SST_CallFunction need not
    // check it: only a function of this object's chain goes on.
    if (!FindFunctionValue(info, function.ToFunction()))
    {
        args.SetError(SE_UnknownSymbol);
        return false;
    }
    args.FindKey(0) = function;
    callFunction->Call(object, args, false);
    return true;
}

// ---- the special members ----------------------------------------------------------------------------

void RootGetTable(void *self, ScriptArgs &args, ScriptSymbol *, bool)
{
    ScriptObject *object = Self(self);
    const char *name = args.FindKeyConst(0).IsString() ? args.FindKeyConst(0).ToString() : nullptr;
    if (!name)
    {
        args.SetError(SE_InvalidIndex);
        return;
    }
    const ScriptInfo *info = ClassOf(object);
    ScriptSymbol *symbol = FindSymbol(info, name, 0);
    bool packed = false;
    if (!symbol)
    {
        symbol = FindTableForm(info, name);
        packed = symbol != nullptr;
    }
    if (!symbol)
    {
        ReturnConstructor(args, name);
        return;
    }
    switch (symbol->Number())
    {
    case SST_Variable:
    case SST_Constant:
        symbol->Call(object, args, false);
        break;
    case SST_Function:
        args.ReturnFunction(symbol);
        if (packed) LastResult(args).SetFlags(SVF_PackResults);
        break;
    default:
        args.ReturnNil();
        break;
    }
}

void RootSetTable(void *self, ScriptArgs &args, ScriptSymbol *, bool)
{
    ScriptObject *object = Self(self);
    const char *name = args.FindKeyConst(0).IsString() ? args.FindKeyConst(0).ToString() : nullptr;
    if (!name)
    {
        args.SetError(SE_InvalidIndex);
        return;
    }
    ScriptSymbol *symbol = FindSymbol(ClassOf(object), name, 0);
    if (symbol && symbol->Number() == SST_Variable) symbol->Call(object, args, true);
}

void RootEQ(void *self, ScriptArgs &args, ScriptSymbol *, bool)
{
    const ScriptVal &other = args.FindKeyConst(1);
    args.ReturnBoolean(other.IsLocalObject() && other.ToLocalObject() == Self(self));
}

void RootToString(void *self, ScriptArgs &args, ScriptSymbol *, bool)
{
    // The address as 16 upper-case hex digits, the same text on every platform.
    char text[256];
    std::snprintf(text, sizeof(text), "%s (0x%016" PRIXPTR ")", ClassOf(Self(self))->m_Name,
                  reinterpret_cast<uintptr_t>(self));
    args.ReturnString(text);
}

void RootCallFunction(void *self, ScriptArgs &args, ScriptSymbol *, bool)
{
    ScriptObject *object = Self(self);
    const ScriptVal &function = args.FindKeyConst(0);
    const uint64_t address = function.ToFunction();
    if (!address) return;
    const bool pack = function.GetFlags(SVF_PackResults) != 0;
    // The value may have come over the wire: only a function of this object's own chain is called.
    ScriptSymbol *symbol = FindFunctionValue(ClassOf(object), address);
    if (!symbol)
    {
        args.SetError(SE_UnknownSymbol);
        return;
    }
    symbol->Call(object, args, false);
    if (pack) PackResults(args);
}

void RootCallMemberFunction(void *self, ScriptArgs &args, ScriptSymbol *, bool)
{
    const ScriptVal name(args.FindKeyConst(0));
    (void)CallMember(Self(self), name, args);
}

// Arguments 1 and 2 are the low and high halves of an address. The number is only looked up among
// the objects registered for this; it is never used as a pointer.
void RootObjectFromAddress(void *, ScriptArgs &args, ScriptSymbol *, bool)
{
    const double low = args.FindKeyConst(1).ToNumber(-1.0);
    const double high = args.FindKeyConst(2).ToNumber(0.0);
    constexpr double kHalf = 4294967296.0;
    const bool valid = low >= 0.0 && low < kHalf && high >= 0.0 && high < kHalf;
    const uint64_t address =
        valid ? (static_cast<uint64_t>(static_cast<uint32_t>(high)) << 32) | static_cast<uint32_t>(low) : 0;
    if (!address || !ReturnObjectAtAddress(args, address)) args.SetError(SE_InvalidObject);
}

// ---- the named members ------------------------------------------------------------------------------

void RootGetAttrs(void *self, ScriptArgs &args, ScriptSymbol *, bool)
{
    ScriptObject *object = Self(self);
    ScriptSymbol *attrs = FindSymbol(ClassOf(object), nullptr, SST_GetSetAttrs);
    if (!attrs) return;
    const ScriptVal &key = args.FindKeyConst(1);
    ScriptArgs call;
    call.FindKey(1) = ScriptVal(SV_Table, nullptr);
    call.FindKey(2) = key;
    attrs->Call(object, call, false);
    const ScriptVal &table = call.FindKeyConst(1);
    args.Return(key.IsNil() ? table : table.FindKeyConst(key));
}

void RootSetAttrs(void *self, ScriptArgs &args, ScriptSymbol *, bool)
{
    ScriptObject *object = Self(self);
    ScriptSymbol *attrs = FindSymbol(ClassOf(object), nullptr, SST_GetSetAttrs);
    if (!attrs) return;
    ScriptArgs call;
    call.FindKey(1) = args.FindKeyConst(1);
    attrs->Call(object, call, true);
}

void RootGetApp(void *, ScriptArgs &args, ScriptSymbol *, bool)
{
    args.ReturnObject(GetRootObject());
}

ScriptSymbol s_GetTable(1, nullptr, SST_GetTable, RootGetTable, s_RootInfo);
ScriptSymbol s_SetTable(1, nullptr, SST_SetTable, RootSetTable, s_RootInfo);
ScriptSymbol s_EQ(1, nullptr, SST_EQ, RootEQ, s_RootInfo);
ScriptSymbol s_ToString(1, nullptr, SST_ToString, RootToString, s_RootInfo);
ScriptSymbol s_CallFunction(1, nullptr, SST_CallFunction, RootCallFunction, s_RootInfo);
ScriptSymbol s_CallMemberFunction(1, nullptr, SST_CallMemberFunction, RootCallMemberFunction, s_RootInfo);
ScriptSymbol s_ObjectFromAddress(1, nullptr, SST_ObjectFromAddress, RootObjectFromAddress, s_RootInfo);
ScriptSymbolTags s_GetAttrs(1, "GetAttrs", SST_Function, RootGetAttrs, s_RootInfo, TAG_DONE);
ScriptSymbolTags s_SetAttrs(1, "SetAttrs", SST_Function, RootSetAttrs, s_RootInfo, TAG_DONE);
ScriptSymbolTags s_GetApp(1, "GetApp", SST_Function, RootGetApp, s_RootInfo, TAG_DONE);
} // namespace

bool CallScriptFunc(ScriptObject *object, const char *name, ScriptArgs &args, TagList *)
{
    if (!object || !name) return false;
    return CallMember(object, ScriptVal(name), args);
}

} // namespace orvexScript
