// The evaluator: statements and expressions of the resolved tree, calls with multiple results and
// varargs, closures over shared cells, and the metamethods of indexing, arithmetic, comparison,
// concatenation and calls.
// Sections: helpers, metamethods, calls, expressions, statements.
#include <cmath>
#include <cstdio>

#include "datalua/Interp.h"

namespace orvexScript::datalua
{

namespace
{

enum Flow
{
    F_NORMAL,
    F_BREAK,
    F_RETURN
};

constexpr int kMultRet = -1;

struct DepthGuard
{
    State &S;
    explicit DepthGuard(State &s) : S(s)
    {
        if (++S.depth > S.maxDepth)
        {
            --S.depth;
            RunError(S, "stack overflow");
        }
        S.CheckCStack();
    }
    ~DepthGuard() { --S.depth; }
};

void Step(State &S)
{
    if (++S.steps > S.maxSteps)
        RunError(S, "instruction limit exceeded (%llu steps)", static_cast<unsigned long long>(S.maxSteps));
}

// How an operand was named, for messages: "global 'x'", "local 'x'", "field 'x'", or "".
std::string Describe(const Frame &f, const Expr *e)
{
    if (!e) return std::string();
    switch (e->k)
    {
    case E_GLOBAL: return std::string("global '") + e->str->data + "'";
    case E_LOCAL: return std::string("local '") + e->var->name->data + "'";
    case E_UPVAL: return std::string("upvalue '") + f.cl->p->ups[e->up].name->data + "'";
    case E_INDEX:
        if (e->b->k == E_STR) return std::string("field '") + e->b->str->data + "'";
        return std::string();
    case E_METHCALL: return std::string("method '") + e->str->data + "'";
    default: return std::string();
    }
}

[[noreturn]] void OperandError(State &S, Frame *f, const Expr *e, const char *op, const Value &v)
{
    const std::string name = f ? Describe(*f, e) : std::string();
    if (name.empty()) RunError(S, "attempt to %s a %s value", op, TypeName(v));
    RunError(S, "attempt to %s %s (a %s value)", op, name.c_str(), TypeName(v));
}

bool StrLess(const String *a, const String *b)
{
    const uint32_t n = a->len < b->len ? a->len : b->len;
    const int c = std::memcmp(a->data, b->data, n);
    return c < 0 || (c == 0 && a->len < b->len);
}

} // namespace

std::string FramePosition(const Frame &f)
{
    const String *src = f.cl->p->source;
    return ChunkId(src->data, src->len) + ":" + std::to_string(f.line) + ": ";
}

// ---- metamethods ----------------------------------------------------------------------------------

Table *MetatableOf(State &S, const Value &v)
{
    switch (v.t)
    {
    case T_TABLE: return v.h->mt;
    case T_UDATA: return v.u->mt;
    case T_STR: return S.stringMeta;
    default: return nullptr;
    }
}

Value MetaMethod(State &S, const Value &v, TagMethod tm)
{
    Table *mt = MetatableOf(S, v);
    return mt ? TGetStr(mt, S.tm[tm]) : Value();
}

Value Call1(State &S, const Value &fn, int nargs, const Value &a, const Value &b, const Value &c)
{
    const size_t fi = S.top;
    S.Push(fn);
    S.Push(a);
    if (nargs > 1) S.Push(b);
    if (nargs > 2) S.Push(c);
    const int n = Call(S, fi, nargs);
    const Value r = n > 0 ? S.stack[fi] : Value();
    S.top = fi;
    return r;
}

namespace
{

Value IndexImpl(State &S, Frame *f, const Expr *desc, Value obj, const Value &key)
{
    for (int loop = 0; loop < 100; ++loop)
    {
        Value h;
        if (obj.t == T_TABLE)
        {
            const Value v = TGet(obj.h, key);
            if (!v.IsNil() || !obj.h->mt) return v;
            h = TGetStr(obj.h->mt, S.tm[TM_INDEX]);
            if (h.IsNil()) return v;
        }
        else
        {
            h = MetaMethod(S, obj, TM_INDEX);
            if (h.IsNil()) OperandError(S, loop == 0 ? f : nullptr, desc, "index", obj);
        }
        if (h.IsFunction()) return Call1(S, h, 2, obj, key);
        obj = h;
    }
    RunError(S, "loop in gettable");
}

void SetIndexImpl(State &S, Frame *f, const Expr *desc, Value obj, const Value &key, const Value &val)
{
    for (int loop = 0; loop < 100; ++loop)
    {
        Value h;
        if (obj.t == T_TABLE)
        {
            Table *t = obj.h;
            if (!t->mt || !TGet(t, key).IsNil() || (h = TGetStr(t->mt, S.tm[TM_NEWINDEX])).IsNil())
            {
                TSet(S, t, key, val);
                return;
            }
        }
        else
        {
            h = MetaMethod(S, obj, TM_NEWINDEX);
            if (h.IsNil()) OperandError(S, loop == 0 ? f : nullptr, desc, "index", obj);
        }
        if (h.IsFunction())
        {
            const size_t fi = S.top;
            S.Push(h);
            S.Push(obj);
            S.Push(key);
            S.Push(val);
            Call(S, fi, 3);
            S.top = fi;
            return;
        }
        obj = h;
    }
    RunError(S, "loop in settable");
}

Value ArithMeta(State &S, Frame *f, const Expr *ea, const Expr *eb, const Value &a, const Value &b, TagMethod tm)
{
    Value h = MetaMethod(S, a, tm);
    if (h.IsNil()) h = MetaMethod(S, b, tm);
    if (h.IsNil())
    {
        double dummy;
        if (ToNumber(a, dummy)) OperandError(S, f, eb, "perform arithmetic on", b);
        OperandError(S, f, ea, "perform arithmetic on", a);
    }
    return Call1(S, h, 2, a, b);
}

double ArithOp(int op, double x, double y)
{
    switch (op)
    {
    case OP_ADD: return x + y;
    case OP_SUB: return x - y;
    case OP_MUL: return x * y;
    case OP_DIV: return x / y;
    case OP_MOD: return x - std::floor(x / y) * y;
    default: return std::pow(x, y);
    }
}

Value Arith(State &S, Frame *f, const Expr *e, int op, const Value &a, const Value &b)
{
    double x, y;
    if (a.t == T_NUM && b.t == T_NUM) return Value::Num(ArithOp(op, a.n, b.n));
    if (ToNumber(a, x) && ToNumber(b, y)) return Value::Num(ArithOp(op, x, y));
    static const TagMethod tms[] = {TM_ADD, TM_SUB, TM_MUL, TM_DIV, TM_MOD, TM_POW};
    return ArithMeta(S, f, e ? e->a : nullptr, e ? e->b : nullptr, a, b, tms[op]);
}

[[noreturn]] void OrderError(State &S, const Value &a, const Value &b)
{
    const char *t1 = TypeName(a), *t2 = TypeName(b);
    if (t1 == t2 || std::strcmp(t1, t2) == 0) RunError(S, "attempt to compare two %s values", t1);
    RunError(S, "attempt to compare %s with %s", t1, t2);
}

// -1: no metamethod pair
int OrderMeta(State &S, const Value &a, const Value &b, TagMethod tm)
{
    const Value h1 = MetaMethod(S, a, tm);
    if (h1.IsNil()) return -1;
    const Value h2 = MetaMethod(S, b, tm);
    if (!RawEqual(h1, h2)) return -1;
    return Call1(S, h1, 2, a, b).Truthy() ? 1 : 0;
}

bool Less(State &S, const Value &a, const Value &b)
{
    if (a.t != b.t) OrderError(S, a, b);
    if (a.t == T_NUM) return a.n < b.n;
    if (a.t == T_STR) return StrLess(a.s, b.s);
    const int r = OrderMeta(S, a, b, TM_LT);
    if (r < 0) OrderError(S, a, b);
    return r != 0;
}

bool LessEqual(State &S, const Value &a, const Value &b)
{
    if (a.t != b.t) OrderError(S, a, b);
    if (a.t == T_NUM) return a.n <= b.n;
    if (a.t == T_STR) return !StrLess(b.s, a.s);
    int r = OrderMeta(S, a, b, TM_LE);
    if (r >= 0) return r != 0;
    r = OrderMeta(S, b, a, TM_LT);
    if (r < 0) OrderError(S, a, b);
    return r == 0;
}

Value Concat(State &S, Frame *f, const Expr *e, const Value &a, const Value &b)
{
    if ((a.t == T_STR || a.t == T_NUM) && (b.t == T_STR || b.t == T_NUM))
    {
        const String *x = a.t == T_STR ? a.s : NumberToString(S, a.n);
        const String *y = b.t == T_STR ? b.s : NumberToString(S, b.n);
        const size_t len = static_cast<size_t>(x->len) + y->len;
        if (len > 0x7FFFFFF0u) RunError(S, "string length overflow");
        S.Charge(len);
        std::string joined;
        joined.reserve(len);
        joined.append(x->data, x->len);
        joined.append(y->data, y->len);
        S.Release(len);
        return Value::Str(S.Intern(joined.data(), joined.size()));
    }
    Value h = MetaMethod(S, a, TM_CONCAT);
    if (h.IsNil()) h = MetaMethod(S, b, TM_CONCAT);
    if (h.IsNil())
    {
        if (a.t == T_STR || a.t == T_NUM) OperandError(S, f, e ? e->b : nullptr, "concatenate", b);
        OperandError(S, f, e ? e->a : nullptr, "concatenate", a);
    }
    return Call1(S, h, 2, a, b);
}

} // namespace

Value Index(State &S, const Value &obj, const Value &key)
{
    return IndexImpl(S, nullptr, nullptr, obj, key);
}

void SetIndex(State &S, const Value &obj, const Value &key, const Value &val)
{
    SetIndexImpl(S, nullptr, nullptr, obj, key, val);
}

bool Equal(State &S, const Value &a, const Value &b)
{
    if (a.t != b.t) return false;
    if (RawEqual(a, b)) return true;
    if (a.t != T_TABLE && a.t != T_UDATA) return false;
    const Value h1 = MetaMethod(S, a, TM_EQ);
    if (h1.IsNil()) return false;
    const Value h2 = MetaMethod(S, b, TM_EQ);
    if (!RawEqual(h1, h2)) return false;
    return Call1(S, h1, 2, a, b).Truthy();
}

String *ToStringRaw(State &S, const Value &v)
{
    char buffer[64];
    switch (v.t)
    {
    case T_NIL: return S.Intern("nil");
    case T_BOOL: return S.Intern(v.b ? "true" : "false");
    case T_NUM: return NumberToString(S, v.n);
    case T_STR: return v.s;
    default:
        std::snprintf(buffer, sizeof buffer, "%s: %p", TypeName(v), v.p);
        return S.Intern(buffer);
    }
}

String *ToStringMeta(State &S, const Value &v)
{
    Table *mt = MetatableOf(S, v);
    if (mt)
    {
        const Value fn = TGetStr(mt, S.Intern("__tostring"));
        if (!fn.IsNil())
        {
            const Value r = Call1(S, fn, 1, v);
            if (r.t != T_STR) RunError(S, "'tostring' must return a string to 'print'");
            return r.s;
        }
    }
    return ToStringRaw(S, v);
}

// ---- calls and evaluation -------------------------------------------------------------------------

namespace
{

class Eval
{
public:
    explicit Eval(State &s) : S(s) {}
    State &S;

