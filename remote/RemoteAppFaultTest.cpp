// Faults on live connections in this process: a peer that stops reading while replies pile up,
// short reads and writes, EINTR and a reset injected through the system call table, and the dispatch
// fuzz corpus served as a regression test.
#include "remote/RemoteApp.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "remote/ScriptWindow.h"
#include "remote/linux/DispatchCheck.h"
#include "remote/linux/SocketSys.h"
#include "remote/testhost/HostObjects.h"
#include "remote/testhost/Loopback.h"
#include "testsupport/TestSupport.h"
#include "values/sync/DebugLog.h"

namespace orvexScript
{
namespace
{

// Both ends of a connection in this process; the accepted records are held until the end, so that
// their threads are done before the system call table is put back.
struct Pair
{
    testhost::Root *host = testhost::InitTestScripting("RemoteAppFaultTest");
    testhost::Listener listener{true};
    testhost::Client connection{listener.Port()};
    RemoteApp *client = connection.app;
    ScriptVal &root = connection.root;

    uint16_t Port() const { return listener.Port(); }
};

// The bytes of a command that calls the root's Echo with a string of `bytes` characters.
Packet *EchoCommand(size_t bytes)
{
    ScriptArgs args;
    args[0] = "Echo";
    args[1] = ScriptVal(std::string(bytes, 'x').c_str());
    return ToPacket(nullptr, GlobalObjectTable::kRootId, SST_CallMemberFunction, nullptr, &args);
}

// The server's log switched on for the life of the object; its text at the end.
struct ServerLog
{
    ServerLog() : env("KESCRIPT_LOG_SERVER", "true") { GetServerLog().Open(); }
    ~ServerLog()
    {
        GetServerLog().Close();
        std::remove(GetServerLog().FileName());
    }
    std::string Text() const { return orvexTest::ReadFile(GetServerLog().FileName()); }
    orvexTest::ScopedEnv env;
};

TEST(RemoteAppFaultsThreads, APeerThatStopsReadingIsCutOffAndOthersGoOn)
{
    ServerLog log;
    RemoteApp::SetMaxSendQueue(4u << 20);
    {
        Pair pair; // the normal connection: two records in this process
        ASSERT_TRUE(orvexTest::WaitUntil([] { return RemoteApp::GetNumConnections() == 2; }));

        // A raw peer that sends Echo commands of 1 MB each and never reads a reply.
        int raw = SocketIo::kNoFd;
        ASSERT_EQ(SocketIo::ConnectTcp("127.0.0.1", pair.Port(), 5000, raw), SocketIo::IO_Ok);
        Packet *echo = EchoCommand(1u << 20);
        ASSERT_NE(echo, nullptr);
        std::atomic<bool> flooding{true};
        std::thread flood([&] {
            for (uint32_t i = 1; i <= 64; ++i)
            {
                echo->m_Sequence = i;
                if (SocketIo::SendPacket(raw, echo, 5000) != SocketIo::IO_Ok) break; // cut off
            }
            flooding.store(false);
        });
        // The normal connection answers while the other one floods and after it was cut off.
        int answered = 0;
        while (flooding.load())
            answered += pair.root.CallMember("Add", answered, 1) == double(answered + 1);
        flood.join();
        FreePkt(echo);
        EXPECT_TRUE(orvexTest::WaitUntil([] { return RemoteApp::GetNumConnections() == 2; }));
        EXPECT_EQ(pair.root.CallMember("Add", 40, 2), 42.0);
        EXPECT_GT(answered, 0);
        SocketIo::CloseFd(raw);
    }
    RemoteApp::SetMaxSendQueue(0);
    EXPECT_NE(log.Text().find("the peer does not read"), std::string::npos) << log.Text();
}

// System calls that move one byte at a time and fail every other call with EINTR (a few in a row at
// most), and a reset for one socket. Installed before any connection starts and taken out after all
// ended, so no thread sees the table change.
struct Faults
{
    static inline SocketIo::SocketSys real;
    static inline std::atomic<bool> shortIo{false};
    static inline std::atomic<int> resetFd{-1};
    static inline std::atomic<unsigned> calls{0};
    static inline std::atomic<unsigned> interrupted{0};

    static bool Interrupt()
    {
        if (!shortIo.load() || ++calls % 2 == 0) return false;
        ++interrupted;
        errno = EINTR;
        return true;
    }
    static ssize_t Send(int fd, const void *data, size_t size, int flags)
    {
        if (Interrupt()) return -1;
        return real.send(fd, data, shortIo.load() ? std::min<size_t>(size, 1) : size, flags);
    }
    static ssize_t Recv(int fd, void *data, size_t size, int flags)
    {
        if (fd == resetFd.load())
        {
            errno = ECONNRESET;
            return -1;
        }
        if (Interrupt()) return -1;
        return real.recv(fd, data, shortIo.load() ? std::min<size_t>(size, 1) : size, flags);
    }
    // The reset socket reads as readable, so that its connection thread finds the reset at once.
    static int Poll(pollfd *fds, nfds_t count, int timeoutMs)
    {
        if (Interrupt()) return -1;
        const int reset = resetFd.load();
        for (nfds_t i = 0; i < count; ++i)
            if (reset >= 0 && fds[i].fd == reset && (fds[i].events & POLLIN))
            {
                const int ready = real.poll(fds, count, 0);
                if (ready < 0) return ready;
                const bool added = !fds[i].revents;
                fds[i].revents |= POLLIN;
                return ready + (added ? 1 : 0);
            }
        return real.poll(fds, count, timeoutMs);
    }

    // Epoll sets report the reset socket readable too; which set holds it is learnt as it is added.
    struct Watch
    {
        int set, fd;
        epoll_data_t data;
    };
    static inline std::mutex watchLock;
    static inline std::vector<Watch> watches;

