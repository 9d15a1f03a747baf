// UUID creation from the system's random bytes, with the version (4) and variant (RFC 4122) bits set.
#include "values/model/UUID.h"

#include "values/base/UtilSys.h"
#include "values/model/ScriptVal.h"

namespace orvexScript
{

bool CreateUUIDText(char *out, size_t size)
{
    if (!out || size <= kUUIDTextLength) return false;
    out[0] = '\0';
    unsigned char bytes[16];
    if (!UtilSys::RandomBytes(bytes, sizeof(bytes))) return false;
    bytes[6] = static_cast<unsigned char>((bytes[6] & 0x0F) | 0x40);
    bytes[8] = static_cast<unsigned char>((bytes[8] & 0x3F) | 0x80);

    static const char digits[] = "0123456789abcdef";
    char *p = out;
    for (int i = 0; i < 16; ++i)
    {
        if (i == 4 || i == 6 || i == 8 || i == 10) *p++ = '-';
        *p++ = digits[bytes[i] >> 4];
        *p++ = digits[bytes[i] & 15];
    }
    *p = '\0';
    return true;
}

void CreateUUID(ScriptVal &value)
{
    char text[kUUIDTextLength + 1];
    if (CreateUUIDText(text, sizeof(text))) value = text;
}

ScriptVal CreateUUID()
{
    ScriptVal value;
    CreateUUID(value);
    return value;
}

} // namespace orvexScript
