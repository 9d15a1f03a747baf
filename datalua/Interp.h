// The evaluator's interface to the libraries: calls, metamethods, conversions and closures.
#pragma once

#include <string>

#include "datalua/Ast.h"

namespace orvexScript::datalua
{

// A running Lua function: its slots start at `base`, its extra arguments at `vbase`.
struct Frame
{
    Closure *cl;
    size_t base;
    size_t vbase;
    int nvar;
    int line;
    size_t retBase;
    int nret;
};

std::string FramePosition(const Frame &f);

// Calls the function at stack[fi] with the `nargs` values above it; its results end up at fi, the
// top behind them, and their count is returned.
int Call(State &S, size_t fi, int nargs);
// Calls fn with up to three arguments and gives the first result.
Value Call1(State &S, const Value &fn, int nargs, const Value &a, const Value &b = Value(), const Value &c = Value());

Value Index(State &S, const Value &obj, const Value &key);
void SetIndex(State &S, const Value &obj, const Value &key, const Value &val);
Table *MetatableOf(State &S, const Value &v);
Value MetaMethod(State &S, const Value &v, TagMethod tm);
bool Equal(State &S, const Value &a, const Value &b);
// tostring with __tostring.
String *ToStringMeta(State &S, const Value &v);
// tostring without metamethods.
String *ToStringRaw(State &S, const Value &v);

Closure *MakeMainClosure(State &S, Proto *p, Table *env);

// Base library, string methods and the block type (BaseLib.cpp, StringLib.cpp, RunText.cpp).
void OpenBase(State &S);
void OpenString(State &S);

// C function helpers: argument i (0-based) or nil.
inline Value Arg(State &S, int base, int nargs, int i)
{
    return i < nargs ? S.stack[base + i] : Value();
}
[[noreturn]] void ArgError(State &S, int arg, const char *extra);
[[noreturn]] void TypeError(State &S, int arg, const char *expected, const Value &got);
double CheckNumber(State &S, int base, int nargs, int i);
double OptNumber(State &S, int base, int nargs, int i, double def);
String *CheckString(State &S, int base, int nargs, int i);
Table *CheckTable(State &S, int base, int nargs, int i);
void Register(State &S, Table *t, const char *name, CFn fn);

} // namespace orvexScript::datalua
