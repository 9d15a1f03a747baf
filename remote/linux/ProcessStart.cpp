// Detached process start with posix_spawn, and the folders of the executable and of this library.
#include "remote/ProcessStart.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <thread>

#include "values/base/Platform.h"

extern char **environ;

namespace orvexScript::ProcessStart
{

namespace
{
std::string FolderOf(const char *path)
{
    std::string text(path ? path : "");
    const size_t slash = text.find_last_of('/');
    if (slash == std::string::npos) return std::string();
    return text.substr(0, slash ? slash : 1);
}

// Collects the child's status once it ends. Detached: the child may outlive everything else here
// (the process then ends without waiting, and init adopts the child).
void Reap(pid_t pid)
{
    try
    {
        std::thread([pid] {
            Platform::SetCurrentThreadName("Process Reaper");
            int status = 0;
            while (waitpid(pid, &status, 0) < 0 && errno == EINTR)
            {
            }
        }).detach();
    }
    catch (...)
    {
        // No thread: the child stays a zombie until this process ends, which is all that is lost.
    }
}
} // namespace

bool StartDetached(const std::vector<std::string> &argv, const std::string &workDir, int &pid, int &error)
{
    pid = -1;
    error = 0;
    if (argv.empty() || argv[0].empty())
    {
        error = EINVAL;
        return false;
    }
    std::vector<std::string> strings(argv);
    std::vector<char *> pointers;
    pointers.reserve(strings.size() + 1);
    for (std::string &text : strings)
        pointers.push_back(text.data());
    pointers.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    if ((error = posix_spawn_file_actions_init(&actions)) != 0) return false;
    if ((error = posix_spawnattr_init(&attributes)) != 0)
    {
        posix_spawn_file_actions_destroy(&actions);
        return false;
    }
    sigset_t none, defaults;
    sigemptyset(&none);
    sigemptyset(&defaults);
    for (int signal : {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGPIPE, SIGCHLD, SIGUSR1, SIGUSR2})
        sigaddset(&defaults, signal);
    int rc = 0;
    for (int fd = 0; fd <= 2 && rc == 0; ++fd)
        rc = posix_spawn_file_actions_addopen(&actions, fd, "/dev/null", fd ? O_WRONLY : O_RDONLY, 0);
    if (rc == 0) rc = posix_spawn_file_actions_addclosefrom_np(&actions, 3);
    if (rc == 0 && !workDir.empty()) rc = posix_spawn_file_actions_addchdir_np(&actions, workDir.c_str());
    if (rc == 0) rc = posix_spawnattr_setsigmask(&attributes, &none);
    if (rc == 0) rc = posix_spawnattr_setsigdefault(&attributes, &defaults);
    if (rc == 0)
        rc = posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    pid_t child = -1;
    if (rc == 0) rc = posix_spawn(&child, pointers[0], &actions, &attributes, pointers.data(), environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0)
    {
        error = rc;
        return false;
    }
    pid = child;
    Reap(child);
    return true;
}

std::string ExecutableFolder()
{
    char path[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", path, sizeof(path) - 1);
    if (length <= 0) return std::string();
    path[length] = '\0';
    return FolderOf(path);
}

std::string LibraryFolder()
{
    Dl_info info{};
    if (!dladdr(reinterpret_cast<void *>(&LibraryFolder), &info) || !info.dli_fname) return std::string();
    char resolved[PATH_MAX];
    if (!realpath(info.dli_fname, resolved)) return FolderOf(info.dli_fname);
    return FolderOf(resolved);
}

bool IsExecutable(const std::string &path)
{
    return !path.empty() && access(path.c_str(), X_OK) == 0;
}

uint32_t CurrentProcessId()
{
    return static_cast<uint32_t>(getpid());
}

std::vector<std::string> SplitCommandLine(const char *line)
{
    std::vector<std::string> words;
    std::string word;
    bool inWord = false, quoted = false;
    for (const char *p = line; *p; ++p)
    {
        const char c = *p;
        if (c == '\\' && p[1] == '"')
        {
            word += '"';
            inWord = true;
            ++p;
        }
        else if (c == '"')
        {
            quoted = !quoted;
            inWord = true;
        }
        else if (!quoted && (c == ' ' || c == '\t' || c == '\n' || c == '\r'))
        {
            if (inWord) words.push_back(word);
            word.clear();
            inWord = false;
        }
        else
        {
            word += c;
            inWord = true;
        }
    }
    if (inWord) words.push_back(word);
    return words;
}

} // namespace orvexScript::ProcessStart
