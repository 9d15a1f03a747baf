// The lexer of the direct text reader: the tokens of the data subset, read the way the interpreter's
// lexer reads them (line counting, escapes, long strings and comments, numerals). Anything else is one
// token, T_Other, at which the reader hands the text over.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace orvexScript::datalua::text
{

enum Tok : uint8_t
{
    T_Eof,
    T_Name,
    T_Number,
    T_String,
    T_True,
    T_False,
    T_Nil,
    T_LBrace,
    T_RBrace,
    T_LBracket,
    T_RBracket,
    T_LParen,
    T_RParen,
    T_Assign,
    T_Comma,
    T_Semi,
    T_Dot,
    T_Minus,
    T_Other, // anything outside the subset, or a lexical error
};

struct Token
{
    Tok type = T_Eof;
    int endLine = 1;         // the lexer's line once the token was read
    const char *text = nullptr; // name or string bytes (in the source or in `buffer`)
    size_t length = 0;
    double number = 0;
    std::string buffer;      // decoded string bytes when they differ from the source
};

inline bool IsNewline(char c)
{
    return c == '\n' || c == '\r';
}

// Two token slots: the current token and, after Peek, the one behind it.
class Lexer
{
public:
    Lexer(const char *text, size_t length) : m_P(text), m_End(text + length) {}

    Token &Current() { return m_Tokens[m_Cur]; }
    void Next()
    {
        if (m_HasAhead)
        {
            m_Cur ^= 1;
            m_HasAhead = false;
        }
        else
            Lex(m_Tokens[m_Cur]);
    }
    Token &Peek()
    {
        if (!m_HasAhead)
        {
            Lex(m_Tokens[m_Cur ^ 1]);
            m_HasAhead = true;
        }
        return m_Tokens[m_Cur ^ 1];
    }

private:
    void NewLine()
    {
        const char old = *m_P++;
        if (m_P < m_End && IsNewline(*m_P) && *m_P != old) ++m_P;
        ++m_Line;
    }

    // At '[' or ']': consumes it and any '=' behind; the count of '=' if the same bracket follows,
    // else -(count) - 1.
    int SkipSep()
    {
        const char bracket = *m_P++;
        int count = 0;
        while (m_P < m_End && *m_P == '=')
        {
            ++m_P;
            ++count;
        }
        return (m_P < m_End && *m_P == bracket) ? count : -count - 1;
    }

    bool ReadLong(int sep, Token *t);
    bool ReadString(Token &t);
    void Lex(Token &t);

    const char *m_P;
    const char *m_End;
    int m_Line = 1;
    Token m_Tokens[2];
    int m_Cur = 0;
    bool m_HasAhead = false;
};

} // namespace orvexScript::datalua::text
