// The string hashes: GetHashValue, the case-folded hash that string look-ups use, and gethash, a
// case-keeping hash with its steps the other way round. The two kinds of result don't mix.
#pragma once

#include <cstdint>

#include "values/base/Export.h"

namespace orvexScript
{

class TagList;

// The case-folded hash of a NUL-terminated text; 0 for null.
ORVEX_API uint32_t GetHashValue(const char *text, TagList *tags = nullptr);
// The case-folded hash of exactly `length` bytes (a NUL among them is hashed too); 0 for null or a
// length of 0 or below.
ORVEX_API uint32_t GetHashValue(const char *text, int length, TagList *tags = nullptr);
// The case-keeping hash of a NUL-terminated text; 0 for null.
ORVEX_API uint32_t gethash(const char *text);

} // namespace orvexScript
