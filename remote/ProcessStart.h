// Starting a program as a detached background process, and where this process and this library live.
// Linux code is in linux/ProcessStart.cpp. Internal to the library (nothing exported).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace orvexScript::ProcessStart
{

// Starts `argv[0]` (a path) with `argv` in the folder `workDir` (empty: this process's), in a
// session of its own, with standard input, output and error on /dev/null, no descriptor of this
// process beyond those, default signal handling and an empty signal mask. A thread of this process
// waits for its end, so it never stays behind as a zombie. True with `pid` set; false with `error`
// holding the cause (an errno value).
bool StartDetached(const std::vector<std::string> &argv, const std::string &workDir, int &pid, int &error);

// The folder of the running executable, and of the file this library was loaded from (the executable
// itself when the library is linked in statically). Empty if unknown. No trailing '/'.
std::string ExecutableFolder();
std::string LibraryFolder();

// True if `path` names a file this process may execute.
bool IsExecutable(const std::string &path);

// Splits a command line into words: blanks separate, double quotes group, \" stands for a quote. Other
// backslashes are kept, so paths written with them pass through.
std::vector<std::string> SplitCommandLine(const char *line);

// This process's id.
uint32_t CurrentProcessId();

} // namespace orvexScript::ProcessStart
