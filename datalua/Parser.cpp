// Lexer and recursive-descent parser. Locals resolve to frame slots while parsing; a local that an
// inner function names is marked captured, and every function records its upvalues. Each function
// keeps its own source text (from its parameter list to "end") so that it can be dumped.
// Sections: arena, lexer, function states, expressions, statements, entry points.
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <string>

#include "datalua/Parser.h"

namespace orvexScript::datalua
{

// ---- arena ----------------------------------------------------------------------------------------

struct Arena
{
    char *base;
    size_t used, size;
};

void *ArenaAlloc(State &S, size_t n)
{
    n = (n + 15) & ~size_t(15);
    Arena *a = S.arenas.empty() ? nullptr : S.arenas.back();
    if (!a || a->used + n > a->size)
    {
        const size_t size = n > 32768 ? n : 32768;
        auto *block = static_cast<char *>(S.Alloc(sizeof(Arena) + size + 16));
        a = reinterpret_cast<Arena *>(block);
        a->base = block + ((sizeof(Arena) + 15) & ~size_t(15));
        a->used = 0;
        a->size = size;
        S.arenas.push_back(a);
    }
    void *p = a->base + a->used;
    a->used += n;
    std::memset(p, 0, n);
    return p;
}

namespace
{

template <typename T> T *New(State &S)
{
    return new (ArenaAlloc(S, sizeof(T))) T();
}

template <typename T> T *Copy(State &S, const std::vector<T> &v)
{
    if (v.empty()) return nullptr;
    auto *p = static_cast<T *>(ArenaAlloc(S, sizeof(T) * v.size()));
    for (size_t i = 0; i < v.size(); ++i)
        p[i] = v[i];
    return p;
}

// ---- lexer ----------------------------------------------------------------------------------------

enum Tok
{
    // single characters are their own codes
    TK_AND = 257, TK_BREAK, TK_DO, TK_ELSE, TK_ELSEIF, TK_END, TK_FALSE, TK_FOR, TK_FUNCTION, TK_IF,
    TK_IN, TK_LOCAL, TK_NIL, TK_NOT, TK_OR, TK_REPEAT, TK_RETURN, TK_THEN, TK_TRUE, TK_UNTIL,
    TK_WHILE,
    TK_CONCAT, TK_DOTS, TK_EQ, TK_GE, TK_LE, TK_NE, TK_NUMBER, TK_NAME, TK_STRING, TK_EOS
};

const char *const kTokenNames[] = {"and", "break", "do", "else", "elseif", "end", "false", "for",
                                   "function", "if", "in", "local", "nil", "not", "or", "repeat",
                                   "return", "then", "true", "until", "while", "..", "...", "==",
                                   ">=", "<=", "~=", "<number>", "<name>", "<string>", "<eof>"};

struct Token
{
    int tok = TK_EOS;
    double num = 0;
    String *str = nullptr;
    size_t endOff = 0; // source offset just behind the token
};

constexpr int EOZ = -1;

class Lexer
{
public:
    Lexer(State &state, const SourcePieces &src, String *chunk, int firstLine)
        : S(state), line(firstLine), m_Src(src)
    {
        m_Id = ChunkId(chunk->data, chunk->len);
        Next();
    }

    State &S;
    Token t, ahead;
    bool hasAhead = false;
    int line;
    int lastLine = 1;

    void Advance()
    {
        lastLine = line;
        if (hasAhead)
        {
            t = ahead;
            hasAhead = false;
        }
        else
            t = Lex();
    }

    const Token &Lookahead()
    {
        if (!hasAhead)
        {
            ahead = Lex();
            hasAhead = true;
        }
        return ahead;
    }

    [[noreturn]] void Error(const char *msg, int tok)
    {
        std::string m = m_Id + ":" + std::to_string(line) + ": " + msg;
        if (tok) m += " near '" + TokenText(tok) + "'";
        Throw(S, Value::Str(S.Intern(m.data(), m.size())));
    }
    [[noreturn]] void SyntaxError(const char *msg) { Error(msg, t.tok); }

    std::string TokenText(int tok)
    {
        if (tok == TK_NAME || tok == TK_STRING || tok == TK_NUMBER) return m_Buf;
        return TokenName(tok);
    }
    static std::string TokenName(int tok)
    {
        if (tok < 257)
        {
            if (std::iscntrl(tok)) return "char(" + std::to_string(tok) + ")";
            return std::string(1, static_cast<char>(tok));
        }
        return kTokenNames[tok - 257];
    }

