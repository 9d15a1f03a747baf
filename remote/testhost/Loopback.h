// Both ends of connections in one test process, over loopback TCP: a listener that wraps every
// accepted socket in a connection, and a client connected to a port with the peer's root.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "remote/RemoteApp.h"

namespace orvexScript::testhost
{

// Accepts on 127.0.0.1 at an ephemeral port. Accepted records live by their counts; with `hold` they
// are also held and let go at the end, after their connections were ended, so that their threads are
// done by then (for tests that change the system call table).
class Listener
{
public:
    explicit Listener(bool hold = false);
    // Bound at once but listening only once the file `flag` exists (waiting at most 30 s for it), so
    // that until then a connect is refused; with an empty `flag` it never listens.
    explicit Listener(const std::string &flag);
    ~Listener();
    Listener(const Listener &) = delete;
    Listener &operator=(const Listener &) = delete;

    uint16_t Port() const { return m_Port; }
    int Accepted() const { return m_Accepted.load(); }

private:
    void Accept();

    bool m_Hold = false;
    int m_Listen = -1;
    uint16_t m_Port = 0;
    std::atomic<bool> m_Stop{false};
    std::atomic<int> m_Accepted{0};
    std::thread m_Acceptor;
    std::mutex m_Lock;
    std::vector<RemoteApp *> m_Held;
};

// A connection of this process to `port` on 127.0.0.1, with the peer's root. At the end it lets go of
// the root, ends the connection and waits (bounded) until no connection of the process is left.
struct Client
{
    explicit Client(uint16_t port);
    ~Client();
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;

    RemoteApp *app = nullptr;
    ScriptVal root;
};

// Waits at most 5 s until the process has no connection left.
bool WaitForNoConnections();

} // namespace orvexScript::testhost
