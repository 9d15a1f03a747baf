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
    bytes[0] = static_cast<unsigned char>(size);
    bytes[1] = static_cast<unsigned char>(size >> 8);
    bytes[2] = static_cast<unsigned char>(size >> 16);
    bytes[3] = static_cast<unsigned char>(size >> 24);
    return reinterpret_cast<Packet *>(bytes);
}

bool SamePacket(const Packet *a, const Packet *b)
{
    return a && b && a->m_Size == b->m_Size && std::memcmp(a, b, a->m_Size) == 0;
}

struct Pair
{
    int client = kNoFd;
    int server = kNoFd;
    ~Pair()
    {
        CloseFd(client);
        CloseFd(server);
    }
};

// A connected loopback pair; the client connects with `connectTimeoutMs`.
void MakePair(Pair &pair, int connectTimeoutMs)
{
    int listener = kNoFd;
    uint16_t port = 0;
    ASSERT_TRUE(ListenLoopback(0, listener, port));
    ASSERT_NE(port, 0);
    EXPECT_EQ(ConnectTcp("127.0.0.1", port, connectTimeoutMs, pair.client), IO_Ok);
    EXPECT_EQ(Accept(listener, kWaitMs, pair.server), IO_Ok);
    CloseFd(listener);
}

void ExpectSocketFlags(int fd)
{
    int on = 0;
    socklen_t length = sizeof(on);
    ASSERT_EQ(getsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, &length), 0);
    EXPECT_NE(on, 0) << "TCP_NODELAY";
    EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0) << "close-on-exec";
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_NONBLOCK, 0) << "blocking";
}

// ---- real loopback ------------------------------------------------------------------------------

TEST(SocketIoThreads, LoopbackPairCarriesPacketsOfSeveralSizes)
{
    // The last is larger than the socket buffers of both ends, so the sender must wait for the reader.
    const uint32_t sizes[] = {32, 33, 100, 4096, 65543, 8u * 1024u * 1024u + 3u, 40};
    for (int connectTimeoutMs : {0, 2000})
    {
        SCOPED_TRACE(connectTimeoutMs);
        Pair pair;
        MakePair(pair, connectTimeoutMs);
        ASSERT_NE(pair.server, kNoFd);
        ExpectSocketFlags(pair.client);
        ExpectSocketFlags(pair.server);

        std::vector<Packet *> sent;
        for (uint32_t size : sizes)
            sent.push_back(MakePacket(size, size));
        std::vector<IoStatus> sendResults;
        std::thread sender(
            [&]
            {
                for (Packet *packet : sent)
                    sendResults.push_back(SendPacket(pair.client, packet, kWaitMs));
            });
        PacketReader reader;
        for (Packet *expected : sent)
        {
            Packet *got = nullptr;
            EXPECT_EQ(reader.ReadPacket(pair.server, got, kWaitMs), IO_Ok);
            EXPECT_TRUE(SamePacket(got, expected)) << expected->m_Size;
            FreePkt(got);
        }
        sender.join();
        for (IoStatus status : sendResults)
            EXPECT_EQ(status, IO_Ok);
        for (Packet *packet : sent)
            FreePkt(packet);

        // The end of the stream after the last packet, and nothing more to wait for.
        ASSERT_TRUE(ShutdownSend(pair.client));
        Packet *none = nullptr;
        EXPECT_EQ(reader.ReadPacket(pair.server, none, kWaitMs), IO_Closed);
        EXPECT_EQ(none, nullptr);
    }
}

// Echoes every packet back the way a connection thread would: one poll, reads until EAGAIN, and a
// half-sent packet that waits for POLLOUT. Ends after the peer's end of stream, with its own.
bool EchoLoop(int fd, int &halfSentWaits)
{
    PacketReader reader;
    SendState out;
    std::vector<Packet *> queue;
    Packet *current = nullptr;
    bool peerDone = false, ok = true;
    while (ok)
    {
        ConnectionEvents events;
        halfSentWaits += out.Busy();
        if (WaitConnection(kNoFd, kNoFd, fd, out.Busy(), kWaitMs, events) != IO_Ok) ok = false;
        for (IoStatus status = IO_Ok; ok && events.readable && !peerDone && status != IO_WouldBlock;)
        {
            Packet *packet = nullptr;
            status = reader.ReadSome(fd, packet);
            if (status == IO_Ok)
                queue.push_back(packet);
            else if (status == IO_Closed)
                peerDone = true;
            else if (status != IO_WouldBlock)
                ok = false;
        }
        while (ok)
        {
            if (!current && !queue.empty())
            {
                current = queue.front();
                queue.erase(queue.begin());
                out.Start(current);
            }
            if (!current) break;
            IoStatus status = SendSome(fd, out);
            if (status == IO_WouldBlock) break;
            ok = status == IO_Ok;
            FreePkt(current);
            current = nullptr;
        }
        if (peerDone && !current && queue.empty()) break;
    }
    FreePkt(current);
    for (Packet *packet : queue)
        FreePkt(packet);
    return ShutdownSend(fd) && ok;
}

