// Small file operations. Examining paths and the safe replacement of a file are behind UtilSys.
#include "values/base/FileUtil.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "values/base/UtilSys.h"

namespace orvexScript
{

bool FileExists(const char *path, TagList *)
{
    return UtilSys::StatPath(path) == UtilSys::PathKind::Regular;
}

// Opens a path for reading only if it names a regular file: opening a named pipe would wait for a
// writer, and a device may not be meant to be read at all.
static FILE *OpenRegular(const char *path, const char *mode)
{
    if (UtilSys::StatPath(path) != UtilSys::PathKind::Regular) return nullptr;
    return fopen(path, mode);
}

uint64_t FileGetSize(const char *path, TagList *)
{
    FILE *stream = OpenRegular(path, "rb");
    if (!stream) return 0;
    uint64_t size = 0;
    if (!UtilSys::StreamFileSize(stream, size)) size = 0;
    fclose(stream);
    return size;
}

// Reads up to `size` bytes; gives how many came. Stops early at the end of the file or on an error.
static size_t ReadUpTo(FILE *stream, char *block, uint64_t size)
{
    size_t done = 0;
    while (done < size)
    {
        size_t got = fread(block + done, 1, static_cast<size_t>(size - done), stream);
        if (got == 0) break;
        done += got;
    }
    return done;
}

char *FileLoadText(const char *path, TagList *)
{
    // Text mode, measured on the open file; on this system no line ends are translated.
    FILE *stream = OpenRegular(path, "r");
    if (!stream) return nullptr;
    uint64_t size = 0;
    char *block = nullptr;
    if (UtilSys::StreamFileSize(stream, size) && size > 0 && size < SIZE_MAX)
        block = static_cast<char *>(malloc(static_cast<size_t>(size) + 1));
    if (block)
    {
        size_t got = ReadUpTo(stream, block, size);
        // A read error, or a file emptied since it was measured, gives no content.
        if (ferror(stream) || got == 0)
        {
            free(block);
            block = nullptr;
        }
        else
            block[got] = '\0';
    }
    fclose(stream);
    return block;
}

bool FileSaveText(const char *path, const char *text, uint64_t length, TagList *)
{
    if (!path || !text) return false;
    if (length == 0) length = strlen(text);
    if (length == 0 || length > SIZE_MAX) return false;
    return UtilSys::ReplaceFile(path, text, static_cast<size_t>(length));
}

} // namespace orvexScript
