// Linux side of ServerNet.h: BSD sockets, an abstract local socket with SCM_RIGHTS and SO_PEERCRED
// for the hand-over, posix_spawn for detached processes.
#include "remote/ServerNet.h"
#include "remote/ProcessStart.h"

#include <arpa/inet.h>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <spawn.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern char **environ;

namespace orvexScript::ServerNet
{

namespace
{
sockaddr_in Address(uint32_t ip, uint16_t port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = ip;
    return address;
}

// The abstract name of a server's local socket: no file, gone with the process.
socklen_t LocalName(uint16_t port, int pid, sockaddr_un &address)
{
    address = sockaddr_un{};
    address.sun_family = AF_UNIX;
    const int n = std::snprintf(address.sun_path + 1, sizeof(address.sun_path) - 1, "orvexScriptServer-%u-%d",
                                static_cast<unsigned>(port), pid);
    return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + static_cast<size_t>(n));
}

int64_t NowMs()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

bool WaitFor(int fd, short events, int timeoutMs)
{
    pollfd entry{fd, events, 0};
    for (;;)
    {
        const int n = poll(&entry, 1, timeoutMs < 0 ? 0 : timeoutMs);
        if (n < 0 && errno == EINTR) continue;
        return n > 0;
    }
}

std::mutex s_ChildrenLock;
std::vector<pid_t> *s_Children = new std::vector<pid_t>; // never destroyed: reaped to the end

// A message of one byte with room for one descriptor beside it, as the hand-over sends and receives.
struct DescriptorMessage
{
    char byte;
    iovec data{&byte, 1};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr message{};

    explicit DescriptorMessage(char value) : byte(value)
    {
        message.msg_iov = &data;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof(control);
    }
    DescriptorMessage(const DescriptorMessage &) = delete;
    DescriptorMessage &operator=(const DescriptorMessage &) = delete;
};

} // namespace

int OpenTcp(int &err)
{
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
    {
        err = errno;
        return -1;
    }
    const int on = 1;
    (void)setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    return fd;
}

bool BindAny(int fd, uint16_t port, int &err)
{
    sockaddr_in address = Address(htonl(INADDR_ANY), port);
    if (bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)) == 0) return true;
    err = errno;
    return false;
}

bool Listen(int fd, int backlog, int &err)
{
    if (listen(fd, backlog) == 0) return true;
    err = errno;
    return false;
}

int AcceptTcp(int listenFd, uint32_t &peerIp, int &err)
{
    sockaddr_in peer{};
    socklen_t length = sizeof(peer);
    int fd;
    do
        fd = accept4(listenFd, reinterpret_cast<sockaddr *>(&peer), &length, SOCK_CLOEXEC);
    while (fd < 0 && errno == EINTR);
    if (fd < 0)
    {
        err = errno;
        return -1;
    }
    const int on = 1;
    (void)setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    peerIp = peer.sin_family == AF_INET ? peer.sin_addr.s_addr : 0;
    return fd;
}

int OpenPingSocket(uint16_t port, int &err)
{
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
    {
        err = errno;
        return -1;
    }
    const int on = 1;
    sockaddr_in address = Address(htonl(INADDR_ANY), port);
    if (setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) != 0 ||
        bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0)
    {
        err = errno;
        close(fd);
        return -1;
    }
    return fd;
}

int OpenBroadcastSocket(int &err)
{
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    if (fd < 0 || setsockopt(fd, SOL_SOCKET, SO_BROADCAST, &on, sizeof(on)) != 0)
    {
        err = errno;
        if (fd >= 0) close(fd);
        return -1;
    }
    return fd;
}

bool SendDatagram(int fd, uint32_t ip, uint16_t port, const void *data, size_t size)
{
    sockaddr_in address = Address(ip, port);
    return sendto(fd, data, size, MSG_NOSIGNAL, reinterpret_cast<sockaddr *>(&address), sizeof(address)) ==
           static_cast<ssize_t>(size);
}

