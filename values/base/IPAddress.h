// IPv4 address text: reading dotted text or host names, formatting, and telling this machine's own
// addresses. Addresses are 32-bit values in network order: the first number of the text is the lowest
// byte.
#pragma once

#include <cstdint>

#include "values/base/Export.h"

namespace orvexScript
{

class TagList;

constexpr uint32_t kNoIPAddress = 0xFFFFFFFFu;

// The address of dotted text, or else the first IPv4 address of a host name; kNoIPAddress if neither
// (the same value as 255.255.255.255).
ORVEX_API uint32_t IPFromStr(const char *text, TagList *tags = nullptr);
// Formats "a.b.c.d" into at most `size - 1` characters and always terminates at `out[size - 1]`.
ORVEX_API void StrFromIP(uint32_t ip, char *out, int size, TagList *tags = nullptr);
// True for "127.0.0.1", and for dotted text of an address that this machine's host name resolves to or
// that one of its interfaces carries. False for anything else, and when the look-ups fail.
ORVEX_API bool IsLocalIP(const char *text, TagList *tags = nullptr);

} // namespace orvexScript
