// Test helpers: temporary folders and child processes with bounded waits.
#include "testsupport/TestSupport.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

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
    if (!mkdtemp(buf.data()))
        throw std::runtime_error("mkdtemp failed: " + std::string(strerror(errno)));
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

ProcessResult RunProcess(const std::vector<std::string> &argv, int timeoutMs)
{
    ProcessResult result;
    int outPipe[2] = {-1, -1}, errPipe[2] = {-1, -1};
    if (pipe2(outPipe, O_CLOEXEC) != 0 || pipe2(errPipe, O_CLOEXEC) != 0)
    {
        for (int fd : {outPipe[0], outPipe[1]})
            if (fd >= 0) close(fd);
        return result;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, outPipe[1], 1);
    posix_spawn_file_actions_adddup2(&actions, errPipe[1], 2);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);

    std::vector<std::string> strings(argv);
    std::vector<char *> pointers;
    for (std::string &text : strings)
        pointers.push_back(text.data());
    pointers.push_back(nullptr);

    pid_t pid = -1;
    const int rc = posix_spawn(&pid, pointers[0], &actions, nullptr, pointers.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(outPipe[1]);
    close(errPipe[1]);
    struct pollfd fds[2] = {{outPipe[0], POLLIN, 0}, {errPipe[0], POLLIN, 0}};
    int open = rc == 0 ? 2 : 0;
    if (rc != 0) result.err = "spawn failed: " + std::string(strerror(rc));

    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    auto left = [&]
    { return std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count(); };
    while (open > 0)
    {
        if (left() <= 0)
        {
            result.timedOut = true;
            kill(pid, SIGKILL);
            break;
        }
        if (poll(fds, 2, static_cast<int>(left())) <= 0) continue; // EINTR or nothing yet
        for (int i = 0; i < 2; ++i)
        {
            if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
            char buf[4096];
            const ssize_t got = read(fds[i].fd, buf, sizeof(buf));
            if (got > 0)
                (i == 0 ? result.out : result.err).append(buf, static_cast<size_t>(got));
            else if (got == 0 || errno != EINTR)
                close(fds[i].fd), fds[i].fd = -1, --open;
        }
    }
    for (auto &f : fds)
        if (f.fd >= 0) close(f.fd);
    if (rc != 0) return result;

    // The child may have closed its output and still run: the wait is bounded too.
    int status = 0;
    for (pid_t done; (done = waitpid(pid, &status, WNOHANG)) != pid && (done >= 0 || errno == EINTR);)
    {
        if (left() <= 0)
        {
            result.timedOut = true;
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            break;
        }
        usleep(2000);
    }
    if (WIFEXITED(status))
        result.exitCode = WEXITSTATUS(status);
    else if (WIFSIGNALED(status))
        result.signal = WTERMSIG(status);
    return result;
}

ScopedEnv::ScopedEnv(const char *name, const char *value) : m_Name(name)
{
    if (const char *old = getenv(name))
        m_Old = old;
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

} // namespace orvexTest
