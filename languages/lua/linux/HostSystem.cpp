// Linux services behind the library table `orvex` (see HostSystem.h): directory listing with fnmatch
// and statx, processes by posix_spawn, the terminal, xclip, flock-based global locks and the key
// store's files.
//
// Sections: paths and folders; processes; console and faults; clipboard; global locks; key store.
#include "languages/lua/HostSystem.h"
#include "remote/ProcessStart.h"

#include <dirent.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <thread>

extern char **environ;

namespace orvexScript::HostSystem
{

namespace
{

std::string Native(const char *path)
{
    std::string out(path ? path : "");
    for (char &c : out)
        if (c == '\\') c = '/';
    return out;
}

double Seconds(const statx_timestamp &stamp)
{
    return static_cast<double>(stamp.tv_sec);
}

// Fills the entry's attributes and times from the file it names inside the open folder.
void Describe(int folderFd, DirEntry &entry)
{
    struct statx info{};
    if (statx(folderFd, entry.name.c_str(), AT_NO_AUTOMOUNT, STATX_BASIC_STATS | STATX_BTIME, &info) != 0 &&
        statx(folderFd, entry.name.c_str(), AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT,
              STATX_BASIC_STATS | STATX_BTIME, &info) != 0)
    {
        entry.attributes = EA_System;
        return;
    }
    const mode_t mode = info.stx_mode;
    entry.size = static_cast<uint32_t>(info.stx_size);
    if (S_ISDIR(mode))
        entry.attributes |= EA_Dir;
    else if (S_ISREG(mode))
        entry.attributes |= EA_Archive;
    else
        entry.attributes |= EA_System;
    if (!entry.name.empty() && entry.name[0] == '.') entry.attributes |= EA_Hidden;
    if (faccessat(folderFd, entry.name.c_str(), W_OK, 0) != 0) entry.attributes |= EA_ReadOnly;
    entry.writeTime = Seconds(info.stx_mtime);
    entry.accessTime = (info.stx_mask & STATX_ATIME) ? Seconds(info.stx_atime) : -1;
    entry.createTime = (info.stx_mask & STATX_BTIME) ? Seconds(info.stx_btime) : -1;
}

} // namespace

// ---- paths and folders ------------------------------------------------------------------------------

bool ListFolder(const std::string &folder, const std::string &pattern, std::vector<DirEntry> &out)
{
    const std::string path = folder.empty() ? std::string(".") : Native(folder.c_str());
    DIR *dir = opendir(path.c_str());
    if (!dir) return false;
    const char *match = pattern == "*.*" ? "*" : pattern.c_str();
    while (const dirent *item = readdir(dir))
    {
        const char *name = item->d_name;
        if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0) continue;
        if (fnmatch(match, name, 0) != 0) continue;
        DirEntry entry;
        entry.name = name;
        Describe(dirfd(dir), entry);
        out.push_back(std::move(entry));
    }
    closedir(dir);
    return true;
}

bool MakeFolder(const char *path)
{
    return path && mkdir(Native(path).c_str(), 0777) == 0;
}

bool RemoveFolder(const char *path)
{
    return path && rmdir(Native(path).c_str()) == 0;
}

