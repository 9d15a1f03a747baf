// Checks and repairs of names that scripts use as identifiers: exact comparison, reduction to a legal
// identifier, and the test against the reserved words.
#pragma once

#include "values/base/Export.h"

#include <cstddef>

namespace orvexScript
{

class TagList;

// True when both texts are byte for byte the same (case counts). Two nulls are the same; a null and a
// text are not.
ORVEX_API bool CompareName(const char *a, const char *b, TagList *tags = nullptr);

// Writes into `out` the text of `in` reduced to an identifier: letters (any script) and "_" are kept,
// digits only once something has been kept before them, everything else goes. `out` holds at least as
// many bytes as `in` with its terminator. A null `in` gives an empty `out`. The result may be empty or
// a reserved word; IsValidName tells the latter.
ORVEX_API void StripName(char *out, const char *in, TagList *tags = nullptr);

// False when `name` is one of the reserved words (ignoring ASCII case), or null; true otherwise. Tests
// nothing else: an empty text or one with blanks is valid here.
ORVEX_API bool IsValidName(const char *name, TagList *tags = nullptr);

// True when the `len` bytes at `s` are one of the keywords of the text form, with case ("end", not
// "End"). Used inside the library by the writer and the reader of that form.
bool IsReservedWord(const char *s, size_t len);

} // namespace orvexScript
