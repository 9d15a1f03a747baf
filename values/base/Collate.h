// The "smart" string order: case-insensitive locale collation in which a run of digits that follows a
// shared character compares by its value, so that "file9" sorts before "file10".
#pragma once

#include "values/base/Export.h"

namespace orvexScript
{

// Negative, zero or positive as `a` sorts before, with or after `b`. Texts are UTF-8. A null text
// sorts before any other.
ORVEX_API int stricoll_smart(const char *a, const char *b);
// The same order over wide texts.
ORVEX_API int wcsicoll_smart(const wchar_t *a, const wchar_t *b);

} // namespace orvexScript
