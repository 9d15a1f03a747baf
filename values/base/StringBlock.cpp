// Shared string blocks: allocation, sharing by count, release, and the case-folded string hash.
// Layout of a block: int32 count | 0xFF marker | text | NUL. Pointers handed out point at the marker.
#include "values/base/StringBlock.h"

#include <atomic>
#include <cstdlib>
#include <cstring>

namespace orvexScript
{

namespace
{

constexpr size_t kCountSize = sizeof(int32_t);

std::atomic_ref<int32_t> CountOf(const char *block)
{
    // The count lies 4 bytes before the marker, at the (malloc-aligned) start of the allocation.
    return std::atomic_ref<int32_t>(*reinterpret_cast<int32_t *>(const_cast<char *>(block) - kCountSize));
}

// A block of `len` text bytes, count 1, marker set, text left for the caller, terminated.
char *AllocBlock(size_t len)
{
    char *raw = static_cast<char *>(std::malloc(len + kCountSize + 2));
    if (!raw) return nullptr;
    *reinterpret_cast<int32_t *>(raw) = 1;
    char *block = raw + kCountSize;
    block[0] = static_cast<char>(kStringBlockMarker);
    block[len + 1] = '\0';
    return block;
}

inline uint32_t HashStep(uint32_t h, char ch, size_t i)
{
    uint32_t c = static_cast<uint32_t>(static_cast<int32_t>(static_cast<signed char>(ch)));
    if (ch >= 'A' && ch <= 'Z') c += 32;
    if ((i & 1) == 0) return h ^ (h << 7) ^ c ^ (h >> 3);
    return h ^ ~((h << 11) ^ c ^ (h >> 5));
}

} // namespace

char *StringBlockNew(const char *text, size_t len)
{
    char *block = AllocBlock(len);
    if (!block) return nullptr;
    size_t n = 0;
    if (text)
        while (n < len && text[n])
            ++n;
    if (n) std::memcpy(block + 1, text, n);
    if (n < len) std::memset(block + 1 + n, 0, len - n);
    return block;
}

char *StringBlockNew(const char *text)
{
    return StringBlockNew(text, text ? std::strlen(text) : 0);
}

char *StringBlockJoin(const char *a, size_t lenA, const char *b, size_t lenB)
{
    char *block = AllocBlock(lenA + lenB);
    if (!block) return nullptr;
    if (lenA) std::memcpy(block + 1, a, lenA);
    if (lenB) std::memcpy(block + 1 + lenA, b, lenB);
    return block;
}

char *StringBlockShareOrCopy(const char *text)
{
    if (!text) return nullptr;
    if (IsStringBlock(text))
    {
        char *block = const_cast<char *>(text);
        StringBlockRetain(block);
        return block;
    }
    return StringBlockNew(text);
}

void StringBlockRetain(char *block)
{
    if (block) CountOf(block).fetch_add(1, std::memory_order_seq_cst);
}

void StringBlockRelease(char *block)
{
    if (block && CountOf(block).fetch_sub(1, std::memory_order_seq_cst) == 1) std::free(block - kCountSize);
}

int32_t StringBlockCount(const char *block)
{
    return block ? CountOf(block).load(std::memory_order_relaxed) : 0;
}

uint32_t StringHash(const char *text)
{
    uint32_t h = 0;
    if (text)
        for (size_t i = 0; text[i]; ++i)
            h = HashStep(h, text[i], i);
    return h;
}

uint32_t StringHash(const char *text, size_t len)
{
    uint32_t h = 0;
    if (text)
        for (size_t i = 0; i < len; ++i)
            h = HashStep(h, text[i], i);
    return h;
}

} // namespace orvexScript