int ReceiveDatagram(int fd, void *buffer, size_t size, uint32_t &fromIp, uint16_t &fromPort, int &err)
{
    sockaddr_in from{};
    socklen_t length = sizeof(from);
    ssize_t n;
    do
        n = recvfrom(fd, buffer, size, MSG_DONTWAIT, reinterpret_cast<sockaddr *>(&from), &length);
    while (n < 0 && errno == EINTR);
    if (n < 0)
    {
        err = errno;
        return -1;
    }
    fromIp = from.sin_family == AF_INET ? from.sin_addr.s_addr : 0;
    fromPort = from.sin_family == AF_INET ? ntohs(from.sin_port) : 0;
    return static_cast<int>(n);
}

std::string HostName(uint32_t ip)
{
    sockaddr_in address = Address(ip, 0);
    char name[NI_MAXHOST];
    if (getnameinfo(reinterpret_cast<sockaddr *>(&address), sizeof(address), name, sizeof(name), nullptr, 0,
                    NI_NAMEREQD) != 0)
        return std::string();
    return name;
}

int WaitReadable(const int *fds, bool *ready, int count, long timeoutUs, int &err)
{
    pollfd entries[8];
    if (count > 8) count = 8;
    for (int i = 0; i < count; ++i)
    {
        entries[i] = pollfd{fds[i], POLLIN, 0};
        ready[i] = false;
    }
    timespec limit{timeoutUs / 1000000, (timeoutUs % 1000000) * 1000};
    const int n = ppoll(entries, static_cast<nfds_t>(count), &limit, nullptr);
    if (n < 0)
    {
        err = errno;
        return errno == EINTR ? 0 : -1;
    }
    for (int i = 0; i < count; ++i)
        ready[i] = fds[i] >= 0 && (entries[i].revents & (POLLIN | POLLERR | POLLHUP)) != 0;
    return n;
}

int ListenHandover(uint16_t port, int pid, int &err)
{
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
    {
        err = errno;
        return -1;
    }
    sockaddr_un address;
    const socklen_t length = LocalName(port, pid, address);
    if (bind(fd, reinterpret_cast<sockaddr *>(&address), length) != 0 || listen(fd, 16) != 0)
    {
        err = errno;
        close(fd);
        return -1;
    }
    return fd;
}

int AcceptLocal(int listenFd)
{
    int fd;
    do
        fd = accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC);
    while (fd < 0 && errno == EINTR);
    return fd;
}

int PeerProcess(int fd)
{
    ucred credentials{};
    socklen_t length = sizeof(credentials);
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0 || length != sizeof(credentials))
        return -1;
    return credentials.pid > 0 ? credentials.pid : -1;
}

bool ReadExact(int fd, void *data, size_t size, int timeoutMs)
{
    auto *bytes = static_cast<unsigned char *>(data);
    const int64_t deadline = NowMs() + timeoutMs;
    size_t have = 0;
    while (have < size)
    {
        const int64_t left = deadline - NowMs();
        if (left <= 0 || !WaitFor(fd, POLLIN, static_cast<int>(left))) return false;
        const ssize_t n = recv(fd, bytes + have, size - have, MSG_DONTWAIT);
        if (n == 0) return false;
        if (n < 0)
        {
            if (errno == EINTR || errno == EAGAIN) continue;
            return false;
        }
        have += static_cast<size_t>(n);
    }
    return true;
}

bool SendDescriptor(int fd, int descriptor)
{
    DescriptorMessage sent('S');
    msghdr &message = sent.message;
    cmsghdr *header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof(int));
    std::memcpy(CMSG_DATA(header), &descriptor, sizeof(int));
    ssize_t n;
    do
        n = sendmsg(fd, &message, MSG_NOSIGNAL);
    while (n < 0 && errno == EINTR);
    return n == 1;
}