    // The bytes of [from, to) of the whole source, for a function's dump text.
    std::string Range(size_t from, size_t to) const
    {
        std::string out;
        size_t pos = 0;
        for (int i = 0; i < m_Src.count && pos < to; ++i)
        {
            const size_t len = m_Src.lengths[i];
            const size_t a = from > pos ? from - pos : 0;
            const size_t b = to - pos < len ? to - pos : len;
            if (a < b) out.append(m_Src.pieces[i] + a, b - a);
            pos += len;
        }
        return out;
    }

private:
    const SourcePieces &m_Src;
    std::string m_Id;
    int m_Piece = 0;
    size_t m_Pos = 0;
    size_t m_Off = 0; // offset of `cur` in the whole source
    int cur = EOZ;
    bool m_Started = false;
    std::string m_Buf;

    void Next()
    {
        if (m_Started) ++m_Off;
        m_Started = true;
        while (m_Piece < m_Src.count && m_Pos >= m_Src.lengths[m_Piece])
        {
            ++m_Piece;
            m_Pos = 0;
        }
        if (m_Piece >= m_Src.count)
        {
            cur = EOZ;
            return;
        }
        cur = static_cast<unsigned char>(m_Src.pieces[m_Piece][m_Pos++]);
    }
    void SaveNext()
    {
        m_Buf.push_back(static_cast<char>(cur));
        Next();
    }
    bool IsNewline() const { return cur == '\n' || cur == '\r'; }
    void IncLine()
    {
        const int old = cur;
        Next();
        if (IsNewline() && cur != old) Next(); // \n\r or \r\n
        if (++line >= 0x7FFFFFF0) Error("chunk has too many lines", 0);
    }

    Token Make(int tok)
    {
        Token r;
        r.tok = tok;
        r.endOff = m_Off;
        return r;
    }

    int SkipSep()
    {
        int count = 0;
        const int s = cur;
        SaveNext();
        while (cur == '=')
        {
            SaveNext();
            ++count;
        }
        return cur == s ? count : (-count) - 1;
    }

    void LongString(bool isString, int sep)
    {
        SaveNext(); // second bracket
        if (IsNewline()) IncLine();
        for (;;)
        {
            if (cur == EOZ) Error(isString ? "unfinished long string" : "unfinished long comment", TK_EOS);
            if (cur == ']')
            {
                if (SkipSep() == sep)
                {
                    SaveNext();
                    return;
                }
            }
            else if (IsNewline())
            {
                m_Buf.push_back('\n');
                IncLine();
                if (!isString) m_Buf.clear();
            }
            else if (isString)
                SaveNext();
            else
                Next();
        }
    }

    void ReadString(int delim)
    {
        SaveNext();
        while (cur != delim)
        {
            switch (cur)
            {
            case EOZ: Error("unfinished string", TK_EOS);
            case '\n':
            case '\r': Error("unfinished string", TK_STRING);
            case '\\':
            {
                Next();
                int c;
                switch (cur)
                {
                case 'a': c = '\a'; break;
                case 'b': c = '\b'; break;
                case 'f': c = '\f'; break;
                case 'n': c = '\n'; break;
                case 'r': c = '\r'; break;
                case 't': c = '\t'; break;
                case 'v': c = '\v'; break;
                case '\n':
                case '\r':
                    m_Buf.push_back('\n');
                    IncLine();
                    continue;
                case EOZ: continue; // the loop reports the unfinished string
                default:
                    if (!std::isdigit(cur))
                    {
                        SaveNext(); // \\, \", \' and any other character stand for themselves
                        continue;
                    }
                    c = 0;
                    for (int i = 0; i < 3 && std::isdigit(cur); ++i)
                    {
                        c = 10 * c + (cur - '0');
                        Next();
                    }
                    if (c > 255) Error("escape sequence too large", TK_STRING);
                    m_Buf.push_back(static_cast<char>(c));
                    continue;
                }
                m_Buf.push_back(static_cast<char>(c));
                Next();
                continue;
            }
            default: SaveNext();
            }
        }
        SaveNext();
    }