TEST(SocketIoThreads, EchoLoopWithHalfSentPackets)
{
    Pair pair;
    MakePair(pair, 2000);
    ASSERT_NE(pair.server, kNoFd);
    // Small buffers, so that the echo cannot hand over a large packet in one send.
    int small = 32768;
    ASSERT_EQ(setsockopt(pair.server, SOL_SOCKET, SO_SNDBUF, &small, sizeof(small)), 0);
    ASSERT_EQ(setsockopt(pair.client, SOL_SOCKET, SO_RCVBUF, &small, sizeof(small)), 0);
    std::vector<Packet *> sent;
    for (uint32_t i = 0; i < 24; ++i)
        sent.push_back(MakePacket(i % 3 == 0 ? 32 + i : 700000 + 4099 * i, i));
    bool echoed = false;
    int halfSentWaits = 0;
    std::thread echo([&] { echoed = EchoLoop(pair.server, halfSentWaits); });
    std::vector<IoStatus> sendResults;
    std::thread sender(
        [&]
        {
            for (Packet *packet : sent)
                sendResults.push_back(SendPacket(pair.client, packet, kWaitMs));
            ShutdownSend(pair.client);
        });
    PacketReader reader;
    for (Packet *expected : sent)
    {
        Packet *got = nullptr;
        EXPECT_EQ(reader.ReadPacket(pair.client, got, kWaitMs), IO_Ok);
        EXPECT_TRUE(SamePacket(got, expected)) << expected->m_Size;
        FreePkt(got);
    }
    Packet *none = nullptr;
    EXPECT_EQ(reader.ReadPacket(pair.client, none, kWaitMs), IO_Closed);
    sender.join();
    echo.join();
    EXPECT_TRUE(echoed);
    // The POLLOUT path ran.
    EXPECT_GT(halfSentWaits, 0);
    for (IoStatus status : sendResults)
        EXPECT_EQ(status, IO_Ok);
    for (Packet *packet : sent)
        FreePkt(packet);
}

TEST(SocketIo, ConnectToAClosedPortFailsQuickly)
{
    int listener = kNoFd;
    uint16_t port = 0;
    ASSERT_TRUE(ListenLoopback(0, listener, port));
    CloseFd(listener);
    for (int timeoutMs : {0, 2000})
    {
        auto start = std::chrono::steady_clock::now();
        int fd = 123;
        EXPECT_EQ(ConnectTcp("127.0.0.1", port, timeoutMs, fd), IO_Refused) << timeoutMs;
        EXPECT_EQ(errno, ECONNREFUSED);
        EXPECT_EQ(fd, kNoFd);
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    }
    int fd = kNoFd;
    EXPECT_EQ(ConnectTcp("no-such-host.invalid", port, 0, fd), IO_Error);
    EXPECT_EQ(fd, kNoFd);
}

TEST(SocketIo, AcceptWithNobodyConnectingTimesOut)
{
    int listener = kNoFd;
    uint16_t port = 0;
    ASSERT_TRUE(ListenLoopback(0, listener, port));
    int fd = kNoFd;
    EXPECT_EQ(Accept(listener, 20, fd), IO_TimedOut);
    EXPECT_EQ(fd, kNoFd);
    CloseFd(listener);
}

