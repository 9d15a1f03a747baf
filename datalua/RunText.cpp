// One read: a fresh state with the base library, the string methods, the block type and ordered();
// the chunk compiled from its pieces and run protected; its result converted into a ScriptVal.
// Sections: limits, the block type, the state's setup, conversion, RunText.
#include <pthread.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <new>

#include "datalua/Interp.h"
#include "datalua/Parser.h"
#include "values/base/StringBlock.h"
#include "values/model/MemBlock.h"
#include "values/model/ScriptVal.h"
#include "values/model/TableEntry.h"

namespace orvexScript::datalua
{

bool LoadBuffer(State &S, const char *data, size_t len, String *chunk, Value &out);
bool DumpFunction(const Closure *cl, std::string &out);

// ---- limits ---------------------------------------------------------------------------------------

namespace
{

std::mutex s_LimitsLock;
RunLimits s_Limits;

} // namespace

void SetRunLimits(const RunLimits &limits)
{
    std::lock_guard<std::mutex> guard(s_LimitsLock);
    s_Limits = limits;
    if (s_Limits.maxCallDepth < 1) s_Limits.maxCallDepth = 1;
}

RunLimits GetRunLimits()
{
    std::lock_guard<std::mutex> guard(s_LimitsLock);
    return s_Limits;
}

namespace
{

// ---- the block type -------------------------------------------------------------------------------

constexpr char kMemBlockType[] = "MemBlock";

Table *BlockMeta(State &S)
{
    const Value mt = TGetStr(S.registry, S.Intern(kMemBlockType));
    return mt.t == T_TABLE ? mt.h : nullptr;
}

Udata *ToBlock(State &S, const Value &v)
{
    return v.t == T_UDATA && v.u->mt && v.u->mt == BlockMeta(S) ? v.u : nullptr;
}

int M_index(State &S, int base, int nargs)
{
    Udata *u = ToBlock(S, Arg(S, base, nargs, 0));
    const Value key = Arg(S, base, nargs, 1);
    Value r;
    if (u && key.t == T_NUM)
    {
        if (key.n >= 1 && key.n <= u->size) r = Value::Num(u->data[static_cast<uint32_t>(key.n) - 1]);
    }
    else if (u && key.t == T_STR && std::strcmp(key.s->data, "Size") == 0)
        r = Value::Num(u->size);
    S.Push(r);
    return 1;
}

int M_newindex(State &S, int base, int nargs)
{
    Udata *u = ToBlock(S, Arg(S, base, nargs, 0));
    const Value key = Arg(S, base, nargs, 1);
    const Value val = Arg(S, base, nargs, 2);
    if (u && key.t == T_NUM && val.t == T_NUM && key.n >= 1 && key.n <= u->size && std::isfinite(val.n))
        u->data[static_cast<uint32_t>(key.n) - 1] = static_cast<unsigned char>(ToInt(val.n));
    return 0;
}

int M_tostring(State &S, int base, int nargs)
{
    Udata *u = ToBlock(S, Arg(S, base, nargs, 0));
    if (!u)
    {
        S.Push(Value());
        return 1;
    }
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "MemBlock (%d bytes)", static_cast<int>(u->size));
    S.Push(Value::Str(S.Intern(buffer)));
    return 1;
}

int M_gc(State &, int, int)
{
    return 0; // the state frees every block when it closes
}

Value NewBlock(State &S, uint32_t size)
{
    Udata *u = S.NewUdata(size);
    u->mt = BlockMeta(S);
    return Value::UData(u);
}

// HexData("01 02 ff"): hexadecimal numbers separated by white space, each cut to a byte.
int G_HexData(State &S, int base, int nargs)
{
    const Value v = Arg(S, base, nargs, 0);
    if (v.t != T_STR) return 0;
    uint32_t count = 0;
    for (const char *p = v.s->data;;)
    {
        char *end;
        std::strtol(p, &end, 16);
        if (end == p) break;
        ++count;
        p = end;
    }
    const Value block = NewBlock(S, count);
    uint32_t i = 0;
    for (const char *p = v.s->data; i < count; ++i)
    {
        char *end;
        const long n = std::strtol(p, &end, 16);
        block.u->data[i] = static_cast<unsigned char>(n);
        p = end;
    }
    S.Push(block);
    return 1;
}

int G_MemBlock(State &S, int base, int nargs)
{
    const Value v = Arg(S, base, nargs, 0);
    if (v.t != T_NUM || !(v.n >= 1)) return 0;
    if (v.n > 0xFFFFFFF0u) RunError(S, "not enough memory");
    S.Push(NewBlock(S, static_cast<uint32_t>(v.n)));
    return 1;
}

// ---- the state's setup ----------------------------------------------------------------------------

const char kOrdered[] = "function ordered()\n  sethashstate(0)\n\treturn function(t) return t; end\nend\n";

void SetStackLimit(State &S)
{
    pthread_attr_t attr;
    if (pthread_getattr_np(pthread_self(), &attr) != 0) return;
    void *low = nullptr;
    size_t size = 0;
    if (pthread_attr_getstack(&attr, &low, &size) == 0 && low && size)
    {
        // keep a margin for the C library, the sanitizers and the frames between two checks
        const size_t margin = size / 4 < 512 * 1024 ? size / 4 : 512 * 1024;
        S.stackLimit = static_cast<const char *>(low) + margin;
    }
    pthread_attr_destroy(&attr);
}

void OpenState(State &S)
{
    S.Intern("not enough memory");
    for (int i = 0; i < TM_N; ++i)
    {
        static const char *const names[TM_N] = {"__index", "__newindex", "__gc",     "__mode", "__eq",  "__add",
                                                "__sub",   "__mul",      "__div",    "__mod",  "__pow", "__unm",
                                                "__len",   "__lt",       "__le",     "__concat", "__call", "__iter"};
        S.tm[i] = S.Intern(names[i]);
    }
    S.registry = S.NewTable();
    S.globals = S.NewTable();
    OpenBase(S);
    OpenString(S);
    Table *mt = S.NewTable();
    Register(S, mt, "__index", M_index);
    Register(S, mt, "__newindex", M_newindex);
    Register(S, mt, "__tostring", M_tostring);
    Register(S, mt, "__gc", M_gc);
    TSetStr(S, S.registry, S.Intern(kMemBlockType), Value::Tab(mt));
    Register(S, S.globals, "HexData", G_HexData);
    Register(S, S.globals, "MemBlock", G_MemBlock);
    S.hashstate = 1;
}

// Runs the function on top protected; false leaves the message in `error`.
bool RunProtected(State &S, const Value &fn, Value &result, std::string &error)
{
    const size_t fi = S.top;
    try
    {
        S.Push(fn);
        const int n = Call(S, fi, 0);
        result = n > 0 ? S.stack[fi] : Value();
        S.top = fi;
        return true;
    }
    catch (const LuaError &e)
    {
        if (e.v.t == T_STR)
            error.assign(e.v.s->data, e.v.s->len);
        else if (e.v.t == T_NUM)
            error = NumberToString(S, e.v.n)->data;
        else
            error = std::string("(error object is a ") + TypeName(e.v) + " value)";
    }
    S.ci.clear();
    S.depth = 0;
    S.top = fi;
    return false;
}

// ---- conversion -----------------------------------------------------------------------------------

constexpr int kMaxNesting = 1000;

// A string value of exactly these bytes. Made from a block of its own: a text pointer whose first
// byte is the block marker would otherwise be taken for a shared block and lose that byte.
void ExactString(ScriptVal &out, const char *data, size_t len)
{
    char *block = StringBlockNew(data, len);
    if (!block)
    {
        out.CleanUp();
        return;
    }
    ScriptValue payload{};
    payload.m_String.m_String = block;
    payload.m_String.m_StringCopy = block;
    payload.m_String.m_Hash = StringHash(block + 1, len);
    out.Set(SV_String, &payload);
    StringBlockRelease(block);
}

class Converter
{
public:
    explicit Converter(State &s) : S(s) {}
    std::string error;

