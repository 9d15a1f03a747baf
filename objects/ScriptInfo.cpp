// Class records and members: the registry of records, linking a class to its parent on first use
// (with its constants handed down to the root), symbol look-up, calling a member (on the main thread
// if it asks), and ReturnCustomData.
// The root record and its default members are in RootScriptInfo.cpp; help from tags in
// ScriptSymbolTags.cpp.

#include "objects/ScriptInfo.h"

#include <cstring>

#include "objects/ObjectHooks.h"
#include "values/model/TableEntry.h"

namespace orvexScript
{

// Zero before any constructor runs, so records of every source file can push themselves on it.
constinit ScriptInfo *g_ScriptInfoList = nullptr;

namespace
{
bool IsSpecial(unsigned long number)
{
    return number >= SST_FirstSpecial && number < SST_FirstSpecial + SST_NumSpecialSlots;
}

// Takes `symbol` out of the list that starts at `head`; false if it is not there.
bool Unlink(ScriptSymbol *&head, ScriptSymbol *symbol)
{
    for (ScriptSymbol **link = &head; *link; link = &(*link)->m_Next)
    {
        if (*link != symbol) continue;
        *link = symbol->m_Next;
        symbol->m_Next = nullptr;
        return true;
    }
    return false;
}

// Moves the constants of `info`, in their order, to the front of the list of its chain's top.
void HandDownConstants(ScriptInfo &info)
{
    ScriptInfo *top = &info;
    while (top->Parent())
        top = top->Parent();
    if (top == &info) return;
    ScriptSymbol *moved = nullptr;
    ScriptSymbol **movedTail = &moved;
    ScriptSymbol **link = &info.m_Symbols;
    while (ScriptSymbol *symbol = *link)
    {
        if (symbol->Number() != SST_Constant)
        {
            link = &symbol->m_Next;
            continue;
        }
        *link = symbol->m_Next;
        symbol->m_Next = nullptr;
        *movedTail = symbol;
        movedTail = &symbol->m_Next;
    }
    *movedTail = top->m_Symbols;
    top->m_Symbols = moved;
}

bool NameMatches(const ScriptSymbol *symbol, const char *name, unsigned long number)
{
    if (!name) return symbol->m_Name.IsEmpty() && symbol->Number() == number;
    const char *own = symbol->m_Name.Text();
    if (!own || !*own || std::strcmp(own, name) != 0) return false;
    return number == 0 || symbol->Number() == number;
}

uint64_t AddressOf(const ScriptSymbol *symbol)
{
    return static_cast<uint64_t>(reinterpret_cast<uintptr_t>(symbol));
}

struct CallRecord
{
    ScriptSymbol *symbol;
    ScriptObject *object;
    ScriptArgs *args;
    bool set;
};

void CallTrampoline(void *data)
{
    auto *record = static_cast<CallRecord *>(data);
    record->symbol->CallHere(record->object, *record->args, record->set);
}
} // namespace

// ---- ScriptInfo -----------------------------------------------------------------------------------

ScriptInfo::ScriptInfo(unsigned long version, const char *name, const char *description, const char *text)
    : m_Version(static_cast<uint32_t>(version)), m_Next(g_ScriptInfoList),
      m_Parent(this == g_RootScriptInfo ? nullptr : NotLinked()), m_Name(name ? name : ""),
      m_Description(description ? description : ""), m_Text(text), m_Symbols(nullptr), m_Special{}
{
    g_ScriptInfoList = this;
}

ScriptInfo::~ScriptInfo()
{
    for (ScriptInfo **link = &g_ScriptInfoList; *link; link = &(*link)->m_Next)
    {
        if (*link == this)
        {
            *link = m_Next;
            break;
        }
    }
}

ScriptSymbol *ScriptInfo::FindSymbol(const char *name, unsigned long number) const
{
    return orvexScript::FindSymbol(this, name, number);
}

ScriptSymbol *FindSymbol(const ScriptInfo *info, const char *name, unsigned long number)
{
    if (number >= SST_FirstSpecial)
    {
        if (!IsSpecial(number)) return nullptr;
        for (const ScriptInfo *r = info; r; r = r->Parent())
            if (ScriptSymbol *symbol = r->m_Special[number - SST_FirstSpecial]) return symbol;
        return nullptr;
    }
    for (const ScriptInfo *r = info; r; r = r->Parent())
    {
        for (ScriptSymbol *symbol = r->m_Symbols; symbol; symbol = symbol->m_Next)
        {
            if (!NameMatches(symbol, name, number)) continue;
            if ((symbol->m_Flags & SSF_DebugOnly) && !IsScriptDebug()) continue;
            return symbol;
        }
    }
    return nullptr;
}

ScriptSymbol *FindFunctionValue(const ScriptInfo *info, uint64_t value)
{
    if (!value) return nullptr;
    for (const ScriptInfo *r = info; r; r = r->Parent())
    {
        ScriptSymbol *found = nullptr;
        for (ScriptSymbol *symbol = r->m_Symbols; symbol && !found; symbol = symbol->m_Next)
            if (AddressOf(symbol) == value) found = symbol;
        ScriptSymbol *create = r->m_Special[SST_Create - SST_FirstSpecial];
        if (!found && create && AddressOf(create) == value) found = create;
        if (!found) continue;
        // From here on `found` is a real symbol. Only functions and constructors are function values
        // (neither ever leaves its owner's record, unlike the constants that sit in the root's list);
        // calling a special such as SST_CallFunction itself would let a peer recurse without end.
        const uint32_t number = found->Number();
        if (number != SST_Function && number != SST_Create) return nullptr;
        if ((found->m_Flags & SSF_DebugOnly) && !IsScriptDebug()) return nullptr;
        return found;
    }
    return nullptr;
}

// ---- linking ----------------------------------------------------------------------------------------

void _InitScriptInfo(ScriptInfo &info, ScriptInfo *parent)
{
    if (info.IsLinked()) return;
    info.m_Parent = parent && parent != &info ? parent : g_RootScriptInfo;
    HandDownConstants(info);
}

void _SetScriptInfo(void *object, ScriptInfo &info)
{
    ScriptObject *target = object ? info.ToObj(object) : nullptr;
    if (!info.IsLinked())
    {
        // The base's constructor has run: the object still answers with the base's record.
        ScriptInfo *current = target ? target->GetScriptInfo() : nullptr;
        _InitScriptInfo(info, current);
    }
    if (target) target->SetScriptInfo(&info);
}

// ---- ScriptSymbol -----------------------------------------------------------------------------------

ScriptSymbol::ScriptSymbol(unsigned long version, const char *name, unsigned long flags, ScriptFunc function,
                           ScriptInfo &owner, const char *shortHelp, const char *longHelp)
    : m_Version(static_cast<uint32_t>(version)), m_Next(nullptr), m_Owner(&owner), m_Name(name),
      m_Flags(static_cast<uint32_t>(flags)), m_Function(function), m_ShortHelp(shortHelp),
      m_LongHelp(longHelp)
{
    const uint32_t number = Number();
    if (number < SST_FirstSpecial)
    {
        m_Next = owner.m_Symbols;
        owner.m_Symbols = this;
    }
    else
    {
        owner.m_Special[number - SST_FirstSpecial] = this;
    }
}

ScriptSymbol::~ScriptSymbol()
{
    const uint32_t number = Number();
    if (number >= SST_FirstSpecial)
    {
        ScriptSymbol *&slot = m_Owner->m_Special[number - SST_FirstSpecial];
        if (slot == this) slot = nullptr;
        return;
    }
    // A constant may have moved up to the top of its owner's chain.
    for (ScriptInfo *info = m_Owner; info; info = info->Parent())
        if (Unlink(info->m_Symbols, this)) return;
}

void ScriptSymbol::Call(ScriptObject *object, ScriptArgs &args, bool set)
{
    const uint32_t mainThread = set ? SSF_MainThreadWrite : SSF_MainThread;
    if (!(m_Flags & mainThread))
    {
        CallHere(object, args, set);
        return;
    }
    // The record lives on this stack: RunOnMainThread returns only after the handler has run.
    CallRecord record{this, object, &args, set};
    RunOnMainThread(CallTrampoline, &record);
}

void ScriptSymbol::CallHere(ScriptObject *object, ScriptArgs &args, bool set)
{
    if (m_Function) m_Function(m_Owner->FromObj(object), args, this, set);
}

// ---- custom data ----------------------------------------------------------------------------------

void ReturnCustomData(ScriptArgs &args, const char *name, const ScriptVal &data, TagList *)
{
    if (!data.IsTable()) return;
    if (name)
    {
        // A missing last key gives the constant nil, which is one nil result; a path that runs through
        // a value that is no table gives null, and no result.
        const ScriptVal *value = data.FindKeyNestConst(name);
        if (value) args.Return(*value);
        return;
    }
    ScriptVal keys(SV_Table, nullptr);
    int index = 0;
    for (TableEntry *entry = nullptr; data.NextKey(entry);)
        keys.FindKey(++index) = entry->m_Key;
    args.Return(keys);
}

} // namespace orvexScript
