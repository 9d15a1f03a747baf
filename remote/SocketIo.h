// The socket layer of a connection: TCP on IPv4, sending and assembling packets, the eventfds that
// wake a connection thread, and the one poll it waits in. Linux code lives in linux/SocketIo.cpp and
// makes every system call through the table of linux/SocketSys.h, which tests replace to inject faults.
// Internal to the library (nothing exported). No protocol logic here: that is the connection's.
#pragma once

#include <cstddef>
#include <cstdint>

#include "remote/Packet.h"

namespace orvexScript::SocketIo
{

// A socket or eventfd descriptor; kNoFd when there is none.
constexpr int kNoFd = -1;

// The outcome of a socket operation. On anything but IO_Ok and IO_WouldBlock errno holds the cause
// (ETIMEDOUT for IO_TimedOut, EMSGSIZE for IO_BadSize, ENOMEM for IO_NoMemory, 0 for IO_Closed).
enum IoStatus : int
{
    IO_Ok = 0,
    IO_WouldBlock, // nothing more can move now (EAGAIN): wait for readiness and call again
    IO_TimedOut,   // the time-out ran out first
    IO_Closed,     // the peer closed its end in order (recv gave 0)
    IO_Reset,      // the connection was reset or broken (ECONNRESET, EPIPE, ECONNABORTED)
    IO_Refused,    // nothing listens at the address (ECONNREFUSED)
    IO_BadSize,    // a packet's size field that IsAcceptablePacketSize refuses: the stream is lost
    IO_NoMemory,   // the buffer of an accepted packet size could not be had
    IO_Error,      // any other failure, errno kept
};

// A short English name of a status, for logs.
const char *IoStatusName(IoStatus status);

// ---- connecting ---------------------------------------------------------------------------------

// Connects a new TCP socket to `host` (a host name or a dotted address) at `port`. With timeoutMs > 0
// the connect is non-blocking and waited for at most that long, and the socket is blocking again
// afterwards; with 0 (or less) it is a blocking connect, which the kernel gives up after about two
// minutes. The socket is close-on-exec with TCP_NODELAY.
// IO_Ok stores it into `fd`; on failure `fd` is kNoFd and errno is set (EHOSTUNREACH for a host name
// that does not resolve).
[[nodiscard]] IoStatus ConnectTcp(const char *host, uint16_t port, int timeoutMs, int &fd);
// The same to an IPv4 address in network order.
[[nodiscard]] IoStatus ConnectTcpIp(uint32_t ip, uint16_t port, int timeoutMs, int &fd);

// A listening socket on 127.0.0.1 at `port`; port 0 takes an ephemeral port. The port bound is
// stored into `boundPort`. False with errno set on failure.
[[nodiscard]] bool ListenLoopback(uint16_t port, int &fd, uint16_t &boundPort);
// Waits at most timeoutMs for a connection on a listening socket and accepts it (close-on-exec,
// blocking, TCP_NODELAY). IO_TimedOut if none came.
[[nodiscard]] IoStatus Accept(int listenFd, int timeoutMs, int &fd);

// Sets TCP_NODELAY, so that small packets never wait for a delayed acknowledgement. False if the
// socket refused (not TCP, say).
bool SetNoDelay(int fd);

// The IPv4 address of the socket's peer in network order, or 0.
uint32_t PeerAddress(int fd);

// Stops sending: the peer reads the end of the stream after what was sent.
bool ShutdownSend(int fd);
// Closes a descriptor if there is one and sets it to kNoFd. errno is kept.
void CloseFd(int &fd);

// ---- sending ------------------------------------------------------------------------------------

// How far one packet (or any byte block) is sent. The block is not owned and must stay until done.
class SendState
{
public:
    void Start(const void *data, size_t size);
    void Start(const Packet *packet);
    void Clear();
    bool Busy() const { return m_Data && m_Sent < m_Size; }
    bool Done() const { return m_Data && m_Sent == m_Size; }
    size_t Sent() const { return m_Sent; }
    size_t Remaining() const { return m_Size - m_Sent; }

    // For the sender only.
    const unsigned char *Next() const { return m_Data + m_Sent; }
    void Advance(size_t bytes) { m_Sent += bytes; }

private:
    const unsigned char *m_Data = nullptr;
    size_t m_Size = 0;
    size_t m_Sent = 0;
};

// Sends as much of the open block as the socket takes now, without waiting: one send call when it
// fits, more after short writes. IO_Ok when all of it is out, IO_WouldBlock when the rest must wait
// for the socket to be writable (POLLOUT), IO_Reset or IO_Error otherwise. Never raises SIGPIPE.
[[nodiscard]] IoStatus SendSome(int fd, SendState &state);
// Sends all of the open block, waiting for the socket to be writable at most timeoutMs in all.
[[nodiscard]] IoStatus SendAll(int fd, SendState &state, int timeoutMs);
// Sends one whole packet within timeoutMs.
[[nodiscard]] IoStatus SendPacket(int fd, const Packet *packet, int timeoutMs);

// ---- receiving ----------------------------------------------------------------------------------

// One recv without waiting: the bytes read, 0 when nothing is there or on any error.
int ReceiveSome(int fd, void *data, size_t size);

// Assembles packets from the byte stream of one socket, in pieces of any size. Each recv fills a
// staging buffer (64 KiB, taken at the first read) as far as the socket has bytes, and whole packets
// are carved from it; a packet larger than the buffer gets a buffer of its own size, and the rest of
// it is read straight into that. Every size field (4 bytes, little endian) must pass
// IsAcceptablePacketSize before anything is allocated for it. A refused size ends the stream for
// good: the reader keeps saying IO_BadSize.
class PacketReader
{
public:
    static constexpr uint32_t kStageSize = 64u * 1024u;

