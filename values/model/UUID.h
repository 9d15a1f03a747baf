// UUID creation: random (version 4) UUIDs in their text form, 36 characters of lower-case hexadecimal
// in groups of 8, 4, 4, 4 and 12 joined by hyphens, without braces. This text is what connections store
// and compare.
#pragma once

#include <cstddef>

#include "values/base/Export.h"

namespace orvexScript
{

class ScriptVal;

// The text length of a UUID, without the terminator.
constexpr size_t kUUIDTextLength = 36;

// Writes the text of a new UUID and a terminator into `out` (at least kUUIDTextLength + 1 bytes).
// False, with `out` empty, when the system gives no random bytes.
[[nodiscard]] ORVEX_API bool CreateUUIDText(char *out, size_t size);
// Assigns the text of a new UUID to `value` by the ordinary assignment rules, so a constant value
// keeps what it holds. A value stays as it was if no UUID could be made.
ORVEX_API void CreateUUID(ScriptVal &value);
// A new UUID's text as a string value; nil if none could be made.
ORVEX_API ScriptVal CreateUUID();

} // namespace orvexScript
