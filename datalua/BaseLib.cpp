// The base library: what a value text may call besides the block constructors. Loading (load,
// loadstring, loadfile, dofile) and the dump form of functions live here too.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "datalua/Interp.h"
#include "datalua/Parser.h"

namespace orvexScript::datalua
{

// ---- argument helpers -----------------------------------------------------------------------------

namespace
{
const char *CurrentName(State &S)
{
    return !S.ci.empty() && S.ci.back().c ? S.ci.back().c->name : "?";
}
} // namespace

void ArgError(State &S, int arg, const char *extra)
{
    RunError(S, "bad argument #%d to '%s' (%s)", arg + 1, CurrentName(S), extra);
}

void TypeError(State &S, int arg, const char *expected, const Value &got)
{
    const std::string m = std::string(expected) + " expected, got " + (got.t == T_NIL ? "no value" : TypeName(got));
    ArgError(S, arg, m.c_str());
}

double CheckNumber(State &S, int base, int nargs, int i)
{
    double d;
    const Value v = Arg(S, base, nargs, i);
    if (!ToNumber(v, d))
    {
        if (i >= nargs) TypeError(S, i, "number", Value());
        const std::string m = std::string("number expected, got ") + TypeName(v);
        ArgError(S, i, m.c_str());
    }
    return d;
}

double OptNumber(State &S, int base, int nargs, int i, double def)
{
    return Arg(S, base, nargs, i).IsNil() ? def : CheckNumber(S, base, nargs, i);
}

String *CheckString(State &S, int base, int nargs, int i)
{
    const Value v = Arg(S, base, nargs, i);
    if (v.t == T_STR) return v.s;
    if (v.t == T_NUM) return NumberToString(S, v.n);
    if (i >= nargs) TypeError(S, i, "string", Value());
    const std::string m = std::string("string expected, got ") + TypeName(v);
    ArgError(S, i, m.c_str());
}

Table *CheckTable(State &S, int base, int nargs, int i)
{
    const Value v = Arg(S, base, nargs, i);
    if (v.t != T_TABLE)
    {
        const std::string m = std::string("table expected, got ") + (i >= nargs ? "no value" : TypeName(v));
        ArgError(S, i, m.c_str());
    }
    return v.h;
}

void Register(State &S, Table *t, const char *name, CFn fn)
{
    TSetStr(S, t, S.Intern(name), Value::CFn(S.NewCFunc(fn, name)));
}

namespace
{

void CheckAny(State &S, int nargs, int i)
{
    if (i >= nargs) ArgError(S, i, "value expected");
}

int Return(State &S, const Value &v)
{
    S.Push(v);
    return 1;
}

// ---- loading and dumps ----------------------------------------------------------------------------

constexpr char kDumpHeader[] = "\x1bLua\x51";

void PutU32(std::string &out, uint32_t v)
{
    for (int i = 0; i < 4; ++i)
        out.push_back(static_cast<char>((v >> (8 * i)) & 0xFF));
}

bool GetU32(const char *&p, const char *end, uint32_t &v)
{
    if (end - p < 4) return false;
    v = 0;
    for (int i = 0; i < 4; ++i)
        v |= static_cast<uint32_t>(static_cast<unsigned char>(p[i])) << (8 * i);
    p += 4;
    return true;
}

bool GetBytes(const char *&p, const char *end, const char *&s, uint32_t &len)
{
    if (!GetU32(p, end, len) || static_cast<size_t>(end - p) < len) return false;
    s = p;
    p += len;
    return true;
}

// Gives the compiled chunk as a function, or a message.
bool Undump(State &S, const char *data, size_t len, String *chunk, Value &out)
{
    const char *p = data + 5, *end = data + len;
    if (len < 6 || std::memcmp(data, kDumpHeader, 5) != 0) return false;
    const char kind = *p++;
    uint32_t line, n;
    const char *name, *text;
    uint32_t nameLen, textLen;
    if (!GetU32(p, end, line) || !GetBytes(p, end, name, nameLen) || !GetU32(p, end, n) || n > 255) return false;
    std::vector<String *> ups;
    for (uint32_t i = 0; i < n; ++i)
    {
        const char *s;
        uint32_t l;
        if (!GetBytes(p, end, s, l)) return false;
        ups.push_back(S.Intern(s, l));
    }
    if (!GetBytes(p, end, text, textLen) || p != end) return false;
    (void)chunk;
    String *source = S.Intern(name, nameLen);
    Proto *proto;
    if (kind == 2)
    {
        const char *pieces[] = {text};
        const size_t lengths[] = {textLen};
        proto = ParseChunk(S, SourcePieces{pieces, lengths, 1}, source);
        proto->text = S.Intern(text, textLen);
    }
    else if (kind == 0 || kind == 1)
        proto = ParseFunction(S, text, textLen, source, static_cast<int>(line), kind == 1, ups);
    else
        return false;
    out = Value::LFn(MakeMainClosure(S, proto, S.globals));
    return true;
}

} // namespace

// Compiles source text or a dump into a function; false leaves the message in `out`.
bool LoadBuffer(State &S, const char *data, size_t len, String *chunk, Value &out)
{
    try
    {
        if (len > 0 && data[0] == '\x1b')
        {
            if (!Undump(S, data, len, chunk, out))
            {
                const std::string m = ChunkId(chunk->data, chunk->len) + ": bad binary format in precompiled chunk";
                out = Value::Str(S.Intern(m.data(), m.size()));
                return false;
            }
            return true;
        }
        const char *pieces[] = {data};
        const size_t lengths[] = {len};
        Proto *p = ParseChunk(S, SourcePieces{pieces, lengths, 1}, chunk);
        p->text = S.Intern(data, len);
        out = Value::LFn(MakeMainClosure(S, p, S.globals));
        return true;
    }
    catch (const LuaError &e)
    {
        out = e.v;
        return false;
    }
}

// The dump of a Lua function: the header, then the text and names to compile it again from.
bool DumpFunction(const Closure *cl, std::string &out)
{
    const Proto *p = cl->p;
    if (!p->text) return false;
    out.assign(kDumpHeader, 5);
    out.push_back(p->main ? 2 : p->method ? 1 : 0);
    PutU32(out, static_cast<uint32_t>(p->line));
    PutU32(out, p->source->len);
    out.append(p->source->data, p->source->len);
    PutU32(out, static_cast<uint32_t>(p->main ? 0 : p->nups));
    for (int i = 0; !p->main && i < p->nups; ++i)
    {
        PutU32(out, p->ups[i].name->len);
        out.append(p->ups[i].name->data, p->ups[i].name->len);
    }
    PutU32(out, p->text->len);
    out.append(p->text->data, p->text->len);
    return true;
}

namespace
{

int LoadResult(State &S, bool ok, const Value &v)
{
    if (ok) return Return(S, v);
    S.Push(Value());
    S.Push(v);
    return 2;
}

bool ReadFile(const char *name, std::string &out)
{
    FILE *file = name ? std::fopen(name, "rb") : stdin;
    if (!file) return false;
    char buffer[65536];
    size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, file)) > 0)
        out.append(buffer, n);
    const bool ok = !std::ferror(file);
    if (name) std::fclose(file);
    return ok;
}