    PacketReader() = default;
    PacketReader(const PacketReader &) = delete;
    PacketReader &operator=(const PacketReader &) = delete;
    ~PacketReader();

    // Hands out one whole packet, staged already or read now without waiting. IO_Ok stores it into
    // `packet`, owned by the caller (FreePkt); more may be waiting, so call again until IO_WouldBlock.
    // Otherwise `packet` is null: IO_WouldBlock (no whole packet yet), IO_Closed, IO_Reset,
    // IO_BadSize, IO_NoMemory (the size stays in hand: call again later), IO_Error. The end of the
    // stream is reported only after every whole packet before it was handed out.
    [[nodiscard]] IoStatus ReadSome(int fd, Packet *&packet);
    // Reads one whole packet, waiting at most timeoutMs in all for the socket to be readable.
    [[nodiscard]] IoStatus ReadPacket(int fd, Packet *&packet, int timeoutMs);

    // For a caller that polls for readiness before every round of reads: after a read that took less
    // than the room it had, ReadSome says IO_WouldBlock once instead of reading again, sparing the
    // system call that would only report an empty socket.
    void TrustShortReads(bool trust)
    {
        m_TrustShortReads = trust;
        m_ShortRead = false;
    }

    // True while bytes of a packet not yet handed out are in hand (a close now cuts a packet short).
    bool InPacket() const { return m_End > m_Begin || m_Big; }
    // True when the next ReadSome has something to report without reading the socket: a whole packet
    // or a refused size field is staged. A caller that polls drains these before it waits again,
    // since the socket need not be readable for them.
    bool HasStaged() const;
    // The size field that was refused, if IO_BadSize was given.
    uint32_t RefusedSize() const { return m_Refused; }
    // Drops what is in hand and a refusal, and frees the buffers; for a new stream.
    void Reset();

private:
    uint32_t StagedSize() const;

    unsigned char *m_Stage = nullptr; // kStageSize bytes, the unread ones at [m_Begin, m_End)
    uint32_t m_Begin = 0;
    uint32_t m_End = 0;
    unsigned char *m_Big = nullptr; // a packet larger than the stage, m_BigHave of m_BigSize bytes in
    uint32_t m_BigHave = 0;
    uint32_t m_BigSize = 0;
    uint32_t m_Refused = 0;
    bool m_Failed = false;
    bool m_TrustShortReads = false;
    bool m_ShortRead = false; // the last read was short: the next ReadSome does not read
};

// ---- waking and waiting -------------------------------------------------------------------------

// An eventfd: readable while signalled, until drained. Close-on-exec; never handed to another process.
class EventFd
{
public:
    EventFd() = default;
    EventFd(const EventFd &) = delete;
    EventFd &operator=(const EventFd &) = delete;
    ~EventFd() { Close(); }

    [[nodiscard]] bool Open();
    void Close();
    bool IsOpen() const { return m_Fd != kNoFd; }
    int Fd() const { return m_Fd; }
    // Makes it readable; signalling twice before a drain is the same as once.
    bool Signal();
    // Makes it unreadable again. True if it was signalled.
    bool Drain();

private:
    int m_Fd = kNoFd;
};

// An epoll set over a few descriptors, each reported by the bit it was added with (0 to 31), when
// readable, hung up or in error. A descriptor added exclusively wakes one set only: of the sets that
// hold it exclusively, the first to have been added to it that has a thread waiting. So a thread can
// take over the reading of a socket from another that waits on it too, without telling it: its set
// was added first, and while it waits the other is not woken.
class EventSet
{
public:
    EventSet() = default;
    EventSet(const EventSet &) = delete;
    EventSet &operator=(const EventSet &) = delete;
    ~EventSet() { Close(); }

    [[nodiscard]] bool Open();
    void Close();
    bool IsOpen() const { return m_Fd != kNoFd; }
    [[nodiscard]] bool Add(int fd, unsigned bit, bool exclusive);
    // Takes a descriptor out, while it is still open. Closing it is not enough when its socket is
    // shared with another process (handed over): the entry stays as long as the socket lives anywhere.
    bool Remove(int fd);
    // Waits at most timeoutMs (negative: no limit). IO_Ok with the bits of what is ready, IO_TimedOut,
    // or IO_Error.
    [[nodiscard]] IoStatus Wait(int timeoutMs, uint32_t &ready);
    // The same with a pointer for each descriptor instead of a bit; up to `max` of them are given.
    [[nodiscard]] bool AddPointer(int fd, void *cookie, bool exclusive);
    [[nodiscard]] IoStatus WaitPointers(int timeoutMs, void **ready, int max, int &count);

private:
    int m_Fd = kNoFd;
};

// What woke a connection thread.
struct ConnectionEvents
{
    bool quit = false;     // the quit eventfd is signalled (not drained here)
    bool write = false;    // the write eventfd is signalled (not drained here)
    bool readable = false; // the socket has data, or its end or an error to report (read it)
    bool writable = false; // asked for and the socket takes data again
    bool hangup = false;   // the socket is closed both ways or in error
};

// One poll over the quit eventfd, the write eventfd and the socket (either fd may be kNoFd). POLLOUT
// is asked for only with wantWritable (a packet half sent). Waits at most timeoutMs (0 looks and
// returns); a signal does not shorten the wait. IO_Ok with the events, IO_TimedOut with none, IO_Error.
[[nodiscard]] IoStatus WaitConnection(int quitFd, int writeFd, int socketFd, bool wantWritable, int timeoutMs,
                                      ConnectionEvents &events);

} // namespace orvexScript::SocketIo