    Token Lex()
    {
        m_Buf.clear();
        for (;;)
        {
            switch (cur)
            {
            case '\n':
            case '\r': IncLine(); continue;
            case '-':
            {
                Next();
                if (cur != '-') return Make('-');
                Next();
                if (cur == '[')
                {
                    const int sep = SkipSep();
                    m_Buf.clear();
                    if (sep >= 0)
                    {
                        LongString(false, sep);
                        m_Buf.clear();
                        continue;
                    }
                }
                while (!IsNewline() && cur != EOZ)
                    Next();
                m_Buf.clear();
                continue;
            }
            case '[':
            {
                const int sep = SkipSep();
                if (sep >= 0)
                {
                    LongString(true, sep);
                    Token r = Make(TK_STRING);
                    const size_t skip = static_cast<size_t>(sep) + 2;
                    r.str = S.Intern(m_Buf.data() + skip, m_Buf.size() - 2 * skip);
                    return r;
                }
                if (sep == -1) return Make('[');
                Error("invalid long string delimiter", TK_STRING);
            }
            case '=': Next(); if (cur != '=') return Make('='); Next(); return Make(TK_EQ);
            case '<': Next(); if (cur != '=') return Make('<'); Next(); return Make(TK_LE);
            case '>': Next(); if (cur != '=') return Make('>'); Next(); return Make(TK_GE);
            case '~': Next(); if (cur != '=') return Make('~'); Next(); return Make(TK_NE);
            case '"':
            case '\'':
            {
                ReadString(cur);
                Token r = Make(TK_STRING);
                r.str = S.Intern(m_Buf.data() + 1, m_Buf.size() - 2);
                return r;
            }
            case '.':
                SaveNext();
                if (cur == '.')
                {
                    SaveNext();
                    if (cur == '.')
                    {
                        SaveNext();
                        return Make(TK_DOTS);
                    }
                    return Make(TK_CONCAT);
                }
                if (!std::isdigit(cur)) return Make('.');
                return Numeral();
            case EOZ: return Make(TK_EOS);
            default:
                if (cur == ' ' || cur == '\t' || cur == '\f' || cur == '\v')
                {
                    Next();
                    continue;
                }
                if (std::isdigit(cur)) return Numeral();
                if (std::isalpha(cur) || cur == '_')
                {
                    do
                        SaveNext();
                    while (std::isalnum(cur) || cur == '_');
                    for (int i = 0; i <= TK_WHILE - TK_AND; ++i)
                        if (m_Buf == kTokenNames[i]) return Make(TK_AND + i);
                    Token r = Make(TK_NAME);
                    r.str = S.Intern(m_Buf.data(), m_Buf.size());
                    return r;
                }
                {
                    const int c = cur;
                    Next();
                    return Make(c);
                }
            }
        }
    }

    Token Numeral()
    {
        while (std::isdigit(cur) || cur == '.')
            SaveNext();
        if (cur == 'e' || cur == 'E')
        {
            SaveNext();
            if (cur == '+' || cur == '-') SaveNext();
        }
        while (std::isalnum(cur) || cur == '_')
            SaveNext();
        Token r = Make(TK_NUMBER);
        if (!StrToNumber(m_Buf.data(), m_Buf.size(), r.num)) Error("malformed number", TK_NUMBER);
        return r;
    }
};

// ---- function states ------------------------------------------------------------------------------

struct BlockCnt
{
    BlockCnt *prev;
    size_t nactvar;
    bool loop;
};

struct FuncState
{
    FuncState *prev = nullptr;
    Proto *p = nullptr;
    std::vector<VarInfo *> actvars;
    std::vector<UpvalDesc> ups;
    BlockCnt *bl = nullptr;
};

class Parser
{
public:
    Parser(State &state, Lexer &lexer) : S(state), lx(lexer) {}

    Proto *MainChunk(String *chunk)
    {
        FuncState top;
        Open(top, chunk, 0);
        top.p->vararg = true;
        top.p->main = true;
        top.p->body = ParseBlock();
        Check(TK_EOS);
        Close(top);
        return top.p;
    }

    Proto *DumpedFunction(String *chunk, int line, bool method, const std::vector<String *> &upvalues)
    {
        FuncState outer;
        Open(outer, chunk, line);
        for (String *name : upvalues)
            DeclareLocal(name);
        Proto *p = Body(method, line, 0);
        Check(TK_EOS);
        return p;
    }

private:
    State &S;
    Lexer &lx;
    FuncState *fs = nullptr;

    struct Level
    {
        State &S; // NOLINT
        Lexer &lx;
        Level(State &s, Lexer &l) : S(s), lx(l)
        {
            if (++S.depth > S.maxDepth)
            {
                --S.depth;
                lx.Error("chunk has too many syntax levels", 0);
            }
            S.CheckCStack();
        }
        ~Level() { --S.depth; }
    };

