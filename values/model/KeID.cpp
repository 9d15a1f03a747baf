// KeID: construction and release of shared or plain texts, comparison, search, groups, joining,
// formatting, and Strip (letters, digits and '_' of any script, judged on a C.UTF-8 locale object).
#include "values/model/KeID.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "values/base/Names.h"
#include "values/base/StringBlock.h"

namespace orvexScript
{

constinit const KeID NOID;
constinit const KeID ROID_XYZ{KeID::LiteralTag{}, "XYZ"}, ROID_XZY{KeID::LiteralTag{}, "XZY"},
    ROID_YXZ{KeID::LiteralTag{}, "YXZ"}, ROID_YZX{KeID::LiteralTag{}, "YZX"},
    ROID_ZXY{KeID::LiteralTag{}, "ZXY"}, ROID_ZYX{KeID::LiteralTag{}, "ZYX"};
constinit const KeID ROID_UVW{KeID::LiteralTag{}, "UVW"}, ROID_UWV{KeID::LiteralTag{}, "UWV"},
    ROID_VUW{KeID::LiteralTag{}, "VUW"}, ROID_VWU{KeID::LiteralTag{}, "VWU"},
    ROID_WUV{KeID::LiteralTag{}, "WUV"}, ROID_WVU{KeID::LiteralTag{}, "WVU"};

namespace
{

const char *TextOf(const char *p)
{
    return IsStringBlock(p) ? p + 1 : p;
}

// A block for `text` by the constructor's rules: share a block, copy, or keep the plain pointer.
char *Acquire(const char *text, bool copy)
{
    if (!text) return nullptr;
    if (IsStringBlock(text))
    {
        StringBlockRetain(const_cast<char *>(text));
        return const_cast<char *>(text);
    }
    return copy ? StringBlockNew(text) : const_cast<char *>(text);
}

char *Join(const char *a, const char *b)
{
    if (!a) return nullptr;
    if (!b) return Acquire(a, true);
    a = TextOf(a);
    b = TextOf(b);
    return StringBlockJoin(a, std::strlen(a), b, std::strlen(b));
}

char *CutCopy(const char *text, size_t len)
{
    if (!text) return nullptr;
    return StringBlockNew(TextOf(text), len);
}

// Formats into a temporary buffer measured first; null if it can't be allocated.
char *FormatV(const char *format, va_list args)
{
    va_list measure;
    va_copy(measure, args);
    int len = std::vsnprintf(nullptr, 0, format, measure);
    va_end(measure);
    if (len < 0) return nullptr;
    char *buffer = static_cast<char *>(std::malloc(static_cast<size_t>(len) + 1));
    if (buffer) std::vsnprintf(buffer, static_cast<size_t>(len) + 1, format, args);
    return buffer;
}

bool IsAsciiLetter(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool IsAsciiDigit(char c)
{
    return c >= '0' && c <= '9';
}

} // namespace

KeID::KeID(const char *text, bool copy) : m_Text(Acquire(text, copy)) {}

KeID::KeID(const char *a, const char *b) : m_Text(Join(a, b)) {}

KeID::KeID(const char *text, size_t len) : m_Text(CutCopy(text, len)) {}

KeID::KeID(const KeID &other) : m_Text(other.m_Text)
{
    if (IsStringBlock(m_Text)) StringBlockRetain(m_Text);
}

KeID &KeID::operator=(KeID &&other) noexcept
{
    if (this != &other)
    {
        Cleanup();
        m_Text = other.m_Text;
        other.m_Text = nullptr;
    }
    return *this;
}

void KeID::Cleanup()
{
    if (IsStringBlock(m_Text)) StringBlockRelease(m_Text);
    m_Text = nullptr;
}

// Each Set makes the new text before releasing the old one, which the new one may come from.
KeID &KeID::Set(const char *text, bool copy)
{
    char *fresh = Acquire(text, copy);
    Cleanup();
    m_Text = fresh;
    return *this;
}

KeID &KeID::Set(const char *a, const char *b)
{
    char *fresh = Join(a, b);
    Cleanup();
    m_Text = fresh;
    return *this;
}

KeID &KeID::Set(const char *text, size_t len)
{
    char *fresh = CutCopy(text, len);
    Cleanup();
    m_Text = fresh;
    return *this;
}

KeID &KeID::Set(const KeID &other)
{
    if (this == &other || m_Text == other.m_Text) return *this;
    char *fresh = other.m_Text;
    if (IsStringBlock(fresh)) StringBlockRetain(fresh);
    Cleanup();
    m_Text = fresh;
    return *this;
}

const char *KeID::Text() const
{
    return TextOf(m_Text);
}

bool KeID::operator==(const char *text) const
{
    const char *mine = Text();
    return std::strcmp(mine ? mine : "", text ? TextOf(text) : "") == 0;
}

bool KeID::IsValid() const
{
    const void *self = this;
    asm("" : "+r"(self));
    return self && m_Text;
}

bool KeID::IsEmpty() const
{
    const char *t = Text();
    return !t || !*t;
}

int KeID::GetLength() const
{
    const char *t = Text();
    return t ? static_cast<int>(std::strlen(t)) : 0;
}

int KeID::Find(char c, int start) const
{
    int len = GetLength();
    if (start < 0 || start >= len) return -1;
    const char *t = Text();
    const char *hit = static_cast<const char *>(std::memchr(t + start, c, static_cast<size_t>(len - start)));
    return hit ? static_cast<int>(hit - t) : -1;
}

int KeID::ReverseFind(char c, int start) const
{
    int len = GetLength();
    if (start == -1) start = len - 1;
    const char *t = Text();
    // Index `len` is the terminator, which is still inside the text; only past it is out of bounds.
    if (!t || start < 0 || start > len) return -1;
    for (int i = start; i >= 0; --i)
        if (t[i] == c) return i;
    return -1;
}

uint32_t KeID::GetHashValue() const
{
    return StringHash(Text());
}

// ---- groups ------------------------------------------------------------------------------------

bool KeID::IsInGroup() const
{
    const char *t = Text();
    return t && std::strchr(t, '.');
}

bool KeID::IsInGroup(const char *group) const
{
    const char *t = Text();
    if (!t || !group) return false;
    group = TextOf(group);
    size_t n = std::strlen(group);
    if (std::strncmp(t, group, n) != 0) return false;
    return t[n] == '\0' || t[n] == '.' || (n > 0 && group[n - 1] == '.');
}

bool KeID::IsSameGroup(const char *other) const
{
    const char *a = Text();
    const char *b = other ? TextOf(other) : "";
    a = a ? a : "";
    const char *dotA = std::strrchr(a, '.');
    const char *dotB = std::strrchr(b, '.');
    if (!dotA || !dotB) return !dotA && !dotB;
    return dotA - a == dotB - b && std::strncmp(a, b, static_cast<size_t>(dotA - a)) == 0;
}

bool KeID::IsValidSymbol() const
{
    const char *t = Text();
    if (!t || !(IsAsciiLetter(t[0]) || t[0] == '_')) return false;
    for (const char *p = t + 1; *p; ++p)
    {
        if (IsAsciiLetter(*p) || IsAsciiDigit(*p) || *p == '_') continue;
        if (*p == '.' && (IsAsciiLetter(p[1]) || p[1] == '_')) continue;
        return false;
    }
    return true;
}

// ---- new identifiers ---------------------------------------------------------------------------

KeID KeID::operator+(const char *text) const
{
    const char *a = Text();
    KeID result;
    result.m_Text = Join(a ? a : "", text ? text : "");
    return result;
}

KeID KeID::operator+(const KeID &other) const
{
    return *this + other.Text();
}

KeID operator+(const char *text, const KeID &id)
{
    return KeID(text ? text : "", id.Text() ? id.Text() : "");
}

KeID &KeID::operator+=(const char *text)
{
    return *this = *this + text;
}

KeID KeID::Mid(int start, int count) const
{
    int len = GetLength();
    if (start < 0) start = 0;
    if (len == 0 || start >= len) return KeID();
    int n = len - start;
    if (count >= 0 && count < n) n = count;
    return KeID(Text() + start, static_cast<size_t>(n));
}

KeID KeID::Left(int count) const
{
    int len = GetLength();
    if (len == 0) return KeID();
    if (count < 0 || count > len) count = len;
    return KeID(Text(), static_cast<size_t>(count));
}

KeID &KeID::PrintF(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    char *text = FormatV(format, args);
    va_end(args);
    if (text)
    {
        Set(text, true);
        std::free(text);
    }
    return *this;
}

KeID &KeID::CatF(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    char *text = FormatV(format, args);
    va_end(args);
    if (text)
    {
        *this += text;
        std::free(text);
    }
    return *this;
}

// ---- Strip -------------------------------------------------------------------------------------

KeID KeID::Strip() const
{
    const char *t = Text();
    if (!t || !*t) return NOID;
    // StripName keeps bytes of the input only, so the result is never longer than it.
    size_t len = std::strlen(t);
    char stackBuffer[256];
    char *out = len < sizeof(stackBuffer) ? stackBuffer : static_cast<char *>(std::malloc(len + 1));
    if (!out) return KeID();
    StripName(out, t, nullptr);
    size_t kept = std::strlen(out);
    KeID result = kept ? KeID(out, kept) : KeID();
    if (out != stackBuffer) std::free(out);
    return result;
}

} // namespace orvexScript