bool IsFolder(const char *path)
{
    struct stat info{};
    return path && stat(Native(path).c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

bool IsRegularFile(const char *path)
{
    struct stat info{};
    return path && stat(Native(path).c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

bool CurrentFolder(char *out, size_t size)
{
    if (!out || size == 0) return false;
    if (getcwd(out, size)) return true;
    out[0] = 0;
    return false;
}

bool ChangeFolder(const char *path)
{
    return path && chdir(Native(path).c_str()) == 0;
}

// ---- processes --------------------------------------------------------------------------------------

namespace
{

int ExitStatus(int status)
{
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return -1;
}

int WaitFor(pid_t pid)
{
    int status = 0;
    while (waitpid(pid, &status, 0) < 0)
        if (errno != EINTR) return -1;
    return ExitStatus(status);
}

// Waits at most `ms` for the child; kills and reaps it after that. Its exit status, -1 if killed.
int WaitForBounded(pid_t pid, int ms)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    int status = 0;
    for (;;)
    {
        const pid_t done = waitpid(pid, &status, WNOHANG);
        if (done == pid) return ExitStatus(status);
        if (done < 0 && errno != EINTR) return -1;
        if (std::chrono::steady_clock::now() >= deadline) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    kill(pid, SIGKILL);
    (void)WaitFor(pid);
    return -1;
}

struct SpawnSetup
{
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;

    SpawnSetup()
    {
        posix_spawn_file_actions_init(&actions);
        posix_spawnattr_init(&attributes);
        sigset_t none, all;
        sigemptyset(&none);
        sigfillset(&all);
        posix_spawnattr_setsigmask(&attributes, &none);
        posix_spawnattr_setsigdefault(&attributes, &all);
        posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    }
    ~SpawnSetup()
    {
        posix_spawn_file_actions_destroy(&actions);
        posix_spawnattr_destroy(&attributes);
    }
    SpawnSetup(const SpawnSetup &) = delete;
    SpawnSetup &operator=(const SpawnSetup &) = delete;

    bool Spawn(const std::vector<std::string> &words, pid_t &pid)
    {
        std::vector<char *> argv;
        for (const std::string &word : words)
            argv.push_back(const_cast<char *>(word.c_str()));
        argv.push_back(nullptr);
        return posix_spawnp(&pid, argv[0], &actions, &attributes, argv.data(), environ) == 0;
    }
};

} // namespace

bool StartProcess(const char *commandLine, bool wait, int &exitCode)
{
    exitCode = 0;
    if (!commandLine) return false;
    const std::vector<std::string> words = ProcessStart::SplitCommandLine(commandLine);
    if (words.empty() || words[0].empty()) return false;
    SpawnSetup setup;
    posix_spawn_file_actions_addclosefrom_np(&setup.actions, 3);
    pid_t pid = 0;
    if (!setup.Spawn(words, pid)) return false;
    if (wait)
        exitCode = WaitFor(pid);
    else
        std::thread([pid] { (void)WaitFor(pid); }).detach();
    return true;
}

uint32_t ProcessId()
{
    return static_cast<uint32_t>(getpid());
}

void SleepMilliseconds(uint32_t ms)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

// ---- console and faults -----------------------------------------------------------------------------

bool AttachConsole()
{
    const int fd = open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) return false;
    close(fd);
    const bool in = std::freopen("/dev/tty", "r", stdin) != nullptr;
    const bool out = std::freopen("/dev/tty", "w", stdout) != nullptr;
    const bool err = std::freopen("/dev/tty", "w", stderr) != nullptr;
    return in && out && err;
}

bool RequestSuspend()
{
    return false;
}

void RaiseAccessFault()
{
    void *page = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (page != MAP_FAILED) *static_cast<volatile char *>(page) = 1;
    raise(SIGSEGV);
    std::abort();
}

// ---- clipboard --------------------------------------------------------------------------------------

namespace
{

constexpr int kClipboardMs = 2000;

bool ClipboardAvailable()
{
    const char *display = std::getenv("DISPLAY");
    const char *path = std::getenv("PATH");
    if (!display || !*display || !path) return false;
    std::string folders(path);
    size_t start = 0;
    while (start <= folders.size())
    {
        size_t end = folders.find(':', start);
        if (end == std::string::npos) end = folders.size();
        const std::string folder = folders.substr(start, end - start);
        if (!folder.empty() && access((folder + "/xclip").c_str(), X_OK) == 0) return true;
        start = end + 1;
    }
    return false;
}

// Runs xclip with `args`, feeding it `input` (null: /dev/null) and collecting its output when
// `output` is given, all within kClipboardMs. True if it ended with status 0.
bool RunXclip(const std::vector<std::string> &args, const char *input, std::string *output)
{
    int inPipe[2] = {-1, -1}, outPipe[2] = {-1, -1};
    if (input && pipe2(inPipe, O_CLOEXEC) != 0) return false;
    if (output && pipe2(outPipe, O_CLOEXEC) != 0)
    {
        if (input) close(inPipe[0]), close(inPipe[1]);
        return false;
    }
    SpawnSetup setup;
    if (input)
        posix_spawn_file_actions_adddup2(&setup.actions, inPipe[0], 0);
    else
        posix_spawn_file_actions_addopen(&setup.actions, 0, "/dev/null", O_RDONLY, 0);
    if (output)
        posix_spawn_file_actions_adddup2(&setup.actions, outPipe[1], 1);
    else
        posix_spawn_file_actions_addopen(&setup.actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&setup.actions, 2, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addclosefrom_np(&setup.actions, 3);
    std::vector<std::string> words{"xclip"};
    words.insert(words.end(), args.begin(), args.end());
    pid_t pid = 0;
    const bool started = setup.Spawn(words, pid);
    if (input) close(inPipe[0]);
    if (output) close(outPipe[1]);
    if (!started)
    {
        if (input) close(inPipe[1]);
        if (output) close(outPipe[0]);
        return false;
    }

    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kClipboardMs);
    auto msLeft = [&] {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        return static_cast<int>(left.count() > 0 ? left.count() : 0);
    };
    if (input)
    {
        (void)fcntl(inPipe[1], F_SETFL, O_NONBLOCK); // our end of a pipe of our own
        size_t length = std::strlen(input), done = 0;
        while (done < length && msLeft() > 0)
        {
            pollfd wait{inPipe[1], POLLOUT, 0};
            if (poll(&wait, 1, msLeft()) <= 0) continue;
            const ssize_t n = write(inPipe[1], input + done, length - done);
            if (n > 0)
                done += static_cast<size_t>(n);
            else if (n < 0 && errno != EAGAIN && errno != EINTR)
                break;
        }
        close(inPipe[1]);
    }
    if (output)
    {
        char buffer[4096];
        for (;;)
        {
            pollfd wait{outPipe[0], POLLIN, 0};
            const int left = msLeft();
            if (left <= 0 || poll(&wait, 1, left) <= 0) break;
            const ssize_t n = read(outPipe[0], buffer, sizeof(buffer));
            if (n == 0) break;
            if (n < 0)
            {
                if (errno == EINTR) continue;
                break;
            }
            output->append(buffer, static_cast<size_t>(n));
        }
        close(outPipe[0]);
    }
    return WaitForBounded(pid, msLeft()) == 0;
}

} // namespace

bool ReadClipboard(std::string &text)
{
    text.clear();
    if (!ClipboardAvailable()) return false;
    return RunXclip({"-selection", "clipboard", "-o"}, nullptr, &text);
}

bool WriteClipboard(const char *text)
{
    if (!ClipboardAvailable()) return false;
    return RunXclip({"-selection", "clipboard", "-i"}, text ? text : "", nullptr);
}

// ---- global locks -----------------------------------------------------------------------------------

namespace
{

struct HeldLock
{
    int fd = -1;
    std::thread::id owner; // default id: nobody in this process holds it
    int count = 0;
    bool claiming = false;  // the owner is still waiting for the file lock
};

std::mutex s_LocksMutex;
std::condition_variable s_LocksChanged;
std::map<std::string, HeldLock> s_Locks;

// The folder of the lock files, made once; empty if it can't be made or isn't this user's.
std::string LockFolder()
{
    const char *tmp = std::getenv("TMPDIR");
    std::string folder = (tmp && *tmp == '/') ? tmp : "/tmp";
    folder += "/orvexScript-locks-" + std::to_string(getuid());
    (void)mkdir(folder.c_str(), 0700);
    struct stat info{};
    if (lstat(folder.c_str(), &info) != 0 || !S_ISDIR(info.st_mode) || info.st_uid != getuid()) return {};
    return folder;
}

// The lock file's name: letters, digits, "-", "_" and "." stand for themselves, other bytes as %XX.
bool LockFileName(const char *name, std::string &out)
{
    static const char kHex[] = "0123456789ABCDEF";
    out.clear();
    for (const unsigned char *p = reinterpret_cast<const unsigned char *>(name); *p; ++p)
    {
        const unsigned char c = *p;
        if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
            c == '_' || (c == '.' && p != reinterpret_cast<const unsigned char *>(name)))
            out += static_cast<char>(c);
        else
        {
            out += '%';
            out += kHex[c >> 4];
            out += kHex[c & 15];
        }
    }
    out += ".lock";
    return out.size() <= 250;
}

// Takes the file lock, waiting at most timeoutMs (< 0: without bound).
bool LockFile(int fd, int64_t timeoutMs)
{
    if (timeoutMs < 0)
    {
        while (flock(fd, LOCK_EX) != 0)
            if (errno != EINTR) return false;
        return true;
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    int pause = 1;
    for (;;)
    {
        if (flock(fd, LOCK_EX | LOCK_NB) == 0) return true;
        if (errno != EWOULDBLOCK && errno != EINTR) return false;
        const auto now = std::chrono::steady_clock::now();
        if (now >= deadline) return false;
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - now).count();
        std::this_thread::sleep_for(std::chrono::milliseconds(std::min<int64_t>(pause, left + 1)));
        pause = std::min(pause * 2, 20);
    }
}

} // namespace

bool ObtainGlobalLock(const char *name, int64_t timeoutMs)
{
    std::string fileName;
    if (!name || !*name || !LockFileName(name, fileName)) return false;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(std::max<int64_t>(timeoutMs, 0));
    const std::thread::id self = std::this_thread::get_id();

    std::unique_lock<std::mutex> hold(s_LocksMutex);
    HeldLock &lock = s_Locks[name];
    if (lock.owner == self && !lock.claiming)
    {
        ++lock.count;
        return true;
    }
    // Another thread of this process holds it or is waiting for the file: wait for it to let go.
    auto free = [&] { return lock.owner == std::thread::id(); };
    if (timeoutMs < 0)
        s_LocksChanged.wait(hold, free);
    else if (!s_LocksChanged.wait_until(hold, deadline, free))
        return false;
    if (lock.fd < 0)
    {
        const std::string folder = LockFolder();
        if (folder.empty()) return false;
        lock.fd = open((folder + "/" + fileName).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        if (lock.fd < 0) return false;
    }
    lock.owner = self;
    lock.claiming = true;
    const int fd = lock.fd;
    hold.unlock();

    int64_t left = timeoutMs;
    if (timeoutMs >= 0)
        left = std::max<int64_t>(0, std::chrono::duration_cast<std::chrono::milliseconds>(
                                        deadline - std::chrono::steady_clock::now())
                                        .count());
    const bool locked = LockFile(fd, left);

    hold.lock();
    lock.claiming = false;
    if (locked)
        lock.count = 1;
    else
        lock.owner = std::thread::id();
    hold.unlock();
    if (!locked) s_LocksChanged.notify_all();
    return locked;
}

bool ReleaseGlobalLock(const char *name)
{
    if (!name) return false;
    std::unique_lock<std::mutex> hold(s_LocksMutex);
    const auto found = s_Locks.find(name);
    if (found == s_Locks.end()) return false;
    HeldLock &lock = found->second;
    if (lock.owner != std::this_thread::get_id() || lock.claiming || lock.count <= 0) return false;
    if (--lock.count > 0) return true;
    (void)flock(lock.fd, LOCK_UN);
    lock.owner = std::thread::id();
    hold.unlock();
    s_LocksChanged.notify_all();
    return true;
}

// ---- key store --------------------------------------------------------------------------------------

namespace
{

constexpr size_t kMaxKeyFile = 64 * 1024;

std::string KeyStoreFolder()
{
    const char *config = std::getenv("XDG_CONFIG_HOME");
    if (config && *config == '/') return std::string(config) + "/orvexScript/registry";
    const char *home = std::getenv("HOME");
    if (home && *home == '/') return std::string(home) + "/.config/orvexScript/registry";
    return {};
}

// The key's file, or empty if a part of the key can't name a file.
std::string KeyFile(const char *key)
{
    std::string path = KeyStoreFolder();
    if (path.empty() || !key) return {};
    const std::string text(key);
    size_t start = 0;
    for (;;)
    {
        const size_t end = std::min(text.find('\\', start), text.size());
        const std::string part = text.substr(start, end - start);
        if (part.empty() || part == "." || part == ".." || part.find('/') != std::string::npos) return {};
        path += "/" + part;
        if (end == text.size()) break;
        start = end + 1;
    }
    return path + ".key";
}

} // namespace

bool ReadKeyDefault(const char *key, std::string &value, size_t limit)
{
    value.clear();
    const std::string path = KeyFile(key);
    if (path.empty()) return false;
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    std::string content;
    char buffer[4096];
    for (;;)
    {
        const ssize_t n = read(fd, buffer, sizeof(buffer));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        content.append(buffer, static_cast<size_t>(n));
        if (content.size() > kMaxKeyFile) break;
    }
    close(fd);
    size_t start = 0;
    while (start < content.size())
    {
        size_t end = content.find('\n', start);
        if (end == std::string::npos) end = content.size();
        if (content[start] == '=')
        {
            size_t stop = end;
            if (stop > start + 1 && content[stop - 1] == '\r') --stop;
            value = content.substr(start + 1, std::min(stop - start - 1, limit));
            return true;
        }
        start = end + 1;
    }
    return false;
}

} // namespace orvexScript::HostSystem
