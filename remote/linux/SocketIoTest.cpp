// Tests of the socket layer: real TCP on 127.0.0.1 for the loopback pair, connect, accept and the
// connection poll; the system call table for split reads, short writes, EINTR, EAGAIN, resets and
// the connect time-out. Every wait is bounded.
#include "remote/SocketIo.h"

#include "remote/linux/SocketSys.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <thread>
#include <vector>

namespace orvexScript::SocketIo
{
namespace
{

constexpr int kWaitMs = 10000;

// Puts the real system calls and the packet ceiling back at the end of a test.
struct SysGuard
{
    ~SysGuard()
    {
        ResetSocketSys();
        SetMaxPacketSize(0);
    }
};

// A packet of `size` bytes whose bytes after the size field follow a pattern of `seed`.
Packet *MakePacket(uint32_t size, uint32_t seed)
{
    auto *bytes = static_cast<unsigned char *>(std::malloc(size));
    for (uint32_t i = 4; i < size; ++i)
        bytes[i] = static_cast<unsigned char>(i * 131u + seed);
    std::memcpy(bytes, &size, 4);
    return reinterpret_cast<Packet *>(bytes);
}

// Packets freed at the end of a test.
struct Packets : std::vector<Packet *>
{
    ~Packets()
    {
        for (Packet *packet : *this)
            FreePkt(packet);
    }
};

bool SamePacket(const Packet *a, const Packet *b)
{
    return a && b && a->m_Size == b->m_Size && std::memcmp(a, b, a->m_Size) == 0;
}

// A connected loopback pair; the client connects with `connectTimeoutMs`.
struct Pair
{
    int client = kNoFd;
    int server = kNoFd;
    explicit Pair(int connectTimeoutMs)
    {
        int listener = kNoFd;
        uint16_t port = 0;
        EXPECT_TRUE(ListenLoopback(0, listener, port));
        EXPECT_EQ(ConnectTcp("127.0.0.1", port, connectTimeoutMs, client), IO_Ok);
        EXPECT_EQ(Accept(listener, kWaitMs, server), IO_Ok);
        CloseFd(listener);
    }
    ~Pair()
    {
        CloseFd(client);
        CloseFd(server);
    }
};

void ExpectSocketFlags(int fd)
{
    int on = 0;
    socklen_t length = sizeof(on);
    ASSERT_EQ(getsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, &length), 0);
    EXPECT_NE(on, 0) << "TCP_NODELAY";
    EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0) << "close-on-exec";
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_NONBLOCK, 0) << "blocking";
}

// Sends the packets from `from` on a thread, then the end of the stream; reads them at `to` in order,
// then the end.
void SendAndReadBack(int from, int to, const Packets &sent)
{
    std::vector<IoStatus> sendResults;
    std::thread sender(
        [&]
        {
            for (Packet *packet : sent)
                sendResults.push_back(SendPacket(from, packet, kWaitMs));
            ShutdownSend(from);
        });
    PacketReader reader;
    for (Packet *expected : sent)
    {
        Packet *got = nullptr;
        EXPECT_EQ(reader.ReadPacket(to, got, kWaitMs), IO_Ok);
        EXPECT_TRUE(SamePacket(got, expected)) << expected->m_Size;
        FreePkt(got);
    }
    Packet *none = nullptr;
    EXPECT_EQ(reader.ReadPacket(to, none, kWaitMs), IO_Closed);
    EXPECT_EQ(none, nullptr);
    sender.join();
    EXPECT_EQ(sendResults, std::vector<IoStatus>(sent.size(), IO_Ok));
}

// ---- real loopback ------------------------------------------------------------------------------

TEST(SocketIoThreads, LoopbackPairCarriesPacketsOfSeveralSizes)
{
    Packets sent;
    // 8 MiB is larger than the socket buffers of both ends, so the sender must wait for the reader.
    for (uint32_t size : {32u, 33u, 100u, 4096u, 65543u, 8u * 1024u * 1024u + 3u, 40u})
        sent.push_back(MakePacket(size, size));
    for (int connectTimeoutMs : {0, 2000})
    {
        SCOPED_TRACE(connectTimeoutMs);
        Pair pair(connectTimeoutMs);
        ASSERT_NE(pair.server, kNoFd);
        ExpectSocketFlags(pair.client);
        ExpectSocketFlags(pair.server);
        SendAndReadBack(pair.client, pair.server, sent);
    }
}

