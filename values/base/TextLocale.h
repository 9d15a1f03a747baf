// Character services for names and collation that don't depend on the process locale: UTF-8 decoding,
// Unicode letter and digit classes, and case-folding collation through locale objects of our own.
#pragma once

#include <cstddef>
#include <string>

namespace orvexScript::TextLocale
{

// The code point that an invalid UTF-8 byte decodes to: not a letter, not a digit.
constexpr wchar_t kBadChar = 0xFFFD;

// Decodes the character at `p`, which must not stand on the terminator. Gives the number of bytes it
// takes (1 to 4); an invalid or cut-off sequence takes one byte and decodes to kBadChar.
size_t DecodeUtf8(const char *p, wchar_t &ch);

// Decodes a whole NUL-terminated UTF-8 text. An invalid byte becomes U+DC80 + its value, so that
// texts that differ in such bytes still differ.
std::wstring WidenUtf8(const char *text);
// Decodes one character at `p` (not the terminator) the way WidenUtf8 does; gives the bytes it takes.
size_t WidenUtf8Char(const char *p, wchar_t &ch);

// Unicode letters, by the classes of a UTF-8 locale.
bool IsLetter(wchar_t ch);
// The decimal digits 0 to 9.
inline bool IsDigit(wchar_t ch)
{
    return ch >= L'0' && ch <= L'9';
}

// Collation that ignores case: both texts are folded to lower case and compared by the collation of
// the user's UTF-8 locale (LC_ALL, LC_COLLATE, LANG), or by code point when there is none.
int CollateFolded(const wchar_t *a, const wchar_t *b);
// The same for two texts of one character each, without allocating.
int CollateFoldedChars(wchar_t a, wchar_t b);
// The same for UTF-8 texts, decoded as WidenUtf8 does. Texts of up to a few hundred characters are
// folded on the stack; only longer ones allocate.
int CollateFoldedUtf8(const char *a, const char *b);

// Sets the C locale for the whole process (all categories), as the value text form needs for its
// numbers; the previous locale is not restored.
void UseCLocale();

} // namespace orvexScript::TextLocale
