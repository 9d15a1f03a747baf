// The run that the dispatch fuzz target and its corpus test share: bytes from a peer go through packet
// reading and dispatch against a test host root, over a socket pair. The peer writes the bytes, ends
// its sending side and reads replies until the connection closes; then whatever the root keeps is let
// go, and the record must end with every item the peer made. Header only: it is no part of the library.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "remote/RemoteApp.h"
#include "remote/testhost/HostObjects.h"

namespace orvexScript
{

struct DispatchCheck
{
    size_t replyBytes = 0; // what the connection wrote back
    std::string failure;   // empty if the connection served the bytes and ended cleanly
};

// Scripting with a test host root, once per process (no window: commands run on the connection
// thread). A run of random commands needs Sleep cut to nothing (Root::s_MaxSleep), or it may stall.
inline testhost::Root *DispatchRoot()
{
    return testhost::InitTestScripting("DispatchCheck");
}

namespace detail
{
template <class F> bool WaitFor(F done, std::chrono::steady_clock::time_point deadline)
{
    while (!done())
    {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    return true;
}
} // namespace detail

inline DispatchCheck RunDispatch(const uint8_t *data, size_t size, int limitMs = 10000)
{
    using Clock = std::chrono::steady_clock;
    DispatchCheck result;
    testhost::Root *root = DispatchRoot();
    const int liveBefore = testhost::Item::s_Live.load();
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0)
    {
        result.failure = "socketpair failed";
        return result;
    }
    auto *app = new RemoteApp(fds[0]);
    app->Use();
    const int peer = fds[1];
    (void)fcntl(peer, F_SETFL, fcntl(peer, F_GETFL, 0) | O_NONBLOCK);

    const auto deadline = Clock::now() + std::chrono::milliseconds(limitMs);
    size_t sent = 0;
    bool shut = false, closed = false;
    std::vector<unsigned char> buffer(1 << 16);
    while (!closed && Clock::now() < deadline)
    {
        if (!shut && sent == size)
        {
            (void)shutdown(peer, SHUT_WR);
            shut = true;
        }
        pollfd p{peer, static_cast<short>(POLLIN | (shut ? 0 : POLLOUT)), 0};
        if (poll(&p, 1, 100) <= 0) continue;
        if (!shut && (p.revents & POLLOUT))
        {
            const ssize_t n = send(peer, data + sent, size - sent, MSG_NOSIGNAL);
            if (n > 0)
                sent += static_cast<size_t>(n);
            else if (n < 0 && errno != EAGAIN && errno != EINTR)
                shut = true; // the connection ended before taking everything (a refused size)
        }
        if (p.revents & (POLLIN | POLLHUP | POLLERR))
        {
            const ssize_t n = recv(peer, buffer.data(), buffer.size(), 0);
            if (n > 0)
                result.replyBytes += static_cast<size_t>(n);
            else if (n == 0 || (errno != EAGAIN && errno != EINTR))
                closed = true;
        }
    }
    close(peer);
    if (!closed) result.failure = "the connection did not close after the peer's end";

    // What the root keeps (proxies of the peer, our own objects) goes, then every count of the
    // record: only this run's reference is left.
    if (!detail::WaitFor([&] { return !app->Connected(); }, deadline))
        result.failure = "the connection did not end";
    std::vector<ScriptVal> kept;
    {
        std::lock_guard<std::mutex> hold(root->m_Lock);
        kept.swap(root->m_Kept);
    }
    kept.clear();
    if (!detail::WaitFor([&] { return app->GetUseCount() == 1; }, deadline) && result.failure.empty())
        result.failure = "the record is still held: " + std::to_string(app->GetUseCount()) + " uses";
    app->Recycle();
    // Items the peer made and held died with the connection.
    if (!detail::WaitFor([&] { return testhost::Item::s_Live.load() == liveBefore; }, deadline) &&
        result.failure.empty())
        result.failure = "items outlived the connection: " + std::to_string(testhost::Item::s_Live.load() - liveBefore);
    return result;
}

} // namespace orvexScript
