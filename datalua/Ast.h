// The compiled form of a chunk: a tree of expressions and statements with every local resolved to a
// frame slot and every free name to an upvalue or a global. Nodes live in the state's arenas.
#pragma once

#include "datalua/Core.h"

namespace orvexScript::datalua
{

struct VarInfo
{
    String *name;
    int slot;
    bool captured; // some closure holds it: the slot then holds a Box
};

enum ExprKind : uint8_t
{
    E_NIL,
    E_TRUE,
    E_FALSE,
    E_NUM,
    E_STR,
    E_VARARG,
    E_LOCAL,
    E_UPVAL,
    E_GLOBAL,
    E_INDEX,
    E_CALL,
    E_METHCALL,
    E_FUNC,
    E_BIN,
    E_AND,
    E_OR,
    E_NOT,
    E_NEG,
    E_LEN,
    E_TABLE,
    E_PAREN,
};

enum BinOp : uint8_t
{
    OP_ADD,
    OP_SUB,
    OP_MUL,
    OP_DIV,
    OP_MOD,
    OP_POW,
    OP_CONCAT,
    OP_EQ,
    OP_NE,
    OP_LT,
    OP_LE,
    OP_GT,
    OP_GE,
};

struct Expr;
struct Proto;

struct TableItem
{
    Expr *key; // null: positional
    Expr *val;
};

struct Expr
{
    ExprKind k;
    uint8_t op;
    int line;
    union
    {
        double num;
        String *str;   // E_STR, E_GLOBAL, E_METHCALL's name
        VarInfo *var;  // E_LOCAL
        int up;        // E_UPVAL
        Proto *proto;  // E_FUNC
    };
    Expr *a = nullptr; // operand, object, callee
    Expr *b = nullptr; // second operand, key
    Expr **args = nullptr;
    TableItem *items = nullptr;
    int n = 0;         // args / items count
    bool oneLine = false, hasList = false;
};

enum StmtKind : uint8_t
{
    S_CALL,
    S_LOCAL,
    S_ASSIGN,
    S_DO,
    S_WHILE,
    S_REPEAT,
    S_IF,
    S_NUMFOR,
    S_GENFOR,
    S_LOCALFUNC,
    S_RETURN,
    S_BREAK,
};

struct Stmt;

struct Block
{
    Stmt **s = nullptr;
    int n = 0;
};

struct Stmt
{
    StmtKind k;
    int line;
    Expr **targets = nullptr; // assignment targets (E_LOCAL, E_UPVAL, E_GLOBAL, E_INDEX)
    int ntargets = 0;
    VarInfo **vars = nullptr; // declared locals
    int nvars = 0;
    Expr **exprs = nullptr; // right-hand sides, conditions, for-loop heads, returned values
    int nexprs = 0;
    Block *blocks = nullptr; // bodies; for S_IF one per condition plus an else block
    int nblocks = 0;
    bool hasElse = false;
};

struct UpvalDesc
{
    String *name;
    bool fromLocal; // a local of the enclosing function (its VarInfo) or an upvalue of it (index)
    VarInfo *var;
    int index;
};

struct Proto
{
    int nparams = 0;
    bool vararg = false;
    bool method = false; // took "self" from a colon definition
    int nslots = 0;
    VarInfo **params = nullptr;
    UpvalDesc *ups = nullptr;
    int nups = 0;
    Block body;
    int line = 0;       // where the definition starts
    String *source;     // the chunk name
    String *text;       // the source from the parameter list to "end", for dumps (null: main chunk)
    bool main = false;
};

} // namespace orvexScript::datalua