    int CallLua(size_t fi, int nargs);
    Flow ExecBlock(Frame &f, const Block &b);

private:
    Value Get(Frame &f, const Expr *e);
    int Multi(Frame &f, const Expr *e);
    int List(Frame &f, Expr *const *list, int n, int want);
    int CallExpr(Frame &f, const Expr *e);
    Value Constructor(Frame &f, const Expr *e);
    Closure *MakeClosure(Frame &f, Proto *p);
    Value Binary(Frame &f, const Expr *e);
    void Assign(Frame &f, const Expr *target, const Value &v, const Value *obj, const Value *key);
    void SetLocal(Frame &f, const VarInfo *v, const Value &val)
    {
        Value &slot = S.stack[f.base + v->slot];
        if (v->captured)
            slot = Value::Cell(S.NewBox(val));
        else
            slot = val;
    }
    Flow Exec(Frame &f, const Stmt *s);
    Flow NumFor(Frame &f, const Stmt *s);
    Flow GenFor(Frame &f, const Stmt *s);
};

Closure *Eval::MakeClosure(Frame &f, Proto *p)
{
    Closure *c = S.NewClosure(p, f.cl->env);
    for (int i = 0; i < p->nups; ++i)
    {
        const UpvalDesc &u = p->ups[i];
        if (u.fromLocal)
        {
            Value &slot = S.stack[f.base + u.var->slot];
            if (slot.t != T_BOX) slot = Value::Cell(S.NewBox(slot));
            c->up[i] = slot.box;
        }
        else
            c->up[i] = f.cl->up[u.index];
    }
    return c;
}

Value Eval::Get(Frame &f, const Expr *e)
{
    S.CheckCStack(); // chains like a.b.c... or 1+1+1... nest without parser levels
    switch (e->k)
    {
    case E_NIL: return Value();
    case E_TRUE: return Value::Bool(true);
    case E_FALSE: return Value::Bool(false);
    case E_NUM: return Value::Num(e->num);
    case E_STR: return Value::Str(e->str);
    case E_VARARG: return f.nvar > 0 ? S.stack[f.vbase] : Value();
    case E_LOCAL:
    {
        const Value &slot = S.stack[f.base + e->var->slot];
        return slot.t == T_BOX ? slot.box->v : slot;
    }
    case E_UPVAL: return f.cl->up[e->up]->v;
    case E_GLOBAL:
    {
        Table *env = f.cl->env;
        const Value v = TGetStr(env, e->str);
        if (!v.IsNil() || !env->mt) return v;
        f.line = e->line;
        return IndexImpl(S, &f, e, Value::Tab(env), Value::Str(e->str));
    }
    case E_INDEX:
    {
        const Value obj = Get(f, e->a);
        const Value key = Get(f, e->b);
        if (obj.t == T_TABLE && !obj.h->mt) return TGet(obj.h, key);
        f.line = e->line;
        return IndexImpl(S, &f, e->a, obj, key);
    }
    case E_CALL:
    case E_METHCALL:
    {
        const size_t fi = S.top;
        const int n = CallExpr(f, e);
        const Value r = n > 0 ? S.stack[fi] : Value();
        S.top = fi;
        return r;
    }
    case E_FUNC: return Value::LFn(MakeClosure(f, e->proto));
    case E_AND:
    {
        const Value a = Get(f, e->a);
        return a.Truthy() ? Get(f, e->b) : a;
    }
    case E_OR:
    {
        const Value a = Get(f, e->a);
        return a.Truthy() ? a : Get(f, e->b);
    }
    case E_NOT: return Value::Bool(!Get(f, e->a).Truthy());
    case E_NEG:
    {
        const Value a = Get(f, e->a);
        double x;
        if (ToNumber(a, x)) return Value::Num(-x);
        f.line = e->line;
        const Value h = MetaMethod(S, a, TM_UNM);
        if (h.IsNil()) OperandError(S, &f, e->a, "perform arithmetic on", a);
        return Call1(S, h, 2, a, a);
    }
    case E_LEN:
    {
        const Value a = Get(f, e->a);
        if (a.t == T_STR) return Value::Num(a.s->len);
        if (a.t == T_TABLE) return Value::Num(TLength(a.h));
        f.line = e->line;
        const Value h = MetaMethod(S, a, TM_LEN);
        if (h.IsNil()) OperandError(S, &f, e->a, "get length of", a);
        return Call1(S, h, 2, a, Value());
    }
    case E_BIN: return Binary(f, e);
    case E_TABLE: return Constructor(f, e);
    case E_PAREN: return Get(f, e->a);
    }
    return Value();
}

Value Eval::Binary(Frame &f, const Expr *e)
{
    const Value a = Get(f, e->a);
    const Value b = Get(f, e->b);
    if (e->op <= OP_POW)
    {
        if (a.t == T_NUM && b.t == T_NUM) return Value::Num(ArithOp(e->op, a.n, b.n));
        f.line = e->line;
        return Arith(S, &f, e, e->op, a, b);
    }
    f.line = e->line;
    switch (e->op)
    {
    case OP_CONCAT: return Concat(S, &f, e, a, b);
    case OP_EQ: return Value::Bool(Equal(S, a, b));
    case OP_NE: return Value::Bool(!Equal(S, a, b));
    case OP_LT: return Value::Bool(Less(S, a, b));
    case OP_LE: return Value::Bool(LessEqual(S, a, b));
    case OP_GT: return Value::Bool(Less(S, b, a));
    default: return Value::Bool(LessEqual(S, b, a));
    }
}

Value Eval::Constructor(Frame &f, const Expr *e)
{
    int npos = 0;
    for (int i = 0; i < e->n; ++i)
        if (!e->items[i].key) ++npos;
    Table *t = S.NewTable(static_cast<uint32_t>(npos), 0);
    if (e->oneLine) t->flags |= TF_OneLine;
    // positional items are stored in batches, after the keyed ones that stand before them
    const size_t pending = S.top;
    double next = 1;
    auto flush = [&]() {
        for (size_t i = pending; i < S.top; ++i)
            TSet(S, t, Value::Num(next++), S.stack[i]);
        S.top = pending;
    };
    for (int i = 0; i < e->n; ++i)
    {
        const TableItem &it = e->items[i];
        if (it.key)
        {
            const Value k = Get(f, it.key);
            const Value v = Get(f, it.val);
            f.line = it.val->line;
            TSet(S, t, k, v);
        }
        else if (i == e->n - 1)
            Multi(f, it.val);
        else
        {
            const Value v = Get(f, it.val);
            S.Push(v);
        }
        if (S.top - pending >= 50) flush();
    }
    flush();
    if (e->hasList) t->flags |= TF_List;
    return Value::Tab(t);
}

int Eval::Multi(Frame &f, const Expr *e)
{
    if (e->k == E_CALL || e->k == E_METHCALL) return CallExpr(f, e);
    if (e->k == E_VARARG)
    {
        S.CheckStack(static_cast<size_t>(f.nvar));
        for (int i = 0; i < f.nvar; ++i)
            S.stack[S.top++] = S.stack[f.vbase + i];
        return f.nvar;
    }
    const Value v = Get(f, e);
    S.Push(v);
    return 1;
}

int Eval::List(Frame &f, Expr *const *list, int n, int want)
{
    const size_t start = S.top;
    for (int i = 0; i < n; ++i)
    {
        if (i == n - 1 && (want == kMultRet || want > n))
            Multi(f, list[i]);
        else
        {
            const Value v = Get(f, list[i]);
            S.Push(v);
        }
    }
    int count = static_cast<int>(S.top - start);
    if (want != kMultRet)
    {
        while (count < want)
        {
            S.Push(Value());
            ++count;
        }
        S.top = start + static_cast<size_t>(want);
        count = want;
    }
    return count;
}

int Eval::CallExpr(Frame &f, const Expr *e)
{
    const size_t fi = S.top;
    Value fn;
    int nargs = 0;
    if (e->k == E_METHCALL)
    {
        const Value obj = Get(f, e->a);
        f.line = e->line;
        fn = IndexImpl(S, &f, e->a, obj, Value::Str(e->str));
        S.Push(fn);
        S.Push(obj);
        nargs = 1;
    }
    else
    {
        fn = Get(f, e->a);
        S.Push(fn);
    }
    nargs += List(f, e->args, e->n, kMultRet);
    f.line = e->line;
    if (!fn.IsFunction() && MetaMethod(S, fn, TM_CALL).IsNil()) OperandError(S, &f, e->k == E_METHCALL ? e : e->a, "call", fn);
    return Call(S, fi, nargs);
}

void Eval::Assign(Frame &f, const Expr *target, const Value &v, const Value *obj, const Value *key)
{
    switch (target->k)
    {
    case E_LOCAL:
    {
        Value &slot = S.stack[f.base + target->var->slot];
        if (slot.t == T_BOX)
            slot.box->v = v;
        else
            slot = v;
        return;
    }
    case E_UPVAL: f.cl->up[target->up]->v = v; return;
    case E_GLOBAL:
    {
        Table *env = f.cl->env;
        f.line = target->line;
        if (!env->mt)
            TSet(S, env, Value::Str(target->str), v);
        else
            SetIndexImpl(S, &f, target, Value::Tab(env), Value::Str(target->str), v);
        return;
    }
    default:
        f.line = target->line;
        if (obj->t == T_TABLE && !obj->h->mt)
            TSet(S, obj->h, *key, v);
        else
            SetIndexImpl(S, &f, target->a, *obj, *key, v);
        return;
    }
}

Flow Eval::NumFor(Frame &f, const Stmt *s)
{
    const Value a = Get(f, s->exprs[0]);
    const Value b = Get(f, s->exprs[1]);
    const Value c = s->nexprs > 2 ? Get(f, s->exprs[2]) : Value::Num(1);
    double init, limit, step;
    f.line = s->line;
    if (!ToNumber(a, init)) RunError(S, "'for' initial value must be a number");
    if (!ToNumber(b, limit)) RunError(S, "'for' limit must be a number");
    if (!ToNumber(c, step)) RunError(S, "'for' step must be a number");
    const Block &body = s->blocks[0];
    for (double i = init; step > 0 ? i <= limit : i >= limit; i += step)
    {
        Step(S);
        SetLocal(f, s->vars[0], Value::Num(i));
        const Flow r = ExecBlock(f, body);
        if (r == F_BREAK) break;
        if (r == F_RETURN) return r;
    }
    return F_NORMAL;
}

Flow Eval::GenFor(Frame &f, const Stmt *s)
{
    const size_t start = S.top;
    List(f, s->exprs, s->nexprs, 3);
    Value fn = S.stack[start], state = S.stack[start + 1], control = S.stack[start + 2];
    S.top = start;
    if (fn.t == T_TABLE)
    {
        // a table in the iterator's place walks itself with the global next
        state = fn;
        fn = TGetStr(S.globals, S.Intern("next"));
    }
    const Block &body = s->blocks[0];
    for (;;)
    {
        Step(S);
        const size_t fi = S.top;
        S.Push(fn);
        S.Push(state);
        S.Push(control);
        f.line = s->line;
        if (!fn.IsFunction() && MetaMethod(S, fn, TM_CALL).IsNil()) OperandError(S, nullptr, nullptr, "call", fn);
        int n = Call(S, fi, 2);
        for (; n < s->nvars; ++n)
            S.Push(Value());
        const Value first = S.stack[fi];
        if (first.IsNil())
        {
            S.top = fi;
            break;
        }
        control = first;
        for (int i = 0; i < s->nvars; ++i)
            SetLocal(f, s->vars[i], S.stack[fi + i]);
        S.top = fi;
        const Flow r = ExecBlock(f, body);
        if (r == F_BREAK) break;
        if (r == F_RETURN) return r;
    }
    return F_NORMAL;
}

Flow Eval::Exec(Frame &f, const Stmt *s)
{
    f.line = s->line;
    switch (s->k)
    {
    case S_CALL:
    {
        const size_t fi = S.top;
        CallExpr(f, s->exprs[0]);
        S.top = fi;
        return F_NORMAL;
    }
    case S_LOCAL:
    {
        const size_t start = S.top;
        List(f, s->exprs, s->nexprs, s->nvars);
        for (int i = 0; i < s->nvars; ++i)
            SetLocal(f, s->vars[i], S.stack[start + i]);
        S.top = start;
        return F_NORMAL;
    }
    case S_LOCALFUNC:
    {
        SetLocal(f, s->vars[0], Value());
        const Value fn = Get(f, s->exprs[0]);
        Value &slot = S.stack[f.base + s->vars[0]->slot];
        if (slot.t == T_BOX)
            slot.box->v = fn;
        else
            slot = fn;
        return F_NORMAL;
    }
    case S_ASSIGN:
    {
        const size_t start = S.top;
        // the tables and keys of the targets first, then the values
        for (int i = 0; i < s->ntargets; ++i)
        {
            const Expr *t = s->targets[i];
            if (t->k == E_INDEX)
            {
                const Value obj = Get(f, t->a);
                S.Push(obj);
                const Value key = Get(f, t->b);
                S.Push(key);
            }
        }
        const size_t values = S.top;
        List(f, s->exprs, s->nexprs, s->ntargets);
        size_t slot = values;
        for (int i = s->ntargets; i-- > 0;)
        {
            const Expr *t = s->targets[i];
            const Value *obj = nullptr, *key = nullptr;
            if (t->k == E_INDEX)
            {
                slot -= 2;
                obj = &S.stack[slot];
                key = &S.stack[slot + 1];
            }
            Assign(f, t, S.stack[values + static_cast<size_t>(i)], obj, key);
        }
        S.top = start;
        return F_NORMAL;
    }
    case S_DO: return ExecBlock(f, s->blocks[0]);
    case S_WHILE:
        for (;;)
        {
            Step(S);
            if (!Get(f, s->exprs[0]).Truthy()) break;
            const Flow r = ExecBlock(f, s->blocks[0]);
            if (r == F_BREAK) break;
            if (r == F_RETURN) return r;
        }
        return F_NORMAL;
    case S_REPEAT:
        for (;;)
        {
            Step(S);
            const Flow r = ExecBlock(f, s->blocks[0]);
            if (r == F_BREAK) break;
            if (r == F_RETURN) return r;
            if (Get(f, s->exprs[0]).Truthy()) break;
        }
        return F_NORMAL;
    case S_IF:
        for (int i = 0; i < s->nexprs; ++i)
            if (Get(f, s->exprs[i]).Truthy()) return ExecBlock(f, s->blocks[i]);
        if (s->hasElse) return ExecBlock(f, s->blocks[s->nblocks - 1]);
        return F_NORMAL;
    case S_NUMFOR: return NumFor(f, s);
    case S_GENFOR: return GenFor(f, s);
    case S_RETURN:
        f.retBase = S.top;
        f.nret = List(f, s->exprs, s->nexprs, kMultRet);
        return F_RETURN;
    case S_BREAK: return F_BREAK;
    }
    return F_NORMAL;
}

Flow Eval::ExecBlock(Frame &f, const Block &b)
{
    for (int i = 0; i < b.n; ++i)
    {
        Step(S);
        const Flow r = Exec(f, b.s[i]);
        if (r != F_NORMAL) return r;
    }
    return F_NORMAL;
}

int Eval::CallLua(size_t fi, int nargs)
{
    Closure *cl = S.stack[fi].f;
    const Proto *p = cl->p;
    Frame f{cl, fi + 1, 0, 0, p->line, 0, 0};
    if (p->vararg)
    {
        // the fixed parameters move above the extra arguments, which stay where they are
        const size_t args = fi + 1;
        f.base = args + static_cast<size_t>(nargs);
        f.vbase = args + static_cast<size_t>(p->nparams);
        f.nvar = nargs > p->nparams ? nargs - p->nparams : 0;
        S.CheckStack(static_cast<size_t>(nargs + p->nslots) + 8);
        for (int i = 0; i < p->nparams; ++i)
            S.stack[f.base + i] = i < nargs ? S.stack[args + i] : Value();
    }
    else
    {
        S.CheckStack(static_cast<size_t>(p->nslots) + 8);
        for (int i = nargs; i < p->nparams; ++i)
            S.stack[f.base + i] = Value();
    }
    for (int i = p->nparams; i < p->nslots; ++i)
        S.stack[f.base + i] = Value();
    for (int i = 0; i < p->nparams; ++i)
        if (p->params[i]->captured) S.stack[f.base + i] = Value::Cell(S.NewBox(S.stack[f.base + i]));
    S.top = f.base + static_cast<size_t>(p->nslots);
    S.ci.push_back(CallInfo{&f, nullptr});
    const Flow r = ExecBlock(f, p->body);
    S.ci.pop_back();
    int n = 0;
    if (r == F_RETURN)
    {
        n = f.nret;
        std::memmove(static_cast<void *>(&S.stack[fi]), &S.stack[f.retBase], sizeof(Value) * static_cast<size_t>(n));
    }
    S.top = fi + static_cast<size_t>(n);
    return n;
}

} // namespace

int Call(State &S, size_t fi, int nargs)
{
    DepthGuard guard(S);
    for (;;)
    {
        const Value fn = S.stack[fi];
        if (fn.t == T_LFUNC)
        {
            Eval ev(S);
            return ev.CallLua(fi, nargs);
        }
        if (fn.t == T_CFUNC)
        {
            S.ci.push_back(CallInfo{nullptr, fn.c});
            const size_t base = fi + 1;
            S.top = base + static_cast<size_t>(nargs);
            const int n = fn.c->fn(S, static_cast<int>(base), nargs);
            S.ci.pop_back();
            std::memmove(static_cast<void *>(&S.stack[fi]), &S.stack[S.top - static_cast<size_t>(n)],
                         sizeof(Value) * static_cast<size_t>(n));
            S.top = fi + static_cast<size_t>(n);
            return n;
        }
        const Value h = MetaMethod(S, fn, TM_CALL);
        if (!h.IsFunction()) RunError(S, "attempt to call a %s value", TypeName(fn));
        S.CheckStack(1);
        std::memmove(static_cast<void *>(&S.stack[fi + 1]), &S.stack[fi], sizeof(Value) * (static_cast<size_t>(nargs) + 1));
        S.stack[fi] = h;
        ++nargs;
        S.top = fi + 1 + static_cast<size_t>(nargs);
    }
}

Closure *MakeMainClosure(State &S, Proto *p, Table *env)
{
    Closure *c = S.NewClosure(p, env);
    for (int i = 0; i < p->nups; ++i)
        c->up[i] = S.NewBox(Value());
    return c;
}

} // namespace orvexScript::datalua
