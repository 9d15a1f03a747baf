// stricoll_smart and wcsicoll_smart. Both walk the texts a character at a time; the narrow form decodes
// its UTF-8 as it goes, so that sorting a list allocates nothing per comparison. Collation itself
// (folded, locale-aware) comes from TextLocale.
#include "values/base/Collate.h"

#include <cstdint>

#include "values/base/TextLocale.h"

namespace orvexScript
{

// Compares the digit runs at `a` and `b` by value and steps both past their runs. A run that fits in
// 32 signed bits gives the difference of the two values; longer runs are compared by magnitude and
// give -1, 0 or 1, so that no run is cut or wraps.
// Digits are ASCII, so the same walk serves UTF-8 and wide texts.
template <class Char> static int CompareDigitRuns(const Char *&a, const Char *&b)
{
    auto scan = [](const Char *&p, size_t &significant, const Char *&first)
    {
        while (*p == '0')
            ++p;
        first = p;
        while (TextLocale::IsDigit(*p))
            ++p;
        significant = static_cast<size_t>(p - first);
    };
    size_t lenA, lenB;
    const Char *firstA, *firstB;
    scan(a, lenA, firstA);
    scan(b, lenB, firstB);
    auto value = [](const Char *p, size_t len)
    {
        int64_t v = 0;
        for (size_t i = 0; i < len; ++i)
            v = v * 10 + (p[i] - '0');
        return v;
    };
    if (lenA <= 10 && lenB <= 10)
    {
        int64_t va = value(firstA, lenA), vb = value(firstB, lenB);
        if (va <= INT32_MAX && vb <= INT32_MAX) return static_cast<int>(va - vb);
    }
    if (lenA != lenB) return lenA < lenB ? -1 : 1;
    for (size_t i = 0; i < lenA; ++i)
        if (firstA[i] != firstB[i]) return firstA[i] < firstB[i] ? -1 : 1;
    return 0;
}

// One character of each text, by folded collation.
static int CompareChars(wchar_t a, wchar_t b)
{
    return a == b ? 0 : TextLocale::CollateFoldedChars(a, b);
}

int wcsicoll_smart(const wchar_t *a, const wchar_t *b)
{
    if (!a || !b) return a == b ? 0 : (a ? 1 : -1);
    while (*a && *b)
    {
        if (CompareChars(*a, *b) != 0) break;
        ++a;
        ++b;
        // A number is compared by value only where it follows a character that both texts share.
        if (TextLocale::IsDigit(*a) && TextLocale::IsDigit(*b))
        {
            int difference = CompareDigitRuns(a, b);
            if (difference != 0) return difference;
        }
    }
    return TextLocale::CollateFolded(a, b);
}

int stricoll_smart(const char *a, const char *b)
{
    if (!a || !b) return a == b ? 0 : (a ? 1 : -1);
    // The walk of wcsicoll_smart over the decoded characters, so both give the same results.
    while (*a && *b)
    {
        wchar_t charA, charB;
        const size_t usedA = TextLocale::WidenUtf8Char(a, charA), usedB = TextLocale::WidenUtf8Char(b, charB);
        if (CompareChars(charA, charB) != 0) break;
        a += usedA;
        b += usedB;
        if (TextLocale::IsDigit(static_cast<unsigned char>(*a)) &&
            TextLocale::IsDigit(static_cast<unsigned char>(*b)))
        {
            int difference = CompareDigitRuns(a, b);
            if (difference != 0) return difference;
        }
    }
    return TextLocale::CollateFoldedUtf8(a, b);
}

} // namespace orvexScript