TEST(SocketIo, AcceptTimesOutAndConnectToAClosedPortFailsQuickly)
{
    int listener = kNoFd, fd = 123;
    uint16_t port = 0;
    ASSERT_TRUE(ListenLoopback(0, listener, port));
    EXPECT_EQ(Accept(listener, 20, fd), IO_TimedOut);
    EXPECT_EQ(fd, kNoFd);
    CloseFd(listener);
    for (int timeoutMs : {0, 2000})
    {
        const auto start = std::chrono::steady_clock::now();
        fd = 123;
        EXPECT_EQ(ConnectTcp("127.0.0.1", port, timeoutMs, fd), IO_Refused) << timeoutMs;
        EXPECT_EQ(errno, ECONNREFUSED);
        EXPECT_EQ(fd, kNoFd);
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    }
    fd = 123;
    EXPECT_EQ(ConnectTcp("no-such-host.invalid", port, 0, fd), IO_Error);
    EXPECT_EQ(fd, kNoFd);
}

// Results for the replaced poll, in turn: n > 0 ready (POLLOUT), 0 nothing, -errno a failure; 0 past
// the end.
std::deque<int> g_Polls;

int FakePoll(pollfd *fds, nfds_t, int)
{
    EXPECT_NE(fds[0].events & POLLOUT, 0);
    const int result = g_Polls.empty() ? 0 : g_Polls.front();
    if (!g_Polls.empty()) g_Polls.pop_front();
    fds[0].revents = result > 0 ? POLLOUT : 0;
    errno = -result;
    return result < 0 ? -1 : result;
}

TEST(SocketIoThreads, WaitConnectionReportsEachSourceAndWakesAWaitingThread)
{
    SysGuard guard;
    Pair pair(0);
    EventFd quit, write;
    ASSERT_TRUE(quit.Open());
    ASSERT_TRUE(write.Open());
    ConnectionEvents events;

    EXPECT_EQ(WaitConnection(quit.Fd(), write.Fd(), pair.server, false, 10, events), IO_TimedOut);
    // Writable is reported only when asked for.
    EXPECT_EQ(WaitConnection(quit.Fd(), write.Fd(), pair.server, true, 0, events), IO_Ok);
    EXPECT_TRUE(events.writable);
    EXPECT_FALSE(events.readable || events.quit || events.write);

    IoStatus status = IO_Error;
    std::thread waiter(
        [&] { status = WaitConnection(quit.Fd(), write.Fd(), pair.server, false, kWaitMs, events); });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    ASSERT_TRUE(write.Signal());
    ASSERT_TRUE(write.Signal());
    waiter.join();
    EXPECT_EQ(status, IO_Ok);
    EXPECT_TRUE(events.write && !events.quit);
    EXPECT_TRUE(write.Drain());
    EXPECT_FALSE(write.Drain());

    ASSERT_TRUE(quit.Signal());
    EXPECT_EQ(WaitConnection(quit.Fd(), kNoFd, pair.server, false, kWaitMs, events), IO_Ok);
    EXPECT_TRUE(events.quit);

    ASSERT_TRUE(quit.Drain());
    ASSERT_EQ(::send(pair.client, "x", 1, MSG_NOSIGNAL), 1);
    EXPECT_EQ(WaitConnection(quit.Fd(), write.Fd(), pair.server, false, kWaitMs, events), IO_Ok);
    EXPECT_TRUE(events.readable && !events.hangup);

    // A signal during the wait does not end it early.
    static int calls;
    calls = 0;
    Sys().poll = [](pollfd *fds, nfds_t count, int timeoutMs) -> int
    {
        errno = EINTR;
        return calls++ == 0 ? -1 : ::poll(fds, count, timeoutMs);
    };
    ASSERT_TRUE(quit.Signal());
    EXPECT_EQ(WaitConnection(quit.Fd(), write.Fd(), kNoFd, false, kWaitMs, events), IO_Ok);
    EXPECT_TRUE(events.quit);
    EXPECT_EQ(calls, 2);
}

