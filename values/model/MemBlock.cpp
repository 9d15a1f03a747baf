// MemBlock file helpers: reading a whole file into a new buffer and writing a block out.
#include "values/model/MemBlock.h"

#include <cstdio>
#include <cstdlib>

namespace orvexScript
{

MemBlock::MemBlock(const char *filename)
{
    FILE *file = filename ? std::fopen(filename, "rb") : nullptr;
    if (!file) return;
    long size = -1;
    if (std::fseek(file, 0, SEEK_END) == 0) size = std::ftell(file);
    if (size < 0 || size > 0xFFFFFFFFL || std::fseek(file, 0, SEEK_SET) != 0)
    {
        std::fclose(file);
        return;
    }
    // One byte more so that an empty file still gets a buffer to read into.
    void *buffer = std::malloc(static_cast<size_t>(size) + 1);
    if (!buffer)
    {
        std::fclose(file);
        return;
    }
    size_t got = std::fread(buffer, 1, static_cast<size_t>(size), file);
    std::fclose(file);
    if (got == 0)
    {
        std::free(buffer);
        return;
    }
    m_Ptr = buffer;
    m_Size = static_cast<uint32_t>(got);
}

bool MemBlock::Save(const char *filename) const
{
    if (!m_Ptr || !filename) return false;
    FILE *file = std::fopen(filename, "wb");
    if (!file) return false;
    size_t written = m_Size ? std::fwrite(m_Ptr, 1, m_Size, file) : 0;
    bool closed = std::fclose(file) == 0;
    return closed && written == m_Size;
}

} // namespace orvexScript
