// The state: memory charged against the limit, interned strings, object creation, errors and the
// conversions between numbers and strings.
#include <cerrno>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <new>

#include "datalua/Ast.h"
#include "datalua/Parser.h"

namespace orvexScript::datalua
{

namespace
{

constexpr size_t kStackValues = size_t(1) << 20;

uint32_t HashBytes(const char *s, size_t len)
{
    uint32_t h = 2166136261u ^ static_cast<uint32_t>(len);
    for (size_t i = 0; i < len; ++i)
        h = (h ^ static_cast<unsigned char>(s[i])) * 16777619u;
    return h;
}

} // namespace

State::State()
{
    const RunLimits limits = GetRunLimits();
    maxMemory = limits.maxMemory;
    maxSteps = limits.maxInstructions;
    maxDepth = limits.maxCallDepth;
    // One block for the value stack, untouched until used.
    stack = static_cast<Value *>(std::malloc(sizeof(Value) * kStackValues));
    if (!stack) throw std::bad_alloc();
    stackSize = kStackValues;
    strmask = 255;
    strtab = static_cast<String **>(std::calloc(strmask + 1, sizeof(String *)));
    if (!strtab) throw std::bad_alloc();
}

State::~State()
{
    for (Table *t : tables)
    {
        std::free(t->arr);
        std::free(t->nodes);
        std::free(t->index);
        std::free(t);
    }
    for (Udata *u : udatas)
    {
        std::free(u->data);
        std::free(u);
    }
    for (void *p : blocks)
        std::free(p);
    for (Arena *a : arenas)
        std::free(a);
    for (uint32_t i = 0; i <= strmask; ++i)
    {
        for (String *s = strtab[i]; s;)
        {
            String *next = s->chain;
            std::free(s);
            s = next;
        }
    }
    std::free(strtab);
    std::free(stack);
}

void State::Charge(size_t n)
{
    if (n > maxMemory || used > maxMemory - n)
    {
        // the message string itself exists before the limit can be reached
        static const char kMsg[] = "not enough memory";
        String *s = nullptr;
        const uint32_t h = HashBytes(kMsg, sizeof kMsg - 1);
        for (String *c = strtab[h & strmask]; c; c = c->chain)
            if (c->hash == h && c->len == sizeof kMsg - 1 && std::memcmp(c->data, kMsg, c->len) == 0) s = c;
        Throw(*this, s ? Value::Str(s) : Value());
    }
    used += n;
}

void *State::Alloc(size_t n)
{
    Charge(n);
    void *p = std::malloc(n ? n : 1);
    if (!p)
    {
        Release(n);
        Charge(maxMemory + 1);
    }
    return p;
}

void State::Free(void *p, size_t n)
{
    if (!p) return;
    Release(n);
    std::free(p);
}

void State::StackOverflow()
{
    RunError(*this, "stack overflow");
}

void State::CheckCStack()
{
    char probe = 0;
    const char *here = &probe;
    if (stackLimit && here < stackLimit) RunError(*this, "stack overflow");
}

String *State::Intern(const char *s, size_t len)
{
    if (len > 0x7FFFFFF0u) RunError(*this, "string length overflow");
    const uint32_t h = HashBytes(s, len);
    for (String *c = strtab[h & strmask]; c; c = c->chain)
        if (c->hash == h && c->len == len && std::memcmp(c->data, s, len) == 0) return c;
    if (strcount >= strmask)
    {
        const uint32_t size = (strmask + 1) * 2;
        auto **tab = static_cast<String **>(std::calloc(size, sizeof(String *)));
        if (!tab) Charge(maxMemory + 1);
        for (uint32_t i = 0; i <= strmask; ++i)
        {
            for (String *c = strtab[i]; c;)
            {
                String *next = c->chain;
                c->chain = tab[c->hash & (size - 1)];
                tab[c->hash & (size - 1)] = c;
                c = next;
            }
        }
        Release(sizeof(String *) * (strmask + 1));
        std::free(strtab);
        strtab = tab;
        strmask = size - 1;
        Charge(sizeof(String *) * size);
    }
    auto *str = static_cast<String *>(Alloc(sizeof(String) + len));
    str->hash = h;
    str->len = static_cast<uint32_t>(len);
    if (len) std::memcpy(str->data, s, len);
    str->data[len] = 0;
    str->chain = strtab[h & strmask];
    strtab[h & strmask] = str;
    ++strcount;
    return str;
}

Table *State::NewTable(uint32_t narr, uint32_t nhash)
{
    (void)nhash;
    tables.reserve(tables.size() + 1);
    auto *t = static_cast<Table *>(Alloc(sizeof(Table)));
    new (t) Table();
    tables.push_back(t);
    t->flags = hashstate ? TF_Hashed : 0;
    hashstate = 1;
    if (narr)
    {
        t->arr = static_cast<Value *>(Alloc(sizeof(Value) * narr));
        t->acap = narr;
    }
    return t;
}

Closure *State::NewClosure(Proto *p, Table *env)
{
    blocks.reserve(blocks.size() + 1);
    const size_t n = sizeof(Closure) + sizeof(Box *) * static_cast<size_t>(p->nups);
    auto *c = static_cast<Closure *>(Alloc(n));
    blocks.push_back(c);
    c->p = p;
    c->env = env;
    c->up = reinterpret_cast<Box **>(c + 1);
    return c;
}

CFunc *State::NewCFunc(CFn fn, const char *name)
{
    blocks.reserve(blocks.size() + 1);
    auto *c = static_cast<CFunc *>(Alloc(sizeof(CFunc)));
    blocks.push_back(c);
    c->fn = fn;
    c->name = name;
    return c;
}

Udata *State::NewUdata(uint32_t size)
{
    udatas.reserve(udatas.size() + 1);
    auto *u = static_cast<Udata *>(Alloc(sizeof(Udata)));
    u->data = nullptr;
    u->mt = nullptr;
    u->size = 0;
    udatas.push_back(u);
    u->data = static_cast<unsigned char *>(Alloc(size ? size : 1));
    std::memset(u->data, 0, size ? size : 1);
    u->size = size;
    return u;
}

Box *State::NewBox(const Value &v)
{
    blocks.reserve(blocks.size() + 1);
    auto *b = static_cast<Box *>(Alloc(sizeof(Box)));
    blocks.push_back(b);
    b->v = v;
    return b;
}

// ---- errors ---------------------------------------------------------------------------------------

void Throw(State &, const Value &v)
{
    throw LuaError{v};
}

std::string ChunkId(const char *source, size_t len)
{
    constexpr size_t kIdSize = 60;
    if (len && source[0] == '=')
    {
        const size_t n = len - 1 < kIdSize - 1 ? len - 1 : kIdSize - 1;
        return std::string(source + 1, n);
    }
    if (len && source[0] == '@')
    {
        const size_t room = kIdSize - 8;
        if (len - 1 > room) return "..." + std::string(source + len - room, room);
        return std::string(source + 1, len - 1);
    }
    size_t line = 0;
    while (line < len && source[line] != '\n' && source[line] != '\r' && source[line] != 0)
        ++line;
    const size_t room = kIdSize - 17;
    std::string out = "[string \"";
    if (line > room || line < len)
    {
        out.append(source, line < room ? line : room);
        out += "...";
    }
    else
        out.append(source, line);
    return out + "\"]";
}

std::string Where(State &S, int level)
{
    const int i = static_cast<int>(S.ci.size()) - 1 - level;
    if (i < 0 || !S.ci[static_cast<size_t>(i)].lua) return std::string();
    extern std::string FramePosition(const Frame &f);
    return FramePosition(*S.ci[static_cast<size_t>(i)].lua);
}

void RunError(State &S, const char *fmt, ...)
{
    char buffer[512];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(buffer, sizeof buffer, fmt, ap);
    va_end(ap);
    // inside Lua code the running function has the position; inside a C function, its caller
    const bool inLua = !S.ci.empty() && S.ci.back().lua;
    const std::string msg = Where(S, inLua ? 0 : 1) + buffer;
    Throw(S, Value::Str(S.Intern(msg.data(), msg.size())));
}

// ---- numbers --------------------------------------------------------------------------------------

bool StrToNumber(const char *s, size_t len, double &out)
{
    std::string copy(s, len);
    if (std::strlen(copy.c_str()) != len) return false;
    const char *p = copy.c_str();
    while (std::isspace(static_cast<unsigned char>(*p)))
        ++p;
    const char *q = p;
    bool neg = false;
    if (*q == '-' || *q == '+') neg = *q++ == '-';
    char *end = nullptr;
    if (q[0] == '0' && (q[1] == 'x' || q[1] == 'X'))
    {
        q += 2;
        if (!std::isxdigit(static_cast<unsigned char>(*q))) return false;
        double v = 0;
        while (std::isxdigit(static_cast<unsigned char>(*q)))
        {
            const int c = std::tolower(static_cast<unsigned char>(*q++));
            v = v * 16 + (c <= '9' ? c - '0' : c - 'a' + 10);
        }
        out = neg ? -v : v;
        end = const_cast<char *>(q);
    }
    else
    {
        // decimal only: the C library would also take "inf", "nan" and hexadecimal floats
        for (const char *c = q; *c && !std::isspace(static_cast<unsigned char>(*c)); ++c)
            if (!std::isdigit(static_cast<unsigned char>(*c)) && *c != '.' && *c != 'e' && *c != 'E' && *c != '+' &&
                *c != '-')
                return false;
        out = std::strtod(p, &end);
        if (end == p) return false;
    }
    while (std::isspace(static_cast<unsigned char>(*end)))
        ++end;
    return *end == 0;
}

String *NumberToString(State &S, double n)
{
    char buffer[64];
    const int len = std::snprintf(buffer, sizeof buffer, "%.14g", n);
    return S.Intern(buffer, static_cast<size_t>(len));
}

bool ToNumber(const Value &v, double &out)
{
    if (v.t == T_NUM)
    {
        out = v.n;
        return true;
    }
    if (v.t == T_STR) return StrToNumber(v.s->data, v.s->len, out);
    return false;
}

const char *TypeName(const Value &v)
{
    return TypeName(v.t);
}

} // namespace orvexScript::datalua
