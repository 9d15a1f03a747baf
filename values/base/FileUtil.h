// Small file operations on paths in the system's narrow encoding: existence, size, loading a whole
// text and saving one. Failures show only in the results.
#pragma once

#include <cstdint>

#include "values/base/Export.h"

namespace orvexScript
{

class TagList;

// True when the path can be examined and names a regular file (a directory gives false).
ORVEX_API bool FileExists(const char *path, TagList *tags = nullptr);
// The size in bytes of a regular file that can be opened for reading; 0 otherwise, so an empty file and
// a missing one look alike (FileExists tells them apart).
ORVEX_API uint64_t FileGetSize(const char *path, TagList *tags = nullptr);
// The file's content in a new block from malloc with a NUL behind what was read; the caller frees it.
// Null when the file can't be opened or read, is no regular file, is empty, or memory runs out.
ORVEX_API char *FileLoadText(const char *path, TagList *tags = nullptr);
// Replaces the file with `length` bytes of `text` (0: the text's own length), keeping an existing file's
// owner and mode. False, touching nothing, when there is nothing to write; false, leaving the old file
// as it was and no partial file behind, when the write fails. The exception: an existing file in a folder
// that takes no new file is rewritten in place, and a failure there can leave it cut short.
[[nodiscard]] ORVEX_API bool FileSaveText(const char *path, const char *text, uint64_t length = 0,
                                          TagList *tags = nullptr);

} // namespace orvexScript