TEST(SocketIo, WaitConnectionReportsEachSource)
{
    SysGuard guard;
    Pair pair;
    MakePair(pair, 0);
    EventFd quit, write;
    ASSERT_TRUE(quit.Open());
    ASSERT_TRUE(write.Open());
    ConnectionEvents events;

    EXPECT_EQ(WaitConnection(quit.Fd(), write.Fd(), pair.server, false, 10, events), IO_TimedOut);
    // Writable is reported only when asked for.
    EXPECT_EQ(WaitConnection(quit.Fd(), write.Fd(), pair.server, true, 0, events), IO_Ok);
    EXPECT_TRUE(events.writable);
    EXPECT_FALSE(events.readable || events.quit || events.write);

    ASSERT_TRUE(write.Signal());
    ASSERT_TRUE(write.Signal());
    EXPECT_EQ(WaitConnection(quit.Fd(), write.Fd(), pair.server, false, kWaitMs, events), IO_Ok);
    EXPECT_TRUE(events.write);
    EXPECT_FALSE(events.quit);
    EXPECT_TRUE(write.Drain());
    EXPECT_FALSE(write.Drain());

    ASSERT_TRUE(quit.Signal());
    EXPECT_EQ(WaitConnection(quit.Fd(), kNoFd, pair.server, false, kWaitMs, events), IO_Ok);
    EXPECT_TRUE(events.quit);
    EXPECT_TRUE(quit.Drain());

    ASSERT_EQ(::send(pair.client, "x", 1, MSG_NOSIGNAL), 1);
    EXPECT_EQ(WaitConnection(quit.Fd(), write.Fd(), pair.server, false, kWaitMs, events), IO_Ok);
    EXPECT_TRUE(events.readable);
    EXPECT_FALSE(events.hangup);

    // A signal during the wait does not end it early.
    static int calls;
    calls = 0;
    Sys().poll = [](pollfd *fds, nfds_t count, int timeoutMs) -> int
    {
        if (calls++ == 0)
        {
            errno = EINTR;
            return -1;
        }
        return ::poll(fds, count, timeoutMs);
    };
    ASSERT_TRUE(quit.Signal());
    EXPECT_EQ(WaitConnection(quit.Fd(), write.Fd(), kNoFd, false, kWaitMs, events), IO_Ok);
    EXPECT_TRUE(events.quit);
    EXPECT_EQ(calls, 2);
}

TEST(SocketIoThreads, WriteSignalWakesAWaitingThread)
{
    EventFd quit, write;
    ASSERT_TRUE(quit.Open());
    ASSERT_TRUE(write.Open());
    ConnectionEvents events;
    IoStatus status = IO_Error;
    std::thread waiter([&]
                       { status = WaitConnection(quit.Fd(), write.Fd(), kNoFd, false, kWaitMs, events); });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    ASSERT_TRUE(write.Signal());
    waiter.join();
    EXPECT_EQ(status, IO_Ok);
    EXPECT_TRUE(events.write);
}

// ---- the reader through the table ---------------------------------------------------------------

// A byte stream that the replaced recv serves: at most `chunk` bytes a call, an EAGAIN between calls
// if asked, then the scripted end (0 for an orderly close, or an errno).
struct FakeStream
{
    std::vector<unsigned char> bytes;
    size_t position = 0;
    size_t chunk = 1;
    bool againBetween = false;
    bool gaveData = false;
    int endError = EAGAIN;
    int calls = 0;
};
FakeStream g_Stream;

ssize_t FakeRecv(int, void *data, size_t size, int flags)
{
    ++g_Stream.calls;
    EXPECT_NE(flags & MSG_DONTWAIT, 0);
    if (g_Stream.againBetween && g_Stream.gaveData)
    {
        g_Stream.gaveData = false;
        errno = EAGAIN;
        return -1;
    }
    size_t left = g_Stream.bytes.size() - g_Stream.position;
    if (left == 0)
    {
        if (g_Stream.endError == 0) return 0;
        errno = g_Stream.endError;
        return -1;
    }
    size_t n = std::min({size, left, g_Stream.chunk});
    std::memcpy(data, g_Stream.bytes.data() + g_Stream.position, n);
    g_Stream.position += n;
    g_Stream.gaveData = true;
    return static_cast<ssize_t>(n);
}

void Append(std::vector<unsigned char> &to, const Packet *packet)
{
    auto *bytes = reinterpret_cast<const unsigned char *>(packet);
    to.insert(to.end(), bytes, bytes + packet->m_Size);
}

