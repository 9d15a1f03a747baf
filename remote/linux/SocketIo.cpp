// The socket layer on Linux: TCP on IPv4, packet sending and assembly, eventfds and the connection's
// poll. Every system call goes through Sys() (SocketSys.h). Sections: the table, helpers, connecting,
// sending, receiving, waking and waiting.
#include "remote/SocketIo.h"

#include "remote/linux/SocketSys.h"
#include "values/base/UtilSys.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>

namespace orvexScript::SocketIo
{

// ---- the table ----------------------------------------------------------------------------------

static SocketSys RealSys()
{
    SocketSys sys{};
    sys.socket = ::socket;
    sys.connect = ::connect;
    sys.bind = ::bind;
    sys.listen = ::listen;
    sys.accept4 = ::accept4;
    sys.getsockname = ::getsockname;
    sys.getsockopt = ::getsockopt;
    sys.setsockopt = ::setsockopt;
    sys.fcntl = [](int fd, int command, int argument) { return ::fcntl(fd, command, argument); };
    sys.send = ::send;
    sys.recv = ::recv;
    sys.poll = ::poll;
    sys.shutdown = ::shutdown;
    sys.close = ::close;
    sys.eventfd = ::eventfd;
    sys.read = ::read;
    sys.write = ::write;
    sys.epoll_create1 = ::epoll_create1;
    sys.epoll_ctl = ::epoll_ctl;
    sys.epoll_wait = ::epoll_wait;
    return sys;
}

static SocketSys g_Sys = RealSys();

SocketSys &Sys()
{
    return g_Sys;
}

void ResetSocketSys()
{
    g_Sys = RealSys();
}

// ---- helpers ------------------------------------------------------------------------------------

const char *IoStatusName(IoStatus status)
{
    switch (status)
    {
    case IO_Ok:
        return "ok";
    case IO_WouldBlock:
        return "would block";
    case IO_TimedOut:
        return "timed out";
    case IO_Closed:
        return "closed by the peer";
    case IO_Reset:
        return "connection reset";
    case IO_Refused:
        return "connection refused";
    case IO_BadSize:
        return "packet size refused";
    case IO_NoMemory:
        return "out of memory";
    case IO_Error:
        return "socket error";
    }
    return "unknown";
}

// The status of a failed call from its errno.
static IoStatus FromErrno(int error)
{
    switch (error)
    {
    case EAGAIN:
        return IO_WouldBlock;
    case ECONNRESET:
    case EPIPE:
    case ECONNABORTED:
        return IO_Reset;
    case ECONNREFUSED:
        return IO_Refused;
    case ETIMEDOUT:
        return IO_TimedOut;
    default:
        return IO_Error;
    }
}

using Clock = std::chrono::steady_clock;

static Clock::time_point DeadlineAfter(int timeoutMs)
{
    return Clock::now() + std::chrono::milliseconds(timeoutMs < 0 ? 0 : timeoutMs);
}

static int MsLeft(Clock::time_point deadline)
{
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (left <= 0) return 0;
    return left > 0x7FFFFFFF ? 0x7FFFFFFF : static_cast<int>(left);
}

// Polls one descriptor for `events` until the deadline; EINTR waits on for the time left.
static IoStatus PollOne(int fd, short events, Clock::time_point deadline)
{
    for (;;)
    {
        pollfd entry{fd, events, 0};
        int n = Sys().poll(&entry, 1, MsLeft(deadline));
        if (n > 0) return IO_Ok;
        if (n == 0)
        {
            errno = ETIMEDOUT;
            return IO_TimedOut;
        }
        if (errno != EINTR) return IO_Error;
    }
}

void CloseFd(int &fd)
{
    if (fd == kNoFd) return;
    int saved = errno;
    Sys().close(fd);
    fd = kNoFd;
    errno = saved;
}

bool ShutdownSend(int fd)
{
    return Sys().shutdown(fd, SHUT_WR) == 0;
}

// Small packets must not wait for a delayed acknowledgement: both ends set TCP_NODELAY.
bool SetNoDelay(int fd)
{
    int on = 1;
    return Sys().setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on)) == 0;
}

