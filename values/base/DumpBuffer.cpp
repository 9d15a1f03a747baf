// lf_Buffer: the growing buffer behind lua_dump.
#include "values/base/DumpBuffer.h"

#include <climits>
#include <cstdlib>
#include <cstring>

namespace orvexScript
{

lf_Buffer::~lf_Buffer()
{
    free(m_Data);
}

bool lf_Buffer::Grow(long size)
{
    if (size <= m_Capacity) return true;
    void *grown = realloc(m_Data, static_cast<size_t>(size));
    if (!grown) return false;
    m_Data = static_cast<char *>(grown);
    m_Capacity = size;
    return true;
}

bool lf_Buffer::Append(const void *data, size_t size)
{
    if (size == 0) return true;
    if (size > static_cast<size_t>(LONG_MAX - m_Length)) return false;
    long needed = m_Length + static_cast<long>(size);
    long capacity = m_Capacity > 0 ? m_Capacity : 32;
    while (capacity < needed)
        capacity = capacity > LONG_MAX / 2 ? needed : capacity * 2;
    if (!Grow(capacity)) return false;
    memcpy(m_Data + m_Length, data, size);
    m_Length = needed;
    return true;
}

int lf_Buffer::Writer(lua_State *, const void *data, size_t size, void *userData)
{
    auto *buffer = static_cast<lf_Buffer *>(userData);
    return buffer && buffer->Append(data, size) ? 0 : 1;
}

} // namespace orvexScript
