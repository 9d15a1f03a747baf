// The operating system services behind the library table `orvex`: directories and files, processes,
// the console, the clipboard, named global locks, the saved-login key store. The Lua side (argument
// checks, results) is in LuaHostLib.cpp and LuaHostFiles.cpp; the Linux code is linux/HostSystem.cpp.
// Internal to the library. Every path given here may use "/" or "\" as its separator.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace orvexScript::HostSystem
{

// The size of a path buffer of the file functions, terminator included: a path must be shorter.
constexpr size_t kMaxPath = 260;

// Attribute bits of a directory entry, as scripts know them.
enum EntryAttributes : uint32_t
{
    EA_ReadOnly = 0x01, // this process may not write to it
    EA_Hidden = 0x02,   // its name starts with "."
    EA_System = 0x04,   // neither a regular file nor a directory (device, pipe, socket, broken link)
    EA_Dir = 0x10,
    EA_Archive = 0x20,  // a regular file
};

struct DirEntry
{
    std::string name;
    uint32_t size = 0;        // the low 32 bits of the size in bytes
    uint32_t attributes = 0;  // EntryAttributes
    double createTime = -1;   // seconds since 1970; -1 where the file system keeps none
    double accessTime = -1;
    double writeTime = 0;
};

// The entries of the folder `folder` (empty: the current one) whose names match the wildcard pattern
// `pattern` ("*", "?", "[...]"; "*.*" means every name), in the order the system lists them, without
// "." and "..". False if the folder can't be read.
bool ListFolder(const std::string &folder, const std::string &pattern, std::vector<DirEntry> &out);

bool MakeFolder(const char *path);   // the folder alone, not its ancestors; false if it exists
bool RemoveFolder(const char *path); // an empty folder
bool IsFolder(const char *path);
bool IsRegularFile(const char *path);
// The current folder without a trailing separator into `out` (size bytes); false if it doesn't fit.
bool CurrentFolder(char *out, size_t size);
bool ChangeFolder(const char *path);

// Starts the program of `commandLine` (split into words; "..." groups, \" is a quote), found through
// PATH, with this process's standard input, output and error and no other descriptor. With `wait` it
// waits for its end and gives its exit status (128 + the signal number if a signal ended it); without,
// a thread of this process reaps it when it ends. False if it could not be started.
bool StartProcess(const char *commandLine, bool wait, int &exitCode);
uint32_t ProcessId();
void SleepMilliseconds(uint32_t ms);

// Reopens standard input, output and error on the controlling terminal; false without one.
bool AttachConsole();
// This system never suspends on a script's request: always false.
bool RequestSuspend();
// Writes to an address that no mapping backs, so the process takes the fault path of a real crash.
[[noreturn]] void RaiseAccessFault();

// The clipboard through the program xclip, used only when a display is set and xclip is on PATH.
// Reading gives false when that isn't so, when xclip fails, or when it gives nothing within 2 s.
bool ReadClipboard(std::string &text);
// Sets the clipboard to `text` (null: empties it); false as ReadClipboard.
bool WriteClipboard(const char *text);

// Named locks between processes: an exclusive flock on a file per name in a folder of this user's
// under $TMPDIR (or /tmp). Within the process a lock belongs to the thread that obtained it and may be
// obtained again by that thread (each obtain needs a release). `timeoutMs` < 0 waits without bound.
// False on a time-out, for an empty name, or one too long for a file name.
bool ObtainGlobalLock(const char *name, int64_t timeoutMs);
// False unless the calling thread holds the lock. The lock's file stays open for the process's life.
bool ReleaseGlobalLock(const char *name);

// The default value of the key `key` (parts separated by "\") of the current user's key store, at
// most `limit` bytes of it; false if there is no such key or value. The store keeps each key in the
// file $XDG_CONFIG_HOME/orvexScript/registry/<part>/.../<last part>.key (XDG_CONFIG_HOME defaults to
// ~/.config), one "name=value" line per value, the default value under the empty name ("=value").
// A part that is empty, "." or "..", or holds "/", names no key.
bool ReadKeyDefault(const char *key, std::string &value, size_t limit);

} // namespace orvexScript::HostSystem
