// The lexer of the direct text reader.
#include "datalua/TextLexer.h"

#include <locale.h>

#include <charconv>
#include <cstdlib>
#include <cstring>

namespace orvexScript::datalua::text
{

namespace
{

inline bool IsDigit(unsigned char c)
{
    return c >= '0' && c <= '9';
}

inline bool IsAlpha(unsigned char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

inline bool IsNameChar(unsigned char c)
{
    return IsAlpha(c) || IsDigit(c) || c == '_';
}


locale_t CLocale()
{
    static locale_t locale = newlocale(LC_ALL_MASK, "C", nullptr);
    return locale;
}

// A numeral as the interpreter converts it: "0x" and hexadecimal digits, summed up digit by digit; or
// digits, points, exponent letters and signs that strtod reads to the end.
bool ConvertNumeral(const char *s, size_t n, double &out)
{
    if (n <= 15)
    {
        uint64_t value = 0;
        size_t i = 0;
        while (i < n && IsDigit(static_cast<unsigned char>(s[i])))
            value = value * 10 + static_cast<uint64_t>(s[i++] - '0');
        if (i == n)
        {
            out = static_cast<double>(value);
            return true;
        }
    }
    if (n >= 2 && s[0] == '0' && (s[1] == 'x' || s[1] == 'X'))
    {
        if (n == 2) return false;
        double value = 0;
        for (size_t i = 2; i < n; ++i)
        {
            const auto c = static_cast<unsigned char>(s[i]);
            int digit;
            if (IsDigit(c))
                digit = c - '0';
            else if (c >= 'a' && c <= 'f')
                digit = c - 'a' + 10;
            else if (c >= 'A' && c <= 'F')
                digit = c - 'A' + 10;
            else
                return false;
            value = value * 16 + digit;
        }
        out = value;
        return true;
    }
    for (size_t i = 0; i < n; ++i)
    {
        const char c = s[i];
        if (!IsDigit(static_cast<unsigned char>(c)) && c != '.' && c != 'e' && c != 'E' && c != '+' && c != '-')
            return false;
    }
    const auto fast = std::from_chars(s, s + n, out);
    if (fast.ec == std::errc() && fast.ptr == s + n) return true;
    const std::string text(s, n);
    char *end = nullptr;
    out = CLocale() ? strtod_l(text.c_str(), &end, CLocale()) : std::strtod(text.c_str(), &end);
    return end != text.c_str() && *end == '\0';
}

bool IsReserved(const char *s, size_t n)
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
    if (n < 2 || n > 8) return false;
    for (const Word &word : words)
        if (word.length == n && word.text[0] == s[0] && std::memcmp(word.text, s, n) == 0) return true;
    return false;
}

} // namespace

// A long string or comment; m_P stands on its second opening bracket. False if it doesn't end.
bool Lexer::ReadLong(int sep, Token *t)
{
    ++m_P;
    if (m_P < m_End && IsNewline(*m_P)) NewLine();
    const char *start = m_P;
    bool decoded = false; // a '\r' makes the bytes differ from the source
    if (t) t->buffer.clear();
    for (;;)
    {
        if (m_P >= m_End) return false;
        const char c = *m_P;
        if (c == ']')
        {
            const char *at = m_P;
            if (SkipSep() == sep)
            {
                if (t)
                {
                    if (decoded)
                    {
                        t->buffer.append(start, at);
                        t->text = t->buffer.data();
                        t->length = t->buffer.size();
                    }
                    else
                    {
                        t->text = start;
                        t->length = static_cast<size_t>(at - start);
                    }
                }
                ++m_P;
                return true;
            }
        }
        else if (IsNewline(c))
        {
            if (c == '\r' || (m_P + 1 < m_End && m_P[1] == '\r'))
            {
                if (t)
                {
                    t->buffer.append(start, m_P);
                    t->buffer.push_back('\n');
                }
                decoded = true;
                NewLine();
                start = m_P;
            }
            else
                NewLine();
        }
        else
            ++m_P;
    }
}

bool Lexer::ReadString(Token &t)
{
    const char delimiter = *m_P++;
    const char *start = m_P;
    while (m_P < m_End && *m_P != delimiter && *m_P != '\\' && !IsNewline(*m_P))
        ++m_P;
    if (m_P < m_End && *m_P == delimiter)
    {
        t.text = start;
        t.length = static_cast<size_t>(m_P - start);
        ++m_P;
        return true;
    }
    std::string &out = t.buffer;
    out.assign(start, m_P);
    for (;;)
    {
        if (m_P >= m_End || IsNewline(*m_P)) return false;
        const char c = *m_P;
        if (c == delimiter) break;
        if (c != '\\')
        {
            out.push_back(c);
            ++m_P;
            continue;
        }
        ++m_P;
        if (m_P >= m_End) return false;
        const char e = *m_P;
        switch (e)
        {
        case 'a': out.push_back('\a'); break;
        case 'b': out.push_back('\b'); break;
        case 'f': out.push_back('\f'); break;
        case 'n': out.push_back('\n'); break;
        case 'r': out.push_back('\r'); break;
        case 't': out.push_back('\t'); break;
        case 'v': out.push_back('\v'); break;
        case '\n':
        case '\r':
            out.push_back('\n');
            NewLine();
            continue;
        default:
            if (!IsDigit(static_cast<unsigned char>(e)))
            {
                out.push_back(e);
                break;
            }
            int value = 0;
            for (int i = 0; i < 3 && m_P < m_End && IsDigit(static_cast<unsigned char>(*m_P)); ++i)
                value = value * 10 + (*m_P++ - '0');
            if (value > 255) return false;
            out.push_back(static_cast<char>(value));
            continue;
        }
        ++m_P;
    }
    ++m_P;
    t.text = out.data();
    t.length = out.size();
    return true;
}

void Lexer::Lex(Token &t)
{
    for (;;)
    {
        if (m_P >= m_End)
        {
            t.type = T_Eof;
            break;
        }
        const auto c = static_cast<unsigned char>(*m_P);
        if (c == '\n' || c == '\r')
        {
            NewLine();
            continue;
        }
        if (c == ' ' || c == '\t' || c == '\f' || c == '\v')
        {
            ++m_P;
            continue;
        }
        if (c == '-')
        {
            if (m_P + 1 < m_End && m_P[1] == '-')
            {
                m_P += 2;
                if (m_P < m_End && *m_P == '[')
                {
                    const int sep = SkipSep();
                    if (sep >= 0)
                    {
                        if (!ReadLong(sep, nullptr))
                        {
                            t.type = T_Other;
                            break;
                        }
                        continue;
                    }
                }
                while (m_P < m_End && !IsNewline(*m_P))
                    ++m_P;
                continue;
            }
            ++m_P;
            t.type = T_Minus;
            break;
        }
        if (c == '[')
        {
            const int sep = SkipSep();
            if (sep >= 0)
                t.type = ReadLong(sep, &t) ? T_String : T_Other;
            else
                t.type = sep == -1 ? T_LBracket : T_Other;
            break;
        }
        if (c == '"' || c == '\'')
        {
            t.type = ReadString(t) ? T_String : T_Other;
            break;
        }
        if (IsDigit(c) || (c == '.' && m_P + 1 < m_End && IsDigit(static_cast<unsigned char>(m_P[1]))))
        {
            const char *start = m_P;
            do
                ++m_P;
            while (m_P < m_End && (IsDigit(static_cast<unsigned char>(*m_P)) || *m_P == '.'));
            if (m_P < m_End && (*m_P == 'e' || *m_P == 'E'))
            {
                ++m_P;
                if (m_P < m_End && (*m_P == '+' || *m_P == '-')) ++m_P;
            }
            while (m_P < m_End && IsNameChar(static_cast<unsigned char>(*m_P)))
                ++m_P;
            t.type = ConvertNumeral(start, static_cast<size_t>(m_P - start), t.number) ? T_Number : T_Other;
            break;
        }
        if (IsAlpha(c) || c == '_')
        {
            const char *start = m_P;
            while (m_P < m_End && IsNameChar(static_cast<unsigned char>(*m_P)))
                ++m_P;
            t.text = start;
            t.length = static_cast<size_t>(m_P - start);
            t.type = T_Name;
            if (IsReserved(start, t.length))
            {
                if (t.length == 4 && std::memcmp(start, "true", 4) == 0)
                    t.type = T_True;
                else if (t.length == 5 && std::memcmp(start, "false", 5) == 0)
                    t.type = T_False;
                else if (t.length == 3 && std::memcmp(start, "nil", 3) == 0)
                    t.type = T_Nil;
                else
                    t.type = T_Other;
            }
            break;
        }
        ++m_P;
        switch (c)
        {
        case '{': t.type = T_LBrace; break;
        case '}': t.type = T_RBrace; break;
        case ']': t.type = T_RBracket; break;
        case '(': t.type = T_LParen; break;
        case ')': t.type = T_RParen; break;
        case ',': t.type = T_Comma; break;
        case ';': t.type = T_Semi; break;
        case '=': t.type = (m_P < m_End && *m_P == '=') ? T_Other : T_Assign; break;
        case '.': t.type = (m_P < m_End && *m_P == '.') ? T_Other : T_Dot; break;
        default: t.type = T_Other; break;
        }
        break;
    }
    t.endLine = m_Line;
}

} // namespace orvexScript::datalua::text
