// DebugLog: the diagnostic log file. Entries are "<tick> [<thread>] " and the caller's text, each
// written whole under the log's lock and flushed at once, so a crash loses nothing already logged.
#include "values/sync/DebugLog.h"

#include <cstdarg>
#include <cstdlib>
#include <ctime>
#include <string>

#include "values/base/Platform.h"
#include "values/base/UtilSys.h"

namespace orvexScript
{

// Appending, and closed in programs that this process starts.
static const char kAppendMode[] = "ae";

DebugLog::DebugLog(const char *envName, const char *baseName, bool defaultOn)
    : m_EnvName(envName), m_Default(defaultOn)
{
    snprintf(m_FileName, sizeof(m_FileName), "%s_%d.log", baseName ? baseName : "",
             static_cast<int>(UtilSys::ProcessId()));
    if (IsSwitchedOn(m_EnvName, m_Default) && OpenStream()) WriteHeader();
}

DebugLog::~DebugLog()
{
    Close();
}

bool DebugLog::IsSwitchedOn(const char *envName, bool defaultOn)
{
    const char *value = envName ? getenv(envName) : nullptr;
    if (!value) return defaultOn;
    static const char kTrue[] = "true";
    for (int i = 0; i < 5; ++i)
    {
        char c = value[i];
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
        if (c != kTrue[i]) return false;
    }
    return true;
}

int DebugLog::FormatPrefix(char *out, size_t size, uint32_t tickMs, uint32_t threadId)
{
    return snprintf(out, size, "%d [% 5d] ", static_cast<int>(tickMs), static_cast<int>(threadId));
}

bool DebugLog::OpenStream()
{
    m_Lock.ObtainLock();
    if (!m_Stream) m_Stream = fopen(m_FileName, kAppendMode);
    bool open = m_Stream != nullptr;
    m_Lock.ReleaseLock();
    return open;
}

void DebugLog::WriteHeader()
{
    char when[80] = {};
    time_t now = time(nullptr);
    struct tm local
    {
    };
    if (localtime_r(&now, &local)) strftime(when, sizeof(when), "%d/%b/%y %H:%M:%S", &local);
    std::string commandLine = UtilSys::CommandLine();
    m_Lock.ObtainLock();
    if (m_Stream)
    {
        fprintf(m_Stream, "\n\n-------- %s --------\n%s\n", when, commandLine.c_str());
        fflush(m_Stream);
    }
    m_Lock.ReleaseLock();
}

void DebugLog::Open()
{
    // A log whose file can't be opened stays closed: its entries are dropped, the host runs on.
    if (IsSwitchedOn(m_EnvName, m_Default)) (void)OpenStream();
}

void DebugLog::Close()
{
    m_Lock.ObtainLock();
    if (m_Stream) fclose(m_Stream);
    m_Stream = nullptr;
    m_Lock.ReleaseLock();
}

void DebugLog::PrintF(const char *format, ...)
{
    if (!format) return;
    m_Lock.ObtainLock();
    if (m_Stream)
    {
        char prefix[32];
        FormatPrefix(prefix, sizeof(prefix), Platform::TickMs(), Platform::CurrentThreadId());
        fputs(prefix, m_Stream);
        va_list args;
        va_start(args, format);
        vfprintf(m_Stream, format, args);
        va_end(args);
        fflush(m_Stream);
    }
    m_Lock.ReleaseLock();
}

} // namespace orvexScript