void StartStream(size_t chunk, bool againBetween, int endError)
{
    g_Stream = FakeStream{};
    g_Stream.chunk = chunk;
    g_Stream.againBetween = againBetween;
    g_Stream.endError = endError;
    Sys().recv = FakeRecv;
}

TEST(SocketIoSeam, ReaderAssemblesPacketsSplitAnywhere)
{
    SysGuard guard;
    Packet *first = MakePacket(40, 1);
    Packet *second = MakePacket(33, 2);
    Packet *third = MakePacket(300, 3);
    // One byte a call with an EAGAIN after each splits the stream at every position; the other chunks
    // cut across the size fields and packet boundaries in other places.
    for (size_t chunk : {size_t(1), size_t(3), size_t(5), size_t(32), size_t(39), size_t(1000)})
    {
        for (bool againBetween : {true, false})
        {
            SCOPED_TRACE(testing::Message() << "chunk " << chunk << " again " << againBetween);
            StartStream(chunk, againBetween, 0);
            for (const Packet *packet : {first, second, third})
                Append(g_Stream.bytes, packet);
            PacketReader reader;
            std::vector<Packet *> got;
            IoStatus status;
            for (int round = 0; round < 10000; ++round)
            {
                Packet *packet = nullptr;
                status = reader.ReadSome(7, packet);
                if (status == IO_Ok)
                    got.push_back(packet);
                else if (status != IO_WouldBlock)
                    break;
            }
            EXPECT_EQ(status, IO_Closed);
            EXPECT_FALSE(reader.InPacket());
            ASSERT_EQ(got.size(), 3u);
            EXPECT_TRUE(SamePacket(got[0], first));
            EXPECT_TRUE(SamePacket(got[1], second));
            EXPECT_TRUE(SamePacket(got[2], third));
            for (Packet *packet : got)
                FreePkt(packet);
        }
    }
    FreePkt(first);
    FreePkt(second);
    FreePkt(third);
}

TEST(SocketIoSeam, ReaderReportsEachEndDistinctly)
{
    SysGuard guard;
    Packet *packet = MakePacket(64, 9);
    struct Case
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
    for (const Case &c : cases)
    {
        SCOPED_TRACE(c.name);
        StartStream(1000, false, c.endError);
        auto *bytes = reinterpret_cast<const unsigned char *>(packet);
        g_Stream.bytes.assign(bytes, bytes + c.bytes);
        PacketReader reader;
        Packet *got = reinterpret_cast<Packet *>(&g_Stream); // must be cleared
        EXPECT_EQ(reader.ReadSome(7, got), c.expected);
        EXPECT_EQ(got, nullptr);
        EXPECT_EQ(reader.InPacket(), c.inPacket);
        if (c.expected != IO_WouldBlock && c.expected != IO_Closed)
        {
            EXPECT_EQ(errno, c.endError);
        }
    }
    FreePkt(packet);
}

TEST(SocketIoSeam, ReaderRetriesAfterEINTR)
{
    SysGuard guard;
    Packet *packet = MakePacket(48, 4);
    StartStream(1000, false, EAGAIN);
    Append(g_Stream.bytes, packet);
    static int interrupts;
    interrupts = 3;
    Sys().recv = [](int fd, void *data, size_t size, int flags) -> ssize_t
    {
        if (interrupts > 0)
        {
            --interrupts;
            errno = EINTR;
            return -1;
        }
        return FakeRecv(fd, data, size, flags);
    };
    PacketReader reader;
    Packet *got = nullptr;
    EXPECT_EQ(reader.ReadSome(7, got), IO_Ok);
    EXPECT_TRUE(SamePacket(got, packet));
    FreePkt(got);
    FreePkt(packet);
}

