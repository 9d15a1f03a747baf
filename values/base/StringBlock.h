// The shared string block behind ScriptVal strings, table keys and KeID: a 32-bit atomic count, the
// marker byte 0xFF, the text and a NUL. Block pointers point at the marker; the text lies behind it.
// Also the case-folded string hash that look-ups and KeID::GetHashValue use.
#pragma once

#include <cstddef>
#include <cstdint>

#include "values/base/Export.h"

namespace orvexScript
{

constexpr unsigned char kStringBlockMarker = 0xFF;

// True if `p` leads to a shared block (its first byte is the marker).
inline bool IsStringBlock(const char *p)
{
    return p && static_cast<unsigned char>(*p) == kStringBlockMarker;
}

// The text of a block: the byte behind the marker.
inline const char *StringBlockText(const char *block)
{
    return block ? block + 1 : nullptr;
}

// A new block with count 1 holding at most `len` bytes of `text`, stopping early at a NUL and
// zero-filling the rest; always terminated at `len`. Null if the allocation fails.
ORVEX_API char *StringBlockNew(const char *text, size_t len);
// A new block holding the whole of `text` (which must not be null).
ORVEX_API char *StringBlockNew(const char *text);
// A new block holding `a` followed by `b` (either may be null).
ORVEX_API char *StringBlockJoin(const char *a, size_t lenA, const char *b, size_t lenB);
// A block for `text`: a marked pointer is shared (count + 1), any other text copied. Null for null.
ORVEX_API char *StringBlockShareOrCopy(const char *text);

// Count + 1 / count - 1 (atomic, full barrier); the release frees the block at 0. Null is ignored.
ORVEX_API void StringBlockRetain(char *block);
ORVEX_API void StringBlockRelease(char *block);
// The current count, for tests and diagnostics.
ORVEX_API int32_t StringBlockCount(const char *block);

// The case-folded hash of a NUL-terminated text; 0 for null or empty.
ORVEX_API uint32_t StringHash(const char *text);
// The same hash over exactly `len` bytes.
ORVEX_API uint32_t StringHash(const char *text, size_t len);

} // namespace orvexScript