    // ---- helpers ----
    void Check(int tok)
    {
        if (lx.t.tok != tok) ErrorExpected(tok);
    }
    [[noreturn]] void ErrorExpected(int tok)
    {
        const std::string m = "'" + Lexer::TokenName(tok) + "' expected";
        lx.SyntaxError(m.c_str());
    }
    void CheckNext(int tok)
    {
        Check(tok);
        lx.Advance();
    }
    bool TestNext(int tok)
    {
        if (lx.t.tok != tok) return false;
        lx.Advance();
        return true;
    }
    void CheckMatch(int what, int who, int where)
    {
        if (TestNext(what)) return;
        if (where == lx.line) ErrorExpected(what);
        // Appended piece by piece: g++ 12 at -O3 warns falsely (-Wrestrict) about the chained form.
        std::string m = "'";
        m += Lexer::TokenName(what);
        m += "' expected (to close '";
        m += Lexer::TokenName(who);
        m += "' at line ";
        m += std::to_string(where);
        m += ")";
        lx.SyntaxError(m.c_str());
    }
    String *CheckName()
    {
        Check(TK_NAME);
        String *s = lx.t.str;
        lx.Advance();
        return s;
    }
    static bool BlockFollow(int tok)
    {
        return tok == TK_ELSE || tok == TK_ELSEIF || tok == TK_END || tok == TK_UNTIL || tok == TK_EOS;
    }

    Expr *NewExpr(ExprKind k, int line)
    {
        Expr *e = New<Expr>(S);
        e->k = k;
        e->line = line;
        return e;
    }

    // ---- scopes ----
    void Open(FuncState &f, String *chunk, int line)
    {
        f.prev = fs;
        f.p = New<Proto>(S);
        f.p->source = chunk;
        f.p->line = line;
        fs = &f;
    }
    void Close(FuncState &f)
    {
        f.p->ups = Copy(S, f.ups);
        f.p->nups = static_cast<int>(f.ups.size());
        fs = f.prev;
    }
    VarInfo *DeclareLocal(String *name)
    {
        if (fs->actvars.size() >= 200) lx.SyntaxError("too many local variables (limit is 200)");
        VarInfo *v = New<VarInfo>(S);
        v->name = name;
        v->slot = static_cast<int>(fs->actvars.size());
        fs->actvars.push_back(v);
        if (v->slot + 1 > fs->p->nslots) fs->p->nslots = v->slot + 1;
        return v;
    }
    // Locals are declared (slots reserved) before they become visible: `local x = x`.
    VarInfo *NewPending(String *name, size_t index)
    {
        VarInfo *v = New<VarInfo>(S);
        v->name = name;
        v->slot = static_cast<int>(fs->actvars.size() + index);
        if (v->slot >= 200) lx.SyntaxError("too many local variables (limit is 200)");
        if (v->slot + 1 > fs->p->nslots) fs->p->nslots = v->slot + 1;
        return v;
    }
    void Activate(VarInfo *v) { fs->actvars.push_back(v); }

    void EnterBlock(BlockCnt &b, bool loop)
    {
        b.prev = fs->bl;
        b.nactvar = fs->actvars.size();
        b.loop = loop;
        fs->bl = &b;
    }
    void LeaveBlock(BlockCnt &b)
    {
        fs->actvars.resize(b.nactvar);
        fs->bl = b.prev;
    }

    static VarInfo *FindLocal(FuncState *f, String *name)
    {
        for (size_t i = f->actvars.size(); i-- > 0;)
            if (f->actvars[i]->name == name) return f->actvars[i];
        return nullptr;
    }
    int FindUpval(FuncState *f, String *name)
    {
        for (size_t i = 0; i < f->ups.size(); ++i)
            if (f->ups[i].name == name) return static_cast<int>(i);
        if (!f->prev) return -1;
        if (VarInfo *v = FindLocal(f->prev, name))
        {
            v->captured = true;
            f->ups.push_back(UpvalDesc{name, true, v, 0});
            return static_cast<int>(f->ups.size() - 1);
        }
        const int outer = FindUpval(f->prev, name);
        if (outer < 0) return -1;
        f->ups.push_back(UpvalDesc{name, false, nullptr, outer});
        return static_cast<int>(f->ups.size() - 1);
    }
    Expr *SingleVar(String *name, int line)
    {
        if (VarInfo *v = FindLocal(fs, name))
        {
            Expr *e = NewExpr(E_LOCAL, line);
            e->var = v;
            return e;
        }
        const int up = FindUpval(fs, name);
        if (up >= 0)
        {
            Expr *e = NewExpr(E_UPVAL, line);
            e->up = up;
            return e;
        }
        Expr *e = NewExpr(E_GLOBAL, line);
        e->str = name;
        return e;
    }

    // ---- expressions ----
    Expr *StringExpr(String *s, int line)
    {
        Expr *e = NewExpr(E_STR, line);
        e->str = s;
        return e;
    }

