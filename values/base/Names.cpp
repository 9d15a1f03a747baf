// Name checks and repairs: CompareName, StripName and IsValidName with its table of reserved words, and
// IsReservedWord, the keywords of the text form.
#include "values/base/Names.h"

#include <cstring>

#include "values/base/TextLocale.h"

namespace orvexScript
{

// Lua's keywords and the host's own reserved word, in their fixed order.
static const char *const kReservedWords[] = {
    "and",   "break", "do",  "else", "elseif", "end",    "false", "for",  "function", "if",    "in",
    "local", "nil",   "not", "or",   "repeat", "return", "then",  "true", "until",    "while", "render",
};

// Equal ignoring ASCII case only, whatever the process locale says about other letters.
static bool EqualsAsciiFolded(const char *a, const char *b)
{
    auto fold = [](unsigned char c) { return c >= 'A' && c <= 'Z' ? c + 32 : c; };
    for (; *a && *b; ++a, ++b)
        if (fold(static_cast<unsigned char>(*a)) != fold(static_cast<unsigned char>(*b))) return false;
    return *a == *b;
}

bool CompareName(const char *a, const char *b, TagList *)
{
    if (!a || !b) return a == b;
    return strcmp(a, b) == 0;
}

void StripName(char *out, const char *in, TagList *)
{
    if (!out) return;
    char *end = out;
    if (in)
    {
        // Characters are tested one at a time and kept as their original bytes, so no buffer is needed.
        bool keptAny = false;
        while (*in)
        {
            wchar_t ch;
            size_t used = TextLocale::DecodeUtf8(in, ch);
            bool keep = ch == L'_' || TextLocale::IsLetter(ch) || (keptAny && TextLocale::IsDigit(ch));
            if (keep)
            {
                memcpy(end, in, used);
                end += used;
                keptAny = true;
            }
            in += used;
        }
    }
    *end = '\0';
}

bool IsValidName(const char *name, TagList *)
{
    if (!name) return false;
    for (const char *word : kReservedWords)
        if (EqualsAsciiFolded(name, word)) return false;
    return true;
}

// The words of the text form's grammar, each with its length; compared with case.
bool IsReservedWord(const char *s, size_t len)
{
    struct Word
    {
        const char *text;
        size_t length;
    };
    static const Word words[] = {
        {"and", 3}, {"break", 5},    {"do", 2},     {"else", 4}, {"elseif", 6}, {"end", 3},   {"false", 5},
        {"for", 3}, {"function", 8}, {"if", 2},     {"in", 2},   {"local", 5},  {"nil", 3},   {"not", 3},
        {"or", 2},  {"repeat", 6},   {"return", 6}, {"then", 4}, {"true", 4},   {"until", 5}, {"while", 5}};
    if (len < 2 || len > 8) return false;
    for (const Word &word : words)
        if (word.length == len && word.text[0] == s[0] && std::memcmp(word.text, s, len) == 0) return true;
    return false;
}

} // namespace orvexScript