TEST(SocketIoSeam, ReaderRefusesASizeBeforeReadingMore)
{
    SysGuard guard;
    SetMaxPacketSize(4096);
    for (uint32_t size : {0u, 31u, 4097u, 0xFFFFFFFFu})
    {
        SCOPED_TRACE(size);
        // A stream that would go on for long: nothing past the size field may be taken.
        StartStream(1, false, 0);
        g_Stream.bytes.assign(64, 0xAB);
        for (int i = 0; i < 4; ++i)
            g_Stream.bytes[i] = static_cast<unsigned char>(size >> (8 * i));
        PacketReader reader;
        Packet *got = nullptr;
        EXPECT_EQ(reader.ReadSome(7, got), IO_BadSize);
        EXPECT_EQ(errno, EMSGSIZE);
        EXPECT_EQ(reader.RefusedSize(), size);
        EXPECT_EQ(g_Stream.position, 4u);
        // The stream is lost: the reader keeps refusing without reading.
        EXPECT_EQ(reader.ReadSome(7, got), IO_BadSize);
        EXPECT_EQ(g_Stream.position, 4u);
        EXPECT_EQ(got, nullptr);
        reader.Reset();
        EXPECT_FALSE(reader.InPacket());
    }
    // The ceiling itself is accepted.
    StartStream(1000, false, 0);
    Packet *largest = MakePacket(4096, 5);
    Append(g_Stream.bytes, largest);
    PacketReader reader;
    Packet *got = nullptr;
    EXPECT_EQ(reader.ReadSome(7, got), IO_Ok);
    EXPECT_TRUE(SamePacket(got, largest));
    FreePkt(got);
    FreePkt(largest);
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
    int step = g_Send.next < g_Send.steps.size() ? g_Send.steps[g_Send.next++] : 1 << 30;
    if (step < 0)
    {
        errno = -step;
        return -1;
    }
    size_t n = std::min(size, static_cast<size_t>(step));
    g_Send.taken += n;
    return static_cast<ssize_t>(n);
}

TEST(SocketIoSeam, SendSomeFollowsShortWritesAndFailures)
{
    SysGuard guard;
    Sys().send = FakeSend;
    Packet *packet = MakePacket(100, 6);
    struct Case
    {
        const char *name;
        std::vector<int> steps;
        IoStatus expected;
        size_t sent;
        int calls;
    } cases[] = {
        {"fits in one call", {}, IO_Ok, 100, 1},
        {"short writes go on", {10, 1, 30}, IO_Ok, 100, 4},
        {"EINTR is retried", {-EINTR, 20, -EINTR}, IO_Ok, 100, 4},
        {"full buffer waits for POLLOUT", {40, -EAGAIN}, IO_WouldBlock, 40, 2},
        {"reset", {25, -ECONNRESET}, IO_Reset, 25, 2},
        {"broken pipe is a reset", {-EPIPE}, IO_Reset, 0, 1},
        {"other error", {-EBADF}, IO_Error, 0, 1},
    };
    for (const Case &c : cases)
    {
        SCOPED_TRACE(c.name);
        g_Send = SendScript{c.steps};
        SendState state;
        state.Start(packet);
        EXPECT_EQ(SendSome(7, state), c.expected);
        EXPECT_EQ(state.Sent(), c.sent);
        EXPECT_EQ(g_Send.taken, c.sent);
        EXPECT_EQ(g_Send.calls, c.calls);
        EXPECT_EQ(state.Done(), c.sent == 100);
    }
    FreePkt(packet);
}

TEST(SocketIoSeam, SendAllResumesAfterWritableOrTimesOut)
{
    SysGuard guard;
    Sys().send = FakeSend;
    static std::vector<int> pollResults;
    Sys().poll = [](pollfd *fds, nfds_t, int) -> int
    {
        EXPECT_EQ(fds[0].events, POLLOUT);
        int result = pollResults.empty() ? 0 : pollResults.front();
        if (!pollResults.empty()) pollResults.erase(pollResults.begin());
        if (result < 0)
        {
            errno = -result;
            return -1;
        }
        fds[0].revents = result ? POLLOUT : 0;
        return result;
    };
    Packet *packet = MakePacket(100, 7);

    g_Send = SendScript{{30, -EAGAIN, 30, -EAGAIN}};
    pollResults = {1, -EINTR, 1};
    SendState state;
    state.Start(packet);
    EXPECT_EQ(SendAll(7, state, kWaitMs), IO_Ok);
    EXPECT_EQ(g_Send.taken, 100u);

    g_Send = SendScript{{30, -EAGAIN}};
    pollResults = {0};
    state.Start(packet);
    EXPECT_EQ(SendAll(7, state, 50), IO_TimedOut);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_EQ(state.Sent(), 30u);
    EXPECT_TRUE(state.Busy());
    FreePkt(packet);
}

// ---- connecting through the table ---------------------------------------------------------------

