// The writer of the value text form: ToTextLen and ToText, and the serialize prologue that readers put
// in front of such texts. One walker serves both: it emits into a counting sink or a writing sink, so
// the length can't drift from the text. Tables are walked with an explicit stack, so nesting depth is
// bounded by memory, not by the C stack. The readers live in datalua/ and languages/lua/.
#include <charconv>
#include <cfloat>
#include <cmath>
#include <cstdlib>
#include <cstdio>
#include <cstring>
#include <vector>

#include "values/base/TextLocale.h"
#include "values/model/ScriptVal.h"
#include "values/model/TableEntry.h"

namespace orvexScript
{

const char *GetSerializePrologue(TagList *)
{
    return "local _ = { _parent = getfenv(1)};setmetatable(_,{\t__index = function(x,n)\t\tlocal ret = "
           "rawget(x, '_parent')[n]\t\tif not ret then\t\t\tret = { name = n }\t\t\tsetmetatable(ret, "
           "{\t\t\t\t__call = function(t, a) a.__ctor = t.name; return a; end,\t\t\t\t__index = "
           "function(t, i) t.name = t.name .. '.' .. i; return t end,\t\t\t\t})\t\tend\t\t\t\treturn "
           "ret\tend});setfenv(1, _);return ";
}

namespace
{

// "%.*g" layout of a decimal: `count` significant digits with the exponent of the first one. The
// exponent picks fixed or scientific notation, and trailing zeros go.
size_t LayoutGeneral(char *out, bool negative, const char *digits, int count, int exponent, int precision)
{
    size_t len = 0;
    if (negative) out[len++] = '-';
    while (count > 1 && digits[count - 1] == '0')
        --count;
    if (exponent < -4 || exponent >= precision)
    {
        out[len++] = digits[0];
        if (count > 1)
        {
            out[len++] = '.';
            for (int i = 1; i < count; ++i)
                out[len++] = digits[i];
        }
        out[len++] = 'e';
        out[len++] = exponent < 0 ? '-' : '+';
        const int magnitude = exponent < 0 ? -exponent : exponent;
        if (magnitude >= 100) out[len++] = static_cast<char>('0' + magnitude / 100);
        out[len++] = static_cast<char>('0' + magnitude / 10 % 10);
        out[len++] = static_cast<char>('0' + magnitude % 10);
    }
    else if (exponent >= 0)
    {
        for (int i = 0; i <= exponent; ++i)
            out[len++] = i < count ? digits[i] : '0';
        if (count > exponent + 1)
        {
            out[len++] = '.';
            for (int i = exponent + 1; i < count; ++i)
                out[len++] = digits[i];
        }
    }
    else
    {
        out[len++] = '0';
        out[len++] = '.';
        for (int i = -1; i > exponent; --i)
            out[len++] = '0';
        for (int i = 0; i < count; ++i)
            out[len++] = digits[i];
    }
    out[len] = '\0';
    return len;
}

// Splits the scientific text of std::to_chars ("-d.ddde+XX") into sign, digits and exponent.
int SplitScientific(const char *text, const char *end, bool &negative, char *digits, int &exponent)
{
    negative = *text == '-';
    const char *p = text + (negative ? 1 : 0);
    int count = 0;
    for (; p < end && *p != 'e'; ++p)
        if (*p != '.') digits[count++] = *p;
    int value = 0;
    const bool minus = p + 1 < end && p[1] == '-';
    for (p += 2; p < end; ++p)
        value = value * 10 + (*p - '0');
    exponent = minus ? -value : value;
    return count;
}

// "%.*g" as printf writes it. When the shortest text that reads back holds no more digits than the
// precision, those are the digits printf rounds to (for a normal value, decimals of that length lie
// further apart than its rounding step), so the fast shortest form serves; otherwise the correctly
// rounded form of that precision.
size_t FormatGeneral(char *out, double v, int precision, bool single)
{
    char sci[48];
    char digits[32];
    bool negative = false;
    int exponent = 0;
    const float f = static_cast<float>(v);
    const bool asFloat = single && static_cast<double>(f) == v;
    const auto shortest = asFloat ? std::to_chars(sci, sci + sizeof sci, f, std::chars_format::scientific)
                                  : std::to_chars(sci, sci + sizeof sci, v, std::chars_format::scientific);
    int count = SplitScientific(sci, shortest.ptr, negative, digits, exponent);
    // Subnormal values have fewer significant bits, so the argument above does not hold for them.
    const bool normal = asFloat ? std::fabs(f) >= FLT_MIN : std::fabs(v) >= DBL_MIN;
    if (count > precision || !normal)
    {
        const auto rounded =
            std::to_chars(sci, sci + sizeof sci, v, std::chars_format::scientific, precision - 1);
        count = SplitScientific(sci, rounded.ptr, negative, digits, exponent);
    }
    return LayoutGeneral(out, negative, digits, count, exponent, precision);
}

// A number's text: "%g" for single precision values, "%.15g" otherwise, exactly as the C library
// prints them (integers without a trip through the general path). Infinities and NaN, which printf
// writes as names, are written as expressions that give them back: 1e999, -1e999 and (0/0).
size_t FormatNumber(char *out, double v, bool single)
{
    if (!std::isfinite(v))
    {
        const char *text = std::isnan(v) ? "(0/0)" : v > 0 ? "1e999" : "-1e999";
        std::strcpy(out, text);
        return std::strlen(text);
    }
    const double limit = single ? 1e6 : 1e15;
    if (v > -limit && v < limit && v == std::trunc(v))
    {
        char digits[24];
        size_t n = 0;
        unsigned long long u = static_cast<unsigned long long>(v < 0 ? -v : v);
        do
        {
            digits[n++] = static_cast<char>('0' + u % 10);
            u /= 10;
        } while (u);
        size_t len = 0;
        if (std::signbit(v)) out[len++] = '-';
        while (n) out[len++] = digits[--n];
        out[len] = '\0';
        return len;
    }
    return FormatGeneral(out, v, single ? 6 : 15, single);
}

bool IsReservedWord(const char *s, size_t len)
{
    struct Word
    {
        const char *text;
        size_t length;
    };
    static const Word words[] = {{"and", 3},   {"break", 5}, {"do", 2},     {"else", 4},    {"elseif", 6},
                                 {"end", 3},   {"false", 5}, {"for", 3},    {"function", 8}, {"if", 2},
                                 {"in", 2},    {"local", 5}, {"nil", 3},    {"not", 3},     {"or", 2},
                                 {"repeat", 6}, {"return", 6}, {"then", 4},  {"true", 4},    {"until", 5},
                                 {"while", 5}};
    if (len < 2 || len > 8) return false;
    for (const Word &word : words)
        if (word.length == len && word.text[0] == s[0] && std::memcmp(word.text, s, len) == 0) return true;
    return false;
}

// Bytes of names in the C locale: 1 letters, 2 digits and '_'.
struct NameTable
{
    unsigned char kind[256] = {};
    constexpr NameTable()
    {
        for (int c = 'a'; c <= 'z'; ++c)
            kind[c] = 1;
        for (int c = 'A'; c <= 'Z'; ++c)
            kind[c] = 1;
        for (int c = '0'; c <= '9'; ++c)
            kind[c] = 2;
        kind[static_cast<unsigned char>('_')] = 2;
    }
};
constexpr NameTable kNameBytes;

// A key written without brackets: a letter first, then letters, digits and '_' (C locale), and no
// reserved word. Gives its length, or 0 when the key needs brackets.
size_t PlainNameLength(const char *s)
{
    const auto *p = reinterpret_cast<const unsigned char *>(s);
    if (kNameBytes.kind[*p] != 1) return 0;
    size_t len = 1;
    for (; p[len]; ++len)
        if (!kNameBytes.kind[p[len]]) return 0;
    return IsReservedWord(s, len) ? 0 : len;
}

// The bytes a quoted string escapes: backslash, double quote, carriage return and line feed; and the
// terminator, so that one look-up ends a run of plain bytes.
struct EscapeTable
{
    unsigned char special[256] = {};
    constexpr EscapeTable()
    {
        special[0] = 1;
        special[static_cast<unsigned char>('\\')] = 1;
        special[static_cast<unsigned char>('"')] = 1;
        special[static_cast<unsigned char>('\r')] = 1;
        special[static_cast<unsigned char>('\n')] = 1;
    }
};
constexpr EscapeTable kEscapes;

inline bool IsSpecial(unsigned char c)
{
    return kEscapes.special[c] != 0;
}

const char kHexDigits[] = "0123456789ABCDEF";

struct CountSink
{
    unsigned long n = 0;
    void Put(const char *, size_t len) { n += len; }
    void Char(char) { ++n; }
    void Tabs(int count) { n += count > 0 ? static_cast<unsigned long>(count) : 0; }
    void Number(double v, bool single)
    {
        char buf[32];
        n += FormatNumber(buf, v, single);
    }
    void Quoted(const char *s)
    {
        const auto *p = reinterpret_cast<const unsigned char *>(s);
        unsigned long count = 2;
        for (;;)
        {
            const auto *start = p;
            while (!IsSpecial(*p))
                ++p;
            count += static_cast<unsigned long>(p - start);
            if (!*p) break;
            count += 2;
            ++p;
        }
        n += count;
    }
    void HexByte(unsigned char) { n += 2; }
};

struct WriteSink
{
    char *p;
    void Put(const char *s, size_t len)
    {
        std::memcpy(p, s, len);
        p += len;
    }
    void Char(char c) { *p++ = c; }
    void Tabs(int count)
    {
        for (int i = 0; i < count; ++i)
            *p++ = '\t';
    }
    void Number(double v, bool single) { p += FormatNumber(p, v, single); }
    void Quoted(const char *s)
    {
        *p++ = '"';
        const auto *q = reinterpret_cast<const unsigned char *>(s);
        for (;;)
        {
            const auto *start = q;
            while (!IsSpecial(*q))
                ++q;
            std::memcpy(p, start, static_cast<size_t>(q - start));
            p += q - start;
            const unsigned char c = *q;
            if (!c) break;
            *p++ = '\\';
            *p++ = c == '\r' ? 'r' : c == '\n' ? 'n' : static_cast<char>(c);
            ++q;
        }
        *p++ = '"';
    }
    void HexByte(unsigned char c)
    {
        *p++ = kHexDigits[c >> 4];
        *p++ = kHexDigits[c & 15];
    }
};

template <class Sink, size_t N> void Literal(Sink &sink, const char (&text)[N])
{
    sink.Put(text, N - 1);
}

// Tabs(n) of a container at depth `depth`: nothing at all when the depth is negative.
inline int Indent(int depth, int n)
{
    return depth < 0 ? 0 : n;
}

inline bool IsLive(const TableEntry *entry)
{
    return !entry->m_Key.IsNil() && !entry->m_Value.IsNil();
}

inline const TableEntry *NextLive(const TableEntry *entry)
{
    while (entry && !IsLive(entry))
        entry = entry->m_Next;
    return entry;
}

template <class Sink> void WriteBlock(Sink &sink, const ScriptVal &value, int depth)
{
    const auto *bytes = static_cast<const unsigned char *>(value.m_Value.m_MemBlock.m_Ptr);
    const uint32_t size = bytes ? value.m_Value.m_MemBlock.m_Size : 0;
    const int tabs = Indent(depth, depth + 1);
    Literal(sink, "HexData [[");
    if (size <= 16)
        sink.Char(' ');
    else
    {
        sink.Char('\n');
        sink.Tabs(tabs);
    }
    for (uint32_t i = 0; i < size; ++i)
    {
        sink.HexByte(bytes[i]);
        if (i % 16 == 15)
        {
            sink.Char('\n');
            sink.Tabs(tabs);
        }
        else
            sink.Char(' ');
    }
    Literal(sink, "]]");
}

template <class Sink> void WriteScalar(Sink &sink, const ScriptVal &value, int depth)
{
    switch (value.Type())
    {
    case SV_Number:
        sink.Number(value.m_Value.m_Number, value.GetFlags(SVF_Single) != 0);
        break;
    case SV_String:
        sink.Quoted(value.m_Value.m_String.m_String ? value.m_Value.m_String.m_String + 1 : "");
        break;
    case SV_Boolean:
        if (value.m_Value.m_Boolean)
            Literal(sink, "true");
        else
            Literal(sink, "false");
        break;
    case SV_MemBlock:
        WriteBlock(sink, value, depth);
        break;
    default:
        Literal(sink, "nil");
        break;
    }
}

// One open table: where its walk stands.
struct TableFrame
{
    const TableEntry *entry; // the live entry being written, or null when all are done
    int depth;
    unsigned long count;   // entries begun so far
    double position;       // the next positional key
    bool single;           // the table's SVF_Single: every number key explicit
    bool oneLine;
    bool paren;            // "ordered() (" was written
    bool valueWritten;     // the current entry's value is out; its separator is next
};

template <class Sink> void OpenTable(Sink &sink, const ScriptVal &table, int depth, std::vector<TableFrame> &stack)
{
    const bool ordered = (table.m_Flags & SVF_Ordered) != 0;
    const char *name = table.Type() == SV_Table && table.m_Value.m_Table.m_Constructor
                           ? table.m_Value.m_Table.m_Constructor + 1
                           : nullptr;
    const bool paren = ordered && name;
    if (ordered) Literal(sink, "ordered() ");
    if (paren) sink.Char('(');
    if (name)
    {
        sink.Put(name, std::strlen(name));
        sink.Char(' ');
    }
    const bool oneLine = table.GetFlags(SVF_OneLine) != 0;
    if (oneLine)
        Literal(sink, "{ ");
    else
        Literal(sink, "{\n");
    stack.push_back(TableFrame{NextLive(table.FirstEntry()), depth, 0, 1.0, table.GetFlags(SVF_Single) != 0,
                               oneLine, paren, false});
}

template <class Sink> void CloseTable(Sink &sink, const TableFrame &frame)
{
    if (!frame.oneLine && frame.depth >= 1) sink.Tabs(frame.depth);
    sink.Char('}');
    if (frame.paren) sink.Char(')');
}

template <class Sink> void WriteKey(Sink &sink, TableFrame &frame, const ScriptVal &key)
{
    if (key.IsNumber())
    {
        const double number = key.m_Value.m_Number;
        if (!frame.single && number == frame.position)
        {
            frame.position += 1;
            return;
        }
        sink.Char('[');
        sink.Number(number, key.GetFlags(SVF_Single) != 0);
        Literal(sink, "] = ");
    }
    else if (key.IsString())
    {
        const char *text = key.m_Value.m_String.m_String ? key.m_Value.m_String.m_String + 1 : "";
        if (const size_t length = PlainNameLength(text))
        {
            sink.Put(text, length);
            Literal(sink, " = ");
        }
        else
        {
            sink.Char('[');
            sink.Quoted(text);
            Literal(sink, "] = ");
        }
    }
}

template <class Sink> void WriteValue(Sink &sink, const ScriptVal &root, int depth)
{
    if (root.Type() != SV_Table && root.Type() != SV_Args)
    {
        WriteScalar(sink, root, depth);
        return;
    }
    std::vector<TableFrame> stack;
    OpenTable(sink, root, depth, stack);
    while (!stack.empty())
    {
        TableFrame &frame = stack.back();
        if (frame.valueWritten)
        {
            frame.valueWritten = false;
            const TableEntry *next = NextLive(frame.entry->m_Next);
            if (frame.oneLine && !(next && frame.count % 256 == 0))
                Literal(sink, ", ");
            else
                Literal(sink, ",\n");
            frame.entry = next;
        }
        if (!frame.entry)
        {
            CloseTable(sink, frame);
            stack.pop_back();
            continue;
        }
        // The list is walked by its links: start the loads of the next entry and of a nested table's
        // first entry while this one is written.
        __builtin_prefetch(frame.entry->m_Next);
        const ScriptVal &value = frame.entry->m_Value;
        if (value.Type() == SV_Table || value.Type() == SV_Args) __builtin_prefetch(value.m_Value.m_Table.m_Table);
        if (!frame.oneLine || (frame.count != 0 && frame.count % 256 == 0))
            sink.Tabs(Indent(frame.depth, frame.depth + 1));
        ++frame.count;
        WriteKey(sink, frame, frame.entry->m_Key);
        frame.valueWritten = true;
        const int childDepth = frame.depth + 1;
        if (value.Type() == SV_Table || value.Type() == SV_Args)
            OpenTable(sink, value, childDepth, stack); // `frame` is not used after this
        else
            WriteScalar(sink, value, childDepth);
    }
}

} // namespace

unsigned long ScriptVal::ToTextLen(int depth) const
{
    if (depth == 0) TextLocale::UseCLocale();
    CountSink sink;
    WriteValue(sink, *this, depth);
    return sink.n;
}

char *ScriptVal::ToText(char *buffer, int depth) const
{
    if (depth == 0) TextLocale::UseCLocale();
    WriteSink sink{buffer};
    WriteValue(sink, *this, depth);
    *sink.p = '\0';
    return sink.p;
}

} // namespace orvexScript