int TakeHandedSocket(uint16_t port, int serverPid, uint64_t token, int timeoutMs, const char *&why)
{
    why = nullptr;
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
    {
        why = "no local socket";
        return -1;
    }
    sockaddr_un address;
    const socklen_t length = LocalName(port, serverPid, address);
    int received = -1;
    if (connect(fd, reinterpret_cast<sockaddr *>(&address), length) != 0)
        why = "the server's local socket does not answer";
    else if (PeerProcess(fd) != serverPid)
        why = "the local socket belongs to another process";
    else if (send(fd, &token, sizeof(token), MSG_NOSIGNAL) != static_cast<ssize_t>(sizeof(token)))
        why = "the token could not be sent";
    else if (!WaitFor(fd, POLLIN, timeoutMs))
        why = "no answer from the server";
    else
    {
        DescriptorMessage answer(0);
        msghdr &message = answer.message;
        ssize_t n;
        do
            n = recvmsg(fd, &message, MSG_CMSG_CLOEXEC | MSG_DONTWAIT);
        while (n < 0 && errno == EINTR);
        for (cmsghdr *header = n > 0 ? CMSG_FIRSTHDR(&message) : nullptr; header;
             header = CMSG_NXTHDR(&message, header))
        {
            if (header->cmsg_level != SOL_SOCKET || header->cmsg_type != SCM_RIGHTS) continue;
            const size_t count = (header->cmsg_len - CMSG_LEN(0)) / sizeof(int);
            for (size_t i = 0; i < count; ++i)
            {
                int one = -1;
                std::memcpy(&one, CMSG_DATA(header) + i * sizeof(int), sizeof(int));
                if (received < 0)
                    received = one;
                else
                    close(one); // only one is expected
            }
        }
        if (received < 0) why = "the server refused";
        if (message.msg_flags & MSG_CTRUNC) why = "the server's answer was cut short";
    }
    close(fd);
    if (received >= 0 && !why)
    {
        int type = 0;
        socklen_t size = sizeof(type);
        if (getsockopt(received, SOL_SOCKET, SO_TYPE, &type, &size) != 0 || type != SOCK_STREAM)
            why = "the descriptor received is no stream socket";
    }
    if (why && received >= 0)
    {
        close(received);
        received = -1;
    }
    return received;
}

int Duplicate(int fd)
{
    return fcntl(fd, F_DUPFD_CLOEXEC, 0);
}

void Close(int &fd)
{
    if (fd >= 0)
    {
        const int saved = errno;
        close(fd);
        errno = saved;
    }
    fd = -1;
}

int ProcessId()
{
    return static_cast<int>(getpid());
}

std::string OwnDirectory()
{
    const std::string folder = ProcessStart::ExecutableFolder();
    return folder.empty() ? folder : folder + "/";
}

bool SpawnDetached(const char *commandLine, const char *directory, int &pid, int &err)
{
    const std::vector<std::string> words = ProcessStart::SplitCommandLine(commandLine ? commandLine : "");
    if (words.empty())
    {
        err = EINVAL;
        return false;
    }
    std::vector<char *> argv;
    for (const std::string &word : words)
        argv.push_back(const_cast<char *>(word.c_str()));
    argv.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    posix_spawn_file_actions_init(&actions);
    posix_spawnattr_init(&attributes);
    for (int stream = 0; stream < 3; ++stream)
        posix_spawn_file_actions_addopen(&actions, stream, "/dev/null", stream == 0 ? O_RDONLY : O_WRONLY, 0);
    if (directory && *directory) posix_spawn_file_actions_addchdir_np(&actions, directory);
    // A session of its own: the child outlives the server and is not in the server's process group.
    // The signals the server ignores or blocks are not passed on.
    sigset_t none, all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &all);
    posix_spawnattr_setflags(&attributes,
                             POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

    pid_t child = -1;
    // A name without a slash is looked up in PATH; with one it is taken from the working folder.
    const int status = words[0].find('/') == std::string::npos
                           ? posix_spawnp(&child, argv[0], &actions, &attributes, argv.data(), environ)
                           : posix_spawn(&child, argv[0], &actions, &attributes, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    if (status != 0)
    {
        err = status;
        return false;
    }
    pid = static_cast<int>(child);
    std::lock_guard<std::mutex> hold(s_ChildrenLock);
    s_Children->push_back(child);
    return true;
}

void ReapChildren()
{
    std::lock_guard<std::mutex> hold(s_ChildrenLock);
    std::vector<pid_t> &children = *s_Children;
    for (size_t i = 0; i < children.size();)
    {
        int status = 0;
        const pid_t done = waitpid(children[i], &status, WNOHANG);
        if (done == children[i] || (done < 0 && errno == ECHILD))
        {
            children[i] = children.back();
            children.pop_back();
        }
        else
            ++i;
    }
}

} // namespace orvexScript::ServerNet