    Expr *Constructor()
    {
        const int line = lx.line;
        Expr *e = NewExpr(E_TABLE, line);
        CheckNext('{');
        std::vector<TableItem> items;
        bool first = true;
        while (lx.t.tok != '}')
        {
            TableItem it{nullptr, nullptr};
            if (lx.t.tok == TK_NAME && lx.Lookahead().tok == '=')
            {
                it.key = StringExpr(CheckName(), lx.line);
                CheckNext('=');
                it.val = Expression();
            }
            else if (lx.t.tok == '[')
            {
                lx.Advance();
                it.key = Expression();
                CheckNext(']');
                CheckNext('=');
                it.val = Expression();
            }
            else
            {
                it.val = Expression();
                e->hasList = true;
            }
            items.push_back(it);
            if (first)
            {
                e->oneLine = lx.line == line;
                first = false;
            }
            if (!TestNext(',') && !TestNext(';')) break;
        }
        CheckMatch('}', '{', line);
        e->items = Copy(S, items);
        e->n = static_cast<int>(items.size());
        return e;
    }

    void ParList(Proto *p)
    {
        std::vector<VarInfo *> params;
        if (lx.t.tok != ')')
        {
            do
            {
                if (lx.t.tok == TK_NAME)
                {
                    VarInfo *v = DeclareLocal(CheckName());
                    params.push_back(v);
                }
                else if (lx.t.tok == TK_DOTS)
                {
                    lx.Advance();
                    p->vararg = true;
                }
                else
                    lx.SyntaxError("<name> or '...' expected");
            } while (!p->vararg && TestNext(','));
        }
        p->params = Copy(S, params);
        p->nparams = static_cast<int>(params.size());
    }

    // The body of a function; the '(' of its parameters has been read, and `from` is its end offset.
    Proto *Body(bool method, int line, size_t from)
    {
        FuncState f;
        Open(f, fs->p->source, line);
        f.p->method = method;
        if (method)
        {
            VarInfo *self = DeclareLocal(S.Intern("self"));
            ParList(f.p);
            std::vector<VarInfo *> all{self};
            for (int i = 0; i < f.p->nparams; ++i)
                all.push_back(f.p->params[i]);
            f.p->params = Copy(S, all);
            f.p->nparams = static_cast<int>(all.size());
        }
        else
            ParList(f.p);
        CheckNext(')');
        f.p->body = ParseBlock();
        const size_t to = lx.t.endOff;
        CheckMatch(TK_END, TK_FUNCTION, line);
        const std::string text = lx.Range(from, to);
        f.p->text = S.Intern(text.data(), text.size());
        Close(f);
        return f.p;
    }

    Expr *FunctionBody(bool method, int line)
    {
        Check('(');
        const size_t from = lx.t.endOff;
        lx.Advance();
        Expr *e = NewExpr(E_FUNC, line);
        e->proto = Body(method, line, from);
        return e;
    }

    int ExpList(std::vector<Expr *> &out)
    {
        out.push_back(Expression());
        while (TestNext(','))
            out.push_back(Expression());
        return static_cast<int>(out.size());
    }

    Expr *FuncArgs(Expr *fn, int line)
    {
        std::vector<Expr *> args;
        switch (lx.t.tok)
        {
        case '(':
            if (line != lx.lastLine) lx.SyntaxError("ambiguous syntax (function call x new statement)");
            lx.Advance();
            if (lx.t.tok != ')') ExpList(args);
            CheckMatch(')', '(', line);
            break;
        case '{': args.push_back(Constructor()); break;
        case TK_STRING:
            args.push_back(StringExpr(lx.t.str, lx.line));
            lx.Advance();
            break;
        default: lx.SyntaxError("function arguments expected");
        }
        fn->args = Copy(S, args);
        fn->n = static_cast<int>(args.size());
        return fn;
    }

    Expr *PrefixExp()
    {
        switch (lx.t.tok)
        {
        case '(':
        {
            const int line = lx.line;
            lx.Advance();
            Expr *inner = Expression();
            CheckMatch(')', '(', line);
            Expr *e = NewExpr(E_PAREN, line);
            e->a = inner;
            return e;
        }
        case TK_NAME:
        {
            const int line = lx.line;
            return SingleVar(CheckName(), line);
        }
        default: lx.SyntaxError("unexpected symbol");
        }
    }

