// Helpers for tests: a temporary folder that removes itself, a child process runner with a bounded
// wait that captures the child's output and exit status, a scoped environment variable, and an
// object base that counts its destructions.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace orvexTest
{

// A fresh folder under $TMPDIR (or /tmp), removed with its contents when the object goes.
class TempDir
{
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;

    const std::string &Path() const { return m_Path; }
    // Path of `name` inside the folder.
    std::string File(const std::string &name) const { return m_Path + "/" + name; }
    // Writes `content` to `name` inside the folder and gives its path.
    std::string Write(const std::string &name, const std::string &content) const;

private:
    std::string m_Path;
};

struct ProcessResult
{
    int exitCode = -1;     // exit status, or -1 if the child did not exit normally
    int signal = 0;        // the signal that ended it, or 0
    bool timedOut = false; // the child was killed after the time limit
    std::string out;       // what it wrote to stdout
    std::string err;       // what it wrote to stderr
};

// Runs `argv[0]` with the arguments, waits at most `timeoutMs`, kills it after that.
ProcessResult RunProcess(const std::vector<std::string> &argv, int timeoutMs = 30000);

// A child process that runs alongside the test: its stdin and stdout are pipes, so the test reads the
// lines it prints and its end of stdin tells it that the test went away. Killed (SIGKILL) and reaped
// when the object goes, if it still runs.
class ChildProcess
{
public:
    // Starts `argv[0]` with the arguments; Running() tells whether that worked.
    explicit ChildProcess(const std::vector<std::string> &argv);
    ~ChildProcess();
    ChildProcess(const ChildProcess &) = delete;
    ChildProcess &operator=(const ChildProcess &) = delete;

    bool Running() const { return m_Pid > 0; }
    int Pid() const { return m_Pid; }
    // The next line of its stdout without the newline, waiting at most timeoutMs; nullopt on a
    // time-out or the end of its output.
    std::optional<std::string> ReadLine(int timeoutMs = 10000);
    // Reads lines until one starts with `prefix` and gives the rest of it; nullopt as ReadLine.
    std::optional<std::string> WaitForLine(const std::string &prefix, int timeoutMs = 10000);
    void Signal(int signal);
    // Closes the child's stdin (it reads the end).
    void CloseStdin();
    // Waits at most timeoutMs for it to end; its status as ProcessResult gives it (out and err empty),
    // timedOut if it still runs.
    ProcessResult Wait(int timeoutMs = 10000);

private:
    int m_Pid = -1;
    int m_Stdin = -1;
    int m_Stdout = -1;
    std::string m_Pending; // read from stdout, not yet given as a line
};

// A server program run as a child: started with its arguments, it prints "PORT <n>" on a line of its
// own once it listens on a loopback port. Port() is 0 if it did not start or never said so (within
// 10 s).
class ListeningChild
{
public:
    explicit ListeningChild(const std::vector<std::string> &argv);

    uint16_t Port() const { return m_Port; }
    ChildProcess &Process() { return m_Child; }

private:
    ChildProcess m_Child;
    uint16_t m_Port = 0;
};

// Reads a whole file; empty if it can't be read.
std::string ReadFile(const std::string &path);

// What a fuzz corpus file's name promises: "valid-..." must be read, "broken-..." refused, others either.
enum class CorpusExpect
{
    Read,
    Refused,
    Either
};
// Calls `check` with the name and bytes of every regular file of a corpus folder; gives the count.
size_t ForEachCorpusFile(
    const std::string &folder,
    const std::function<void(const std::string &name, const std::string &bytes, CorpusExpect expect)> &check);

// Sets (or, for a null value, unsets) an environment variable for the life of the object, then puts
// back what was there before.
class ScopedEnv
{
public:
    ScopedEnv(const char *name, const char *value);
    ~ScopedEnv();
    ScopedEnv(const ScopedEnv &) = delete;
    ScopedEnv &operator=(const ScopedEnv &) = delete;

private:
    std::string m_Name;
    std::optional<std::string> m_Old;
};

// `Base` with a counter that goes up by one when the object is destroyed: for ownership checks.
// `Counter` may be an atomic for objects destroyed on other threads.
template <class Base, class Counter = int> class DestroyCounted : public Base
{
public:
    template <class... Args>
    explicit DestroyCounted(Counter *destroyed = nullptr, Args &&...args)
        : Base(std::forward<Args>(args)...), m_Destroyed(destroyed)
    {
    }
    ~DestroyCounted() override
    {
        if (m_Destroyed) ++*m_Destroyed;
    }

private:
    Counter *m_Destroyed;
};

// Polls `done` every millisecond for at most `limitMs`; gives its last answer.
template <class F> bool WaitUntil(F done, int limitMs = 5000)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(limitMs);
    while (!done())
    {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

} // namespace orvexTest