bool LoadFile(State &S, const char *name, Value &out)
{
    std::string text;
    const std::string chunk = name ? std::string("@") + name : std::string("=stdin");
    if (!ReadFile(name, text))
    {
        const std::string m = std::string("cannot open ") + (name ? name : "stdin");
        out = Value::Str(S.Intern(m.data(), m.size()));
        return false;
    }
    size_t skip = 0;
    if (!text.empty() && text[0] == '#')
    {
        // a first line "#..." is skipped, its line end kept for the line numbers
        while (skip < text.size() && text[skip] != '\n')
            ++skip;
    }
    S.Charge(text.size());
    const bool ok = LoadBuffer(S, text.data() + skip, text.size() - skip, S.Intern(chunk.data(), chunk.size()), out);
    S.Release(text.size());
    return ok;
}

// ---- the functions --------------------------------------------------------------------------------

int B_print(State &S, int base, int nargs)
{
    std::string line;
    for (int i = 0; i < nargs; ++i)
    {
        const String *s = ToStringMeta(S, S.stack[base + i]);
        if (i) line.push_back('\t');
        line.append(s->data, s->len);
    }
    line.push_back('\n');
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fflush(stdout);
    return 0;
}

int B_type(State &S, int base, int nargs)
{
    CheckAny(S, nargs, 0);
    return Return(S, Value::Str(S.Intern(TypeName(S.stack[base]))));
}

