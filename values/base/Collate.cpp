// stricoll_smart and wcsicoll_smart. Both walk the texts as wide characters; the narrow form decodes
// its UTF-8 first. Collation itself (folded, locale-aware) comes from TextLocale.
#include "values/base/Collate.h"

#include <cstdint>
#include <string>

#include "values/base/TextLocale.h"

namespace orvexScript
{

// Compares the digit runs at `a` and `b` by value and steps both past their runs. A run that fits in
// 32 signed bits gives the difference of the two values; longer runs are compared by magnitude and
// give -1, 0 or 1, so that no run is cut or wraps.
static int CompareDigitRuns(const wchar_t *&a, const wchar_t *&b)
{
    auto scan = [](const wchar_t *&p, size_t &significant, const wchar_t *&first)
    {
        while (*p == L'0')
            ++p;
        first = p;
        while (TextLocale::IsDigit(*p))
            ++p;
        significant = static_cast<size_t>(p - first);
    };
    size_t lenA, lenB;
    const wchar_t *firstA, *firstB;
    scan(a, lenA, firstA);
    scan(b, lenB, firstB);
    auto value = [](const wchar_t *p, size_t len)
    {
        int64_t v = 0;
        for (size_t i = 0; i < len; ++i)
            v = v * 10 + (p[i] - L'0');
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
    if (a == b) return 0;
    const wchar_t left[2] = {a, 0}, right[2] = {b, 0};
    return TextLocale::CollateFolded(left, right);
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
    std::wstring wideA = TextLocale::WidenUtf8(a), wideB = TextLocale::WidenUtf8(b);
    return wcsicoll_smart(wideA.c_str(), wideB.c_str());
}

} // namespace orvexScript
