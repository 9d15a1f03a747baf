// Tables: an array part for 1..n and a hash part that keeps insertion order through every rebuild.
// Removing a key leaves a dead node in place (so a traversal that clears fields goes on); dead nodes
// are dropped when the node array is rebuilt.
#include <cmath>

#include "datalua/Core.h"

namespace orvexScript::datalua
{

namespace
{

inline uint32_t Mix(uint64_t x)
{
    x ^= x >> 33;
    x *= 0xff51afd7ed558ccdULL;
    x ^= x >> 33;
    return static_cast<uint32_t>(x);
}

uint32_t HashKey(const Value &k)
{
    switch (k.t)
    {
    case T_STR: return k.s->hash;
    case T_NUM:
    {
        double n = k.n;
        if (n == 0) n = 0; // -0 and 0 are one key
        uint64_t bits;
        std::memcpy(&bits, &n, sizeof bits);
        return Mix(bits);
    }
    case T_BOOL: return k.b ? 1 : 2;
    default: return Mix(reinterpret_cast<uintptr_t>(k.p));
    }
}

// The array index of an integral number key, or 0.
inline uint32_t ArrayIndex(const Table *t, const Value &k)
{
    if (k.t != T_NUM) return 0;
    const double n = k.n;
    if (n >= 1 && n <= t->asize)
    {
        const auto i = static_cast<uint32_t>(n);
        if (static_cast<double>(i) == n) return i;
    }
    return 0;
}

int32_t FindNode(const Table *t, const Value &k)
{
    if (!t->index) return -1;
    uint32_t i = HashKey(k) & t->imask;
    for (;;)
    {
        const int32_t n = t->index[i];
        if (n < 0) return -1;
        if (RawEqual(t->nodes[n].key, k)) return n;
        i = (i + 1) & t->imask;
    }
}

void IndexInsert(Table *t, const Value &k, int32_t node)
{
    uint32_t i = HashKey(k) & t->imask;
    while (t->index[i] >= 0)
        i = (i + 1) & t->imask;
    t->index[i] = node;
}

// Rebuilds the node array with room for at least `need` live nodes, dropping dead ones.
void Rebuild(State &S, Table *t, uint32_t need)
{
    uint32_t live = 0;
    for (uint32_t i = 0; i < t->ncount; ++i)
        if (!t->nodes[i].val.IsNil()) ++live;
    uint32_t cap = 4;
    while (cap < (live + need) * 2 && cap < 0x40000000u)
        cap *= 2;
    if (cap < live + need) RunError(S, "table overflow");
    auto *nodes = static_cast<Node *>(S.Alloc(sizeof(Node) * cap));
    const uint32_t isize = cap * 2;
    auto *index = static_cast<int32_t *>(S.Alloc(sizeof(int32_t) * isize));
    std::memset(index, 0xFF, sizeof(int32_t) * isize);
    uint32_t n = 0;
    for (uint32_t i = 0; i < t->ncount; ++i)
        if (!t->nodes[i].val.IsNil()) nodes[n++] = t->nodes[i];
    S.Free(t->nodes, sizeof(Node) * t->ncap);
    S.Free(t->index, sizeof(int32_t) * (t->index ? t->imask + 1 : 0));
    t->nodes = nodes;
    t->ncap = cap;
    t->ncount = n;
    t->index = index;
    t->imask = isize - 1;
    for (uint32_t i = 0; i < n; ++i)
        IndexInsert(t, nodes[i].key, static_cast<int32_t>(i));
}

void GrowArray(State &S, Table *t)
{
    const uint32_t cap = t->acap ? t->acap * 2 : 4;
    if (cap < t->acap) RunError(S, "table overflow");
    auto *arr = static_cast<Value *>(S.Alloc(sizeof(Value) * cap));
    if (t->asize) std::memcpy(static_cast<void *>(arr), t->arr, sizeof(Value) * t->asize);
    S.Free(t->arr, sizeof(Value) * t->acap);
    t->arr = arr;
    t->acap = cap;
}

// Appends key asize + 1, then pulls the keys that follow it out of the hash part.
void Append(State &S, Table *t, const Value &v)
{
    if (t->asize == t->acap) GrowArray(S, t);
    t->arr[t->asize++] = v;
    while (t->ncount)
    {
        const int32_t n = FindNode(t, Value::Num(static_cast<double>(t->asize) + 1));
        if (n < 0 || t->nodes[n].val.IsNil()) break;
        if (t->asize == t->acap) GrowArray(S, t);
        t->arr[t->asize++] = t->nodes[n].val;
        t->nodes[n].val = Value();
    }
}

} // namespace

Value TGet(const Table *t, const Value &k)
{
    if (const uint32_t i = ArrayIndex(t, k)) return t->arr[i - 1];
    if (k.t == T_NIL) return Value();
    const int32_t n = FindNode(t, k);
    return n < 0 ? Value() : t->nodes[n].val;
}

Value TGetStr(const Table *t, String *k)
{
    if (!t->index) return Value();
    uint32_t i = k->hash & t->imask;
    for (;;)
    {
        const int32_t n = t->index[i];
        if (n < 0) return Value();
        const Node &node = t->nodes[n];
        if (node.key.t == T_STR && node.key.s == k) return node.val;
        i = (i + 1) & t->imask;
    }
}

Value TGetInt(const Table *t, int64_t k)
{
    if (k >= 1 && static_cast<uint64_t>(k) <= t->asize) return t->arr[k - 1];
    return TGet(t, Value::Num(static_cast<double>(k)));
}

void TSet(State &S, Table *t, const Value &k, const Value &v)
{
    if (const uint32_t i = ArrayIndex(t, k))
    {
        t->arr[i - 1] = v;
        return;
    }
    if (k.t == T_NIL) RunError(S, "table index is nil");
    if (k.t == T_NUM && std::isnan(k.n)) RunError(S, "table index is NaN");
    const int32_t n = FindNode(t, k);
    if (n >= 0)
    {
        t->nodes[n].val = v;
        return;
    }
    if (v.IsNil()) return;
    if (k.t == T_NUM && k.n == static_cast<double>(t->asize) + 1)
    {
        Append(S, t, v);
        return;
    }
    if (t->ncount == t->ncap) Rebuild(S, t, 1);
    Node &node = t->nodes[t->ncount];
    node.key = k;
    if (k.t == T_NUM && k.n == 0) node.key.n = 0;
    node.val = v;
    IndexInsert(t, node.key, static_cast<int32_t>(t->ncount));
    ++t->ncount;
}

void TSetStr(State &S, Table *t, String *k, const Value &v)
{
    TSet(S, t, Value::Str(k), v);
}

bool TNext(State &S, Table *t, Value &k, Value &v)
{
    uint32_t i = 0; // position to look from: 0..asize-1 array, then nodes
    if (!k.IsNil())
    {
        if (const uint32_t a = ArrayIndex(t, k))
            i = a;
        else
        {
            const int32_t n = FindNode(t, k);
            if (n < 0) RunError(S, "invalid key to 'next'");
            i = t->asize + static_cast<uint32_t>(n) + 1;
        }
    }
    for (; i < t->asize; ++i)
    {
        if (!t->arr[i].IsNil())
        {
            k = Value::Num(static_cast<double>(i) + 1);
            v = t->arr[i];
            return true;
        }
    }
    for (uint32_t n = i - t->asize; n < t->ncount; ++n)
    {
        if (!t->nodes[n].val.IsNil())
        {
            k = t->nodes[n].key;
            v = t->nodes[n].val;
            return true;
        }
    }
    return false;
}

uint32_t TLength(const Table *t)
{
    uint32_t j = t->asize;
    if (j > 0 && t->arr[j - 1].IsNil())
    {
        // a border inside the array part, by bisection as the array may hold holes
        uint32_t lo = 0;
        while (j - lo > 1)
        {
            const uint32_t m = (lo + j) / 2;
            if (t->arr[m - 1].IsNil())
                j = m;
            else
                lo = m;
        }
        return lo;
    }
    if (!t->ncount) return j;
    while (j < 0xFFFFFFFEu && !TGet(t, Value::Num(static_cast<double>(j) + 1)).IsNil())
        ++j;
    return j;
}

void TFree(State &S, Table *t)
{
    S.Free(t->arr, sizeof(Value) * t->acap);
    S.Free(t->nodes, sizeof(Node) * t->ncap);
    if (t->index) S.Free(t->index, sizeof(int32_t) * (t->imask + 1));
    t->arr = nullptr;
    t->nodes = nullptr;
    t->index = nullptr;
}

} // namespace orvexScript::datalua
