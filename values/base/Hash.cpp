// The string hashes. The folded one is the string blocks' own hash; gethash keeps case and takes the
// two steps of the folded hash in the other order.
#include "values/base/Hash.h"

#include "values/base/StringBlock.h"

namespace orvexScript
{

uint32_t GetHashValue(const char *text, TagList *)
{
    return StringHash(text);
}

uint32_t GetHashValue(const char *text, int length, TagList *)
{
    if (!text || length <= 0) return 0;
    return StringHash(text, static_cast<size_t>(length));
}

uint32_t gethash(const char *text)
{
    uint32_t h = 0;
    if (!text) return 0;
    for (uint32_t i = 0; text[i]; ++i)
    {
        // The byte as a signed 8-bit value, widened with its sign.
        uint32_t c = static_cast<uint32_t>(static_cast<int32_t>(static_cast<signed char>(text[i])));
        if (i % 2 == 0)
            h = h ^ ~((h << 11) ^ c ^ (h >> 5));
        else
            h = h ^ (h << 7) ^ c ^ (h >> 3);
    }
    return h;
}

} // namespace orvexScript
