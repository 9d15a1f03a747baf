// The data-text interpreter's values, objects and state. Every object lives until its state closes:
// a read is one short-lived state, so there is no collector; memory is counted against the limit.
// Sections: values, objects (strings, tables, functions, userdata), the state, errors.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "datalua/DataLua.h"

namespace orvexScript::datalua
{

// ---- values ---------------------------------------------------------------------------------------

enum Tag : uint8_t
{
    T_NIL,
    T_BOOL,
    T_NUM,
    T_STR,
    T_TABLE,
    T_LFUNC,
    T_CFUNC,
    T_UDATA,
    T_BOX, // a captured local's cell, only ever in a frame slot
};

struct String;
struct Table;
struct Closure;
struct CFunc;
struct Udata;
struct Box;
struct State;

struct Value
{
    Tag t = T_NIL;
    union
    {
        bool b;
        double n;
        String *s;
        Table *h;
        Closure *f;
        CFunc *c;
        Udata *u;
        Box *box;
        void *p;
    };
    Value() : n(0) {}
    static Value Nil() { return Value(); }
    static Value Bool(bool v) { Value r; r.t = T_BOOL; r.b = v; return r; }
    static Value Num(double v) { Value r; r.t = T_NUM; r.n = v; return r; }
    static Value Str(String *v) { Value r; r.t = T_STR; r.s = v; return r; }
    static Value Tab(Table *v) { Value r; r.t = T_TABLE; r.h = v; return r; }
    static Value LFn(Closure *v) { Value r; r.t = T_LFUNC; r.f = v; return r; }
    static Value CFn(CFunc *v) { Value r; r.t = T_CFUNC; r.c = v; return r; }
    static Value UData(Udata *v) { Value r; r.t = T_UDATA; r.u = v; return r; }
    static Value Cell(Box *v) { Value r; r.t = T_BOX; r.box = v; return r; }
    bool IsNil() const { return t == T_NIL; }
    bool Truthy() const { return !(t == T_NIL || (t == T_BOOL && !b)); }
    bool IsFunction() const { return t == T_LFUNC || t == T_CFUNC; }
};

// Raw equality: numbers by value, strings by identity (they are interned), the rest by identity.
inline bool RawEqual(const Value &a, const Value &b)
{
    if (a.t != b.t) return false;
    switch (a.t)
    {
    case T_NIL: return true;
    case T_BOOL: return a.b == b.b;
    case T_NUM: return a.n == b.n;
    default: return a.p == b.p;
    }
}

// ---- objects --------------------------------------------------------------------------------------

struct String
{
    String *chain; // the next string of the same intern bucket
    uint32_t hash;
    uint32_t len;
    char data[1]; // len bytes and a terminating zero
};

struct Node
{
    Value key;
    Value val; // nil: a dead entry, which keeps its place until the next rebuild
};

constexpr int32_t TF_Hashed = 1;
constexpr int32_t TF_List = 2;
constexpr int32_t TF_OneLine = 4;

// An array part for keys 1..asize and a hash part whose entries keep their insertion order: the
// node array is filled front to back and an open-addressed index maps keys to nodes.
struct Table
{
    Value *arr = nullptr;
    uint32_t asize = 0, acap = 0;
    Node *nodes = nullptr;
    uint32_t ncount = 0, ncap = 0;
    int32_t *index = nullptr;
    uint32_t imask = 0;
    Table *mt = nullptr;
    int32_t flags = TF_Hashed;
};

struct Box
{
    Value v;
};

struct Proto;

struct Closure
{
    Proto *p;
    Table *env;
    Box **up; // p->nups cells
};

using CFn = int (*)(State &S, int base, int nargs); // pushes its results, gives their count

struct CFunc
{
    CFn fn;
    const char *name;
};

struct Udata
{
    Table *mt;
    uint32_t size;
    unsigned char *data; // size bytes, owned
};

// ---- errors ---------------------------------------------------------------------------------------

// A Lua error in flight: unwinds to the nearest protected call, or out of the run.
struct LuaError
{
    Value v;
};

// ---- the state ------------------------------------------------------------------------------------

enum TagMethod
{
    TM_INDEX,
    TM_NEWINDEX,
    TM_GC,
    TM_MODE,
    TM_EQ,
    TM_ADD,
    TM_SUB,
    TM_MUL,
    TM_DIV,
    TM_MOD,
    TM_POW,
    TM_UNM,
    TM_LEN,
    TM_LT,
    TM_LE,
    TM_CONCAT,
    TM_CALL,
    TM_ITER,
    TM_N
};

struct Frame;

// One active call, Lua or C: what error levels, getfenv and setfenv look at.
struct CallInfo
{
    Frame *lua; // null for a C function
    CFunc *c;
};

struct Arena; // parser memory, see Parser.cpp

struct State
{
    State();
    ~State();
    State(const State &) = delete;
    State &operator=(const State &) = delete;

