// The operating-system services behind the small utilities: process facts, random bytes, IPv4 look-ups
// and file primitives. Internal to the library; the Linux bodies live in linux/ProcInfo.cpp,
// linux/SysRandom.cpp, linux/NetInfo.cpp and linux/SysFile.cpp. Nothing here includes a system header.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace orvexScript::UtilSys
{

// The id of this process.
uint32_t ProcessId();
// The command line of this process, its arguments joined by single blanks; empty if unknown.
std::string CommandLine();

// Fills `out` with `size` bytes from the system's random source. False if it could not.
[[nodiscard]] bool RandomBytes(void *out, size_t size);

// Reads dotted IPv4 text (the classic forms: "a.b.c.d", "a.b.c", "a.b", "a", each part decimal, octal
// or hex) into a 32-bit address in network order. False if the text is no address.
[[nodiscard]] bool ParseIPv4(const char *text, uint32_t &ip);
// The first IPv4 address of a host name. False if the name is unknown or has no IPv4 address.
[[nodiscard]] bool ResolveIPv4(const char *host, uint32_t &ip);
// All IPv4 addresses that this machine's host name resolves to. False if either look-up failed.
[[nodiscard]] bool HostNameAddresses(std::vector<uint32_t> &ips);
// The IPv4 addresses of this machine's network interfaces (loopback included).
void InterfaceAddresses(std::vector<uint32_t> &ips);

// What a path names, following symbolic links.
enum class PathKind
{
    Missing, // can't be examined
    Regular,
    Other, // directory, device, pipe, ...
};
PathKind StatPath(const char *path);
// The size of an open stream's file; false unless it is a regular file that could be measured.
[[nodiscard]] bool StreamFileSize(FILE *stream, uint64_t &size);
// Replaces the file at `path` with `size` bytes of `data`: they go to a new temporary file beside it,
// which is renamed over the target only once everything is written, with the old file's owner and mode.
// On failure nothing is left behind and the old file is unchanged. An existing file whose folder takes
// no new file, or whose owner the new file can't be given, is rewritten in place instead (not atomic).
[[nodiscard]] bool ReplaceFile(const char *path, const void *data, size_t size);

} // namespace orvexScript::UtilSys