// ---- the reader through the table ---------------------------------------------------------------

// A byte stream that the replaced recv serves: EINTR for the first `interrupts` calls, then at most
// `chunk` bytes a call, an EAGAIN between calls if asked, then the scripted end (0 for an orderly
// close, or an errno).
struct FakeStream
{
    std::vector<unsigned char> bytes;
    size_t chunk = 1;
    bool againBetween = false;
    int endError = EAGAIN;
    int interrupts = 0;
    size_t position = 0;
    bool gaveData = false;
};
FakeStream g_Stream;

ssize_t FakeRecv(int, void *data, size_t size, int flags)
{
    EXPECT_NE(flags & MSG_DONTWAIT, 0);
    const size_t left = g_Stream.bytes.size() - g_Stream.position;
    errno = g_Stream.interrupts-- > 0 ? EINTR : (g_Stream.againBetween && g_Stream.gaveData) ? EAGAIN : 0;
    if (errno || left == 0)
    {
        g_Stream.gaveData = false;
        errno = errno ? errno : g_Stream.endError;
        return errno ? -1 : 0;
    }
    const size_t n = std::min({size, left, g_Stream.chunk});
    std::memcpy(data, g_Stream.bytes.data() + g_Stream.position, n);
    g_Stream.position += n;
    g_Stream.gaveData = true;
    return static_cast<ssize_t>(n);
}

// Serves `packets`, or their first `bytes` bytes, through the replaced recv.
void StartStream(FakeStream stream, std::initializer_list<const Packet *> packets, size_t bytes = SIZE_MAX)
{
    g_Stream = std::move(stream);
    for (const Packet *packet : packets)
    {
        const auto *raw = reinterpret_cast<const unsigned char *>(packet);
        g_Stream.bytes.insert(g_Stream.bytes.end(), raw, raw + std::min<size_t>(packet->m_Size, bytes));
    }
    Sys().recv = FakeRecv;
}

TEST(SocketIoSeam, ReaderAssemblesPacketsSplitAnywhere)
{
    SysGuard guard;
    const Packets packets{{MakePacket(40, 1), MakePacket(33, 2), MakePacket(300, 3)}};
    SetMaxPacketSize(300); // the ceiling itself is accepted
    // One byte a call with an EAGAIN after each splits the stream at every position; the other chunks
    // cut across the size fields and packet boundaries in other places. A signal comes first.
    for (size_t chunk : {size_t(1), size_t(3), size_t(5), size_t(32), size_t(39), size_t(1000)})
    {
        for (bool againBetween : {true, false})
        {
            SCOPED_TRACE(testing::Message() << "chunk " << chunk << " again " << againBetween);
            StartStream({{}, chunk, againBetween, 0, 3}, {packets[0], packets[1], packets[2]});
            PacketReader reader;
            Packets got;
            IoStatus status = IO_Ok;
            for (int round = 0; round < 10000 && (status == IO_Ok || status == IO_WouldBlock); ++round)
            {
                Packet *packet = nullptr;
                status = reader.ReadSome(7, packet);
                if (status == IO_Ok) got.push_back(packet);
            }
            EXPECT_EQ(status, IO_Closed);
            EXPECT_FALSE(reader.InPacket());
            ASSERT_EQ(got.size(), 3u);
            for (int i = 0; i < 3; ++i)
                EXPECT_TRUE(SamePacket(got[i], packets[i])) << i;
        }
    }
}