// ---- connecting ---------------------------------------------------------------------------------

// A blocking connect gives up after the kernel's SYN retries (about 127 s by default).
constexpr int kBlockingConnectLimitMs = 130000;

static bool SetBlocking(int fd)
{
    int flags = Sys().fcntl(fd, F_GETFL, 0);
    if (flags < 0) return false;
    return Sys().fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) == 0;
}

// Waits for a non-blocking connect to finish and takes its outcome.
static IoStatus FinishConnect(int fd, int timeoutMs)
{
    IoStatus waited = PollOne(fd, POLLOUT, DeadlineAfter(timeoutMs));
    if (waited != IO_Ok) return waited;
    int error = 0;
    socklen_t length = sizeof(error);
    if (Sys().getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) != 0) return IO_Error;
    if (error != 0)
    {
        errno = error;
        return FromErrno(error);
    }
    return IO_Ok;
}

IoStatus ConnectTcpIp(uint32_t ip, uint16_t port, int timeoutMs, int &fd)
{
    fd = kNoFd;
    // The socket is new and nobody else holds it, so O_NONBLOCK may be used while connecting.
    int type = SOCK_STREAM | SOCK_CLOEXEC | (timeoutMs > 0 ? SOCK_NONBLOCK : 0);
    int s = Sys().socket(AF_INET, type, 0);
    if (s < 0) return IO_Error;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = ip;
    IoStatus status = IO_Ok;
    if (Sys().connect(s, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0)
    {
        // A connect cut by a signal goes on in the background, as one in progress does; a blocking
        // one is waited for as long as the kernel would try.
        if (errno == EINPROGRESS || errno == EINTR)
            status = FinishConnect(s, timeoutMs > 0 ? timeoutMs : kBlockingConnectLimitMs);
        else
            status = FromErrno(errno);
        if (status == IO_WouldBlock) status = IO_Error; // EAGAIN from connect: no ports left
    }
    if (status == IO_Ok && timeoutMs > 0 && !SetBlocking(s)) status = IO_Error;
    if (status == IO_Ok && !SetNoDelay(s)) status = IO_Error;
    if (status != IO_Ok)
    {
        CloseFd(s);
        return status;
    }
    fd = s;
    return IO_Ok;
}

IoStatus ConnectTcp(const char *host, uint16_t port, int timeoutMs, int &fd)
{
    fd = kNoFd;
    uint32_t ip = 0;
    if (!host || (!UtilSys::ParseIPv4(host, ip) && !UtilSys::ResolveIPv4(host, ip)))
    {
        errno = EHOSTUNREACH;
        return IO_Error;
    }
    return ConnectTcpIp(ip, port, timeoutMs, fd);
}

bool ListenLoopback(uint16_t port, int &fd, uint16_t &boundPort)
{
    fd = kNoFd;
    int s = Sys().socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (s < 0) return false;
    int on = 1;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    bool ok = Sys().setsockopt(s, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) == 0 &&
              Sys().bind(s, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0 &&
              Sys().listen(s, SOMAXCONN) == 0 &&
              Sys().getsockname(s, reinterpret_cast<sockaddr *>(&address), &length) == 0;
    if (!ok)
    {
        CloseFd(s);
        return false;
    }
    boundPort = ntohs(address.sin_port);
    fd = s;
    return true;
}

IoStatus Accept(int listenFd, int timeoutMs, int &fd)
{
    fd = kNoFd;
    Clock::time_point deadline = DeadlineAfter(timeoutMs);
    for (;;)
    {
        IoStatus waited = PollOne(listenFd, POLLIN, deadline);
        if (waited != IO_Ok) return waited;
        // On Linux a connection reset while queued is still accepted (and then reads as reset), so
        // the accept after the poll does not block.
        int s = Sys().accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC);
        if (s < 0)
        {
            if (errno == EINTR || errno == EAGAIN || errno == ECONNABORTED) continue;
            return FromErrno(errno);
        }
        if (!SetNoDelay(s))
        {
            CloseFd(s);
            return IO_Error;
        }
        fd = s;
        return IO_Ok;
    }
}

// ---- sending ------------------------------------------------------------------------------------

void SendState::Start(const void *data, size_t size)
{
    m_Data = static_cast<const unsigned char *>(data);
    m_Size = size;
    m_Sent = 0;
}

void SendState::Start(const Packet *packet)
{
    Start(packet, packet ? packet->m_Size : 0);
}

void SendState::Clear()
{
    m_Data = nullptr;
    m_Size = 0;
    m_Sent = 0;
}

IoStatus SendSome(int fd, SendState &state)
{
    while (state.Busy())
    {
        ssize_t n = Sys().send(fd, state.Next(), state.Remaining(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n > 0)
        {
            state.Advance(static_cast<size_t>(n));
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        if (n == 0) errno = EAGAIN; // nothing taken: treat as a full buffer
        return FromErrno(errno);
    }
    return IO_Ok;
}

IoStatus SendAll(int fd, SendState &state, int timeoutMs)
{
    Clock::time_point deadline = DeadlineAfter(timeoutMs);
    for (;;)
    {
        IoStatus status = SendSome(fd, state);
        if (status != IO_WouldBlock) return status;
        status = PollOne(fd, POLLOUT, deadline);
        if (status != IO_Ok) return status;
    }
}

IoStatus SendPacket(int fd, const Packet *packet, int timeoutMs)
{
    SendState state;
    state.Start(packet);
    return SendAll(fd, state, timeoutMs);
}

// ---- receiving ----------------------------------------------------------------------------------

PacketReader::~PacketReader()
{
    std::free(m_Stage);
    std::free(m_Big);
}

void PacketReader::Reset()
{
    std::free(m_Stage);
    std::free(m_Big);
    m_Stage = nullptr;
    m_Begin = 0;
    m_End = 0;
    m_Big = nullptr;
    m_BigHave = 0;
    m_BigSize = 0;
    m_Refused = 0;
    m_Failed = false;
    m_ShortRead = false;
}

// One recv into `data`; the count read, or a status with nothing read.
static IoStatus ReceiveInto(int fd, unsigned char *data, size_t size, size_t &got)
{
    for (;;)
    {
        ssize_t n = Sys().recv(fd, data, size, MSG_DONTWAIT);
        if (n > 0)
        {
            got = static_cast<size_t>(n);
            return IO_Ok;
        }
        if (n == 0)
        {
            errno = 0;
            return IO_Closed;
        }
        if (errno != EINTR) return FromErrno(errno);
    }
}

// The size field of the first staged packet; at least 4 bytes are staged.
uint32_t PacketReader::StagedSize() const
{
    const unsigned char *p = m_Stage + m_Begin;
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

bool PacketReader::HasStaged() const
{
    if (m_Failed || m_Big || m_End - m_Begin < 4) return false;
    const uint32_t size = StagedSize();
    return !IsAcceptablePacketSize(size) || size <= m_End - m_Begin;
}

IoStatus PacketReader::ReadSome(int fd, Packet *&packet)
{
    packet = nullptr;
    for (;;)
    {
        if (m_Failed)
        {
            errno = EMSGSIZE;
            return IO_BadSize;
        }
        if (m_Big)
        {
            while (m_BigHave < m_BigSize)
            {
                size_t got = 0;
                IoStatus status = ReceiveInto(fd, m_Big + m_BigHave, m_BigSize - m_BigHave, got);
                if (status != IO_Ok) return status;
                m_BigHave += static_cast<uint32_t>(got);
            }
            packet = reinterpret_cast<Packet *>(m_Big);
            m_Big = nullptr;
            m_BigHave = 0;
            m_BigSize = 0;
            return IO_Ok;
        }
        const uint32_t staged = m_End - m_Begin;
        if (staged >= 4)
        {
            const uint32_t size = StagedSize();
            if (!IsAcceptablePacketSize(size))
            {
                m_Refused = size;
                m_Failed = true;
                continue;
            }
            // A whole staged packet is copied out; one larger than the stage takes what is staged
            // and reads the rest into its own buffer. Out of memory leaves the bytes staged, so that
            // a later call may try again.
            if (size <= staged || size > kStageSize)
            {
                auto *buffer = static_cast<unsigned char *>(std::malloc(size));
                if (!buffer)
                {
                    errno = ENOMEM;
                    return IO_NoMemory;
                }
                const uint32_t take = size <= staged ? size : staged;
                std::memcpy(buffer, m_Stage + m_Begin, take);
                m_Begin += take;
                if (m_Begin == m_End) m_Begin = m_End = 0;
                if (take == size)
                {
                    packet = reinterpret_cast<Packet *>(buffer);
                    return IO_Ok;
                }
                m_Big = buffer;
                m_BigHave = take;
                m_BigSize = size;
                continue;
            }
        }
        // No whole packet is staged: move the partial one to the front and read behind it. It is
        // smaller than the stage, so there is room.
        if (!m_Stage)
        {
            m_Stage = static_cast<unsigned char *>(std::malloc(kStageSize));
            if (!m_Stage)
            {
                errno = ENOMEM;
                return IO_NoMemory;
            }
        }
        if (m_Begin > 0)
        {
            std::memmove(m_Stage, m_Stage + m_Begin, staged);
            m_Begin = 0;
            m_End = staged;
        }
        if (m_ShortRead)
        {
            // The last read took less than it asked for: the socket had no more then, and another
            // recv would only say so. The caller polls before reading again.
            m_ShortRead = false;
            errno = EAGAIN;
            return IO_WouldBlock;
        }
        size_t got = 0;
        const size_t room = kStageSize - m_End;
        IoStatus status = ReceiveInto(fd, m_Stage + m_End, room, got);
        if (status != IO_Ok) return status;
        m_End += static_cast<uint32_t>(got);
        m_ShortRead = m_TrustShortReads && got < room;
    }
}

IoStatus PacketReader::ReadPacket(int fd, Packet *&packet, int timeoutMs)
{
    Clock::time_point deadline = DeadlineAfter(timeoutMs);
    for (;;)
    {
        IoStatus status = ReadSome(fd, packet);
        if (status != IO_WouldBlock) return status;
        status = PollOne(fd, POLLIN, deadline);
        if (status != IO_Ok) return status;
    }
}

// ---- waking and waiting -------------------------------------------------------------------------

bool EventFd::Open()
{
    Close();
    m_Fd = Sys().eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (m_Fd < 0) m_Fd = kNoFd;
    return m_Fd != kNoFd;
}

void EventFd::Close()
{
    CloseFd(m_Fd);
}

bool EventFd::Signal()
{
    uint64_t one = 1;
    for (;;)
    {
        if (Sys().write(m_Fd, &one, sizeof(one)) == static_cast<ssize_t>(sizeof(one))) return true;
        if (errno == EAGAIN) return true; // the counter is full: it is signalled already
        if (errno != EINTR) return false;
    }
}

bool EventFd::Drain()
{
    uint64_t count = 0;
    for (;;)
    {
        if (Sys().read(m_Fd, &count, sizeof(count)) == static_cast<ssize_t>(sizeof(count))) return count != 0;
        if (errno != EINTR) return false; // EAGAIN: not signalled
    }
}

bool EventSet::Open()
{
    Close();
    m_Fd = Sys().epoll_create1(EPOLL_CLOEXEC);
    if (m_Fd < 0) m_Fd = kNoFd;
    return m_Fd != kNoFd;
}

void EventSet::Close()
{
    CloseFd(m_Fd);
}

bool EventSet::Add(int fd, unsigned bit, bool exclusive)
{
    if (m_Fd == kNoFd || fd < 0 || bit > 31) return false;
    epoll_event event{};
    event.events = EPOLLIN | (exclusive ? EPOLLEXCLUSIVE : 0u);
    event.data.u32 = 1u << bit;
    return Sys().epoll_ctl(m_Fd, EPOLL_CTL_ADD, fd, &event) == 0;
}

bool EventSet::Remove(int fd)
{
    if (m_Fd == kNoFd || fd < 0) return false;
    epoll_event event{};
    return Sys().epoll_ctl(m_Fd, EPOLL_CTL_DEL, fd, &event) == 0;
}

bool EventSet::AddPointer(int fd, void *cookie, bool exclusive)
{
    if (m_Fd == kNoFd || fd < 0) return false;
    epoll_event event{};
    event.events = EPOLLIN | (exclusive ? EPOLLEXCLUSIVE : 0u);
    event.data.ptr = cookie;
    return Sys().epoll_ctl(m_Fd, EPOLL_CTL_ADD, fd, &event) == 0;
}

// One epoll_wait within the time-out (negative: none), waiting on after EINTR for the time left.
static IoStatus WaitEvents(int epollFd, int timeoutMs, epoll_event *events, int max, int &count)
{
    count = 0;
    const bool forever = timeoutMs < 0;
    Clock::time_point deadline = DeadlineAfter(timeoutMs);
    for (;;)
    {
        count = Sys().epoll_wait(epollFd, events, max, forever ? -1 : MsLeft(deadline));
        if (count >= 0) break;
        if (errno != EINTR)
        {
            count = 0;
            return IO_Error;
        }
    }
    if (count > 0) return IO_Ok;
    errno = ETIMEDOUT;
    return IO_TimedOut;
}

IoStatus EventSet::WaitPointers(int timeoutMs, void **ready, int max, int &count)
{
    epoll_event events[16];
    if (max <= 0) return IO_Error;
    IoStatus status = WaitEvents(m_Fd, timeoutMs, events, max > 16 ? 16 : max, count);
    for (int i = 0; i < count; ++i)
        ready[i] = events[i].data.ptr;
    return status;
}

IoStatus EventSet::Wait(int timeoutMs, uint32_t &ready)
{
    ready = 0;
    epoll_event events[8];
    int count = 0;
    IoStatus status = WaitEvents(m_Fd, timeoutMs, events, 8, count);
    for (int i = 0; i < count; ++i)
        ready |= events[i].data.u32;
    return status;
}

IoStatus WaitConnection(int quitFd, int writeFd, int socketFd, bool wantWritable, int timeoutMs,
                        ConnectionEvents &events)
{
    events = ConnectionEvents{};
    pollfd fds[3] = {{quitFd, POLLIN, 0},
                     {writeFd, POLLIN, 0},
                     {socketFd, static_cast<short>(POLLIN | (wantWritable ? POLLOUT : 0)), 0}};
    // poll skips a negative descriptor, so a missing one needs no special case.
    Clock::time_point deadline = DeadlineAfter(timeoutMs);
    int n;
    for (;;)
    {
        n = Sys().poll(fds, 3, MsLeft(deadline));
        if (n >= 0) break;
        if (errno != EINTR) return IO_Error;
    }
    if (n == 0)
    {
        errno = ETIMEDOUT;
        return IO_TimedOut;
    }
    events.quit = (fds[0].revents & POLLIN) != 0;
    events.write = (fds[1].revents & POLLIN) != 0;
    short s = fds[2].revents;
    events.readable = (s & (POLLIN | POLLHUP | POLLERR)) != 0;
    events.writable = (s & POLLOUT) != 0;
    events.hangup = (s & (POLLHUP | POLLERR)) != 0;
    if (s & POLLNVAL)
    {
        errno = EBADF;
        return IO_Error;
    }
    return IO_Ok;
}

int ReceiveSome(int fd, void *data, size_t size)
{
    ssize_t n;
    do
        n = Sys().recv(fd, data, size, MSG_DONTWAIT);
    while (n < 0 && errno == EINTR);
    return n > 0 ? static_cast<int>(n) : 0;
}

uint32_t PeerAddress(int fd)
{
    sockaddr_in address{};
    socklen_t size = sizeof(address);
    if (fd < 0 || ::getpeername(fd, reinterpret_cast<sockaddr *>(&address), &size) != 0 ||
        address.sin_family != AF_INET)
        return 0;
    return address.sin_addr.s_addr;
}

} // namespace orvexScript::SocketIo