    Expr *PrimaryExp()
    {
        Expr *e = PrefixExp();
        for (;;)
        {
            const int line = lx.line;
            switch (lx.t.tok)
            {
            case '.':
            {
                lx.Advance();
                Expr *x = NewExpr(E_INDEX, line);
                x->a = e;
                x->b = StringExpr(CheckName(), line);
                e = x;
                break;
            }
            case '[':
            {
                lx.Advance();
                Expr *x = NewExpr(E_INDEX, line);
                x->a = e;
                x->b = Expression();
                CheckNext(']');
                e = x;
                break;
            }
            case ':':
            {
                lx.Advance();
                Expr *x = NewExpr(E_METHCALL, line);
                x->a = e;
                x->str = CheckName();
                e = FuncArgs(x, line);
                break;
            }
            case '(':
            case TK_STRING:
            case '{':
            {
                Expr *x = NewExpr(E_CALL, line);
                x->a = e;
                e = FuncArgs(x, line);
                break;
            }
            default: return e;
            }
        }
    }

    Expr *SimpleExp()
    {
        const int line = lx.line;
        Expr *e;
        switch (lx.t.tok)
        {
        case TK_NUMBER:
            e = NewExpr(E_NUM, line);
            e->num = lx.t.num;
            break;
        case TK_STRING: e = StringExpr(lx.t.str, line); break;
        case TK_NIL: e = NewExpr(E_NIL, line); break;
        case TK_TRUE: e = NewExpr(E_TRUE, line); break;
        case TK_FALSE: e = NewExpr(E_FALSE, line); break;
        case TK_DOTS:
            if (!fs->p->vararg) lx.SyntaxError("cannot use '...' outside a vararg function");
            e = NewExpr(E_VARARG, line);
            break;
        case '{': return Constructor();
        case TK_FUNCTION:
            lx.Advance();
            return FunctionBody(false, line);
        default: return PrimaryExp();
        }
        lx.Advance();
        return e;
    }

    static int BinaryOp(int tok, int &left, int &right)
    {
        switch (tok)
        {
        case '+': left = right = 6; return OP_ADD;
        case '-': left = right = 6; return OP_SUB;
        case '*': left = right = 7; return OP_MUL;
        case '/': left = right = 7; return OP_DIV;
        case '%': left = right = 7; return OP_MOD;
        case '^': left = 10; right = 9; return OP_POW;
        case TK_CONCAT: left = 5; right = 4; return OP_CONCAT;
        case TK_EQ: left = right = 3; return OP_EQ;
        case TK_NE: left = right = 3; return OP_NE;
        case '<': left = right = 3; return OP_LT;
        case TK_LE: left = right = 3; return OP_LE;
        case '>': left = right = 3; return OP_GT;
        case TK_GE: left = right = 3; return OP_GE;
        case TK_AND: left = right = 2; return 100;
        case TK_OR: left = right = 1; return 101;
        default: return -1;
        }
    }

    Expr *SubExpr(int limit)
    {
        Level lv(S, lx);
        Expr *e;
        const int tok = lx.t.tok;
        if (tok == TK_NOT || tok == '-' || tok == '#')
        {
            const int line = lx.line;
            lx.Advance();
            Expr *operand = SubExpr(8);
            if (tok == '-' && operand->k == E_NUM)
            {
                operand->num = -operand->num;
                e = operand;
            }
            else
            {
                e = NewExpr(tok == TK_NOT ? E_NOT : tok == '-' ? E_NEG : E_LEN, line);
                e->a = operand;
            }
        }
        else
            e = SimpleExp();
        int left, right;
        int op = BinaryOp(lx.t.tok, left, right);
        while (op >= 0 && left > limit)
        {
            const int line = lx.line;
            lx.Advance();
            Expr *rhs = SubExpr(right);
            Expr *x = NewExpr(op == 100 ? E_AND : op == 101 ? E_OR : E_BIN, line);
            x->op = static_cast<uint8_t>(op < 100 ? op : 0);
            x->a = e;
            x->b = rhs;
            e = x;
            op = BinaryOp(lx.t.tok, left, right);
        }
        return e;
    }

    Expr *Expression() { return SubExpr(0); }

    // ---- statements ----
    Block ParseBlock()
    {
        BlockCnt b;
        EnterBlock(b, false);
        Block blk = Chunk();
        LeaveBlock(b);
        return blk;
    }

    Block Chunk()
    {
        std::vector<Stmt *> list;
        bool last = false;
        while (!last && !BlockFollow(lx.t.tok))
        {
            Stmt *s = Statement(last);
            if (s) list.push_back(s);
            TestNext(';');
        }
        Block b;
        b.s = Copy(S, list);
        b.n = static_cast<int>(list.size());
        return b;
    }

    Stmt *NewStmt(StmtKind k, int line)
    {
        Stmt *s = New<Stmt>(S);
        s->k = k;
        s->line = line;
        return s;
    }

