// KeID: the string identifier, one pointer wide. It holds null, a shared string block (see
// StringBlock.h) or a plain text pointer that it does not own (the cheap form for literals).
// Copies share the block without allocating; equality compares bytes.
#pragma once

#include <cstddef>
#include <cstdint>

#include "values/base/Export.h"

namespace orvexScript
{

class ORVEX_API KeID
{
public:
    KeID() = default;
    // A literal that is not copied, usable for constants made at load time.
    struct LiteralTag
    {
    };
    constexpr KeID(LiteralTag, const char *text) : m_Text(const_cast<char *>(text)) {}
    // Null gives empty; a marked block is shared; else `copy` makes a block, or keeps the pointer.
    KeID(const char *text, bool copy = true);
    // The two texts joined; `a` null gives empty, `b` null gives KeID(a).
    KeID(const char *a, const char *b);
    // A new block of at most `len` bytes of `text`; a leading marker is skipped, so it never shares.
    KeID(const char *text, size_t len);
    KeID(const char *text, int len) : KeID(text, static_cast<size_t>(len < 0 ? 0 : len)) {}
    KeID(const KeID &other);
    KeID(KeID &&other) noexcept : m_Text(other.m_Text) { other.m_Text = nullptr; }
    ~KeID() { Cleanup(); }

    KeID &operator=(const KeID &other) { return Set(other); }
    KeID &operator=(KeID &&other) noexcept;

    KeID &Set(const char *text, bool copy = true);
    KeID &Set(const char *a, const char *b);
    KeID &Set(const char *text, size_t len);
    KeID &Set(const char *text, int len) { return Set(text, static_cast<size_t>(len < 0 ? 0 : len)); }
    KeID &Set(const KeID &other);

    // The text behind the marker, or null.
    operator const char *() const { return Text(); }
    const char *Text() const;
    // The raw pointer: the block's marker, a plain text, or null. Handing it on shares the block.
    const char *Raw() const { return m_Text; }

    bool operator==(const char *text) const;
    bool operator!=(const char *text) const { return !(*this == text); }
    bool operator==(const KeID &other) const { return *this == other.Text(); }
    bool operator!=(const KeID &other) const { return !(*this == other.Text()); }

    bool IsValid() const;
    bool IsEmpty() const;
    int GetLength() const;
    int Find(char c, int start = 0) const;
    int ReverseFind(char c, int start = -1) const;
    uint32_t GetHashValue() const;

    bool IsInGroup() const;
    bool IsInGroup(const char *group) const;
    bool IsSameGroup(const char *other) const;
    bool IsValidSymbol() const;

    KeID operator+(const char *text) const;
    KeID operator+(const KeID &other) const;
    KeID &operator+=(const char *text);
    KeID Mid(int start, int count = -1) const;
    KeID Left(int count) const;

    // Replace / append the printf-formatted text. Unchanged if the buffer can't be allocated.
    KeID &PrintF(const char *format, ...) __attribute__((format(printf, 2, 3)));
    KeID &CatF(const char *format, ...) __attribute__((format(printf, 2, 3)));

    // Letters (of any script), digits and '_' of this identifier, leading digits dropped.
    KeID Strip() const;

protected:
    void Cleanup();

private:
    char *m_Text = nullptr;
};

ORVEX_API KeID operator+(const char *text, const KeID &id);

ORVEX_API extern const KeID NOID;
ORVEX_API extern const KeID ROID_XYZ, ROID_XZY, ROID_YXZ, ROID_YZX, ROID_ZXY, ROID_ZYX;
ORVEX_API extern const KeID ROID_UVW, ROID_UWV, ROID_VUW, ROID_VWU, ROID_WUV, ROID_WVU;

} // namespace orvexScript