int B_tostring(State &S, int base, int nargs)
{
    CheckAny(S, nargs, 0);
    return Return(S, Value::Str(ToStringMeta(S, S.stack[base])));
}

int B_tonumber(State &S, int base, int nargs)
{
    const double b = OptNumber(S, base, nargs, 1, 10);
    const Value v = Arg(S, base, nargs, 0);
    if (b == 10)
    {
        CheckAny(S, nargs, 0);
        double d;
        return Return(S, ToNumber(v, d) ? Value::Num(d) : Value());
    }
    const String *s = CheckString(S, base, nargs, 0);
    if (!(b >= 2 && b <= 36)) ArgError(S, 1, "base out of range");
    const char *p = s->data;
    char *end;
    errno = 0;
    const unsigned long n = std::strtoul(p, &end, static_cast<int>(b));
    if (end != p)
    {
        while (std::isspace(static_cast<unsigned char>(*end)))
            ++end;
        if (*end == 0 && static_cast<size_t>(end - p) == s->len) return Return(S, Value::Num(static_cast<double>(n)));
    }
    return Return(S, Value());
}

int B_assert(State &S, int base, int nargs)
{
    CheckAny(S, nargs, 0);
    if (!S.stack[base].Truthy())
    {
        if (nargs > 1)
        {
            const String *m = CheckString(S, base, nargs, 1);
            RunError(S, "%s", m->data);
        }
        RunError(S, "%s", "assertion failed!");
    }
    return nargs;
}

int B_error(State &S, int base, int nargs)
{
    const int level = ToInt32(OptNumber(S, base, nargs, 1, 1));
    Value v = Arg(S, base, nargs, 0);
    if (v.t == T_STR && level > 0)
    {
        const std::string m = Where(S, level) + std::string(v.s->data, v.s->len);
        v = Value::Str(S.Intern(m.data(), m.size()));
    }
    Throw(S, v);
}

int B_next(State &S, int base, int nargs)
{
    Table *t = CheckTable(S, base, nargs, 0);
    Value k = Arg(S, base, nargs, 1), v;
    if (!TNext(S, t, k, v)) return Return(S, Value());
    S.Push(k);
    S.Push(v);
    return 2;
}

int B_pairs(State &S, int base, int nargs)
{
    Table *t = CheckTable(S, base, nargs, 0);
    S.Push(TGetStr(S.registry, S.Intern("next")));
    S.Push(Value::Tab(t));
    S.Push(Value());
    return 3;
}

int B_ipairsaux(State &S, int base, int nargs)
{
    Table *t = CheckTable(S, base, nargs, 0);
    const double i = CheckNumber(S, base, nargs, 1) + 1;
    const Value v = TGet(t, Value::Num(i));
    if (v.IsNil()) return 0;
    S.Push(Value::Num(i));
    S.Push(v);
    return 2;
}

int B_ipairs(State &S, int base, int nargs)
{
    Table *t = CheckTable(S, base, nargs, 0);
    S.Push(TGetStr(S.registry, S.Intern("ipairsaux")));
    S.Push(Value::Tab(t));
    S.Push(Value::Num(0));
    return 3;
}

