// String methods, reached through the strings' metatable (there is no global string table):
// len, sub, upper, lower, rep, reverse, byte, char, format, and the pattern functions find, match,
// gmatch and gsub.
#include <cctype>
#include <cstdio>
#include <iterator>
#include <string>

#include "datalua/Interp.h"

namespace orvexScript::datalua
{

namespace
{

int Return(State &S, const Value &v)
{
    S.Push(v);
    return 1;
}

Value Str(State &S, const std::string &s)
{
    return Value::Str(S.Intern(s.data(), s.size()));
}

// Lua's relative string positions: negatives count from the end.
long RelPos(double pos, size_t len)
{
    long p = static_cast<long>(ToInt32(pos));
    if (p < 0) p += static_cast<long>(len) + 1;
    return p >= 0 ? p : 0;
}

int S_len(State &S, int base, int nargs)
{
    return Return(S, Value::Num(CheckString(S, base, nargs, 0)->len));
}

int S_sub(State &S, int base, int nargs)
{
    const String *s = CheckString(S, base, nargs, 0);
    long i = RelPos(CheckNumber(S, base, nargs, 1), s->len);
    long j = RelPos(OptNumber(S, base, nargs, 2, -1), s->len);
    if (i < 1) i = 1;
    if (j > static_cast<long>(s->len)) j = static_cast<long>(s->len);
    if (i > j) return Return(S, Value::Str(S.Intern("")));
    return Return(S, Value::Str(S.Intern(s->data + i - 1, static_cast<size_t>(j - i + 1))));
}

int S_case(State &S, int base, int nargs, bool upper)
{
    const String *s = CheckString(S, base, nargs, 0);
    std::string out(s->data, s->len);
    for (char &c : out)
        c = static_cast<char>(upper ? std::toupper(static_cast<unsigned char>(c)) : std::tolower(static_cast<unsigned char>(c)));
    return Return(S, Str(S, out));
}
int S_upper(State &S, int base, int nargs) { return S_case(S, base, nargs, true); }
int S_lower(State &S, int base, int nargs) { return S_case(S, base, nargs, false); }

int S_rep(State &S, int base, int nargs)
{
    const String *s = CheckString(S, base, nargs, 0);
    const double n = CheckNumber(S, base, nargs, 1);
    if (!(n > 0) || s->len == 0) return Return(S, Value::Str(S.Intern("")));
    const double total = n * s->len;
    if (total > 0x7FFFFFF0) RunError(S, "resulting string too large");
    S.Charge(static_cast<size_t>(total));
    std::string out;
    out.reserve(static_cast<size_t>(total));
    for (long i = 0; i < static_cast<long>(n); ++i)
        out.append(s->data, s->len);
    S.Release(static_cast<size_t>(total));
    return Return(S, Str(S, out));
}

int S_reverse(State &S, int base, int nargs)
{
    const String *s = CheckString(S, base, nargs, 0);
    const std::string out(std::make_reverse_iterator(s->data + s->len), std::make_reverse_iterator(s->data));
    return Return(S, Str(S, out));
}

int S_byte(State &S, int base, int nargs)
{
    const String *s = CheckString(S, base, nargs, 0);
    long i = RelPos(OptNumber(S, base, nargs, 1, 1), s->len);
    long j = RelPos(OptNumber(S, base, nargs, 2, static_cast<double>(i)), s->len);
    if (i < 1) i = 1;
    if (j > static_cast<long>(s->len)) j = static_cast<long>(s->len);
    if (i > j) return 0;
    S.CheckStack(static_cast<size_t>(j - i + 1));
    for (long k = i; k <= j; ++k)
        S.Push(Value::Num(static_cast<unsigned char>(s->data[k - 1])));
    return static_cast<int>(j - i + 1);
}

int S_char(State &S, int base, int nargs)
{
    std::string out;
    for (int i = 0; i < nargs; ++i)
    {
        const double c = CheckNumber(S, base, nargs, i);
        if (!(c >= 0 && c <= 255) || c != static_cast<int>(c)) ArgError(S, i, "invalid value");
        out.push_back(static_cast<char>(static_cast<int>(c)));
    }
    return Return(S, Str(S, out));
}

// ---- format ---------------------------------------------------------------------------------------

void AddQuoted(std::string &out, const String *s)
{
    out.push_back('"');
    for (uint32_t i = 0; i < s->len; ++i)
    {
        const char c = s->data[i];
        switch (c)
        {
        case '"':
        case '\\':
        case '\n':
            out.push_back('\\');
            out.push_back(c);
            break;
        case '\r': out += "\\r"; break;
        case '\0': out += "\\000"; break;
        default: out.push_back(c);
        }
    }
    out.push_back('"');
}

int S_format(State &S, int base, int nargs)
{
    const String *fmt = CheckString(S, base, nargs, 0);
    std::string out;
    int arg = 0;
    const char *p = fmt->data, *end = fmt->data + fmt->len;
    while (p < end)
    {
        if (*p != '%')
        {
            out.push_back(*p++);
            continue;
        }
        if (++p < end && *p == '%')
        {
            out.push_back(*p++);
            continue;
        }
        // the conversion: flags, width, precision
        std::string conversion = "%";
        const char *start = p;
        while (p < end && std::strchr("-+ #0", *p))
            ++p;
        if (p - start > 5) RunError(S, "invalid format (repeated flags)");
        for (int k = 0; k < 2 && p < end && std::isdigit(static_cast<unsigned char>(*p)); ++k)
            ++p;
        if (p < end && *p == '.')
        {
            ++p;
            for (int k = 0; k < 2 && p < end && std::isdigit(static_cast<unsigned char>(*p)); ++k)
                ++p;
        }
        if (p < end && std::isdigit(static_cast<unsigned char>(*p))) RunError(S, "invalid format (width or precision too long)");
        conversion.append(start, static_cast<size_t>(p - start));
        if (p >= end) RunError(S, "invalid option '%%' to 'format'");
        const char conv = *p++;
        char buffer[512];
        ++arg;
        switch (conv)
        {
        case 'c':
            out.push_back(static_cast<char>(ToInt(CheckNumber(S, base, nargs, arg))));
            break;
        case 'd':
        case 'i':
        {
            conversion += "lld";
            std::snprintf(buffer, sizeof buffer, conversion.c_str(), static_cast<long long>(ToInt(CheckNumber(S, base, nargs, arg))));
            out += buffer;
            break;
        }
        case 'o':
        case 'u':
        case 'x':
        case 'X':
        {
            conversion += "ll";
            conversion.push_back(conv);
            const double d = CheckNumber(S, base, nargs, arg);
            const auto v = static_cast<unsigned long long>(ToInt(d));
            std::snprintf(buffer, sizeof buffer, conversion.c_str(), v);
            out += buffer;
            break;
        }
        case 'e':
        case 'E':
        case 'f':
        case 'g':
        case 'G':
            conversion.push_back(conv);
            std::snprintf(buffer, sizeof buffer, conversion.c_str(), CheckNumber(S, base, nargs, arg));
            out += buffer;
            break;
        case 'q': AddQuoted(out, CheckString(S, base, nargs, arg)); break;
        case 's':
        {
            const String *s = CheckString(S, base, nargs, arg);
            if (conversion == "%")
                out.append(s->data, s->len);
            else
            {
                conversion.push_back('s');
                std::snprintf(buffer, sizeof buffer, conversion.c_str(), s->data);
                out += buffer;
            }
            break;
        }
        default: RunError(S, "invalid option '%%%c' to 'format'", conv);
        }
    }
    return Return(S, Str(S, out));
}

// ---- patterns -------------------------------------------------------------------------------------

constexpr int kMaxCaptures = 32;
constexpr int kCapUnfinished = -1;
constexpr int kCapPosition = -2;

struct Match
{
    State *S;
    const char *src, *srcEnd;
    const char *pat, *patEnd;
    int level;
    int depth;
    struct
    {
        const char *init;
        long len;
    } capture[kMaxCaptures];
};

const char *DoMatch(Match &m, const char *s, const char *p);

const char *ClassEnd(Match &m, const char *p)
{
    if (*p++ == '%')
    {
        if (p >= m.patEnd) RunError(*m.S, "malformed pattern (ends with '%%')");
        return p + 1;
    }
    if (p[-1] == '[')
    {
        if (p < m.patEnd && *p == '^') ++p;
        do
        {
            if (p >= m.patEnd) RunError(*m.S, "malformed pattern (missing ']')");
            if (*p++ == '%' && p < m.patEnd) ++p;
        } while (p >= m.patEnd || *p != ']');
        return p + 1;
    }
    return p;
}

bool SingleClass(int c, int cl)
{
    bool res;
    switch (std::tolower(cl))
    {
    case 'a': res = std::isalpha(c); break;
    case 'c': res = std::iscntrl(c); break;
    case 'd': res = std::isdigit(c); break;
    case 'l': res = std::islower(c); break;
    case 'p': res = std::ispunct(c); break;
    case 's': res = std::isspace(c); break;
    case 'u': res = std::isupper(c); break;
    case 'w': res = std::isalnum(c); break;
    case 'x': res = std::isxdigit(c); break;
    case 'z': res = c == 0; break;
    default: return cl == c;
    }
    return std::isupper(cl) ? !res : res;
}

bool MatchSet(int c, const char *p, const char *ec)
{
    bool sig = true;
    if (*(p + 1) == '^')
    {
        sig = false;
        ++p;
    }
    while (++p < ec)
    {
        if (*p == '%')
        {
            ++p;
            if (SingleClass(c, static_cast<unsigned char>(*p))) return sig;
        }
        else if (*(p + 1) == '-' && p + 2 < ec)
        {
            p += 2;
            if (static_cast<unsigned char>(*(p - 2)) <= c && c <= static_cast<unsigned char>(*p)) return sig;
        }
        else if (static_cast<unsigned char>(*p) == c)
            return sig;
    }
    return !sig;
}

bool SingleMatch(Match &m, const char *s, const char *p, const char *ep)
{
    if (s >= m.srcEnd) return false;
    const int c = static_cast<unsigned char>(*s);
    switch (*p)
    {
    case '.': return true;
    case '%': return SingleClass(c, static_cast<unsigned char>(*(p + 1)));
    case '[': return MatchSet(c, p, ep - 1);
    default: return static_cast<unsigned char>(*p) == c;
    }
}

const char *MatchBalance(Match &m, const char *s, const char *p)
{
    if (p + 1 >= m.patEnd) RunError(*m.S, "missing arguments to '%%b'");
    if (s >= m.srcEnd || *s != *p) return nullptr;
    const int b = *p, e = *(p + 1);
    int cont = 1;
    while (++s < m.srcEnd)
    {
        if (*s == e)
        {
            if (--cont == 0) return s + 1;
        }
        else if (*s == b)
            ++cont;
    }
    return nullptr;
}

const char *MaxExpand(Match &m, const char *s, const char *p, const char *ep)
{
    long i = 0;
    while (SingleMatch(m, s + i, p, ep))
        ++i;
    while (i >= 0)
    {
        if (const char *r = DoMatch(m, s + i, ep + 1)) return r;
        --i;
    }
    return nullptr;
}

const char *MinExpand(Match &m, const char *s, const char *p, const char *ep)
{
    for (;;)
    {
        if (const char *r = DoMatch(m, s, ep + 1)) return r;
        if (SingleMatch(m, s, p, ep))
            ++s;
        else
            return nullptr;
    }
}

const char *StartCapture(Match &m, const char *s, const char *p, int what)
{
    if (m.level >= kMaxCaptures) RunError(*m.S, "too many captures");
    m.capture[m.level].init = s;
    m.capture[m.level].len = what;
    ++m.level;
    const char *r = DoMatch(m, s, p);
    if (!r) --m.level;
    return r;
}

const char *EndCapture(Match &m, const char *s, const char *p)
{
    int l = -1;
    for (int i = m.level - 1; i >= 0; --i)
        if (m.capture[i].len == kCapUnfinished)
        {
            l = i;
            break;
        }
    if (l < 0) RunError(*m.S, "invalid pattern capture");
    m.capture[l].len = s - m.capture[l].init;
    const char *r = DoMatch(m, s, p);
    if (!r) m.capture[l].len = kCapUnfinished;
    return r;
}

const char *MatchCapture(Match &m, const char *s, int l)
{
    l -= '1';
    if (l < 0 || l >= m.level || m.capture[l].len == kCapUnfinished) RunError(*m.S, "invalid capture index");
    const size_t len = static_cast<size_t>(m.capture[l].len);
    if (static_cast<size_t>(m.srcEnd - s) >= len && std::memcmp(m.capture[l].init, s, len) == 0) return s + len;
    return nullptr;
}

struct MatchDepth
{
    Match &m;
    explicit MatchDepth(Match &mm) : m(mm)
    {
        if (++m.depth > 200) RunError(*m.S, "pattern too complex");
        m.S->CheckCStack();
    }
    ~MatchDepth() { --m.depth; }
};

const char *DoMatch(Match &m, const char *s, const char *p)
{
    MatchDepth guard(m);
    for (;;)
    {
        if (p >= m.patEnd) return s;
        switch (*p)
        {
        case '(':
            if (p + 1 < m.patEnd && *(p + 1) == ')') return StartCapture(m, s, p + 2, kCapPosition);
            return StartCapture(m, s, p + 1, kCapUnfinished);
        case ')': return EndCapture(m, s, p + 1);
        case '%':
            if (p + 1 < m.patEnd)
            {
                if (*(p + 1) == 'b')
                {
                    s = MatchBalance(m, s, p + 2);
                    if (!s) return nullptr;
                    p += 4;
                    continue;
                }
                if (*(p + 1) == 'f')
                {
                    p += 2;
                    if (p >= m.patEnd || *p != '[') RunError(*m.S, "missing '[' after '%%f' in pattern");
                    const char *ep = ClassEnd(m, p);
                    const int prev = s == m.src ? 0 : static_cast<unsigned char>(*(s - 1));
                    const int cur = s < m.srcEnd ? static_cast<unsigned char>(*s) : 0;
                    if (!MatchSet(prev, p, ep - 1) && MatchSet(cur, p, ep - 1))
                    {
                        p = ep;
                        continue;
                    }
                    return nullptr;
                }
                if (std::isdigit(static_cast<unsigned char>(*(p + 1))))
                {
                    s = MatchCapture(m, s, static_cast<unsigned char>(*(p + 1)));
                    if (!s) return nullptr;
                    p += 2;
                    continue;
                }
            }
            break;
        case '$':
            if (p + 1 == m.patEnd) return s == m.srcEnd ? s : nullptr;
            break;
        default: break;
        }
        const char *ep = ClassEnd(m, p);
        const bool matched = SingleMatch(m, s, p, ep);
        const char op = ep < m.patEnd ? *ep : 0;
        switch (op)
        {
        case '?':
            if (matched)
                if (const char *r = DoMatch(m, s + 1, ep + 1)) return r;
            p = ep + 1;
            continue;
        case '*': return MaxExpand(m, s, p, ep);
        case '+': return matched ? MaxExpand(m, s + 1, p, ep) : nullptr;
        case '-': return MinExpand(m, s, p, ep);
        default:
            if (!matched) return nullptr;
            ++s;
            p = ep;
            continue;
        }
    }
}

Value GetCapture(Match &m, int i, const char *s, const char *e)
{
    if (i >= m.level)
    {
        if (i == 0) return Value::Str(m.S->Intern(s, static_cast<size_t>(e - s)));
        RunError(*m.S, "invalid capture index");
    }
    const long l = m.capture[i].len;
    if (l == kCapUnfinished) RunError(*m.S, "unfinished capture");
    if (l == kCapPosition) return Value::Num(static_cast<double>(m.capture[i].init - m.src + 1));
    return Value::Str(m.S->Intern(m.capture[i].init, static_cast<size_t>(l)));
}

int PushCaptures(Match &m, const char *s, const char *e, bool wholeIfNone)
{
    const int n = m.level == 0 && wholeIfNone ? 1 : m.level;
    m.S->CheckStack(static_cast<size_t>(n));
    for (int i = 0; i < n; ++i)
        m.S->Push(GetCapture(m, i, s, e));
    return n;
}

void InitMatch(Match &m, State &S, const String *s, const String *p)
{
    m.S = &S;
    m.src = s->data;
    m.srcEnd = s->data + s->len;
    m.pat = p->data;
    m.patEnd = p->data + p->len;
    m.level = 0;
    m.depth = 0;
}

int FindAux(State &S, int base, int nargs, bool find)
{
    const String *s = CheckString(S, base, nargs, 0);
    const String *p = CheckString(S, base, nargs, 1);
    long init = RelPos(OptNumber(S, base, nargs, 2, 1), s->len) - 1;
    if (init < 0) init = 0;
    if (init > static_cast<long>(s->len)) init = static_cast<long>(s->len);
    if (find && (Arg(S, base, nargs, 3).Truthy() || !std::strpbrk(p->data, "^$*+?.([%-")))
    {
        // plain search
        const char *hay = s->data + init;
        const size_t hlen = s->len - static_cast<size_t>(init);
        const char *found = nullptr;
        if (p->len == 0)
            found = hay;
        else
            for (size_t i = 0; i + p->len <= hlen; ++i)
                if (std::memcmp(hay + i, p->data, p->len) == 0)
                {
                    found = hay + i;
                    break;
                }
        if (!found) return Return(S, Value());
        S.Push(Value::Num(static_cast<double>(found - s->data + 1)));
        S.Push(Value::Num(static_cast<double>(found - s->data) + p->len));
        return 2;
    }
    Match m;
    InitMatch(m, S, s, p);
    const bool anchor = p->len > 0 && p->data[0] == '^';
    if (anchor) ++m.pat;
    const char *s1 = s->data + init;
    do
    {
        m.level = 0;
        if (const char *e = DoMatch(m, s1, m.pat))
        {
            if (find)
            {
                S.Push(Value::Num(static_cast<double>(s1 - s->data + 1)));
                S.Push(Value::Num(static_cast<double>(e - s->data)));
                return PushCaptures(m, nullptr, nullptr, false) + 2;
            }
            return PushCaptures(m, s1, e, true);
        }
    } while (s1++ < m.srcEnd && !anchor);
    return Return(S, Value());
}

int S_find(State &S, int base, int nargs) { return FindAux(S, base, nargs, true); }
int S_match(State &S, int base, int nargs) { return FindAux(S, base, nargs, false); }

// gmatch's iterator keeps the subject, pattern and position in a table of its own.
int S_gmatchaux(State &S, int base, int nargs)
{
    (void)nargs;
    Table *state = S.stack[base].h;
    const String *s = TGetInt(state, 1).s;
    const String *p = TGetInt(state, 2).s;
    const double pos = TGetInt(state, 3).n;
    Match m;
    InitMatch(m, S, s, p);
    for (const char *src = s->data + static_cast<long>(pos); src <= m.srcEnd; ++src)
    {
        m.level = 0;
        if (const char *e = DoMatch(m, src, m.pat))
        {
            double next = static_cast<double>(e - s->data);
            if (e == src) ++next; // an empty match moves on by one
            TSet(S, state, Value::Num(3), Value::Num(next));
            return PushCaptures(m, src, e, true);
        }
    }
    TSet(S, state, Value::Num(3), Value::Num(static_cast<double>(s->len) + 1));
    return 0;
}

int S_gmatch(State &S, int base, int nargs)
{
    String *s = CheckString(S, base, nargs, 0);
    String *p = CheckString(S, base, nargs, 1);
    Table *state = S.NewTable();
    TSet(S, state, Value::Num(1), Value::Str(s));
    TSet(S, state, Value::Num(2), Value::Str(p));
    TSet(S, state, Value::Num(3), Value::Num(0));
    S.Push(TGetStr(S.registry, S.Intern("gmatchaux")));
    S.Push(Value::Tab(state));
    return 2;
}

void AddValue(State &S, Match &m, std::string &out, const char *s, const char *e, const Value &repl)
{
    Value v;
    if (repl.t == T_STR || repl.t == T_NUM)
    {
        const String *r = repl.t == T_STR ? repl.s : NumberToString(S, repl.n);
        for (uint32_t i = 0; i < r->len; ++i)
        {
            const char c = r->data[i];
            if (c != '%' || i + 1 >= r->len)
            {
                out.push_back(c);
                continue;
            }
            const char d = r->data[++i];
            if (!std::isdigit(static_cast<unsigned char>(d)))
                out.push_back(d);
            else if (d == '0')
                out.append(s, static_cast<size_t>(e - s));
            else
            {
                const Value cap = GetCapture(m, d - '1', s, e);
                const String *cs = cap.t == T_STR ? cap.s : NumberToString(S, cap.n);
                out.append(cs->data, cs->len);
            }
        }
        return;
    }
    const Value key = GetCapture(m, 0, s, e);
    if (repl.t == T_TABLE)
        v = Index(S, repl, key);
    else
    {
        const size_t fi = S.top;
        S.Push(repl);
        const int n = PushCaptures(m, s, e, true);
        const int r = Call(S, fi, n);
        v = r > 0 ? S.stack[fi] : Value();
        S.top = fi;
    }
    if (!v.Truthy())
        out.append(s, static_cast<size_t>(e - s));
    else if (v.t == T_STR || v.t == T_NUM)
    {
        const String *vs = v.t == T_STR ? v.s : NumberToString(S, v.n);
        out.append(vs->data, vs->len);
    }
    else
        RunError(S, "invalid replacement value (a %s)", TypeName(v));
}

int S_gsub(State &S, int base, int nargs)
{
    const String *src = CheckString(S, base, nargs, 0);
    const String *p = CheckString(S, base, nargs, 1);
    const Value repl = Arg(S, base, nargs, 2);
    if (repl.t != T_NUM && repl.t != T_STR && repl.t != T_TABLE && !repl.IsFunction())
        ArgError(S, 2, "string/function/table expected");
    const double maxN = OptNumber(S, base, nargs, 3, static_cast<double>(src->len) + 1);
    Match m;
    InitMatch(m, S, src, p);
    const bool anchor = p->len > 0 && p->data[0] == '^';
    if (anchor) ++m.pat;
    const char *s = src->data;
    std::string out;
    double n = 0;
    while (n < maxN)
    {
        m.level = 0;
        const char *e = DoMatch(m, s, m.pat);
        if (e)
        {
            ++n;
            AddValue(S, m, out, s, e, repl);
        }
        if (e && e > s)
            s = e;
        else if (s < m.srcEnd)
            out.push_back(*s++);
        else
            break;
        if (anchor) break;
        if (out.size() > S.maxMemory) S.Charge(S.maxMemory + 1);
    }
    out.append(s, static_cast<size_t>(m.srcEnd - s));
    S.Push(Str(S, out));
    S.Push(Value::Num(n));
    return 2;
}

} // namespace

void OpenString(State &S)
{
    Table *methods = S.NewTable();
    static const struct
    {
        const char *name;
        CFn fn;
    } kFunctions[] = {
        {"len", S_len},       {"sub", S_sub},     {"upper", S_upper}, {"lower", S_lower},   {"rep", S_rep},
        {"reverse", S_reverse}, {"byte", S_byte}, {"char", S_char},   {"format", S_format}, {"find", S_find},
        {"match", S_match},   {"gmatch", S_gmatch}, {"gsub", S_gsub},
    };
    for (const auto &f : kFunctions)
        Register(S, methods, f.name, f.fn);
    Register(S, S.registry, "gmatchaux", S_gmatchaux);
    S.stringMeta = S.NewTable();
    TSetStr(S, S.stringMeta, S.tm[TM_INDEX], Value::Tab(methods));
}

} // namespace orvexScript::datalua