// Many packets arrive in one recv, a partial one is left at the end of a full stage, and a packet
// larger than the stage follows small ones: every packet comes out whole and in order, the staged
// ones without reading, and the end of the stream only after the last staged packet.
TEST(SocketIoSeam, ReaderCarvesStagedPacketsAndReadsABigOneIntoItsOwnBuffer)
{
    SysGuard guard;
    Packets packets;
    for (uint32_t i = 0; i < 2000; ++i)
        packets.push_back(MakePacket(32 + i % 57, i));
    packets.push_back(MakePacket(3 * PacketReader::kStageSize + 5, 7)); // after an odd cut of the stage
    packets.push_back(MakePacket(PacketReader::kStageSize, 8));         // the largest that is staged
    packets.push_back(MakePacket(40, 9));
    std::vector<unsigned char> bytes;
    for (const Packet *packet : packets)
    {
        const auto *raw = reinterpret_cast<const unsigned char *>(packet);
        bytes.insert(bytes.end(), raw, raw + packet->m_Size);
    }
    for (size_t chunk : {size_t(1) << 30, size_t(PacketReader::kStageSize) + 7, size_t(4093)})
    {
        for (int endError : {0, ECONNRESET})
        {
            SCOPED_TRACE(testing::Message() << "chunk " << chunk << " end " << endError);
            StartStream({bytes, chunk, false, endError}, {});
            PacketReader reader;
            Packets got;
            IoStatus status = IO_Ok;
            size_t position = 0;
            bool readWhileStaged = false;
            while (status == IO_Ok && got.size() <= packets.size())
            {
                const bool staged = reader.HasStaged();
                Packet *packet = nullptr;
                position = g_Stream.position;
                status = reader.ReadSome(7, packet);
                readWhileStaged |= staged && g_Stream.position != position;
                if (status == IO_Ok) got.push_back(packet);
            }
            EXPECT_EQ(status, endError ? IO_Reset : IO_Closed);
            EXPECT_FALSE(readWhileStaged);
            EXPECT_FALSE(reader.InPacket());
            ASSERT_EQ(got.size(), packets.size());
            for (size_t i = 0; i < packets.size(); ++i)
                ASSERT_TRUE(SamePacket(got[i], packets[i])) << i;
        }
    }
}

// A refused size behind a good packet in the same recv: the good one comes out first, and the staged
// refusal is reported without reading on.
TEST(SocketIoSeam, ReaderHandsOutAGoodPacketBeforeAStagedRefusal)
{
    SysGuard guard;
    const Packets good{{MakePacket(48, 4)}};
    StartStream({{}, 1000, false, EAGAIN}, {good[0]});
    const uint32_t bad = 8;
    const auto *raw = reinterpret_cast<const unsigned char *>(&bad);
    g_Stream.bytes.insert(g_Stream.bytes.end(), raw, raw + 4);
    g_Stream.bytes.resize(g_Stream.bytes.size() + 20, 0xCD);
    PacketReader reader;
    Packets got{{nullptr}};
    EXPECT_EQ(reader.ReadSome(7, got[0]), IO_Ok);
    EXPECT_TRUE(SamePacket(got[0], good[0]));
    EXPECT_TRUE(reader.HasStaged());
    Packet *none = nullptr;
    EXPECT_EQ(reader.ReadSome(7, none), IO_BadSize);
    EXPECT_EQ(reader.RefusedSize(), bad);
    EXPECT_FALSE(reader.HasStaged());
    EXPECT_EQ(none, nullptr);
}

TEST(SocketIoSeam, ReaderReportsEachEndDistinctly)
{
    SysGuard guard;
    const Packets packet{{MakePacket(64, 9)}};
    const struct
    {
        const char *name;
        size_t bytes; // of the packet in the stream before its end
        int endError; // 0: orderly close
        IoStatus expected;
        bool inPacket;
    } cases[] = {
        {"nothing yet", 0, EAGAIN, IO_WouldBlock, false},
        {"half the size field", 2, EAGAIN, IO_WouldBlock, true},
        {"close between packets", 0, 0, IO_Closed, false},
        {"close inside the size field", 3, 0, IO_Closed, true},
        {"close inside the body", 50, 0, IO_Closed, true},
        {"reset", 10, ECONNRESET, IO_Reset, true},
        {"other error", 10, EBADF, IO_Error, true},
    };
    for (const auto &c : cases)
    {
        SCOPED_TRACE(c.name);
        StartStream({{}, 1000, false, c.endError}, {packet[0]}, c.bytes);
        PacketReader reader;
        Packet *got = packet[0]; // must be cleared
        EXPECT_EQ(reader.ReadSome(7, got), c.expected);
        EXPECT_EQ(got, nullptr);
        EXPECT_EQ(reader.InPacket(), c.inPacket);
        EXPECT_EQ(errno, c.expected == IO_Reset || c.expected == IO_Error ? c.endError : errno);
    }
}