int B_select(State &S, int base, int nargs)
{
    const Value first = Arg(S, base, nargs, 0);
    if (first.t == T_STR && first.s->len == 1 && first.s->data[0] == '#') return Return(S, Value::Num(nargs - 1));
    int n = ToInt32(CheckNumber(S, base, nargs, 0));
    if (n < 0)
        n = nargs + n;
    else if (n > nargs - 1)
        n = nargs;
    if (n < 1) ArgError(S, 0, "index out of range");
    return nargs - n;
}

int B_unpack(State &S, int base, int nargs)
{
    Table *t = CheckTable(S, base, nargs, 0);
    const double i = OptNumber(S, base, nargs, 1, 1);
    const double e = Arg(S, base, nargs, 2).IsNil() ? TLength(t) : CheckNumber(S, base, nargs, 2);
    if (!(i <= e)) return 0;
    const double n = e - i + 1;
    if (n >= 8000000 || S.top + static_cast<size_t>(n) + 16 >= S.stackSize) RunError(S, "too many results to unpack");
    const int count = static_cast<int>(n);
    for (int k = 0; k < count; ++k)
        S.Push(TGet(t, Value::Num(i + k)));
    return count;
}

int B_rawget(State &S, int base, int nargs)
{
    Table *t = CheckTable(S, base, nargs, 0);
    CheckAny(S, nargs, 1);
    return Return(S, TGet(t, S.stack[base + 1]));
}

int B_rawset(State &S, int base, int nargs)
{
    Table *t = CheckTable(S, base, nargs, 0);
    CheckAny(S, nargs, 1);
    CheckAny(S, nargs, 2);
    TSet(S, t, S.stack[base + 1], S.stack[base + 2]);
    return Return(S, S.stack[base]);
}

int B_rawequal(State &S, int base, int nargs)
{
    CheckAny(S, nargs, 0);
    CheckAny(S, nargs, 1);
    return Return(S, Value::Bool(RawEqual(S.stack[base], S.stack[base + 1])));
}

int B_setmetatable(State &S, int base, int nargs)
{
    Table *t = CheckTable(S, base, nargs, 0);
    const Value mt = Arg(S, base, nargs, 1);
    if (mt.t != T_NIL && mt.t != T_TABLE) TypeError(S, 1, "nil or table", mt);
    if (t->mt && !TGetStr(t->mt, S.Intern("__metatable")).IsNil()) RunError(S, "cannot change a protected metatable");
    t->mt = mt.t == T_TABLE ? mt.h : nullptr;
    return Return(S, S.stack[base]);
}

int B_getmetatable(State &S, int base, int nargs)
{
    CheckAny(S, nargs, 0);
    Table *mt = MetatableOf(S, S.stack[base]);
    if (!mt) return Return(S, Value());
    const Value protect = TGetStr(mt, S.Intern("__metatable"));
    return Return(S, protect.IsNil() ? Value::Tab(mt) : protect);
}

int Protected(State &S, size_t fi, int nargs, const Value *handler)
{
    const size_t ciSize = S.ci.size();
    const int depth = S.depth;
    Value err;
    try
    {
        const int n = Call(S, fi, nargs);
        S.CheckStack(1);
        std::memmove(static_cast<void *>(&S.stack[fi + 1]), &S.stack[fi], sizeof(Value) * static_cast<size_t>(n));
        S.stack[fi] = Value::Bool(true);
        S.top = fi + 1 + static_cast<size_t>(n);
        return n + 1;
    }
    catch (const LuaError &e)
    {
        err = e.v;
    }
    catch (const std::bad_alloc &)
    {
        err = Value::Str(S.Intern("not enough memory"));
    }
    S.ci.resize(ciSize);
    S.depth = depth;
    S.top = fi;
    if (handler) err = Call1(S, *handler, 1, err);
    S.Push(Value::Bool(false));
    S.Push(err);
    return 2;
}