    bool Convert(const Value &v, ScriptVal &out, int depth)
    {
        switch (v.t)
        {
        case T_NIL: out.CleanUp(); return true;
        case T_BOOL: out = v.b; return true;
        case T_NUM: out = v.n; return true;
        case T_STR:
            if (std::memchr(v.s->data, 0, v.s->len))
                out = ScriptVal(MemBlock(v.s->data, v.s->len));
            else
                ExactString(out, v.s->data, v.s->len);
            return true;
        case T_TABLE: return ConvertTable(v.h, out, depth);
        case T_LFUNC:
        {
            out.CleanUp();
            std::string dump;
            if (DumpFunction(v.f, dump))
                out = ScriptVal(dump.data(), static_cast<unsigned long>(dump.size()), 0);
            return true;
        }
        case T_CFUNC: out = SV_Code; return true;
        case T_UDATA:
            if (ToBlock(S, v))
            {
                out = ScriptVal(MemBlock(v.u->data, v.u->size));
                return true;
            }
            break;
        default: break;
        }
        error = "Unsupported type for custom data!";
        return false;
    }

private:
    State &S;
    std::vector<const Table *> m_Path;

    bool ConvertTable(Table *t, ScriptVal &out, int depth)
    {
        out = SV_Table;
        if (depth > kMaxNesting)
        {
            error = "value nested too deeply";
            return false;
        }
        if (std::find(m_Path.begin(), m_Path.end(), t) != m_Path.end())
        {
            error = "a table contains itself";
            return false;
        }
        if (!(t->flags & TF_Hashed)) out.SetFlags(SVF_Ordered);
        if (!(t->flags & TF_List)) out.SetFlags(SVF_Single);
        if (t->flags & TF_OneLine) out.SetFlags(SVF_OneLine);
        m_Path.push_back(t);
        std::vector<TableEntry *> numbers, others;
        bool sorted = true, ok = true;
        bool hasFlags = false;
        uint32_t flagWord = 0;
        Value k, v;
        while (ok && TNext(S, t, k, v))
        {
            if (k.t == T_STR && std::strcmp(k.s->data, "__ctor") == 0 && k.s->len == 6)
            {
                if (v.t == T_STR) out.SetConstructor(v.s->data);
                continue;
            }
            if (k.t == T_STR && std::strcmp(k.s->data, "__flags") == 0 && k.s->len == 7)
            {
                if (v.t == T_NUM)
                {
                    hasFlags = true;
                    flagWord = v.n >= 0 && v.n < 4294967296.0 ? static_cast<uint32_t>(v.n) : 0u;
                }
                continue;
            }
            auto *entry = new TableEntry();
            if (!entry)
            {
                error = "not enough memory";
                ok = false;
                break;
            }
            if (k.t == T_NUM)
            {
                if (!numbers.empty() && !(k.n > numbers.back()->m_Key.ToNumber())) sorted = false;
                numbers.push_back(entry);
                entry->m_Key = k.n;
            }
            else
            {
                others.push_back(entry);
                ok = Convert(k, entry->m_Key, depth + 1);
            }
            ok = ok && Convert(v, entry->m_Value, depth + 1);
        }
        m_Path.pop_back();
        if (!sorted)
            std::stable_sort(numbers.begin(), numbers.end(), [](const TableEntry *a, const TableEntry *b) {
                return a->m_Key.ToNumber() < b->m_Key.ToNumber();
            });
        numbers.insert(numbers.end(), others.begin(), others.end());
        for (size_t i = 0; i + 1 < numbers.size(); ++i)
            numbers[i]->m_Next = numbers[i + 1];
        out.SetTable(numbers.empty() ? nullptr : numbers.front());
        if (hasFlags) out.m_Flags = (out.m_Flags & SV_TypeMask) | (flagWord & ~SV_TypeMask);
        return ok;
    }
};

void ResultText(State &S, const Value &v, std::string &text)
{
    if (v.t == T_STR)
        text.assign(v.s->data, v.s->len);
    else if (v.t == T_NUM)
        text = NumberToString(S, v.n)->data;
}

bool Run(const char *const *pieces, const size_t *lengths, int count, const char *chunkName, ScriptVal &out,
         std::string &error, std::string &resultText, void (*compiled)(void *user), void *user, bool &compiledCalled)
{
    State S;
    SetStackLimit(S);
    Value fn, result;
    try
    {
        OpenState(S);
        if (!LoadBuffer(S, kOrdered, sizeof kOrdered - 1, S.Intern("=ordered"), fn))
        {
            error = fn.t == T_STR ? fn.s->data : "cannot set up the interpreter";
            return false;
        }
    }
    catch (const LuaError &e)
    {
        error = e.v.t == T_STR ? e.v.s->data : "not enough memory";
        return false;
    }
    if (!RunProtected(S, fn, result, error)) return false;

    String *chunk = nullptr;
    try
    {
        chunk = S.Intern(chunkName ? chunkName : "?");
        Proto *p = ParseChunk(S, SourcePieces{pieces, lengths, count}, chunk);
        fn = Value::LFn(MakeMainClosure(S, p, S.globals));
    }
    catch (const LuaError &e)
    {
        if (e.v.t == T_STR)
            error.assign(e.v.s->data, e.v.s->len);
        else
            error = "not enough memory";
        return false;
    }
    compiledCalled = true;
    if (compiled) compiled(user);
    if (!RunProtected(S, fn, result, error))
    {
        return false;
    }
    ResultText(S, result, resultText);
    Converter converter(S);
    bool ok = false;
    try
    {
        ok = converter.Convert(result, out, 0);
    }
    catch (const LuaError &e)
    {
        converter.error = e.v.t == T_STR ? e.v.s->data : "not enough memory";
    }
    if (!ok)
    {
        error = converter.error;
        out.CleanUp();
    }
    return ok;
}

} // namespace

bool RunText(const char *const *pieces, const size_t *lengths, int count, const char *chunkName, ScriptVal &out,
             std::string &error, std::string &resultText, void (*compiled)(void *user), void *user)
{
    out.CleanUp();
    error.clear();
    resultText.clear();
    bool compiledCalled = false;
    bool ok = false;
    try
    {
        ok = Run(pieces, lengths, count, chunkName, out, error, resultText, compiled, user, compiledCalled);
    }
    catch (const std::bad_alloc &)
    {
        error = "not enough memory";
        ok = false;
    }
    catch (...)
    {
        error = "internal error of the interpreter";
        ok = false;
    }
    if (!ok) out.CleanUp();
    return ok;
}

} // namespace orvexScript::datalua