    Block LoopBlock()
    {
        BlockCnt b;
        EnterBlock(b, true);
        Block blk = ParseBlock();
        LeaveBlock(b);
        return blk;
    }

    Block *Blocks(const std::vector<Block> &v)
    {
        return Copy(S, v);
    }

    Stmt *Statement(bool &last)
    {
        Level lv(S, lx);
        const int line = lx.line;
        switch (lx.t.tok)
        {
        case TK_IF:
        {
            Stmt *s = NewStmt(S_IF, line);
            std::vector<Expr *> conds;
            std::vector<Block> blocks;
            do
            {
                lx.Advance();
                conds.push_back(Expression());
                CheckNext(TK_THEN);
                blocks.push_back(ParseBlock());
            } while (lx.t.tok == TK_ELSEIF);
            if (TestNext(TK_ELSE))
            {
                blocks.push_back(ParseBlock());
                s->hasElse = true;
            }
            CheckMatch(TK_END, TK_IF, line);
            s->exprs = Copy(S, conds);
            s->nexprs = static_cast<int>(conds.size());
            s->blocks = Blocks(blocks);
            s->nblocks = static_cast<int>(blocks.size());
            return s;
        }
        case TK_WHILE:
        {
            lx.Advance();
            Stmt *s = NewStmt(S_WHILE, line);
            std::vector<Expr *> c{Expression()};
            CheckNext(TK_DO);
            std::vector<Block> b{LoopBlock()};
            CheckMatch(TK_END, TK_WHILE, line);
            s->exprs = Copy(S, c);
            s->nexprs = 1;
            s->blocks = Blocks(b);
            s->nblocks = 1;
            return s;
        }
        case TK_DO:
        {
            lx.Advance();
            Stmt *s = NewStmt(S_DO, line);
            std::vector<Block> b{ParseBlock()};
            CheckMatch(TK_END, TK_DO, line);
            s->blocks = Blocks(b);
            s->nblocks = 1;
            return s;
        }
        case TK_FOR: return ForStat(line);
        case TK_REPEAT:
        {
            lx.Advance();
            Stmt *s = NewStmt(S_REPEAT, line);
            // the condition sees the body's locals
            BlockCnt loop, scope;
            EnterBlock(loop, true);
            EnterBlock(scope, false);
            Block body = Chunk();
            CheckMatch(TK_UNTIL, TK_REPEAT, line);
            std::vector<Expr *> c{Expression()};
            LeaveBlock(scope);
            LeaveBlock(loop);
            std::vector<Block> b{body};
            s->exprs = Copy(S, c);
            s->nexprs = 1;
            s->blocks = Blocks(b);
            s->nblocks = 1;
            return s;
        }
        case TK_FUNCTION:
        {
            lx.Advance();
            // funcname: Name {'.' Name} [':' Name]
            const int nline = lx.line;
            Expr *target = SingleVar(CheckName(), nline);
            bool method = false;
            while (lx.t.tok == '.' || lx.t.tok == ':')
            {
                method = lx.t.tok == ':';
                lx.Advance();
                Expr *x = NewExpr(E_INDEX, lx.line);
                x->a = target;
                x->b = StringExpr(CheckName(), lx.line);
                target = x;
                if (method) break;
            }
            Expr *fn = FunctionBody(method, line);
            Stmt *s = NewStmt(S_ASSIGN, line);
            std::vector<Expr *> t{target}, v{fn};
            s->targets = Copy(S, t);
            s->ntargets = 1;
            s->exprs = Copy(S, v);
            s->nexprs = 1;
            return s;
        }
        case TK_LOCAL:
            lx.Advance();
            if (TestNext(TK_FUNCTION))
            {
                Stmt *s = NewStmt(S_LOCALFUNC, line);
                VarInfo *v = DeclareLocal(CheckName());
                std::vector<VarInfo *> vars{v};
                std::vector<Expr *> fn{FunctionBody(false, line)};
                s->vars = Copy(S, vars);
                s->nvars = 1;
                s->exprs = Copy(S, fn);
                s->nexprs = 1;
                return s;
            }
            return LocalStat(line);
        case TK_RETURN:
        {
            lx.Advance();
            last = true;
            Stmt *s = NewStmt(S_RETURN, line);
            std::vector<Expr *> v;
            if (!BlockFollow(lx.t.tok) && lx.t.tok != ';') ExpList(v);
            s->exprs = Copy(S, v);
            s->nexprs = static_cast<int>(v.size());
            return s;
        }
        case TK_BREAK:
        {
            lx.Advance();
            last = true;
            bool inLoop = false;
            for (BlockCnt *b = fs->bl; b; b = b->prev)
                if (b->loop) inLoop = true;
            if (!inLoop) lx.Error("no loop to break", lx.t.tok);
            return NewStmt(S_BREAK, line);
        }
        default: return ExprStat(line);
        }
    }