int B_pcall(State &S, int base, int nargs)
{
    CheckAny(S, nargs, 0);
    return Protected(S, static_cast<size_t>(base), nargs - 1, nullptr);
}

int B_xpcall(State &S, int base, int nargs)
{
    CheckAny(S, nargs, 1);
    const Value handler = S.stack[base + 1];
    S.top = static_cast<size_t>(base) + 1;
    return Protected(S, static_cast<size_t>(base), 0, &handler);
}

// The function at a level (1: the caller of getfenv), or its closure; null for C functions.
Closure *LevelFunction(State &S, const Value &v, bool &isGlobal)
{
    isGlobal = false;
    if (v.t == T_LFUNC) return v.f;
    if (v.t == T_CFUNC) return nullptr;
    double d;
    if (!ToNumber(v, d)) RunError(S, "bad argument #1 to '%s' (number expected, got %s)", CurrentName(S), TypeName(v));
    const int level = ToInt32(d);
    if (level < 0) RunError(S, "bad argument #1 to '%s' (level must be non-negative)", CurrentName(S));
    if (level == 0)
    {
        isGlobal = true;
        return nullptr;
    }
    const int i = static_cast<int>(S.ci.size()) - 1 - level;
    if (i < 0) RunError(S, "bad argument #1 to '%s' (invalid level)", CurrentName(S));
    const CallInfo &ci = S.ci[static_cast<size_t>(i)];
    return ci.lua ? ci.lua->cl : nullptr;
}

int B_getfenv(State &S, int base, int nargs)
{
    bool global;
    const Value v = nargs > 0 ? S.stack[base] : Value::Num(1);
    Closure *cl = LevelFunction(S, v, global);
    return Return(S, Value::Tab(cl ? cl->env : S.globals));
}

int B_setfenv(State &S, int base, int nargs)
{
    Table *t = CheckTable(S, base, nargs, 1);
    bool global;
    const Value v = S.stack[base];
    if (v.t == T_NUM && v.n == 0)
    {
        S.globals = t;
        return 0;
    }
    Closure *cl = LevelFunction(S, v, global);
    if (!cl) RunError(S, "'setfenv' cannot change environment of given object");
    cl->env = t;
    return Return(S, Value::LFn(cl));
}

int B_loadstring(State &S, int base, int nargs)
{
    String *s = CheckString(S, base, nargs, 0);
    const Value name = Arg(S, base, nargs, 1);
    String *chunk = name.IsNil() ? s : CheckString(S, base, nargs, 1);
    Value out;
    const bool ok = LoadBuffer(S, s->data, s->len, chunk, out);
    return LoadResult(S, ok, out);
}

int B_load(State &S, int base, int nargs)
{
    const Value fn = Arg(S, base, nargs, 0);
    if (!fn.IsFunction()) TypeError(S, 0, "function", fn);
    const Value name = Arg(S, base, nargs, 1);
    String *chunk = name.IsNil() ? S.Intern("=(load)") : CheckString(S, base, nargs, 1);
    std::string text;
    for (;;)
    {
        const Value piece = Call1(S, fn, 0, Value());
        if (piece.IsNil() || (piece.t == T_STR && piece.s->len == 0)) break;
        if (piece.t != T_STR) return LoadResult(S, false, Value::Str(S.Intern("reader function must return a string")));
        S.Charge(piece.s->len);
        text.append(piece.s->data, piece.s->len);
    }
    S.Release(text.size());
    Value out;
    const bool ok = LoadBuffer(S, text.data(), text.size(), chunk, out);
    return LoadResult(S, ok, out);
}

int B_loadfile(State &S, int base, int nargs)
{
    const Value name = Arg(S, base, nargs, 0);
    Value out;
    const bool ok = LoadFile(S, name.IsNil() ? nullptr : CheckString(S, base, nargs, 0)->data, out);
    return LoadResult(S, ok, out);
}