struct ConnectFake
{
    int connectErrno = EINPROGRESS;
    std::vector<int> pollResults; // as for the sender; 0 past the end
    int soError = 0;
    int closes = 0;
    int socketType = 0;
    int realFd = kNoFd;
};
ConnectFake g_Connect;

void FakeConnectCalls()
{
    Sys().socket = [](int domain, int type, int protocol) -> int
    {
        g_Connect.socketType = type;
        // A real descriptor, so that what the layer does to it is harmless and can be checked.
        g_Connect.realFd = ::socket(domain, SOCK_STREAM | SOCK_CLOEXEC, protocol);
        return g_Connect.realFd;
    };
    Sys().connect = [](int, const sockaddr *, socklen_t) -> int
    {
        errno = g_Connect.connectErrno;
        return -1;
    };
    Sys().poll = [](pollfd *fds, nfds_t, int) -> int
    {
        int result = 0;
        if (!g_Connect.pollResults.empty())
        {
            result = g_Connect.pollResults.front();
            g_Connect.pollResults.erase(g_Connect.pollResults.begin());
        }
        if (result < 0)
        {
            errno = -result;
            return -1;
        }
        fds[0].revents = result ? POLLOUT : 0;
        return result;
    };
    Sys().getsockopt = [](int, int level, int name, void *value, socklen_t *) -> int
    {
        EXPECT_EQ(level, SOL_SOCKET);
        EXPECT_EQ(name, SO_ERROR);
        *static_cast<int *>(value) = g_Connect.soError;
        return 0;
    };
    Sys().close = [](int fd) -> int
    {
        ++g_Connect.closes;
        return ::close(fd);
    };
}

TEST(SocketIoSeam, ConnectWithATimeOut)
{
    SysGuard guard;
    FakeConnectCalls();
    struct Case
    {
        const char *name;
        int connectErrno;
        std::vector<int> pollResults;
        int soError;
        IoStatus expected;
        int error;
    } cases[] = {
        {"nothing answers", EINPROGRESS, {0}, 0, IO_TimedOut, ETIMEDOUT},
        {"a signal, then nothing", EINPROGRESS, {-EINTR, 0}, 0, IO_TimedOut, ETIMEDOUT},
        {"refused while waiting", EINPROGRESS, {1}, ECONNREFUSED, IO_Refused, ECONNREFUSED},
        {"unreachable while waiting", EINPROGRESS, {1}, EHOSTUNREACH, IO_Error, EHOSTUNREACH},
        {"refused at once", ECONNREFUSED, {}, 0, IO_Refused, ECONNREFUSED},
        {"poll fails", EINPROGRESS, {-ENOMEM}, 0, IO_Error, ENOMEM},
    };
    for (const Case &c : cases)
    {
        SCOPED_TRACE(c.name);
        g_Connect = ConnectFake{c.connectErrno, c.pollResults, c.soError};
        int fd = 5;
        EXPECT_EQ(ConnectTcp("10.1.2.3", 9, 100, fd), c.expected);
        EXPECT_EQ(errno, c.error);
        EXPECT_EQ(fd, kNoFd);
        EXPECT_EQ(g_Connect.closes, 1) << "the socket is closed";
        EXPECT_NE(g_Connect.socketType & SOCK_NONBLOCK, 0);
        EXPECT_NE(g_Connect.socketType & SOCK_CLOEXEC, 0);
    }

    // A blocking connect cut by a signal finishes in the background and is waited for.
    g_Connect = ConnectFake{EINTR, {-EINTR, 1}, 0};
    int fd = kNoFd;
    ASSERT_EQ(ConnectTcp("10.1.2.3", 9, 0, fd), IO_Ok);
    EXPECT_EQ(g_Connect.socketType & SOCK_NONBLOCK, 0);
    CloseFd(fd);

    // Connected in time: the socket is blocking again and has TCP_NODELAY.
    g_Connect = ConnectFake{EINPROGRESS, {1}, 0};
    ASSERT_EQ(ConnectTcp("10.1.2.3", 9, 100, fd), IO_Ok);
    EXPECT_EQ(fd, g_Connect.realFd);
    ExpectSocketFlags(fd);
    CloseFd(fd);
}

} // namespace
} // namespace orvexScript::SocketIo