TEST(SocketIoSeam, ReaderRefusesASizeBeforeReadingMore)
{
    SysGuard guard;
    SetMaxPacketSize(4096);
    for (uint32_t size : {0u, 31u, 4097u, 0xFFFFFFFFu})
    {
        SCOPED_TRACE(size);
        // A stream that would go on for long: nothing past the size field may be taken.
        StartStream({std::vector<unsigned char>(64, 0xAB)}, {});
        std::memcpy(g_Stream.bytes.data(), &size, 4);
        PacketReader reader;
        Packet *got = nullptr;
        EXPECT_EQ(reader.ReadSome(7, got), IO_BadSize);
        EXPECT_EQ(errno, EMSGSIZE);
        EXPECT_EQ(reader.RefusedSize(), size);
        // The stream is lost: the reader keeps refusing without reading.
        EXPECT_EQ(reader.ReadSome(7, got), IO_BadSize);
        EXPECT_EQ(g_Stream.position, 4u);
        EXPECT_EQ(got, nullptr);
        reader.Reset();
        EXPECT_FALSE(reader.InPacket());
    }
}

// ---- the sender through the table ---------------------------------------------------------------

// The replaced send follows a script: a positive entry takes that many bytes (at most what is asked),
// a negative one fails with that errno; past the end of the script it takes everything.
struct SendScript
{
    std::vector<int> steps;
    size_t next = 0;
    size_t taken = 0;
    int calls = 0;
};
SendScript g_Send;

ssize_t FakeSend(int, const void *, size_t size, int flags)
{
    ++g_Send.calls;
    EXPECT_EQ(flags & (MSG_NOSIGNAL | MSG_DONTWAIT), MSG_NOSIGNAL | MSG_DONTWAIT);
    const int step = g_Send.next < g_Send.steps.size() ? g_Send.steps[g_Send.next++] : 1 << 30;
    errno = step < 0 ? -step : 0;
    const size_t n = std::min(size, static_cast<size_t>(std::max(step, 0)));
    g_Send.taken += n;
    return step < 0 ? -1 : static_cast<ssize_t>(n);
}

TEST(SocketIoSeam, SendFollowsShortWritesFailuresAndPolls)
{
    SysGuard guard;
    Sys().send = FakeSend;
    Sys().poll = FakePoll;
    const Packets packet{{MakePacket(100, 6)}};
    const struct
    {
        const char *name;
        std::vector<int> steps;
        std::deque<int> polls;
        int waitMs; // 0: SendSome, else SendAll with this time-out
        IoStatus expected;
        size_t sent;
        int calls;
    } cases[] = {
        {"fits in one call", {}, {}, 0, IO_Ok, 100, 1},
        {"short writes go on", {10, 1, 30}, {}, 0, IO_Ok, 100, 4},
        {"EINTR is retried", {-EINTR, 20, -EINTR}, {}, 0, IO_Ok, 100, 4},
        {"full buffer waits for POLLOUT", {40, -EAGAIN}, {}, 0, IO_WouldBlock, 40, 2},
        {"reset", {25, -ECONNRESET}, {}, 0, IO_Reset, 25, 2},
        {"broken pipe is a reset", {-EPIPE}, {}, 0, IO_Reset, 0, 1},
        {"other error", {-EBADF}, {}, 0, IO_Error, 0, 1},
        {"SendAll resumes when writable", {30, -EAGAIN, 30, -EAGAIN}, {1, -EINTR, 1}, kWaitMs, IO_Ok, 100, 5},
        {"SendAll times out", {30, -EAGAIN}, {0}, 50, IO_TimedOut, 30, 2},
    };
    for (const auto &c : cases)
    {
        SCOPED_TRACE(c.name);
        g_Send = SendScript{c.steps};
        g_Polls = c.polls;
        SendState state;
        state.Start(packet[0]);
        EXPECT_EQ(c.waitMs ? SendAll(7, state, c.waitMs) : SendSome(7, state), c.expected);
        EXPECT_EQ(errno, c.expected == IO_TimedOut ? ETIMEDOUT : errno);
        EXPECT_EQ(state.Sent(), c.sent);
        EXPECT_EQ(g_Send.taken, c.sent);
        EXPECT_EQ(g_Send.calls, c.calls);
        EXPECT_EQ(state.Done(), c.sent == 100);
    }
}

