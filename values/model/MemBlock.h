// MemBlock: a plain descriptor of a byte block (pointer and size). It owns nothing; whoever made the
// bytes frees them. Also reading a whole file into a new buffer and writing a block to a file.
#pragma once

#include <cstdint>

#include "values/base/Export.h"

namespace orvexScript
{

class ORVEX_API MemBlock
{
public:
    void *m_Ptr = nullptr;
    uint32_t m_Size = 0;

    MemBlock() = default;
    MemBlock(void *ptr, unsigned long size) : m_Ptr(ptr), m_Size(static_cast<uint32_t>(size)) {}
    // Reads the whole file into a new malloc'd buffer that the caller frees. Empty on failure.
    explicit MemBlock(const char *filename);

    // Writes all bytes to `filename`; false for a null pointer, an unopenable file or a short write.
    [[nodiscard]] bool Save(const char *filename) const;
};

} // namespace orvexScript
