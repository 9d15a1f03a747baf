// Character services for names and collation: a strict UTF-8 decoder and two locale objects, made once:
// C.UTF-8 for character classes and the user's collation locale for ordering.
#include "values/base/TextLocale.h"

#include <langinfo.h>
#include <locale.h>
#include <wchar.h>
#include <wctype.h>

#include <cstdint>
#include <cstring>

namespace orvexScript::TextLocale
{

// The lead byte's payload, the number of continuation bytes and the smallest code point of that length.
static bool ReadLead(unsigned char lead, uint32_t &cp, int &more, uint32_t &least)
{
    if (lead < 0x80)
        cp = lead, more = 0, least = 0;
    else if ((lead & 0xE0) == 0xC0)
        cp = lead & 0x1F, more = 1, least = 0x80;
    else if ((lead & 0xF0) == 0xE0)
        cp = lead & 0x0F, more = 2, least = 0x800;
    else if ((lead & 0xF8) == 0xF0)
        cp = lead & 0x07, more = 3, least = 0x10000;
    else
        return false;
    return true;
}

size_t DecodeUtf8(const char *p, wchar_t &ch)
{
    uint32_t cp = 0, least = 0;
    int more = 0;
    ch = kBadChar;
    if (!ReadLead(static_cast<unsigned char>(p[0]), cp, more, least)) return 1;
    for (int i = 1; i <= more; ++i)
    {
        unsigned char next = static_cast<unsigned char>(p[i]);
        if ((next & 0xC0) != 0x80) // also stops at the terminator
            return 1;
        cp = (cp << 6) | (next & 0x3F);
    }
    // Overlong forms, surrogates and values past Unicode are not characters.
    if (cp < least || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return 1;
    ch = static_cast<wchar_t>(cp);
    return static_cast<size_t>(more) + 1;
}

size_t WidenUtf8Char(const char *p, wchar_t &ch)
{
    size_t used = DecodeUtf8(p, ch);
    if (ch == kBadChar && used == 1 && static_cast<unsigned char>(*p) >= 0x80)
        ch = static_cast<wchar_t>(0xDC80 + (static_cast<unsigned char>(*p) & 0x7F));
    return used;
}

std::wstring WidenUtf8(const char *text)
{
    std::wstring wide;
    wide.reserve(strlen(text));
    while (*text)
    {
        wchar_t ch;
        text += WidenUtf8Char(text, ch);
        wide += ch;
    }
    return wide;
}

static bool IsUtf8Locale(locale_t locale)
{
    const char *codeset = nl_langinfo_l(CODESET, locale);
    return codeset && (strcmp(codeset, "UTF-8") == 0 || strcmp(codeset, "utf8") == 0);
}

// C.UTF-8: classes and case mapping of all of Unicode, the same on every machine.
static locale_t ClassLocale()
{
    static locale_t locale = newlocale(LC_ALL_MASK, "C.UTF-8", nullptr);
    return locale;
}

// The user's collation as the environment names it, if that is a UTF-8 locale installed here;
// otherwise C.UTF-8, which orders by code point.
static locale_t CollateLocale()
{
    static locale_t locale = []
    {
        locale_t user = newlocale(LC_COLLATE_MASK | LC_CTYPE_MASK, "", nullptr);
        if (user && IsUtf8Locale(user)) return user;
        if (user) freelocale(user);
        return ClassLocale();
    }();
    return locale;
}

bool IsLetter(wchar_t ch)
{
    locale_t locale = ClassLocale();
    return locale ? iswalpha_l(static_cast<wint_t>(ch), locale) != 0 : iswalpha(static_cast<wint_t>(ch)) != 0;
}

static wchar_t Fold(wchar_t ch, locale_t locale)
{
    return static_cast<wchar_t>(locale ? towlower_l(static_cast<wint_t>(ch), locale)
                                       : towlower(static_cast<wint_t>(ch)));
}

// A folded copy of a text, on the stack unless it is long. `capacity` bounds its length in characters.
class FoldedText
{
public:
    explicit FoldedText(size_t capacity)
    {
        if (capacity >= kLocal)
        {
            m_Heap.resize(capacity + 1);
            m_Text = m_Heap.data();
        }
    }
    FoldedText(const FoldedText &) = delete;
    FoldedText &operator=(const FoldedText &) = delete;

    void Fill(const wchar_t *text)
    {
        locale_t locale = ClassLocale();
        size_t n = 0;
        for (; text[n]; ++n)
            m_Text[n] = Fold(text[n], locale);
        m_Text[n] = 0;
    }
    void Fill(const char *text)
    {
        locale_t locale = ClassLocale();
        size_t n = 0;
        while (*text)
        {
            wchar_t ch;
            text += WidenUtf8Char(text, ch);
            m_Text[n++] = Fold(ch, locale);
        }
        m_Text[n] = 0;
    }
    const wchar_t *Get() const { return m_Text; }

private:
    static constexpr size_t kLocal = 256;
    wchar_t m_Local[kLocal];
    std::wstring m_Heap;
    wchar_t *m_Text = m_Local;
};

static int CollateTexts(const wchar_t *left, const wchar_t *right)
{
    locale_t locale = CollateLocale();
    if (!locale) return wcscmp(left, right);
    return wcscoll_l(left, right, locale);
}

int CollateFolded(const wchar_t *a, const wchar_t *b)
{
    FoldedText left(wcslen(a)), right(wcslen(b));
    left.Fill(a);
    right.Fill(b);
    return CollateTexts(left.Get(), right.Get());
}

int CollateFoldedChars(wchar_t a, wchar_t b)
{
    locale_t locale = ClassLocale();
    const wchar_t left[2] = {Fold(a, locale), 0}, right[2] = {Fold(b, locale), 0};
    return CollateTexts(left, right);
}

int CollateFoldedUtf8(const char *a, const char *b)
{
    // A UTF-8 text has no more characters than bytes.
    FoldedText left(strlen(a)), right(strlen(b));
    left.Fill(a);
    right.Fill(b);
    return CollateTexts(left.Get(), right.Get());
}

void UseCLocale()
{
    setlocale(LC_ALL, "C");
}

} // namespace orvexScript::TextLocale