// ---- connecting through the table ---------------------------------------------------------------

// What the replaced connect and getsockopt answer, and what the layer did.
struct ConnectFake
{
    int connectErrno = EINPROGRESS;
    int soError = 0;
    int closes = 0;
    int socketType = 0;
    int realFd = kNoFd;
};
ConnectFake g_Connect;

TEST(SocketIoSeam, ConnectWithATimeOut)
{
    SysGuard guard;
    Sys().socket = [](int domain, int type, int protocol) -> int
    {
        g_Connect.socketType = type;
        // A real descriptor, so that what the layer does to it is harmless and can be checked.
        return g_Connect.realFd = ::socket(domain, SOCK_STREAM | SOCK_CLOEXEC, protocol);
    };
    Sys().connect = [](int, const sockaddr *, socklen_t) -> int
    {
        errno = g_Connect.connectErrno;
        return -1;
    };
    Sys().poll = FakePoll;
    Sys().getsockopt = [](int, int level, int name, void *value, socklen_t *) -> int
    {
        EXPECT_TRUE(level == SOL_SOCKET && name == SO_ERROR);
        *static_cast<int *>(value) = g_Connect.soError;
        return 0;
    };
    Sys().close = [](int fd) -> int
    {
        ++g_Connect.closes;
        return ::close(fd);
    };
    const struct
    {
        const char *name;
        int timeoutMs;
        int connectErrno;
        std::deque<int> polls;
        int soError;
        IoStatus expected;
        int error; // errno on failure
    } cases[] = {
        {"nothing answers", 100, EINPROGRESS, {0}, 0, IO_TimedOut, ETIMEDOUT},
        {"a signal, then nothing", 100, EINPROGRESS, {-EINTR, 0}, 0, IO_TimedOut, ETIMEDOUT},
        {"refused while waiting", 100, EINPROGRESS, {1}, ECONNREFUSED, IO_Refused, ECONNREFUSED},
        {"unreachable while waiting", 100, EINPROGRESS, {1}, EHOSTUNREACH, IO_Error, EHOSTUNREACH},
        {"refused at once", 100, ECONNREFUSED, {}, 0, IO_Refused, ECONNREFUSED},
        {"poll fails", 100, EINPROGRESS, {-ENOMEM}, 0, IO_Error, ENOMEM},
        // A blocking connect cut by a signal finishes in the background and is waited for.
        {"blocking, cut by a signal", 0, EINTR, {-EINTR, 1}, 0, IO_Ok, 0},
        {"connected in time", 100, EINPROGRESS, {1}, 0, IO_Ok, 0},
    };
    for (const auto &c : cases)
    {
        SCOPED_TRACE(c.name);
        g_Connect = ConnectFake{c.connectErrno, c.soError};
        g_Polls = c.polls;
        int fd = 5;
        EXPECT_EQ(ConnectTcp("10.1.2.3", 9, c.timeoutMs, fd), c.expected);
        EXPECT_EQ(c.error ? errno : 0, c.error);
        EXPECT_EQ(fd, c.expected == IO_Ok ? g_Connect.realFd : kNoFd);
        EXPECT_EQ(g_Connect.closes, c.expected == IO_Ok ? 0 : 1) << "a failed socket is closed";
        EXPECT_EQ(g_Connect.socketType & (SOCK_NONBLOCK | SOCK_CLOEXEC),
                  c.timeoutMs ? SOCK_NONBLOCK | SOCK_CLOEXEC : SOCK_CLOEXEC);
        // A socket connected in time is blocking again and has TCP_NODELAY.
        if (fd != kNoFd) ExpectSocketFlags(fd);
        CloseFd(fd);
    }
}

} // namespace
} // namespace orvexScript::SocketIo