    static int EpollCtl(int set, int op, int fd, epoll_event *event)
    {
        if (op == EPOLL_CTL_ADD && event)
        {
            std::lock_guard<std::mutex> hold(watchLock);
            watches.push_back({set, fd, event->data});
        }
        return real.epoll_ctl(set, op, fd, event);
    }
    static int EpollWait(int set, epoll_event *events, int max, int timeoutMs)
    {
        if (Interrupt()) return -1;
        const int reset = resetFd.load();
        if (reset >= 0)
        {
            std::unique_lock<std::mutex> hold(watchLock);
            for (const Watch &watch : watches)
                if (watch.set == set && watch.fd == reset)
                {
                    const epoll_data_t data = watch.data;
                    hold.unlock();
                    int ready = real.epoll_wait(set, events, max, 0);
                    if (ready < 0) return ready;
                    bool listed = false;
                    for (int i = 0; i < ready; ++i)
                        listed = listed || events[i].data.u64 == data.u64;
                    if (!listed && ready < max) events[ready++] = epoll_event{EPOLLIN, data};
                    return ready;
                }
        }
        return real.epoll_wait(set, events, max, timeoutMs);
    }

    Faults()
    {
        real = SocketIo::Sys();
        SocketIo::Sys().send = Send;
        SocketIo::Sys().recv = Recv;
        SocketIo::Sys().poll = Poll;
        SocketIo::Sys().epoll_ctl = EpollCtl;
        SocketIo::Sys().epoll_wait = EpollWait;
    }
    ~Faults()
    {
        SocketIo::ResetSocketSys();
        shortIo.store(false);
        resetFd.store(-1);
        std::lock_guard<std::mutex> hold(watchLock);
        watches.clear();
    }
};

// Commands that arrive faster than a busy main thread runs them: past the cap the connection ends,
// and what waited on the window is let go when the window runs again.
TEST(RemoteAppFaultsThreads, APeerThatFloodsABusyWindowIsCutOff)
{
    ServerLog log;
    (void)testhost::InitTestScripting("RemoteAppFaultTest");
    ASSERT_TRUE(CreateScriptWindow());
    RemoteApp::SetMaxSendQueue(1u << 20);
    int exitCode = 0;
    {
        Pair pair;
        int raw = SocketIo::kNoFd;
        ASSERT_EQ(SocketIo::ConnectTcp("127.0.0.1", pair.Port(), 5000, raw), SocketIo::IO_Ok);
        Packet *echo = EchoCommand(8u << 10);
        ASSERT_NE(echo, nullptr);
        for (uint32_t i = 1; i <= 256; ++i) // 2 MiB while this thread does not pump
        {
            echo->m_Sequence = i;
            if (SocketIo::SendPacket(raw, echo, 5000) != SocketIo::IO_Ok) break;
        }
        FreePkt(echo);
        EXPECT_TRUE(orvexTest::WaitUntil(
            [&] { return log.Text().find("faster than they run") != std::string::npos; }));
        SocketIo::CloseFd(raw);
        for (int i = 0; i < 20; ++i)
            (void)GetScriptWnd()->Pump(0, 5, exitCode);
    }
    (void)GetScriptWnd()->Pump(0, 0, exitCode);
    DestroyScriptWindow();
    RemoteApp::SetMaxSendQueue(0);
}

TEST(RemoteAppFaultsThreads, ShortIoAndEintrStillCompleteCallsAndAResetWakesWaiters)
{
    Faults faults;
    Pair pair;
    Faults::shortIo.store(true);
    const std::string text(3000, 'q');
    EXPECT_EQ(pair.root.CallMember("Add", 2, 3), 5.0);
    EXPECT_EQ(pair.root.CallMember("Echo", text.c_str()), text.c_str());
    {
        ScriptVal item = pair.root.CallMember("Make", "short");
        EXPECT_EQ(item.CallMember("Name"), "short");
    }
    EXPECT_TRUE(orvexTest::WaitUntil([&] { return pair.root.CallMember("Live") == 0.0; }));
    EXPECT_GT(Faults::interrupted.load(), 10u);
    Faults::shortIo.store(false);

    // A reset while a call waits for its reply: the call gives nil well before the reply would come.
    pair.client->SetTimeOut(0);
    std::atomic<bool> returned{false};
    ScriptVal result(true);
    std::thread caller([&] {
        result = pair.root.CallMember("Sleep", 2);
        returned.store(true);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    Faults::resetFd.store(pair.client->GetSocket());
    EXPECT_TRUE(orvexTest::WaitUntil([&] { return returned.load(); }, 1500));
    caller.join();
    EXPECT_TRUE(result.IsNil());
    EXPECT_FALSE(pair.client->Connected());
    Faults::resetFd.store(-1);
}

TEST(RemoteAppFaultsThreads, TheDispatchCorpusIsServedAndLetGo)
{
    testhost::Root::s_MaxSleep.store(0.0);
    const auto check = [](const std::string &name, const std::string &bytes, orvexTest::CorpusExpect expect) {
        const DispatchCheck result = RunDispatch(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size());
        EXPECT_EQ(result.failure, "") << name;
        if (expect != orvexTest::CorpusExpect::Either)
        {
            EXPECT_EQ(result.replyBytes > 0, expect == orvexTest::CorpusExpect::Read) << name;
        }
    };
    EXPECT_GE(orvexTest::ForEachCorpusFile(ORVEX_DISPATCH_CORPUS, check), 10u);
    testhost::Root::s_MaxSleep.store(10.0);
    EXPECT_TRUE(orvexTest::WaitUntil([] { return RemoteApp::GetNumConnections() == 0; }));
}

} // namespace
} // namespace orvexScript
