// Measuring tools of the remote benchmarks: a collector of per-call times with percentiles, a peer
// process forked with a loopback listener (the echo peer is one), and the raw baselines over plain
// TCP: one round trip of a message, and a pipelined run with a window of calls in flight. The raw
// side uses system calls directly, not the library's socket layer, so that it stays a baseline.
// Every socket has TCP_NODELAY and every message goes out in one send; every wait is bounded.
#pragma once

#include <benchmark/benchmark.h>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace RemoteBench
{

using Clock = std::chrono::steady_clock;

// Nothing in a benchmark waits longer than this for the peer.
constexpr int kPeerWaitMs = 10000;

inline double MicrosecondsSince(Clock::time_point start)
{
    return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

// ---- percentiles --------------------------------------------------------------------------------

// Per-call times in microseconds; percentiles by nearest rank.
class Percentiles
{
public:
    void Reserve(size_t n) { m_Us.reserve(n); }
    void Add(double us) { m_Us.push_back(us); }
    size_t Count() const { return m_Us.size(); }
    double Mean() const
    {
        double sum = 0;
        for (double us : m_Us)
            sum += us;
        return m_Us.empty() ? 0 : sum / double(m_Us.size());
    }
    // The time that `fraction` (0..1) of the calls took at most; 0 with none.
    double At(double fraction)
    {
        if (m_Us.empty()) return 0;
        std::sort(m_Us.begin(), m_Us.end());
        const double rank = std::ceil(fraction * double(m_Us.size()));
        const size_t index = rank < 1 ? 0 : std::min(m_Us.size(), size_t(rank)) - 1;
        return m_Us[index];
    }
    // Sets the counters p50_us and p99_us.
    void Report(benchmark::State &state)
    {
        state.counters["p50_us"] = At(0.50);
        state.counters["p99_us"] = At(0.99);
    }

    // Keeps "<name> p50 us" and "<name> p99 us" in `results`, for a summary.
    void Record(std::map<std::string, double> &results, const std::string &name)
    {
        results[name + " p50 us"] = At(0.50);
        results[name + " p99 us"] = At(0.99);
    }

private:
    std::vector<double> m_Us;
};

// Times each run of `call`, which gives false when it failed: the benchmark then stops with `failure`.
// The counters p50_us and p99_us are set.
template <typename F> Percentiles TimeEach(benchmark::State &state, const char *failure, F &&call)
{
    Percentiles times;
    for (auto _ : state)
    {
        const Clock::time_point start = Clock::now();
        const bool ok = call();
        times.Add(MicrosecondsSince(start));
        if (!ok)
        {
            state.SkipWithError(failure);
            break;
        }
    }
    times.Report(state);
    return times;
}

// ---- plain sockets ------------------------------------------------------------------------------

inline bool SetNoDelay(int fd)
{
    int on = 1;
    return setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on)) == 0;
}

// Blocking calls on `fd` give up after kPeerWaitMs.
inline bool SetTimeouts(int fd)
{
    timeval tv{kPeerWaitMs / 1000, 0};
    return setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv)) == 0 &&
           setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv)) == 0;
}

// A listener on 127.0.0.1 at an ephemeral port; -1 on failure.
inline int ListenLoopback(uint16_t &port)
{
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    if (bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0 || listen(fd, 16) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length) != 0)
    {
        close(fd);
        return -1;
    }
    port = ntohs(address.sin_port);
    return fd;
}

// A blocking client socket to 127.0.0.1:port with TCP_NODELAY and time-outs; -1 on failure.
inline int ConnectLoopback(uint16_t port)
{
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (!SetTimeouts(fd) || connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0 ||
        !SetNoDelay(fd))
    {
        close(fd);
        return -1;
    }
    return fd;
}