    Stmt *LocalStat(int line)
    {
        Stmt *s = NewStmt(S_LOCAL, line);
        std::vector<VarInfo *> vars;
        do
            vars.push_back(NewPending(CheckName(), vars.size()));
        while (TestNext(','));
        std::vector<Expr *> v;
        if (TestNext('=')) ExpList(v);
        for (VarInfo *var : vars)
            Activate(var);
        s->vars = Copy(S, vars);
        s->nvars = static_cast<int>(vars.size());
        s->exprs = Copy(S, v);
        s->nexprs = static_cast<int>(v.size());
        return s;
    }

    Stmt *ForStat(int line)
    {
        lx.Advance();
        BlockCnt outer;
        EnterBlock(outer, true);
        String *first = CheckName();
        Stmt *s;
        std::vector<Expr *> heads;
        std::vector<VarInfo *> vars;
        if (lx.t.tok == '=')
        {
            lx.Advance();
            s = NewStmt(S_NUMFOR, line);
            heads.push_back(Expression());
            CheckNext(',');
            heads.push_back(Expression());
            if (TestNext(',')) heads.push_back(Expression());
            // three hidden control slots, then the visible variable
            for (int i = 0; i < 3; ++i)
                Activate(NewPending(S.Intern("(for control)"), 0));
            vars.push_back(NewPending(first, 0));
        }
        else if (lx.t.tok == ',' || lx.t.tok == TK_IN)
        {
            s = NewStmt(S_GENFOR, line);
            std::vector<String *> names{first};
            while (TestNext(','))
                names.push_back(CheckName());
            CheckNext(TK_IN);
            ExpList(heads);
            for (int i = 0; i < 3; ++i)
                Activate(NewPending(S.Intern("(for control)"), 0));
            for (size_t i = 0; i < names.size(); ++i)
                vars.push_back(NewPending(names[i], i));
        }
        else
            lx.SyntaxError("'=' or 'in' expected");
        CheckNext(TK_DO);
        BlockCnt inner;
        EnterBlock(inner, false);
        for (VarInfo *v : vars)
            Activate(v);
        std::vector<Block> b{ParseBlock()};
        LeaveBlock(inner);
        LeaveBlock(outer);
        CheckMatch(TK_END, TK_FOR, line);
        s->exprs = Copy(S, heads);
        s->nexprs = static_cast<int>(heads.size());
        s->vars = Copy(S, vars);
        s->nvars = static_cast<int>(vars.size());
        s->blocks = Blocks(b);
        s->nblocks = 1;
        return s;
    }

    Stmt *ExprStat(int line)
    {
        Expr *e = PrimaryExp();
        if (e->k != E_CALL && e->k != E_METHCALL)
        {
            std::vector<Expr *> targets{e};
            while (TestNext(','))
                targets.push_back(PrimaryExp());
            for (Expr *t : targets)
                if (t->k != E_LOCAL && t->k != E_UPVAL && t->k != E_GLOBAL && t->k != E_INDEX)
                    lx.SyntaxError("syntax error");
            CheckNext('=');
            std::vector<Expr *> v;
            ExpList(v);
            Stmt *s = NewStmt(S_ASSIGN, line);
            s->targets = Copy(S, targets);
            s->ntargets = static_cast<int>(targets.size());
            s->exprs = Copy(S, v);
            s->nexprs = static_cast<int>(v.size());
            return s;
        }
        Stmt *s = NewStmt(S_CALL, line);
        std::vector<Expr *> v{e};
        s->exprs = Copy(S, v);
        s->nexprs = 1;
        return s;
    }
};

} // namespace

Proto *ParseChunk(State &S, const SourcePieces &src, String *chunkName)
{
    Lexer lx(S, src, chunkName, 1);
    lx.Advance();
    Parser p(S, lx);
    return p.MainChunk(chunkName);
}

Proto *ParseFunction(State &S, const char *text, size_t len, String *chunkName, int line, bool method,
                     const std::vector<String *> &upvalues)
{
    const char *pieces[] = {text};
    const size_t lengths[] = {len};
    const SourcePieces src{pieces, lengths, 1};
    Lexer lx(S, src, chunkName, line);
    lx.Advance();
    Parser p(S, lx);
    return p.DumpedFunction(chunkName, line, method, upvalues);
}

} // namespace orvexScript::datalua
