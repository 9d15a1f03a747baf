// lf_Buffer: a growing byte buffer that takes the output of lua_dump, so that compiled chunks can be
// kept or sent. Writer has the shape of a lua_Writer with the buffer as its user data.
#pragma once

#include <cstddef>

#include "values/base/Export.h"

struct lua_State;

namespace orvexScript
{

class ORVEX_API lf_Buffer
{
public:
    lf_Buffer() = default;
    ~lf_Buffer();
    lf_Buffer(const lf_Buffer &) = delete;
    lf_Buffer &operator=(const lf_Buffer &) = delete;

    // Reallocates to exactly `size` bytes if that is above the capacity; otherwise does nothing.
    // False if memory ran out (the buffer is then as it was).
    [[nodiscard]] bool Grow(long size);
    // Appends `size` bytes, starting the capacity at 32 and doubling it until they fit. A write of no
    // bytes is ignored. False if memory ran out.
    [[nodiscard]] bool Append(const void *data, size_t size);

    // lua_dump's writer: appends to the lf_Buffer in `userData`; 0 on success, non-zero stops the dump.
    static int Writer(lua_State *state, const void *data, size_t size, void *userData);

    long m_Capacity = 0;
    long m_Length = 0;
    char *m_Data = nullptr; // from realloc; null until the first growth
};

} // namespace orvexScript