// Sends all of `data` (one send unless the socket takes less). False on failure or time-out.
inline bool SendAll(int fd, const void *data, size_t size)
{
    const auto *p = static_cast<const unsigned char *>(data);
    while (size > 0)
    {
        ssize_t n = send(fd, p, size, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        p += n;
        size -= size_t(n);
    }
    return true;
}

// Receives exactly `size` bytes. False on the end of the stream, failure or time-out.
inline bool RecvAll(int fd, void *data, size_t size)
{
    auto *p = static_cast<unsigned char *>(data);
    while (size > 0)
    {
        ssize_t n = recv(fd, p, size, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        p += n;
        size -= size_t(n);
    }
    return true;
}

// ---- forked peers -------------------------------------------------------------------------------

// A child process that serves connections on a loopback listener: `serve(connectedFd)` runs for each
// accepted connection in turn. The child ends when no connection comes within kPeerWaitMs, or when
// stopped. Fork before any thread of the benchmark starts.
class ForkedPeer
{
public:
    ForkedPeer() = default;
    ForkedPeer(const ForkedPeer &) = delete;
    ForkedPeer &operator=(const ForkedPeer &) = delete;
    ~ForkedPeer() { Stop(); }

    bool Start(const std::function<void(int fd)> &serve)
    {
        Stop();
        int listener = ListenLoopback(m_Port);
        if (listener < 0) return false;
        std::fflush(nullptr);
        m_Pid = fork();
        if (m_Pid == 0)
        {
            for (;;)
            {
                pollfd entry{listener, POLLIN, 0};
                if (poll(&entry, 1, kPeerWaitMs) <= 0) _exit(0);
                int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
                if (fd < 0) continue;
                if (SetNoDelay(fd) && SetTimeouts(fd)) serve(fd);
                close(fd);
            }
        }
        close(listener); // the child's copy takes the connections
        return m_Pid > 0;
    }

    uint16_t Port() const { return m_Port; }
    bool Running() const { return m_Pid > 0; }

    // Ends the child and reaps it.
    void Stop()
    {
        if (m_Pid <= 0) return;
        kill(m_Pid, SIGKILL);
        waitpid(m_Pid, nullptr, 0);
        m_Pid = -1;
    }

private:
    pid_t m_Pid = -1;
    uint16_t m_Port = 0;
};

// Echoes every byte until the peer's end: what one recv gives goes back in one send.
inline void EchoBytes(int fd)
{
    std::vector<unsigned char> buffer(64 * 1024);
    for (;;)
    {
        ssize_t n = recv(fd, buffer.data(), buffer.size(), 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0 || !SendAll(fd, buffer.data(), size_t(n))) return;
    }
}

// The echo peer of the whole program, forked at first use.
inline ForkedPeer &EchoPeer()
{
    static ForkedPeer peer;
    if (!peer.Running()) peer.Start(EchoBytes);
    return peer;
}

// ---- raw baselines ------------------------------------------------------------------------------

// One round trip of `message` to an echo peer. False if it did not come back whole.
inline bool RawRoundTrip(int fd, const std::vector<unsigned char> &message, std::vector<unsigned char> &reply)
{
    reply.resize(message.size());
    return SendAll(fd, message.data(), message.size()) && RecvAll(fd, reply.data(), reply.size());
}

// Round trips of `message` through the echo peer on a connection of this benchmark's own, each timed.
// The benchmark stops with an error when there is no peer or an echo fails or comes back changed.
inline Percentiles TimeRawRoundTrips(benchmark::State &state, const std::vector<unsigned char> &message)
{
    ForkedPeer &peer = EchoPeer();
    const int fd = peer.Running() && !message.empty() ? ConnectLoopback(peer.Port()) : -1;
    if (fd < 0)
    {
        state.SkipWithError("no echo peer");
        return {};
    }
    std::vector<unsigned char> reply;
    Percentiles times = TimeEach(state, "the echo failed", [&] { return RawRoundTrip(fd, message, reply); });
    close(fd);
    if (times.Count() > 0 && reply != message) state.SkipWithError("the echo differs");
    return times;
}

// Keeps up to `window` calls in flight to an echo peer: a sender thread sends `message` whenever a
// slot is free, one send per message, and this thread receives the echoes and frees their slots.
// The calls per second of `count` calls; 0 if the run failed.
inline double RawPipelined(int fd, const std::vector<unsigned char> &message, size_t count, size_t window)
{
    std::mutex mutex;
    std::condition_variable freed;
    size_t sent = 0, done = 0;
    bool failed = false;
    const Clock::time_point start = Clock::now();
    std::thread sender(
        [&]
        {
            for (size_t i = 0; i < count; ++i)
            {
                {
                    std::unique_lock lock(mutex);
                    if (!freed.wait_for(lock, std::chrono::milliseconds(kPeerWaitMs),
                                        [&] { return failed || sent - done < window; }) ||
                        failed)
                        return;
                    ++sent;
                }
                if (!SendAll(fd, message.data(), message.size()))
                {
                    std::lock_guard lock(mutex);
                    failed = true;
                    return;
                }
            }
        });
    std::vector<unsigned char> buffer(64 * 1024);
    size_t bytes = 0;
    const size_t total = count * message.size();
    while (bytes < total)
    {
        ssize_t n = recv(fd, buffer.data(), std::min(buffer.size(), total - bytes), 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        bytes += size_t(n);
        std::lock_guard lock(mutex);
        done = bytes / message.size();
        freed.notify_one();
    }
    {
        std::lock_guard lock(mutex);
        if (bytes < total) failed = true;
        freed.notify_one();
    }
    sender.join();
    if (failed) return 0;
    return double(count) / (MicrosecondsSince(start) / 1e6);
}

} // namespace RemoteBench