    // memory
    void *Alloc(size_t n);
    void Free(void *p, size_t n);
    void Charge(size_t n);
    void Release(size_t n) { used -= n < used ? n : used; }
    size_t used = 0;
    size_t maxMemory;

    // objects
    String *Intern(const char *s, size_t len);
    String *Intern(const char *s) { return Intern(s, std::strlen(s)); }
    Table *NewTable(uint32_t narr = 0, uint32_t nhash = 0);
    Closure *NewClosure(Proto *p, Table *env);
    CFunc *NewCFunc(CFn fn, const char *name);
    Udata *NewUdata(uint32_t size);
    Box *NewBox(const Value &v);

    String **strtab = nullptr;
    uint32_t strmask = 0, strcount = 0;
    std::vector<Table *> tables;
    std::vector<Udata *> udatas;
    std::vector<void *> blocks; // closures, boxes, C functions, protos' memory
    std::vector<Arena *> arenas;

    // stack
    Value *stack = nullptr;
    size_t top = 0;
    size_t stackSize = 0;
    void Push(const Value &v)
    {
        if (top >= stackSize) StackOverflow();
        stack[top++] = v;
    }
    void CheckStack(size_t n)
    {
        if (top + n >= stackSize) StackOverflow();
    }
    [[noreturn]] void StackOverflow();

    std::vector<CallInfo> ci;
    int depth = 0; // nested calls and nested parsing
    int maxDepth;
    uint64_t steps = 0, maxSteps;
    const char *stackLimit = nullptr; // lowest address the C stack may reach
    void CheckCStack();

    Table *globals = nullptr;
    Table *registry = nullptr;
    Table *stringMeta = nullptr;
    String *tm[TM_N];
    uint8_t hashstate = 1;
};

// Errors. Error() raises a value; RunError() formats a message, with the position of the running
// Lua function when `where` is set.
[[noreturn]] void Throw(State &S, const Value &v);
[[noreturn]] void RunError(State &S, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
// The "chunk:line:" prefix of a call level (1: the function that called the running C function).
std::string Where(State &S, int level);
// Lua's short form of a chunk name.
std::string ChunkId(const char *source, size_t len);

// ---- tables (Table.cpp) ---------------------------------------------------------------------------

Value TGet(const Table *t, const Value &k);
Value TGetStr(const Table *t, String *k);
Value TGetInt(const Table *t, int64_t k);
void TSet(State &S, Table *t, const Value &k, const Value &v); // raw; nil and NaN keys are errors
void TSetStr(State &S, Table *t, String *k, const Value &v);
bool TNext(State &S, Table *t, Value &k, Value &v); // false at the end
uint32_t TLength(const Table *t);
void TFree(State &S, Table *t);

// ---- numbers and strings --------------------------------------------------------------------------

bool StrToNumber(const char *s, size_t len, double &out);
// A number as an integer, truncated toward zero and clamped to +-2^62; NaN gives 0.
inline int64_t ToInt(double d)
{
    if (!(d == d)) return 0;
    if (d > 4.6e18) return int64_t(1) << 62;
    if (d < -4.6e18) return -(int64_t(1) << 62);
    return static_cast<int64_t>(d);
}
inline int ToInt32(double d)
{
    const int64_t v = ToInt(d);
    return v > 0x7FFFFFFF ? 0x7FFFFFFF : v < -0x7FFFFFFF ? -0x7FFFFFFF : static_cast<int>(v);
}
String *NumberToString(State &S, double n);
bool ToNumber(const Value &v, double &out);
// tostring without metamethods, or null for kinds that need an address
const char *TypeName(const Value &v);
inline const char *TypeName(Tag t)
{
    static const char *const names[] = {"nil", "boolean", "number", "string", "table",
                                        "function", "function", "userdata", "nil"};
    return names[t];
}

} // namespace orvexScript::datalua
