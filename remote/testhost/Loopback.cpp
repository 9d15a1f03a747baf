// The loopback fixtures of the connection tests.
#include "remote/testhost/Loopback.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>

#include "remote/SocketIo.h"

namespace orvexScript::testhost
{

Listener::Listener(bool hold) : m_Hold(hold)
{
    if (!SocketIo::ListenLoopback(0, m_Listen, m_Port)) return;
    m_Acceptor = std::thread([this] { Accept(); });
}

Listener::Listener(const std::string &flag)
{
    m_Listen = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    if (m_Listen < 0 || bind(m_Listen, reinterpret_cast<sockaddr *>(&address), size) != 0 ||
        getsockname(m_Listen, reinterpret_cast<sockaddr *>(&address), &size) != 0)
        return;
    m_Port = ntohs(address.sin_port);
    if (flag.empty()) return;
    m_Acceptor = std::thread(
        [this, flag]
        {
            const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
            while (!m_Stop.load() && access(flag.c_str(), F_OK) != 0)
            {
                if (std::chrono::steady_clock::now() > deadline) return;
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
            }
            if (!m_Stop.load() && listen(m_Listen, 16) == 0) Accept();
        });
}

void Listener::Accept()
{
    while (!m_Stop.load())
    {
        int fd = SocketIo::kNoFd;
        if (SocketIo::Accept(m_Listen, 20, fd) != SocketIo::IO_Ok) continue;
        ++m_Accepted;
        if (!m_Hold)
        {
            new RemoteApp(fd); // lives by its counts
            continue;
        }
        // Held before it starts, so that it cannot end before it is held.
        auto *server = new RemoteApp;
        server->Use();
        (void)server->Connect(fd);
        std::lock_guard<std::mutex> guard(m_Lock);
        m_Held.push_back(server);
    }
}

Listener::~Listener()
{
    m_Stop.store(true);
    if (m_Acceptor.joinable()) m_Acceptor.join();
    SocketIo::CloseFd(m_Listen);
    for (RemoteApp *server : m_Held)
    {
        server->_Disconnect();
        server->Recycle();
    }
}

Client::Client(uint16_t port)
{
    app = new RemoteApp;
    app->Use();
    app->SetHost("127.0.0.1");
    g_ScriptServerPort = port;
    if (app->Connect()) root = app->FindRemoteObject(GlobalObjectTable::kRootId);
}

Client::~Client()
{
    root = ScriptVal();
    app->_Disconnect();
    app->Recycle();
    (void)WaitForNoConnections();
}

bool WaitForNoConnections()
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (RemoteApp::GetNumConnections() != 0)
    {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

} // namespace orvexScript::testhost
