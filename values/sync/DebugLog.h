// DebugLog: a diagnostic log file named "<base>_<pid>.log", switched on by an environment variable.
// Each entry starts with the millisecond tick and the thread id; the lock keeps entries of several
// threads whole. Usually made once as a static object.
#pragma once

#include <cstdint>
#include <cstdio>

#include "values/base/Export.h"
#include "values/sync/Lock.h"

namespace orvexScript
{

class ORVEX_API DebugLog
{
public:
    static constexpr int kFileNameSize = 260;

    // Builds the file name from `baseName` and the process id and decides from `envName` (kept, not
    // copied: it must outlive the log) and `defaultOn` whether the log is on. If it is, the file is
    // opened for appending and a header with the local time and the command line is written.
    DebugLog(const char *envName, const char *baseName, bool defaultOn);
    ~DebugLog();
    DebugLog(const DebugLog &) = delete;
    DebugLog &operator=(const DebugLog &) = delete;

    // Decides again whether the log is on and opens it for appending if so (no header).
    void Open();
    // Closes the file; entries are dropped until the next Open.
    void Close();
    // Writes "<tick> [<thread>] " and the formatted text, then flushes. Adds no line end.
    void PrintF(const char *format, ...) __attribute__((format(printf, 2, 3)));

    bool IsOpen() const { return m_Stream != nullptr; }
    const char *FileName() const { return m_FileName; }

    // Whether a log with these settings is on: the variable, when set, must read "true" in any case.
    static bool IsSwitchedOn(const char *envName, bool defaultOn);
    // The entry prefix "%d [% 5d] " for a tick and a thread id into `out`; gives its length.
    static int FormatPrefix(char *out, size_t size, uint32_t tickMs, uint32_t threadId);

private:
    [[nodiscard]] bool OpenStream();
    void WriteHeader();

    Lock m_Lock;
    FILE *m_Stream = nullptr;
    const char *m_EnvName;
    char m_FileName[kFileNameSize];
    bool m_Default;
};

} // namespace orvexScript
