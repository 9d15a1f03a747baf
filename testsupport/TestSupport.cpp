// Test helpers: temporary folders, child processes with bounded waits, environment guards.
#include "testsupport/TestSupport.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

extern char **environ;

namespace orvexTest
{

TempDir::TempDir()
{
    const char *base = getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/orvextest-XXXXXX";
    std::vector<char> buf(pattern.begin(), pattern.end());
    buf.push_back('\0');
    if (!mkdtemp(buf.data())) throw std::runtime_error("mkdtemp failed: " + std::string(strerror(errno)));
    m_Path = buf.data();
}

TempDir::~TempDir()
{
    std::error_code ec;
    std::filesystem::remove_all(m_Path, ec);
}

std::string TempDir::Write(const std::string &name, const std::string &content) const
{
    std::string path = File(name);
    std::ofstream out(path, std::ios::binary);
    out << content;
    return path;
}

std::string ReadFile(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

namespace
{
// Starts argv[0] with these file actions, which it then destroys; posix_spawn's result.
int Spawn(const std::vector<std::string> &argv, posix_spawn_file_actions_t &actions, pid_t &pid)
{
    std::vector<std::string> strings(argv);
    std::vector<char *> pointers;
    for (std::string &text : strings)
        pointers.push_back(text.data());
    pointers.push_back(nullptr);
    const int rc = posix_spawn(&pid, pointers[0], &actions, nullptr, pointers.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    return rc;
}
} // namespace

// The child writes into files rather than pipes, so that only its exit has to be waited for.
ProcessResult RunProcess(const std::vector<std::string> &argv, int timeoutMs)
{
    ProcessResult result;
    TempDir dir;
    const std::string out = dir.File("out"), err = dir.File("err");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);

    pid_t pid = -1;
    const int rc = Spawn(argv, actions, pid);
    if (rc != 0)
    {
        result.err = "spawn failed: " + std::string(strerror(rc));
        return result;
    }

    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    int status = 0;
    for (pid_t done; (done = waitpid(pid, &status, WNOHANG)) != pid && (done >= 0 || errno == EINTR);)
    {
        if (std::chrono::steady_clock::now() > deadline)
        {
            result.timedOut = true;
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            break;
        }
        usleep(2000);
    }
    result.out = ReadFile(out);
    result.err = ReadFile(err);
    if (WIFEXITED(status))
        result.exitCode = WEXITSTATUS(status);
    else if (WIFSIGNALED(status))
        result.signal = WTERMSIG(status);
    return result;
}

ChildProcess::ChildProcess(const std::vector<std::string> &argv)
{
    int in[2], out[2];
    if (pipe2(in, O_CLOEXEC) != 0) return;
    if (pipe2(out, O_CLOEXEC) != 0)
    {
        close(in[0]);
        close(in[1]);
        return;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], 0);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);

    pid_t pid = -1;
    const int rc = Spawn(argv, actions, pid);
    close(in[0]);
    close(out[1]);
    if (rc != 0)
    {
        close(in[1]);
        close(out[0]);
        return;
    }
    m_Pid = pid;
    m_Stdin = in[1];
    m_Stdout = out[0];
}

ChildProcess::~ChildProcess()
{
    if (m_Pid > 0)
    {
        kill(m_Pid, SIGKILL);
        while (waitpid(m_Pid, nullptr, 0) < 0 && errno == EINTR)
        {
        }
    }
    CloseStdin();
    if (m_Stdout >= 0) close(m_Stdout);
}

std::optional<std::string> ChildProcess::ReadLine(int timeoutMs)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;)
    {
        const size_t end = m_Pending.find('\n');
        if (end != std::string::npos)
        {
            std::string line = m_Pending.substr(0, end);
            m_Pending.erase(0, end + 1);
            return line;
        }
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (m_Stdout < 0 || left.count() <= 0) return std::nullopt;
        pollfd p{m_Stdout, POLLIN, 0};
        const int ready = poll(&p, 1, static_cast<int>(left.count()));
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) return std::nullopt;
        char buffer[512];
        const ssize_t n = read(m_Stdout, buffer, sizeof(buffer));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return std::nullopt;
        m_Pending.append(buffer, static_cast<size_t>(n));
    }
}

ListeningChild::ListeningChild(const std::vector<std::string> &argv) : m_Child(argv)
{
    if (!m_Child.Running()) return;
    const std::optional<std::string> line = m_Child.WaitForLine("PORT ");
    if (!line) return;
    const unsigned long port = std::strtoul(line->c_str(), nullptr, 10);
    if (port > 0 && port <= 65535) m_Port = static_cast<uint16_t>(port);
}

std::optional<std::string> ChildProcess::WaitForLine(const std::string &prefix, int timeoutMs)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;)
    {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        std::optional<std::string> line = ReadLine(static_cast<int>(std::max<long>(left.count(), 0)));
        if (!line) return std::nullopt;
        if (line->rfind(prefix, 0) == 0) return line->substr(prefix.size());
    }
}

void ChildProcess::Signal(int signal)
{
    if (m_Pid > 0) kill(m_Pid, signal);
}

void ChildProcess::CloseStdin()
{
    if (m_Stdin >= 0) close(m_Stdin);
    m_Stdin = -1;
}

ProcessResult ChildProcess::Wait(int timeoutMs)
{
    ProcessResult result;
    if (m_Pid <= 0) return result;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    int status = 0;
    for (pid_t done; (done = waitpid(m_Pid, &status, WNOHANG)) != m_Pid;)
    {
        if (done < 0 && errno != EINTR) return result;
        if (std::chrono::steady_clock::now() > deadline)
        {
            result.timedOut = true;
            return result;
        }
        usleep(2000);
    }
    m_Pid = -1;
    if (WIFEXITED(status))
        result.exitCode = WEXITSTATUS(status);
    else if (WIFSIGNALED(status))
        result.signal = WTERMSIG(status);
    return result;
}

ScopedEnv::ScopedEnv(const char *name, const char *value) : m_Name(name)
{
    if (const char *old = getenv(name)) m_Old = old;
    if (value)
        setenv(name, value, 1);
    else
        unsetenv(name);
}

ScopedEnv::~ScopedEnv()
{
    if (m_Old)
        setenv(m_Name.c_str(), m_Old->c_str(), 1);
    else
        unsetenv(m_Name.c_str());
}

size_t
ForEachCorpusFile(const std::string &folder,
                  const std::function<void(const std::string &, const std::string &, CorpusExpect)> &check)
{
    size_t files = 0;
    for (const std::filesystem::directory_entry &entry : std::filesystem::directory_iterator(folder))
    {
        if (!entry.is_regular_file()) continue;
        const std::string name = entry.path().filename().string();
        const CorpusExpect expect = name.rfind("valid-", 0) == 0    ? CorpusExpect::Read
                                    : name.rfind("broken-", 0) == 0 ? CorpusExpect::Refused
                                                                    : CorpusExpect::Either;
        check(name, ReadFile(entry.path().string()), expect);
        ++files;
    }
    return files;
}

} // namespace orvexTest
