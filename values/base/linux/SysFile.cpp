// File primitives for the utilities on Linux: examining paths, measuring open files, and replacing a
// file through a temporary file beside it and a rename, so that a failed write leaves nothing behind.
// Where the folder takes no new file, or the new file could not be given the old one's owner, the file
// is written in place instead.
#include "values/base/UtilSys.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <string>

namespace orvexScript::UtilSys
{

PathKind StatPath(const char *path)
{
    struct stat info
    {
    };
    if (!path || stat(path, &info) != 0) return PathKind::Missing;
    return S_ISREG(info.st_mode) ? PathKind::Regular : PathKind::Other;
}

bool StreamFileSize(FILE *stream, uint64_t &size)
{
    struct stat info
    {
    };
    if (!stream || fstat(fileno(stream), &info) != 0 || !S_ISREG(info.st_mode)) return false;
    size = static_cast<uint64_t>(info.st_size);
    return true;
}

// The file that a write to `path` would change: a symbolic link is followed to its target, so that
// the rename replaces the target and not the link.
static std::string RealTarget(const char *path)
{
    struct stat info
    {
    };
    if (lstat(path, &info) == 0 && S_ISLNK(info.st_mode))
    {
        if (char *real = realpath(path, nullptr))
        {
            std::string target(real);
            free(real);
            return target;
        }
    }
    return path;
}

static std::string FolderOf(const std::string &path)
{
    size_t slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

// Creates a new, hidden temporary file in `folder`; gives its descriptor and fills `tempPath`, or -1.
static int CreateTempFile(const std::string &folder, std::string &tempPath)
{
    static const char digits[] = "0123456789abcdef";
    for (int attempt = 0; attempt < 16; ++attempt)
    {
        unsigned char noise[8];
        if (!RandomBytes(noise, sizeof(noise))) return -1;
        std::string name = folder + "/.orvex-";
        for (unsigned char byte : noise)
        {
            name += digits[byte >> 4];
            name += digits[byte & 15];
        }
        name += ".tmp";
        // 0666 like fopen: the process's umask applies.
        int fd = open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (fd >= 0)
        {
            tempPath = name;
            return fd;
        }
        if (errno != EEXIST) return -1;
    }
    return -1;
}

static bool WriteAll(int fd, const void *data, size_t size)
{
    auto *bytes = static_cast<const char *>(data);
    while (size > 0)
    {
        ssize_t written = write(fd, bytes, size);
        if (written < 0)
        {
            if (errno == EINTR) continue;
            return false;
        }
        bytes += written;
        size -= static_cast<size_t>(written);
    }
    return true;
}

// Truncates and rewrites an existing regular file. Not atomic, but the file keeps its inode, owner and
// mode; used only where the rename way is closed.
static bool WriteInPlace(const std::string &target, const void *data, size_t size)
{
    // Non-blocking, so that a pipe put in the file's place can't hold the open; it is refused below.
    int fd = open(target.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return false;
    struct stat info
    {
    };
    bool ok = fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && ftruncate(fd, 0) == 0 &&
              WriteAll(fd, data, size) && fsync(fd) == 0;
    ok = (close(fd) == 0) && ok;
    return ok;
}

bool ReplaceFile(const char *path, const void *data, size_t size)
{
    if (!path || !*path) return false;
    std::string target = RealTarget(path);
    struct stat old
    {
    };
    const bool replacing = stat(target.c_str(), &old) == 0 && S_ISREG(old.st_mode);
    std::string tempPath;
    int fd = CreateTempFile(FolderOf(target), tempPath);
    if (fd < 0) return replacing && WriteInPlace(target, data, size); // the folder takes no new file

    if (replacing)
    {
        // A file that is replaced keeps its owner and permission bits, as it would when overwritten in
        // place. The mode goes last, as a change of owner clears the set-id bits.
        struct stat made
        {
        };
        const bool sameOwner =
            fstat(fd, &made) == 0 && made.st_uid == old.st_uid && made.st_gid == old.st_gid;
        if (!sameOwner && fchown(fd, old.st_uid, old.st_gid) != 0)
        {
            // Only the owner's own rights could give the file away: keep it and write into it.
            close(fd);
            unlink(tempPath.c_str());
            return WriteInPlace(target, data, size);
        }
        (void)fchmod(fd, old.st_mode & 07777);
    }

    bool ok = WriteAll(fd, data, size) && fsync(fd) == 0;
    ok = (close(fd) == 0) && ok;
    ok = ok && rename(tempPath.c_str(), target.c_str()) == 0;
    if (!ok) unlink(tempPath.c_str());
    return ok;
}

} // namespace orvexScript::UtilSys
