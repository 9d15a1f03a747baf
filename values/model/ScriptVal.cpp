// ScriptVal: construction, assignment through Set, release, conversions, comparison, merging,
// SetError and Dump. Table look-ups and table copying live in ScriptValTable.cpp.
#include "values/model/ScriptVal.h"

#include <cinttypes>
#include <cmath>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "values/base/StringBlock.h"
#include "values/model/KeID.h"
#include "values/model/MemBlock.h"
#include "values/model/RemoteHooks.h"
#include "values/model/ScriptObject.h"
#include "values/model/TableEntry.h"
#include "values/model/TableIndex.h"

namespace orvexScript
{

constinit ScriptVal nil{ScriptVal::ConstTag{}};

// The packet form and the generated binding read values and entries by these offsets; the table
// index handle lives in the padding in front of the payload and must not move anything.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winvalid-offsetof"
static_assert(sizeof(void *) != 8 || sizeof(ScriptVal) == 48);
static_assert(sizeof(void *) != 8 || offsetof(ScriptVal, m_Type) == 8);
static_assert(sizeof(void *) != 8 || offsetof(ScriptVal, m_Value) == 16);
static_assert(sizeof(void *) != 8 || sizeof(ScriptValue) == 32);
static_assert(alignof(ScriptValue) == 8);
static_assert(offsetof(ScriptValue, m_String.m_Hash) == sizeof(void *));
static_assert(offsetof(ScriptValue, m_String.m_StringCopy) == 2 * sizeof(void *));
static_assert(offsetof(ScriptValue, m_MemBlock.m_Size) == sizeof(void *));
static_assert(offsetof(ScriptValue, m_Code.m_Args) == sizeof(void *) + 4);
static_assert(offsetof(ScriptValue, m_Table.m_Last) == sizeof(void *));
static_assert(offsetof(ScriptValue, m_Table.m_Constructor) == 2 * sizeof(void *));
static_assert(offsetof(ScriptValue, m_Table.m_ConstructorCopy) == 3 * sizeof(void *));
static_assert(offsetof(ScriptValue, m_Args.m_App) == sizeof(void *));
static_assert(offsetof(ScriptValue, m_Args.m_Context) == 2 * sizeof(void *));
static_assert(offsetof(ScriptValue, m_Args.m_NumReturns) == 2 * sizeof(void *) + 4);
static_assert(sizeof(void *) != 8 || sizeof(TableEntry) == 104);
static_assert(offsetof(TableEntry, m_Key) == sizeof(void *));
static_assert(offsetof(TableEntry, m_Value) == sizeof(void *) + sizeof(ScriptVal));
#pragma GCC diagnostic pop

namespace
{

const char *const s_ErrorTexts[] = {
    nullptr,          "Unknown Error",        "Invalid arguments.",    "Unsupported operation.",
    "Not logged in.", "Unknown Packet type.", "Invalid object.",       "Scripting not initialized.",
    "Invalid index.", "Unknown Symbol.",      "Invalid RemoteObject.",
};

// Conversions accept a null receiver; hide the test from the optimiser, which may assume `this`
// is never null.
inline bool IsNullReceiver(const void *self)
{
    asm("" : "+r"(self));
    return self == nullptr;
}

ScriptValue StringPayload(const char *text)
{
    ScriptValue payload{};
    payload.m_String.m_String = const_cast<char *>(text);
    return payload;
}

void *CopyBytes(const void *src, uint32_t size)
{
    void *buffer = std::malloc(size ? size : 1);
    if (buffer && src && size) std::memcpy(buffer, src, size);
    return buffer;
}

} // namespace

const char *ScriptErrorText(int code)
{
    if (code <= 0 || code >= static_cast<int>(sizeof(s_ErrorTexts) / sizeof(s_ErrorTexts[0]))) return nullptr;
    return s_ErrorTexts[code];
}

// ---- construction ------------------------------------------------------------------------------

ScriptVal::ScriptVal(float v) : m_Type(SV_Number | SVF_Single), m_Value{}
{
    m_Value.m_Number = v;
}

ScriptVal::ScriptVal(double v) : m_Type(SV_Number), m_Value{}
{
    m_Value.m_Number = v;
}

ScriptVal::ScriptVal(bool v) : m_Type(SV_Boolean), m_Value{}
{
    m_Value.m_Boolean = v;
}

ScriptVal::ScriptVal(const char *text) : ScriptVal()
{
    if (text)
    {
        ScriptValue payload = StringPayload(text);
        Build(SV_String, &payload);
    }
}

ScriptVal::ScriptVal(const char *text, int len) : ScriptVal()
{
    if (text) Set(SV_String, &text, len);
}

ScriptVal::ScriptVal(const KeID &id) : ScriptVal(id.Raw()) {}

ScriptVal::ScriptVal(const MemBlock &block) : ScriptVal()
{
    ScriptValue payload{};
    payload.m_MemBlock.m_Ptr = block.m_Ptr;
    payload.m_MemBlock.m_Size = block.m_Size;
    Build(SV_MemBlock, &payload);
}

ScriptVal::ScriptVal(const void *code, unsigned long size, unsigned long args) : ScriptVal()
{
    ScriptValue payload{};
    payload.m_Code.m_Ptr = const_cast<void *>(code);
    payload.m_Code.m_Size = static_cast<uint32_t>(size);
    payload.m_Code.m_Args = static_cast<uint32_t>(args);
    Build(SV_Code, &payload);
}

ScriptVal::ScriptVal(ScriptObject *object) : ScriptVal()
{
    if (object)
    {
        ScriptValue payload{};
        payload.m_LocalObject = object;
        Build(SV_LocalObject, &payload);
    }
}

ScriptVal::ScriptVal(ScriptValType typeWord, const void *data) : ScriptVal()
{
    Build(typeWord, data);
}

ScriptVal::ScriptVal(const ScriptVal &other) : ScriptVal()
{
    Build(static_cast<ScriptValType>(other.m_Flags & ~SVF_Const), &other.m_Value);
}

ScriptVal::ScriptVal(ScriptVal &&other) noexcept : ScriptVal()
{
    if (other.CanSteal())
        Steal(other);
    else
        Build(static_cast<ScriptValType>(other.m_Flags & ~SVF_Const), &other.m_Value);
}

ScriptVal::~ScriptVal()
{
    // A nil value owns nothing, and its destruction writes nothing: the global nil is destroyed at the
    // process's exit while connection threads may still be reading it to build their replies.
    if (Type() != SV_Nil || m_Index) CleanUp();
}

// ---- assignment --------------------------------------------------------------------------------

ScriptVal &ScriptVal::operator=(const ScriptVal &other)
{
    if (this == &other) return *this;
    return Set(static_cast<ScriptValType>(other.m_Flags & ~SVF_Const), &other.m_Value);
}

ScriptVal &ScriptVal::operator=(ScriptVal &&other) noexcept
{
    if (this == &other || (m_Flags & SVF_Const)) return *this;
    if (!other.CanSteal()) return *this = static_cast<const ScriptVal &>(other);
    // Detach first: `other` may live inside this value's own table.
    ScriptVal taken;
    taken.Steal(other);
    CleanUp();
    Steal(taken);
    return *this;
}

ScriptVal &ScriptVal::operator=(bool v)
{
    return Set(SV_Boolean, &v);
}

ScriptVal &ScriptVal::operator=(float v)
{
    double d = v;
    return Set(SVType(SV_Number, SVF_Single), &d);
}

ScriptVal &ScriptVal::operator=(double v)
{
    return Set(SV_Number, &v);
}

ScriptVal &ScriptVal::operator=(const char *text)
{
    ScriptValue payload = StringPayload(text);
    return Set(SV_String, &payload);
}

ScriptVal &ScriptVal::operator=(const KeID &id)
{
    return *this = id.Raw();
}

ScriptVal &ScriptVal::operator=(const MemBlock &block)
{
    ScriptValue payload{};
    payload.m_MemBlock.m_Ptr = block.m_Ptr;
    payload.m_MemBlock.m_Size = block.m_Size;
    return Set(SV_MemBlock, &payload);
}

ScriptVal &ScriptVal::operator=(ScriptObject *object)
{
    ScriptValue payload{};
    payload.m_LocalObject = object;
    return Set(SV_LocalObject, &payload);
}

ScriptVal &ScriptVal::operator=(ScriptValType kind)
{
    return Set(kind, nullptr);
}

ScriptVal &ScriptVal::Set(ScriptValType typeWord, const void *data)
{
    if (Type() == SV_RemoteObject && (typeWord & SV_TypeMask) == SV_RemoteObject && data &&
        static_cast<const ScriptValue *>(data)->m_RemoteObject == m_Value.m_RemoteObject)
        return *this;
    if (m_Flags & SVF_Const) return *this;
    // Build the new value aside before releasing the old one: `data` may lie inside this value.
    ScriptVal fresh;
    fresh.Build(typeWord, data);
    CleanUp();
    Steal(fresh);
    return *this;
}

ScriptVal &ScriptVal::Set(ScriptValType type, const char **text, int len)
{
    if (m_Flags & SVF_Const) return *this;
    uint32_t kind = type & SV_TypeMask;
    if ((kind != SV_String && kind != SV_StringCopy) || !text || !*text)
    {
        CleanUp();
        return *this;
    }
    const char *src = *text;
    if (IsStringBlock(src)) ++src;
    char *block = StringBlockNew(src, static_cast<size_t>(len < 0 ? 0 : len));
    CleanUp();
    if (!block) return *this;
    m_Type = SV_String | (type & ~SV_TypeMask);
    AdoptString(block);
    return *this;
}

void ScriptVal::AdoptString(char *block)
{
    m_Value.m_String.m_String = block;
    m_Value.m_String.m_StringCopy = block;
    m_Value.m_String.m_Hash = StringHash(block + 1);
}

bool ScriptVal::CanSteal() const
{
    return !(m_Flags & SVF_Const) && Type() != SV_Args;
}

// Takes over `other`'s payload and its table index, if any; this value holds nothing before.
void ScriptVal::Steal(ScriptVal &other)
{
    m_Type = other.m_Type;
    m_Value = other.m_Value;
    other.m_Type = SV_Nil;
    other.m_Value = ScriptValue{};
    if (other.m_Index) [[unlikely]]
        TakeIndex(other);
}

void ScriptVal::TakeIndex(ScriptVal &other)
{
    m_Index = other.m_Index;
    other.m_Index = 0;
    TableIndex *index = TableIndex::Get(m_Index);
    if (index && index->m_Owner == &other)
        index->m_Owner = this;
    else
        m_Index = 0; // a handle copied along with a foreign payload: not ours to use or free
}

// Stores a value into this one, which must be nil and own nothing.
void ScriptVal::Build(ScriptValType typeWord, const void *data)
{
    uint32_t word = typeWord;
    if ((word & SV_TypeMask) == SV_StringCopy) word = (word & ~SV_TypeMask) | SV_String;
    uint32_t kind = word & SV_TypeMask;
    if (kind > SV_Args) return;
    const ScriptValue *src = static_cast<const ScriptValue *>(data);
    m_Type = word;
    switch (kind)
    {
    case SV_Nil:
        break;
    case SV_Number:
        m_Value.m_Number = src ? src->m_Number : 0.0;
        break;
    case SV_Boolean:
        m_Value.m_Boolean = src ? src->m_Boolean : false;
        break;
    case SV_String:
        BuildString(src);
        break;
    case SV_Table:
    case SV_Args:
        StoreTable(src);
        break;
    case SV_Function:
        if (src)
            m_Value.m_Function = src->m_Function;
        else
            m_Type = SV_Nil;
        break;
    default:
        BuildOwned(kind, src);
        break;
    }
}

void ScriptVal::BuildString(const ScriptValue *src)
{
    char *block;
    if (!src)
        block = StringBlockNew("", 0);
    else if (!src->m_String.m_String)
        block = nullptr;
    else
        block = StringBlockShareOrCopy(src->m_String.m_String);
    if (!block)
    {
        m_Type = SV_Nil;
        return;
    }
    if (src && src->m_String.m_String == block && src->m_String.m_StringCopy == block)
    {
        // A shared block from another value: its hash is already known.
        m_Value.m_String = src->m_String;
        return;
    }
    AdoptString(block);
}

// Objects, code and byte blocks: everything that holds a count or an owned buffer.
void ScriptVal::BuildOwned(uint32_t kind, const ScriptValue *src)
{
    if (kind == SV_Code && !src) return; // empty code: null pointer, no bytes, no arguments
    if (!src)
    {
        m_Type = SV_Nil;
        return;
    }
    switch (kind)
    {
    case SV_RemoteObject:
        if (!src->m_RemoteObject)
        {
            m_Type = SV_Nil;
            return;
        }
        m_Value.m_RemoteObject = src->m_RemoteObject;
        if (GetRemoteHooks().incRef) GetRemoteHooks().incRef(m_Value.m_RemoteObject);
        break;
    case SV_LocalObject:
        if (!src->m_LocalObject)
        {
            m_Type = SV_Nil;
            return;
        }
        m_Value.m_LocalObject = src->m_LocalObject;
        m_Value.m_LocalObject->IncRef();
        break;
    case SV_Code:
        m_Value.m_Code.m_Ptr = CopyBytes(src->m_Code.m_Ptr, src->m_Code.m_Size);
        m_Value.m_Code.m_Size = m_Value.m_Code.m_Ptr ? src->m_Code.m_Size : 0;
        m_Value.m_Code.m_Args = src->m_Code.m_Args;
        break;
    case SV_MemBlock:
        m_Value.m_MemBlock.m_Ptr = CopyBytes(src->m_MemBlock.m_Ptr, src->m_MemBlock.m_Size);
        m_Value.m_MemBlock.m_Size = m_Value.m_MemBlock.m_Ptr ? src->m_MemBlock.m_Size : 0;
        break;
    }
}

void ScriptVal::CleanUp()
{
    switch (Type())
    {
    case SV_String:
        StringBlockRelease(m_Value.m_String.m_StringCopy);
        break;
    case SV_Table:
        StringBlockRelease(m_Value.m_Table.m_ConstructorCopy);
        CleanTable();
        break;
    case SV_Args:
        CleanTable();
        if (m_Value.m_Args.m_App && GetRemoteHooks().appRecycle)
            GetRemoteHooks().appRecycle(m_Value.m_Args.m_App);
        break;
    case SV_RemoteObject:
        if (GetRemoteHooks().decRef) GetRemoteHooks().decRef(m_Value.m_RemoteObject);
        break;
    case SV_LocalObject:
        if (m_Value.m_LocalObject) m_Value.m_LocalObject->DecRef();
        break;
    case SV_Code:
        std::free(m_Value.m_Code.m_Ptr);
        break;
    case SV_MemBlock:
        std::free(m_Value.m_MemBlock.m_Ptr);
        break;
    default:
        break;
    }
    if (m_Index) DropIndex();
    m_Type = SV_Nil;
    m_Value = ScriptValue{};
}

// ---- kinds and conversions ---------------------------------------------------------------------

bool ScriptVal::IsLocalObject(bool strict) const
{
    if (Type() == SV_LocalObject) return true;
    return !strict && Type() == SV_RemoteObject && RemoteLocal();
}

ScriptObject *ScriptVal::RemoteLocal() const
{
    auto localObject = GetRemoteHooks().localObject;
    return localObject ? localObject(m_Value.m_RemoteObject) : nullptr;
}

double ScriptVal::ToNumber(double def) const
{
    return !IsNullReceiver(this) && IsNumber() ? m_Value.m_Number : def;
}

long ScriptVal::ToInteger(long def) const
{
    double d = !IsNullReceiver(this) && IsNumber() ? m_Value.m_Number : static_cast<double>(def);
    // Truncation to 32 bits; out of range and NaN give the processor's "integer indefinite".
    if (!(d > -2147483649.0 && d < 2147483648.0)) return INT32_MIN;
    return static_cast<int32_t>(d);
}

const char *ScriptVal::ToString(const char *def) const
{
    return !IsNullReceiver(this) && IsString() ? m_Value.m_String.m_String + 1 : def;
}

bool ScriptVal::ToBoolean(bool def) const
{
    return !IsNullReceiver(this) && IsBoolean() ? m_Value.m_Boolean : def;
}

RemoteObject *ScriptVal::ToRemoteObject(RemoteObject *def) const
{
    return !IsNullReceiver(this) && IsRemoteObject() ? m_Value.m_RemoteObject : def;
}

uint64_t ScriptVal::ToFunction(uint64_t def) const
{
    return !IsNullReceiver(this) && IsFunction() ? m_Value.m_Function : def;
}

ScriptObject *ScriptVal::ToLocalObject(ScriptObject *def) const
{
    if (IsNullReceiver(this)) return def;
    if (Type() == SV_LocalObject) return m_Value.m_LocalObject;
    if (Type() == SV_RemoteObject)
    {
        ScriptObject *local = RemoteLocal();
        return local ? local : def;
    }
    return def;
}

MemBlock ScriptVal::ToMemBlock() const
{
    if (IsNullReceiver(this) || !IsMemBlock()) return MemBlock();
    return MemBlock(m_Value.m_MemBlock.m_Ptr, m_Value.m_MemBlock.m_Size);
}

void *ScriptVal::ToCodePtr() const
{
    return !IsNullReceiver(this) && IsCode() ? m_Value.m_Code.m_Ptr : nullptr;
}

unsigned long ScriptVal::ToCodeLen() const
{
    return !IsNullReceiver(this) && IsCode() ? m_Value.m_Code.m_Size : 0;
}

unsigned long ScriptVal::ToCodeArgs() const
{
    return !IsNullReceiver(this) && IsCode() ? m_Value.m_Code.m_Args : 0;
}

bool ScriptVal::Get(ScriptValType kind, void *out) const
{
    if (IsNullReceiver(this) || !out) return false;
    uint32_t want = kind & SV_TypeMask;
    if (want == SV_LocalObject && Type() == SV_RemoteObject)
    {
        ScriptObject *local = RemoteLocal();
        if (!local) return false;
        std::memcpy(out, &local, sizeof(local));
        return true;
    }
    if (want != Type()) return false;
    switch (want)
    {
    case SV_Nil:
        return true;
    case SV_Number:
    case SV_Function:
    case SV_RemoteObject:
    case SV_LocalObject:
        std::memcpy(out, &m_Value, 8);
        return true;
    case SV_String:
    {
        const char *text = m_Value.m_String.m_String + 1;
        std::memcpy(out, &text, sizeof(text));
        return true;
    }
    case SV_Boolean:
        std::memcpy(out, &m_Value.m_Boolean, 1);
        return true;
    case SV_MemBlock:
    {
        MemBlock block(m_Value.m_MemBlock.m_Ptr, m_Value.m_MemBlock.m_Size);
        std::memcpy(out, &block, sizeof(block));
        return true;
    }
    default:
        return false;
    }
}

RemoteApp *ScriptVal::GetApp() const
{
    if (Type() == SV_Args) return m_Value.m_Args.m_App;
    if (Type() == SV_RemoteObject && GetRemoteHooks().getApp)
        return GetRemoteHooks().getApp(m_Value.m_RemoteObject);
    return nullptr;
}

void ScriptVal::SetApp(RemoteApp *app)
{
    if (Type() != SV_Args || m_Value.m_Args.m_App == app) return;
    const RemoteHooks &hooks = GetRemoteHooks();
    if (m_Value.m_Args.m_App && hooks.appRecycle) hooks.appRecycle(m_Value.m_Args.m_App);
    m_Value.m_Args.m_App = app;
    if (app && hooks.appUse) hooks.appUse(app);
}

// ---- comparison --------------------------------------------------------------------------------

bool ScriptVal::operator==(const ScriptVal &other) const
{
    if (Type() != other.Type()) return false;
    const ScriptValue &a = m_Value;
    const ScriptValue &b = other.m_Value;
    switch (Type())
    {
    case SV_Nil:
        return true;
    case SV_Number:
        return a.m_Number == b.m_Number;
    case SV_String:
        return a.m_String.m_Hash == b.m_String.m_Hash &&
               std::strcmp(a.m_String.m_String + 1, b.m_String.m_String + 1) == 0;
    case SV_Boolean:
        return a.m_Boolean == b.m_Boolean;
    case SV_RemoteObject:
    {
        auto equal = GetRemoteHooks().equal;
        return equal ? equal(a.m_RemoteObject, b.m_RemoteObject) : a.m_RemoteObject == b.m_RemoteObject;
    }
    case SV_LocalObject:
        return a.m_LocalObject == b.m_LocalObject;
    case SV_MemBlock:
        return a.m_MemBlock.m_Size == b.m_MemBlock.m_Size &&
               (a.m_MemBlock.m_Size == 0 ||
                std::memcmp(a.m_MemBlock.m_Ptr, b.m_MemBlock.m_Ptr, a.m_MemBlock.m_Size) == 0);
    default:
        return false; // tables, args, functions and code equal nothing, themselves included
    }
}

bool ScriptVal::operator==(double v) const
{
    return IsNumber() && m_Value.m_Number == v;
}

bool ScriptVal::operator==(const char *text) const
{
    return IsString() && text && std::strcmp(m_Value.m_String.m_String + 1, text) == 0;
}

bool ScriptVal::operator==(const KeID &id) const
{
    const char *text = id.Text();
    return *this == (text ? text : "");
}

// ---- merging -----------------------------------------------------------------------------------

ScriptVal &ScriptVal::operator+=(const ScriptVal &other)
{
    if (m_Flags & SVF_Const) return *this;
    if (this == &other && HoldsTable())
    {
        ScriptVal copy(other);
        return *this += copy;
    }
    if (IsNil()) return *this = other;
    if (Type() != other.Type()) return *this;
    if (!HoldsTable()) return *this = other;
    for (TableEntry *e = other.FirstEntry(); e; e = e->m_Next)
    {
        if (ScriptVal *mine = FindKeyPtr(e->m_Key))
            *mine += e->m_Value;
        else
            FindKey(e->m_Key) = e->m_Value;
    }
    return *this;
}

ScriptVal &ScriptVal::operator-=(const ScriptVal &other)
{
    if (m_Flags & SVF_Const) return *this;
    if (!HoldsTable())
    {
        if (Type() == other.Type() && *this == other) Set(SV_Nil, nullptr);
        return *this;
    }
    bool empty = true;
    for (TableEntry *e = FirstEntry(); e; e = e->m_Next)
    {
        ScriptVal *theirs = other.HoldsTable() ? other.FindKeyPtr(e->m_Key) : nullptr;
        if (!theirs)
        {
            empty = false;
            continue;
        }
        e->m_Value -= *theirs;
        if (!e->m_Value.IsNil()) empty = false;
    }
    if (empty) Set(SV_Nil, nullptr);
    return *this;
}

// ---- errors and debugging output ---------------------------------------------------------------

void ScriptVal::SetError(ScriptError code, const char *message)
{
    if (!HoldsTable()) return;
    char unknown[64];
    if (!message && code != SE_None)
    {
        message = ScriptErrorText(code);
        if (!message)
        {
            std::snprintf(unknown, sizeof(unknown), "Unknown error number %d.", static_cast<int>(code));
            message = unknown;
        }
    }
    FindKey("Error") = static_cast<double>(code);
    ScriptVal &text = FindKey("ErrorString");
    if (message)
        text = message;
    else
        text.Set(SV_Nil, nullptr);
}

namespace
{
void PrintIndent(int indent)
{
    for (int i = 0; i < indent; ++i)
        std::fputs("  ", stdout);
}
} // namespace

void ScriptVal::Dump(int indent, bool newline) const
{
    switch (Type())
    {
    case SV_Nil:
        std::fputs("nil", stdout);
        break;
    case SV_Number:
        std::printf(GetFlags(SVF_Single) ? "%g" : "%.15g", m_Value.m_Number);
        break;
    case SV_String:
        std::printf("\"%s\"", m_Value.m_String.m_String + 1);
        break;
    case SV_Boolean:
        std::fputs(m_Value.m_Boolean ? "true" : "false", stdout);
        break;
    case SV_Table:
    case SV_Args:
        DumpTable(indent);
        break;
    case SV_Function:
        std::printf("Function: %08" PRIx64, m_Value.m_Function);
        break;
    case SV_RemoteObject:
        std::printf("Object: %p", static_cast<void *>(m_Value.m_RemoteObject));
        break;
    case SV_Code:
        std::fputs("[Code]", stdout);
        break;
    case SV_MemBlock:
        std::printf("MemBlock (%d bytes)", static_cast<int>(m_Value.m_MemBlock.m_Size));
        break;
    default:
        std::fputs("???", stdout);
        break;
    }
    if (newline) std::fputc('\n', stdout);
}

void ScriptVal::DumpTable(int indent) const
{
    std::fputs("Table\n", stdout);
    PrintIndent(indent);
    std::fputs("{\n", stdout);
    for (TableEntry *e = FirstEntry(); e; e = e->m_Next)
    {
        PrintIndent(indent + 1);
        if (e->m_Key.IsTable())
            std::fputs("[Table]", stdout);
        else
            e->m_Key.Dump(0, false);
        std::fputs(" = ", stdout);
        e->m_Value.Dump(indent + 1, true);
    }
    PrintIndent(indent);
    std::fputc('}', stdout);
}

} // namespace orvexScript