int B_dofile(State &S, int base, int nargs)
{
    const Value name = Arg(S, base, nargs, 0);
    Value out;
    if (!LoadFile(S, name.IsNil() ? nullptr : CheckString(S, base, nargs, 0)->data, out)) Throw(S, out);
    const size_t fi = S.top;
    S.Push(out);
    return Call(S, fi, 0);
}

int B_collectgarbage(State &S, int base, int nargs)
{
    const Value opt = Arg(S, base, nargs, 0);
    if (opt.t == T_STR && std::strcmp(opt.s->data, "count") == 0)
        return Return(S, Value::Num(static_cast<double>(S.used) / 1024.0));
    return Return(S, Value::Num(0));
}

// One byte of hash state for the next table: numbers truncate, strings convert ("0x" too).
int B_sethashstate(State &S, int base, int nargs)
{
    double d;
    const Value v = Arg(S, base, nargs, 0);
    S.hashstate = ToNumber(v, d) && std::isfinite(d) ? static_cast<uint8_t>(ToInt(d)) : 0;
    return 0;
}

int B_gettableflags(State &S, int base, int nargs)
{
    Table *t = CheckTable(S, base, nargs, 0);
    return Return(S, Value::Num(t->flags));
}

int32_t FlagWord(double d)
{
    return static_cast<int32_t>(static_cast<uint32_t>(static_cast<uint64_t>(ToInt(d))));
}

int B_settableflags(State &S, int base, int nargs)
{
    Table *t = CheckTable(S, base, nargs, 0);
    double value = 0, mask;
    if (!ToNumber(Arg(S, base, nargs, 2), mask)) return 0;
    if (!ToNumber(Arg(S, base, nargs, 1), value)) value = 0;
    const int32_t m = FlagWord(mask);
    t->flags = (t->flags & ~m) | (FlagWord(value) & m);
    return 0;
}

int B_nocoroutines(State &S, int, int)
{
    RunError(S, "coroutines are not supported");
}

} // namespace

void OpenBase(State &S)
{
    Table *g = S.globals;
    static const struct
    {
        const char *name;
        CFn fn;
    } kFunctions[] = {
        {"assert", B_assert},
        {"collectgarbage", B_collectgarbage},
        {"dofile", B_dofile},
        {"error", B_error},
        {"getfenv", B_getfenv},
        {"getmetatable", B_getmetatable},
        {"loadfile", B_loadfile},
        {"load", B_load},
        {"loadstring", B_loadstring},
        {"next", B_next},
        {"print", B_print},
        {"rawequal", B_rawequal},
        {"rawget", B_rawget},
        {"rawset", B_rawset},
        {"select", B_select},
        {"setfenv", B_setfenv},
        {"setmetatable", B_setmetatable},
        {"tonumber", B_tonumber},
        {"tostring", B_tostring},
        {"type", B_type},
        {"unpack", B_unpack},
        {"xpcall", B_xpcall},
        {"sethashstate", B_sethashstate},
        {"gettableflags", B_gettableflags},
        {"settableflags", B_settableflags},
        {"pcall", B_pcall},
    };
    for (const auto &f : kFunctions)
        Register(S, g, f.name, f.fn);
    TSetStr(S, g, S.Intern("_G"), Value::Tab(g));
    TSetStr(S, g, S.Intern("_VERSION"), Value::Str(S.Intern("Lua 5.1")));
    // pairs and ipairs hand out their iterators from the registry, so a text can't replace them
    TSetStr(S, S.registry, S.Intern("next"), TGetStr(g, S.Intern("next")));
    Register(S, S.registry, "ipairsaux", B_ipairsaux);
    Register(S, g, "ipairs", B_ipairs);
    Register(S, g, "pairs", B_pairs);

    Table *co = S.NewTable();
    for (const char *name : {"create", "resume", "running", "status", "wrap", "yield"})
        Register(S, co, name, B_nocoroutines);
    TSetStr(S, g, S.Intern("coroutine"), Value::Tab(co));
}

} // namespace orvexScript::datalua
