// The connection: its record and lists, the connection thread, sending and waiting, dispatch of
// what arrives, and the object counts across the link. Sections: process-wide state, waiters and
// lists, construction, connecting, the connection thread, sending and waiting, dispatch, the command
// runner, object counts, packets on a connection, proxies, hooks and window messages.
#include "remote/RemoteApp.h"

#include <chrono>
#include <cstdarg>
#include <cstdlib>
#include <cstdio>
#include <cstring>
#include <exception>
#include <new>
#include <string>
#include <thread>

#include "objects/ObjectHooks.h"
#include "objects/ScriptInfo.h"
#include "remote/ScriptWindow.h"
#include "remote/Scripting.h"
#include "values/base/IPAddress.h"
#include "values/base/Platform.h"
#include "values/model/RemoteHooks.h"
#include "values/model/TableEntry.h"
#include "values/sync/DebugLog.h"

namespace orvexScript
{

// ---- process-wide state -------------------------------------------------------------------------

unsigned short g_ScriptServerPort = 10251;
RemoteApp *g_AppList = nullptr;
// Never destroyed, like the other process-wide state below: a connection thread may still be ending
// while the process exits.
Lock &g_AppLock = *new Lock;

namespace
{
std::atomic<uint32_t> s_NextAppID{1};
std::atomic<int> s_Connections{0};
std::atomic<bool> s_EverConnected{false};
constexpr size_t kDefaultMaxSendQueue = 64u * 1024u * 1024u;
std::atomic<size_t> s_MaxSendQueue{kDefaultMaxSendQueue};
// Replies that nobody waits for are kept for a later PollPkt or WaitPkt, at most this many.
constexpr unsigned kMaxUnclaimedReplies = 1024;
// After the quit event the connection waits this long for the peer to close before it gives up.
constexpr int kQuitGraceMs = 2000;
constexpr int kIdleWaitMs = 1000;
// Whole packets handled in one round of reading before the thread looks at its other events.
constexpr unsigned kPacketsPerRound = 64;

using Clock = std::chrono::steady_clock;

uint64_t NowMs()
{
    return static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now().time_since_epoch()).count());
}

// The record's counts are read by other threads without the lock (a proxy's count is lowered
// atomically, raised under the connection lock).
uint32_t AtomicAdd(uint32_t &word, int delta)
{
    std::atomic_ref<uint32_t> ref(word);
    return delta > 0 ? ref.fetch_add(1) + 1 : ref.fetch_sub(1) - 1;
}

uint32_t AtomicLoad(const uint32_t &word)
{
    return std::atomic_ref<uint32_t>(const_cast<uint32_t &>(word)).load();
}
} // namespace

DebugLog &GetServerLog()
{
    static DebugLog *log = [] {
        const char *folder = std::getenv("TMPDIR");
        std::string base = folder && *folder ? folder : "/tmp";
        if (base.back() != '/') base += '/';
        base += "orvexScriptServer";
        return new DebugLog("KESCRIPT_LOG_SERVER", base.c_str(), false);
    }();
    return *log;
}

#define SERVER_LOG(...) GetServerLog().PrintF(__VA_ARGS__)

void RemoteApp::SetMaxSendQueue(size_t bytes)
{
    s_MaxSendQueue.store(bytes ? bytes : kDefaultMaxSendQueue);
}

int RemoteApp::GetNumConnections()
{
    return s_Connections.load();
}

bool RemoteApp::EverConnected()
{
    return s_EverConnected.load();
}

// ---- waiters and lists --------------------------------------------------------------------------

// One request that someone waits for. The list holds one reference and a blocked thread another;
// the last to let go deletes it. A blocked thread gets its reply handed into the record, so that it
// wakes without taking the connection lock again.
struct RemoteApp::Waiter
{
    Waiter *next = nullptr;
    std::atomic<int> references{1};
    uint32_t sequence = 0;
    bool hasEvent = false; // a thread is blocked on it
    PacketCallback callback = nullptr;
    void *user = nullptr;
    uint64_t deadline = 0; // steady milliseconds; 0 for never
    bool done = false;     // answered or given up (under the connection lock)

    // The blocked thread's side: woken at most once (a record is done after its first wake).
    WakeFlag woken;
    bool set = false;
    Packet *reply = nullptr;

    // Wakes the blocked thread with `packet` (or none); the caller's reference keeps the record alive
    // until it lets go. The flag wakes it with one system call and no mutex hand-over.
    void Wake(Packet *packet)
    {
        reply = packet;
        set = true;
        woken.Set();
    }

    void Release()
    {
        if (references.fetch_sub(1) == 1)
        {
            FreePkt(reply);
            delete this;
        }
    }
};

struct RemoteApp::PacketNode
{
    PacketNode *next = nullptr;
    Packet *packet = nullptr;
};

namespace
{
template <typename Node> void Append(Node *&head, Node *&tail, Node *node)
{
    node->next = nullptr;
    if (tail)
        tail->next = node;
    else
        head = node;
    tail = node;
}

template <typename Node> Node *PopFront(Node *&head, Node *&tail)
{
    Node *node = head;
    if (node)
    {
        head = node->next;
        if (!head) tail = nullptr;
        node->next = nullptr;
    }
    return node;
}

template <typename Node> void Remove(Node *&head, Node *&tail, Node *node)
{
    Node *previous = nullptr;
    for (Node *n = head; n; previous = n, n = n->next)
    {
        if (n != node) continue;
        (previous ? previous->next : head) = n->next;
        if (tail == n) tail = previous;
        n->next = nullptr;
        return;
    }
}
} // namespace

void RemoteApp::FreePackets(PacketNode *&head, PacketNode *&tail)
{
    while (PacketNode *node = PopFront(head, tail))
    {
        FreePkt(node->packet);
        delete node;
    }
}

void RemoteApp::Unlink(Waiter *waiter)
{
    Remove(m_Waiters, m_WaitersTail, waiter);
}

Packet *RemoteApp::TakeReply(uint32_t sequence, bool countDone)
{
    PacketNode *previous = nullptr;
    for (PacketNode *node = m_Replies; node; previous = node, node = node->next)
    {
        if (node->packet->m_Sequence != sequence) continue;
        (previous ? previous->next : m_Replies) = node->next;
        if (m_RepliesTail == node) m_RepliesTail = previous;
        Packet *packet = node->packet;
        delete node;
        if (countDone && m_RequestsOpen) --m_RequestsOpen;
        return packet;
    }
    return nullptr;
}

// ---- construction -------------------------------------------------------------------------------

RemoteApp::RemoteApp(int socket)
{
    InstallRemoteHooks();
    m_AppID = s_NextAppID.fetch_add(1);
    if (!m_WriteEvent.Open() || !m_QuitEvent.Open())
        SERVER_LOG("RemoteApp::RemoteApp(%p) - eventfd err %d\n", static_cast<void *>(this), errno);

    // Id 1 on both tables is the root: ours in the local table, the peer's in the remote table. The
    // root entry holds one count, so that the connection holds our root.
    ScriptObject *root = GetRootObject();
    if (RemoteObject *local = m_LocalObjects.Allocate(GlobalObjectTable::kRootId, root, this, true))
    {
        local->m_Count = 1;
        ++m_LocalCount;
        Use();
        if (root) root->IncRef();
    }
    (void)m_RemoteObjects.Allocate(GlobalObjectTable::kRootId, nullptr, this, false);
    if (root)
    {
        GlobalObjectTable &table = GetGlobalObjectTable();
        GlobalObjectLock hold(table);
        if (RemoteObject *global = table.RegisterRoot(root)) ++global->m_Count;
    }

    g_AppLock.ObtainLock();
    m_NextApp = g_AppList;
    g_AppList = this;
    g_AppLock.ReleaseLock();

    if (socket != kNoSocket)
    {
        // The thread starts work only once the record is complete; from then on the record lives by
        // its counts and may end with its connection.
        m_Constructing = true;
        (void)Connect(socket);
        Announce();
        m_Constructing = false;
        m_ThreadGate.Signal();
    }
}

void RemoteApp::Announce()
{
    ScriptWindow *window = GetScriptWnd();
    if (!window) return;
    // Under the lock, so that the end of the connection sees either no announcement or one to undo.
    bool refused = false;
    m_Lock.ObtainLock();
    if (Connected() && !m_Ended && !m_Announced)
    {
        Use(); // released by the on-disconnect message
        m_NotifyCount.fetch_add(1);
        m_Announced = window->Post(SWM_Connect, reinterpret_cast<uintptr_t>(this), 0);
        if (!m_Announced)
        {
            m_NotifyCount.fetch_sub(1);
            refused = true;
        }
    }
    m_Lock.ReleaseLock();
    if (refused) Recycle();
}

RemoteApp::~RemoteApp()
{
    // Releases below must not bring the count to 0 a second time.
    m_UseCount.store(1 << 30);
    g_AppLock.ObtainLock();
    for (RemoteApp **link = &g_AppList; *link; link = &(*link)->m_NextApp)
        if (*link == this)
        {
            *link = m_NextApp;
            break;
        }
    g_AppLock.ReleaseLock();

    JoinThread();
    m_Lock.ObtainLock();
    DropAllLocal();
    while (Waiter *waiter = PopFront(m_Waiters, m_WaitersTail))
        waiter->Release();
    FreePackets(m_Replies, m_RepliesTail);
    FreePackets(m_SendQueue, m_SendTail);
    FreePackets(m_Handoff, m_HandoffTail);
    ReleaseWrite();
    m_Lock.ReleaseLock();
    int fd = m_Socket.exchange(kNoSocket);
    SocketIo::CloseFd(fd);
}

void RemoteApp::Use() const
{
    m_UseCount.fetch_add(1);
}

void RemoteApp::Recycle() const
{
    if (m_UseCount.fetch_sub(1) == 1) delete this;
}

ScriptVal &RemoteApp::LockData(const char *key)
{
    m_DataLock.ObtainLock();
    if (!m_Data.IsTable()) m_Data = ScriptVal(SV_Table, nullptr);
    ScriptVal &entry = m_Data.FindKey(key ? key : "");
    if (!entry.IsTable()) entry = ScriptVal(SV_Table, nullptr);
    return entry;
}

void RemoteApp::UnlockData()
{
    m_DataLock.ReleaseLock();
}

void RemoteApp::SetName(const char *name)
{
    std::snprintf(m_Name, sizeof(m_Name), "%s", name ? name : "");
}

void RemoteApp::SetSubtype(const char *subtype)
{
    std::snprintf(m_Subtype, sizeof(m_Subtype), "%s", subtype ? subtype : "");
}

void RemoteApp::SetHost(const char *host)
{
    std::snprintf(m_Host, sizeof(m_Host), "%s", host ? host : "");
}

void RemoteApp::SetUUID(const ScriptVal &uuid)
{
    m_Lock.ObtainLock();
    m_UUID = uuid;
    m_Lock.ReleaseLock();
}

bool RemoteApp::Connected()
{
    return m_Socket.load() != kNoSocket;
}

uint32_t RemoteApp::GetIPAddress()
{
    return m_Address;
}

const char *RemoteApp::GetName()
{
    return m_Name;
}

const char *RemoteApp::GetHostName()
{
    return m_Host;
}

const ScriptVal &RemoteApp::GetUUID()
{
    return m_UUID;
}

bool RemoteApp::ClearUUID()
{
    if (Connected()) return false;
    SetUUID(ScriptVal());
    return true;
}

bool RemoteApp::IsUUID(const ScriptVal &uuid)
{
    m_Lock.ObtainLock();
    bool same = uuid.IsString() && m_UUID.IsString() && uuid == m_UUID;
    m_Lock.ReleaseLock();
    return same;
}

int RemoteApp::GetSocket()
{
    return m_Socket.load();
}

double RemoteApp::SetTimeOut(double seconds)
{
    return m_TimeOut.exchange(seconds);
}

unsigned RemoteApp::GetLocalObjectCount()
{
    m_Lock.ObtainLock();
    unsigned count = m_LocalCount;
    m_Lock.ReleaseLock();
    return count;
}

unsigned RemoteApp::GetRemoteObjectCount()
{
    m_Lock.ObtainLock();
    unsigned count = m_RemoteCount;
    m_Lock.ReleaseLock();
    return count;
}

double RemoteApp::GetTimeOut()
{
    return m_TimeOut;
}

bool RemoteApp::IsLocalIP(uint32_t ip)
{
    char text[32];
    StrFromIP(ip, text, sizeof(text));
    return orvexScript::IsLocalIP(text);
}

uint32_t RemoteApp::IPFromStr(const char *text)
{
    return orvexScript::IPFromStr(text);
}

const char *RemoteApp::StrFromIP(uint32_t ip, char *buffer, size_t size)
{
    orvexScript::StrFromIP(ip, buffer, static_cast<int>(size));
    return buffer;
}

// ---- connecting ---------------------------------------------------------------------------------

bool RemoteApp::Connect(int socket)
{
    if (Connected()) _Disconnect();
    JoinThread(); // a thread of an earlier connection that ended by itself
    if (socket == kNoSocket) return false;
    m_Lock.ObtainLock();
    m_Reader.Reset();
    m_Reader.TrustShortReads(true); // the thread polls before every round of reads
    m_WaitingCommandBytes.store(0);
    m_Ended = false;
    m_Closing = false;
    // In a process with a script window the window's thread reads the socket itself while it waits
    // for work, so that commands reach it without a hand-over; it holds a use until the end.
    m_Watched = false;
    if (ScriptWindow *window = GetScriptWnd())
    {
        Use();
        m_Watched = window->WatchSocket(socket, this);
        if (!m_Watched) Recycle();
    }
    m_LeaderMode = OpenEventSets(socket);
    m_Address = SocketIo::PeerAddress(socket);
    (void)SocketIo::SetNoDelay(socket); // a socket a host accepted itself may lack it; not TCP: no matter
    m_QuitEvent.Drain();
    m_Socket.store(socket);
    m_Lock.ReleaseLock();
    s_Connections.fetch_add(1);
    s_EverConnected.store(true);
    Use(); // the thread's own
    try
    {
        // The thread waits until its handle is stored: a short connection may otherwise end and
        // destroy the record while the handle is still being written.
        m_Thread = std::thread([this] {
            (void)m_ThreadGate.Wait(Event::NoTimeout);
            AppThreadFunc();
        });
        if (!m_Constructing) m_ThreadGate.Signal();
    }
    catch (...)
    {
        SERVER_LOG("RemoteApp::Connect(%p) - can not start the connection thread\n", static_cast<void *>(this));
        int fd = m_Socket.exchange(kNoSocket);
        SocketIo::CloseFd(fd);
        s_Connections.fetch_sub(1);
        if (m_Watched)
        {
            m_Watched = false;
            Recycle(); // the window's use: the socket it watched is closed
        }
        Recycle();
        return false;
    }
    return true;
}

// The blocked caller's set must hold the socket before the thread's set does: of the sets that hold
// a socket exclusively, the first added that has a waiter is the one woken.
bool RemoteApp::OpenEventSets(int socket)
{
    m_ThreadSet.Close();
    m_LeaderSet.Close();
    if (!m_LeaderEvent.IsOpen() && !m_LeaderEvent.Open()) return false;
    m_LeaderEvent.Drain();
    const bool ready = m_LeaderSet.Open() && m_LeaderSet.Add(socket, 0, true) &&
                       m_LeaderSet.Add(m_LeaderEvent.Fd(), 1, false) && m_ThreadSet.Open() &&
                       m_ThreadSet.Add(m_QuitEvent.Fd(), 0, false) && m_ThreadSet.Add(m_WriteEvent.Fd(), 1, false) &&
                       m_ThreadSet.Add(socket, 2, true);
    if (!ready)
    {
        m_ThreadSet.Close();
        m_LeaderSet.Close();
    }
    return ready;
}

bool RemoteApp::OnConnectionThread() const
{
    return m_ThreadId.load() == std::this_thread::get_id();
}

bool RemoteApp::Connect()
{
    SERVER_LOG("RemoteApp::Connect() to %s\n", m_Host);
    if (Connected()) _Disconnect();
    const double timeout = m_TimeOut.load();
    const int timeoutMs = timeout > 0 ? static_cast<int>(timeout * 1000.0 + 0.5) : 0;
    if (timeoutMs > 0) SERVER_LOG("RemoteApp::Connect() - timeout %f\n", timeout);
    int fd = SocketIo::kNoFd;
    SocketIo::IoStatus status = SocketIo::ConnectTcp(m_Host, g_ScriptServerPort, timeoutMs, fd);
    if (status == SocketIo::IO_TimedOut)
        SERVER_LOG("RemoteApp::Connect() - select timeout\n");
    else if (status != SocketIo::IO_Ok)
        SERVER_LOG("RemoteApp::Connect() - connect err %d\n", errno);
    else
        SERVER_LOG("RemoteApp::Connect() - connect OK\n");
    if (status != SocketIo::IO_Ok || !Connect(fd)) return false;
    if (!m_Name[0]) return true; // a bare connection

    ScriptVal root = FindRemoteObject(GlobalObjectTable::kRootId);
    ScriptArgs args;
    args[1] = ScriptVal(m_Name);
    args[2] = m_UUID;
    args[3] = ScriptVal(g_ScriptConfig && g_ScriptConfig->name ? g_ScriptConfig->name : "");
    args[4] = GetAppUUID();
    if (m_Subtype[0]) args[5] = ScriptVal(m_Subtype);
    ScriptVal uuid = root.CallMemberA("ConnectHost", args);
    if (uuid.IsString())
    {
        SetUUID(uuid);
        Announce();
        return true;
    }
    _Disconnect();
    return false;
}

void RemoteApp::AsyncConnect()
{
    Use();
    try
    {
        std::thread([this] {
            Platform::SetCurrentThreadName("RemoteApp Connect Thread");
            if (!Connect())
            {
                if (ScriptWindow *window = GetScriptWnd())
                {
                    Use();
                    if (!window->Post(SWM_ConnectFailed, reinterpret_cast<uintptr_t>(this), 0)) Recycle();
                }
            }
            Recycle();
        }).detach();
    }
    catch (...)
    {
        Recycle();
    }
}

int RemoteApp::ReleaseSocket(unsigned long timeoutMs)
{
    if (OnConnectionThread()) return kNoSocket;
    m_Lock.ObtainLock();
    const bool possible = Connected() && !m_Ended && !m_Watched && !m_KeepSocket.load();
    if (possible)
    {
        m_KeptSocket.store(kNoSocket);
        m_KeepSocket.store(true);
        m_Ended = true;
        (void)m_WriteEvent.Signal(); // not the quit event: that shuts the socket down
    }
    m_Lock.ReleaseLock();
    if (!possible) return kNoSocket;
    if (!m_SocketKept.Wait(timeoutMs))
    {
        const int fd = m_KeptSocket.exchange(kReleaseAbandoned);
        if (fd == kNoSocket) SERVER_LOG("RemoteApp(%p) - socket not released in time\n", static_cast<void *>(this));
        return fd;
    }
    return m_KeptSocket.exchange(kNoSocket);
}

void RemoteApp::Abandon()
{
    m_Lock.ObtainLock();
    if (!Connected()) DropAllLocal(); // gives the lock back and takes it again
    m_Lock.ReleaseLock();
}

void RemoteApp::_Disconnect()
{
    if (!Connected()) return;
    (void)m_QuitEvent.Signal();
    JoinThread();
}

void RemoteApp::Disconnect()
{
    m_Closing = true;
    (void)m_WriteEvent.Signal(); // the thread looks at the drain condition
}

void RemoteApp::JoinThread()
{
    if (!m_Thread.joinable()) return;
    if (m_Thread.get_id() == std::this_thread::get_id())
        m_Thread.detach(); // the thread itself ends the record: it returns right after
    else
        m_Thread.join();
}

// ---- the connection thread ----------------------------------------------------------------------

int RemoteApp::AppThreadFunc()
{
    Platform::SetCurrentThreadName("RemoteApp Thread");
    m_ThreadId.store(std::this_thread::get_id());
    ThreadLoop();
    FinishConnection();
    Recycle(); // may destroy the record
    return 0;
}

bool RemoteApp::Drained() const
{
    return m_RequestsOpen == 0 && m_RepliesOwed == 0 && !m_SendQueue && !m_WriteState.Busy() && !m_Replies &&
           !m_Handoff;
}

bool RemoteApp::WriteOpen()
{
    return m_WriteState.Busy();
}

int RemoteApp::NextWaitMs()
{
    uint64_t now = NowMs();
    uint64_t wait = kIdleWaitMs;
    for (Waiter *waiter = m_Waiters; waiter; waiter = waiter->next)
        if (!waiter->done && waiter->deadline)
            wait = waiter->deadline <= now ? 0 : std::min<uint64_t>(wait, waiter->deadline - now);
    return static_cast<int>(wait);
}

void RemoteApp::ThreadLoop()
{
    const int fd = m_Socket.load();
    uint64_t quitBy = 0;
    m_Lock.ObtainLock();
    for (;;)
    {
        if (m_Ended) break;
        const int waitMs = m_ReadPending ? 0 : NextWaitMs();
        const bool wantWritable = WriteOpen();
        m_Lock.ReleaseLock();
        SocketIo::ConnectionEvents events;
        SocketIo::IoStatus status;
        if (m_LeaderMode && !wantWritable)
        {
            uint32_t ready = 0;
            status = m_ThreadSet.Wait(waitMs, ready);
            events.quit = (ready & 1u) != 0;
            events.write = (ready & 2u) != 0;
            events.readable = (ready & 4u) != 0;
        }
        else
            status = SocketIo::WaitConnection(m_QuitEvent.Fd(), m_WriteEvent.Fd(), fd, wantWritable, waitMs, events);
        m_Lock.ObtainLock();
        if (m_KeepSocket.load()) break; // the socket goes on elsewhere: no shutdown, no more reading
        if (status == SocketIo::IO_Error)
        {
            SERVER_LOG("RemoteApp(%p) - poll err %d\n", static_cast<void *>(this), errno);
            break;
        }
        if (events.quit && !quitBy)
        {
            m_QuitEvent.Drain();
            quitBy = NowMs() + kQuitGraceMs;
            (void)SocketIo::ShutdownSend(fd); // the peer's close ends the loop
        }
        if (events.write)
        {
            m_WriteEvent.Drain();
            DoWrite();
        }
        if (events.readable || events.hangup || m_ReadPending) DoRead();
        if (m_Handoff) RunHandoff();
        if (events.writable) DoWrite();
        if (m_Closing && Drained()) break;
        CheckDeadlines();
        if (quitBy && NowMs() >= quitBy) break;
    }
    m_Lock.ReleaseLock();
}

void RemoteApp::CheckDeadlines()
{
    const uint64_t now = NowMs();
    for (Waiter *waiter = m_Waiters; waiter; waiter = waiter->next)
    {
        if (waiter->done || !waiter->deadline || waiter->deadline > now) continue;
        if (m_RequestsOpen) --m_RequestsOpen;
        waiter->done = true;
        if (waiter->callback) waiter->callback(waiter->user, this, nullptr, waiter->sequence);
        if (waiter->hasEvent) WakeWaiter(waiter, nullptr);
        // The record stays, done, so that a late reply is recognised and freed.
    }
}

void RemoteApp::EndConnection(const char *why)
{
    if (!m_Ended)
        SERVER_LOG("RemoteApp(%p) - connection to %s ended: %s\n", static_cast<void *>(this), m_Host, why);
    m_Ended = true;
    (void)m_QuitEvent.Signal(); // wakes the thread if another thread ended it
}

void RemoteApp::FinishConnection()
{
    m_Lock.ObtainLock();
    const bool watched = m_Watched;
    m_Watched = false;
    m_Lock.ReleaseLock();
    int fd = m_Socket.exchange(kNoSocket);
    // The window stops watching before the close: a socket shared with another process (handed over)
    // would otherwise stay in its set after the close, with this record as its cookie.
    ScriptWindow *watcher = watched ? GetScriptWnd() : nullptr;
    if (watcher) watcher->UnwatchSocket(fd);
    if (m_KeepSocket.load())
    {
        // For ReleaseSocket; one that gave up waiting left kReleaseAbandoned, and the socket is closed.
        if (m_KeptSocket.exchange(fd) == kReleaseAbandoned) SocketIo::CloseFd(fd);
        m_SocketKept.Signal();
    }
    else
        SocketIo::CloseFd(fd);
    // The window's use is given back on its own thread, after any read it had begun.
    if (watched)
    {
        ScriptWindow *window = GetScriptWnd();
        if (!window ||
            !window->Post(SWM_Call, reinterpret_cast<uintptr_t>(&ReleaseWatch), reinterpret_cast<uintptr_t>(this)))
            Recycle();
    }

    m_Lock.ObtainLock();
    // Every waiter learns that no reply will come.
    while (Waiter *waiter = PopFront(m_Waiters, m_WaitersTail))
    {
        if (!waiter->done)
        {
            waiter->done = true;
            if (waiter->callback) waiter->callback(waiter->user, this, nullptr, waiter->sequence);
            if (waiter->hasEvent) WakeWaiter(waiter, nullptr);
        }
        waiter->Release();
    }
    FreePackets(m_SendQueue, m_SendTail);
    FreePackets(m_Handoff, m_HandoffTail);
    ReleaseWrite();
    m_QueuedBytes = 0;
    m_Reader.Reset();
    m_ReadPending = false;
    m_RequestsOpen = 0;
    m_RepliesOwed = 0;
    m_Lock.ReleaseLock();

    s_Connections.fetch_sub(1);
    m_Lock.ObtainLock();
    const bool announced = m_Announced;
    m_Announced = false;
    m_Lock.ReleaseLock();
    if (announced)
    {
        ScriptWindow *window = GetScriptWnd();
        m_NotifyCount.fetch_sub(1);
        // The message releases the use count that the on-connect message took.
        if (!window || !window->Post(SWM_Disconnect, reinterpret_cast<uintptr_t>(this), 0)) Recycle();
    }

    // Everything the peer held goes.
    m_Lock.ObtainLock();
    DropAllLocal();
    m_Lock.ReleaseLock();
}

void RemoteApp::DoRead()
{
    const int fd = m_Socket.load();
    m_ReadPending = false;
    for (unsigned handled = 0; !m_Ended; ++handled)
    {
        if (handled == kPacketsPerRound)
        {
            m_ReadPending = true; // more may be in hand: the next round reads on without waiting
            return;
        }
        Packet *packet = nullptr;
        SocketIo::IoStatus status = m_Reader.ReadSome(fd, packet);
        if (status == SocketIo::IO_Ok)
        {
            DispatchPacket(packet);
            continue;
        }
        switch (status)
        {
        case SocketIo::IO_WouldBlock:
            return;
        case SocketIo::IO_Closed:
            EndConnection(m_Reader.InPacket() ? "the peer closed within a packet" : "the peer closed");
            return;
        case SocketIo::IO_BadSize:
        {
            char why[96];
            std::snprintf(why, sizeof(why), "refused a packet of %u bytes", m_Reader.RefusedSize());
            EndConnection(why);
            return;
        }
        case SocketIo::IO_NoMemory:
            EndConnection("no memory for a packet");
            return;
        default:
            EndConnection(SocketIo::IoStatusName(status));
            return;
        }
    }
}

void RemoteApp::ReleaseWrite()
{
    FreePkt(m_WritePacket);
    m_WritePacket = nullptr;
    m_WriteState.Clear();
}

// Takes the next write from the send queue: a packet alone, or several small ones copied into one
// block so that they leave in one send.
bool RemoteApp::StartWrite()
{
    if (!m_SendQueue) return false;
    if (!m_SendQueue->next || m_SendQueue->packet->m_Size + m_SendQueue->next->packet->m_Size > kBatchBytes)
    {
        PacketNode *node = PopFront(m_SendQueue, m_SendTail);
        m_WritePacket = node->packet;
        delete node;
        m_WriteState.Start(m_WritePacket);
        return true;
    }
    m_Batch.clear();
    while (m_SendQueue && m_Batch.size() + m_SendQueue->packet->m_Size <= kBatchBytes)
    {
        PacketNode *node = PopFront(m_SendQueue, m_SendTail);
        const auto *bytes = reinterpret_cast<const unsigned char *>(node->packet);
        m_Batch.insert(m_Batch.end(), bytes, bytes + node->packet->m_Size);
        FreePkt(node->packet);
        delete node;
    }
    m_WriteState.Start(m_Batch.data(), m_Batch.size());
    return true;
}

void RemoteApp::DoWrite()
{
    const int fd = m_Socket.load();
    while (!m_Ended)
    {
        if (!m_WriteState.Busy())
        {
            ReleaseWrite();
            if (!StartWrite()) return;
        }
        const size_t before = m_WriteState.Remaining();
        SocketIo::IoStatus status = SocketIo::SendSome(fd, m_WriteState);
        m_QueuedBytes -= before - m_WriteState.Remaining();
        if (status == SocketIo::IO_WouldBlock) return; // POLLOUT wakes the thread
        if (status != SocketIo::IO_Ok)
        {
            EndConnection(SocketIo::IoStatusName(status));
            return;
        }
    }
}

// With the lock held, on any thread: sends what the queue holds now. Sending on the caller's thread
// spares a hand-over to the connection thread; what the socket does not take is left to that
// thread, which is woken to wait for the socket to drain.
void RemoteApp::Flush()
{
    if (m_WriteState.Busy() || m_Ended) return; // the thread finishes a partly sent write first
    DoWrite();
    if (m_WriteState.Busy()) (void)m_WriteEvent.Signal();
}

void RemoteApp::Cork()
{
    m_Lock.ObtainLock();
    m_Corked = true;
    m_Lock.ReleaseLock();
}

void RemoteApp::Uncork()
{
    m_Lock.ObtainLock();
    m_Corked = false;
    Flush();
    m_Lock.ReleaseLock();
}

int RemoteApp::WriteData(void *data, int size)
{
    if (!data || size <= 0) return 0;
    SocketIo::SendState state;
    state.Start(data, static_cast<size_t>(size));
    (void)SocketIo::SendSome(m_Socket.load(), state);
    return static_cast<int>(state.Sent());
}

int RemoteApp::ReadData(void *data, int size)
{
    if (!data || size <= 0) return 0;
    return SocketIo::ReceiveSome(m_Socket.load(), data, static_cast<size_t>(size));
}

// ---- sending and waiting ------------------------------------------------------------------------

bool RemoteApp::Enqueue(Packet *packet)
{
    const size_t cap = s_MaxSendQueue.load();
    PacketNode *node = new (std::nothrow) PacketNode;
    if (!node || m_QueuedBytes + packet->m_Size > cap)
    {
        delete node;
        FreePkt(packet);
        char why[96];
        std::snprintf(why, sizeof(why), "the peer does not read: %zu bytes queued", m_QueuedBytes);
        EndConnection(why);
        return false;
    }
    node->packet = packet;
    m_QueuedBytes += packet->m_Size;
    Append(m_SendQueue, m_SendTail, node);
    return true;
}

unsigned long RemoteApp::SendPkt(Packet *packet)
{
    if (!packet) return 0;
    m_Lock.ObtainLock();
    if (!Connected() || m_Ended)
    {
        m_Lock.ReleaseLock();
        FreePkt(packet);
        return 0;
    }
    uint32_t sequence;
    if (packet->m_Type != PKT_Reply)
    {
        if (++m_LastSequence == 0) ++m_LastSequence;
        sequence = m_LastSequence;
        packet->m_Sequence = sequence;
        ++m_RequestsOpen;
    }
    else
    {
        sequence = packet->m_Sequence;
        if (m_RepliesOwed) --m_RepliesOwed;
    }
    // A reply of a corked connection waits for the others of its run, to leave with them.
    const bool deferred = m_Corked && packet->m_Type == PKT_Reply;
    if (Enqueue(packet) && !deferred) Flush();
    m_Lock.ReleaseLock();
    return sequence;
}

Packet *RemoteApp::PollPkt(unsigned long sequence)
{
    m_Lock.ObtainLock();
    Packet *packet = TakeReply(static_cast<uint32_t>(sequence), true);
    m_Lock.ReleaseLock();
    return packet;
}

Packet *RemoteApp::WaitPkt(unsigned long sequence)
{
    return WaitPkt(sequence, m_TimeOut.load());
}

Packet *RemoteApp::WaitPkt(unsigned long sequence, double timeout)
{
    // A command that runs on this connection's own thread and calls the peer back: nobody else reads
    // the socket, so this thread serves the connection until its reply is there.
    if (m_Thread.get_id() == std::this_thread::get_id()) return WaitServing(static_cast<uint32_t>(sequence), timeout);
    m_Lock.ObtainLock();
    Packet *packet = TakeReply(static_cast<uint32_t>(sequence), true);
    if (packet || timeout < 0 || !Connected() || m_Ended)
    {
        m_Lock.ReleaseLock();
        return packet;
    }
    Waiter *waiter = new (std::nothrow) Waiter;
    if (!waiter)
    {
        m_Lock.ReleaseLock();
        return nullptr;
    }
    waiter->references.store(2); // the list's and this thread's
    waiter->sequence = static_cast<uint32_t>(sequence);
    waiter->hasEvent = true;
    waiter->deadline = timeout > 0 ? NowMs() + static_cast<uint64_t>(timeout * 1000.0 + 0.5) : 0;
    Append(m_Waiters, m_WaitersTail, waiter);
    Use();
    const bool lead = m_LeaderMode && !m_Leader;
    if (lead)
    {
        m_Leader = waiter;
        m_LeaderThread = std::this_thread::get_id();
    }
    m_Lock.ReleaseLock();

    // The deadline is enforced by the connection thread; twice the time-out is a backstop in case
    // that thread is stuck.
    const unsigned long backstop =
        timeout > 0 ? static_cast<unsigned long>(timeout * 2000.0 + 0.5) : WakeFlag::NoTimeout;
    bool woken = lead ? LeadUntilWoken(waiter, backstop) : waiter->woken.Wait(backstop);
    if (!woken)
    {
        // The backstop: give up; the record stays on the list, done, for the late reply. A wake
        // under the lock before this one still counts.
        m_Lock.ObtainLock();
        if (!waiter->done)
        {
            waiter->done = true;
            if (m_RequestsOpen) --m_RequestsOpen;
        }
        woken = waiter->set;
        m_Lock.ReleaseLock();
    }
    if (woken)
    {
        packet = waiter->reply;
        waiter->reply = nullptr;
    }
    waiter->Release();
    Recycle();
    return packet;
}

void RemoteApp::ReleaseWatch(void *app)
{
    static_cast<RemoteApp *>(app)->Recycle();
}

void RemoteApp::ReadOnWindow(void *app)
{
    auto *self = static_cast<RemoteApp *>(app);
    self->m_Lock.ObtainLock();
    if (self->Connected() && !self->m_Ended)
    {
        self->DoRead();
        if (self->m_ReadPending) (void)self->m_WriteEvent.Signal(); // the connection thread reads on
    }
    self->m_Lock.ReleaseLock();
}

void RemoteApp::WakeWaiter(Waiter *waiter, Packet *packet)
{
    waiter->Wake(packet);
    // A leader waits on its set, not on its flag; it needs no signal when it woke itself.
    if (waiter == m_Leader && m_LeaderThread != std::this_thread::get_id()) (void)m_LeaderEvent.Signal();
}

// The leader's wait: it reads the socket whenever the socket has something, dispatching all of it as
// the connection thread would, until its own reply (or the end of its wait) has been handed to it.
bool RemoteApp::LeadUntilWoken(Waiter *waiter, unsigned long backstopMs)
{
    const bool forever = backstopMs >= WakeFlag::NoTimeout;
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(forever ? 0 : backstopMs);
    bool failed = false;
    bool readOn = false;
    while (!waiter->woken.IsSet())
    {
        int waitMs = kIdleWaitMs;
        if (!forever)
        {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
            if (left <= 0) break;
            waitMs = static_cast<int>(std::min<long long>(left, kIdleWaitMs));
        }
        uint32_t ready = 0;
        SocketIo::IoStatus status = m_LeaderSet.Wait(readOn ? 0 : waitMs, ready);
        if (status == SocketIo::IO_Error)
        {
            failed = true;
            break;
        }
        if (ready & 2u) m_LeaderEvent.Drain();
        if ((ready & 1u) || readOn)
        {
            m_Lock.ObtainLock();
            if (Connected() && !m_Ended) DoRead();
            readOn = m_ReadPending && !m_Ended;
            m_Lock.ReleaseLock();
        }
    }
    m_Lock.ObtainLock();
    m_Leader = nullptr;
    m_LeaderThread = std::thread::id();
    // Whole packets still in hand would wake nobody: the connection thread takes them on.
    if (m_ReadPending || m_Reader.HasStaged()) (void)m_WriteEvent.Signal();
    m_Lock.ReleaseLock();
    if (failed)
    {
        const auto left = forever ? 0 : std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        return waiter->woken.Wait(forever ? WakeFlag::NoTimeout : static_cast<unsigned long>(left > 0 ? left : 0));
    }
    return waiter->woken.IsSet();
}

// On the connection thread with the lock held: runs the commands that a leader read, in order.
void RemoteApp::RunHandoff()
{
    while (PacketNode *node = PopFront(m_Handoff, m_HandoffTail))
    {
        Packet *packet = node->packet;
        delete node;
        m_Lock.ReleaseLock();
        RunCommand(packet);
        m_Lock.ObtainLock();
    }
}

Packet *RemoteApp::WaitServing(uint32_t sequence, double timeout)
{
    const int fd = m_Socket.load();
    const uint64_t deadline = timeout > 0 ? NowMs() + static_cast<uint64_t>(timeout * 1000.0 + 0.5) : 0;
    Packet *packet = nullptr;
    m_Lock.ObtainLock();
    for (;;)
    {
        if ((packet = TakeReply(sequence, true)) != nullptr || timeout < 0 || m_Ended) break;
        const uint64_t now = NowMs();
        if (deadline && now >= deadline) break;
        int waitMs = std::min(NextWaitMs(), deadline ? static_cast<int>(deadline - now) : kIdleWaitMs);
        if (m_ReadPending) waitMs = 0;
        const bool wantWritable = WriteOpen();
        m_Lock.ReleaseLock();
        SocketIo::ConnectionEvents events;
        SocketIo::IoStatus status =
            SocketIo::WaitConnection(m_QuitEvent.Fd(), m_WriteEvent.Fd(), fd, wantWritable, waitMs, events);
        m_Lock.ObtainLock();
        if (status == SocketIo::IO_Error || events.quit) break; // the thread's own loop ends the connection
        if (events.write)
        {
            m_WriteEvent.Drain();
            DoWrite();
        }
        if (events.readable || events.hangup || m_ReadPending) DoRead();
        if (events.writable) DoWrite();
        CheckDeadlines();
    }
    if (!packet && !m_Ended)
    {
        // Gave up: a record marks the request, so that its late reply is freed when it comes.
        if (m_RequestsOpen) --m_RequestsOpen;
        if (Waiter *late = new (std::nothrow) Waiter)
        {
            late->sequence = sequence;
            late->done = true;
            Append(m_Waiters, m_WaitersTail, late); // the list's reference only
        }
    }
    m_Lock.ReleaseLock();
    return packet;
}

Packet *RemoteApp::DoPkt(Packet *packet)
{
    if (!Connected())
    {
        FreePkt(packet);
        return nullptr;
    }
    unsigned long sequence = SendPkt(packet);
    return sequence ? WaitPkt(sequence) : nullptr;
}

unsigned long RemoteApp::DoPktAsync(Packet *packet, PacketCallback callback, void *user)
{
    m_Lock.ObtainLock();
    if (!Connected() || m_Ended)
    {
        m_Lock.ReleaseLock();
        FreePkt(packet);
        return 0;
    }
    unsigned long sequence = SendPkt(packet);
    if (sequence)
    {
        if (Waiter *waiter = new (std::nothrow) Waiter)
        {
            waiter->sequence = static_cast<uint32_t>(sequence);
            waiter->callback = callback;
            waiter->user = user;
            const double timeout = m_TimeOut.load();
            waiter->deadline = timeout > 0 ? NowMs() + static_cast<uint64_t>(timeout * 1000.0 + 0.5) : 0;
            Append(m_Waiters, m_WaitersTail, waiter);
        }
    }
    m_Lock.ReleaseLock();
    return sequence;
}

void RemoteApp::MatchReply(Packet *packet)
{
    const uint32_t sequence = packet->m_Sequence;
    Waiter *waiter = m_Waiters;
    while (waiter && waiter->sequence != sequence)
        waiter = waiter->next;
    if (!waiter)
    {
        // A reply before its waiter (the caller has yet to wait), or one for PollPkt. A number never
        // handed out is dropped, and the list is bounded against a peer that invents replies.
        unsigned kept = 0;
        for (PacketNode *node = m_Replies; node; node = node->next)
            ++kept;
        PacketNode *node = nullptr;
        if (sequence == 0 || sequence > m_LastSequence || kept >= kMaxUnclaimedReplies ||
            !(node = new (std::nothrow) PacketNode))
        {
            FreePkt(packet);
            return;
        }
        node->packet = packet;
        Append(m_Replies, m_RepliesTail, node);
        return;
    }
    Unlink(waiter);
    if (waiter->done)
    {
        FreePkt(packet); // a late reply: its caller gave up
        waiter->Release();
        return;
    }
    if (m_RequestsOpen) --m_RequestsOpen;
    waiter->done = true;
    bool taken = waiter->callback && waiter->callback(waiter->user, this, packet, sequence);
    if (waiter->hasEvent)
    {
        WakeWaiter(waiter, taken ? nullptr : packet); // the blocked thread owns the packet now
    }
    else if (!taken)
        FreePkt(packet); // an async reply that its callback did not keep
    waiter->Release();
}

// ---- dispatch -----------------------------------------------------------------------------------

void RemoteApp::SendError(uint32_t sequence, ScriptError code, const char *message)
{
    ScriptVal error(SV_Table, nullptr);
    error.SetError(code, message);
    (void)SendPkt(CreateReply(sequence, Objects(), nullptr, &error));
}

namespace
{
// A peer that is not logged in may still call __Login on the root, or it could never log in.
bool IsLoginCall(const Packet *packet)
{
    if (packet->m_Type != PKT_Command || packet->m_Symbol != SST_CallMemberFunction ||
        packet->m_Object != GlobalObjectTable::kRootId)
        return false;
    ScriptVal args;
    if (FromPacket(static_cast<PacketObjects *>(nullptr), packet, packet->m_Size, nullptr, &args) != PR_Ok)
        return false;
    const ScriptVal &member = args.FindKeyConst(0.0);
    return member.IsString() && std::strcmp(member.ToString(""), "__Login") == 0;
}
} // namespace

void RemoteApp::DispatchPacket(Packet *packet)
{
    if (!packet) return;
    if (packet->m_Type == PKT_Reply)
    {
        MatchReply(packet);
        return;
    }
    ++m_RepliesOwed;
    switch (packet->m_Type)
    {
    case PKT_IncRef:
    case PKT_DecRef:
    {
        if (RemoteObject *record = FindLocalObject(packet->m_Object))
        {
            ScriptObject *object = record->m_Object;
            if (packet->m_Type == PKT_IncRef)
                record->IncRef();
            else
                record->DecRef();
            if (object) object->DecRef();
        }
        (void)SendPkt(CreateReply(packet, Objects(), nullptr, nullptr));
        FreePkt(packet);
        return;
    }
    case PKT_GetObjectInfo:
    {
        ScriptVal query;
        ScriptVal result(SV_Table, nullptr);
        if (FromPacket(Objects(), packet, packet->m_Size, nullptr, &query) == PR_Ok)
        {
            if (RemoteObject *record = FindLocalObject(packet->m_Object))
            {
                if (record->m_Object)
                {
                    record->m_Object->GetObjectInfo(query, result);
                    record->m_Object->DecRef();
                }
            }
        }
        (void)SendPkt(CreateReply(packet, Objects(), nullptr, &result));
        FreePkt(packet);
        return;
    }
    case PKT_Command:
    case PKT_NoMoreRefs:
    {
        if (!m_LoggedIn && !IsLoginCall(packet))
        {
            SendError(packet->m_Sequence, SE_NotLoggedIn, nullptr);
            FreePkt(packet);
            return;
        }
        // Commands wait to be run, on the window or the connection thread; a peer that sends them
        // faster than they run could otherwise take all memory. Past the cap the connection ends.
        const int64_t waiting = m_WaitingCommandBytes.fetch_add(packet->m_Size) + packet->m_Size;
        if (waiting > static_cast<int64_t>(s_MaxSendQueue.load()))
        {
            m_WaitingCommandBytes.fetch_sub(packet->m_Size);
            FreePkt(packet);
            char why[112];
            std::snprintf(why, sizeof(why), "the peer sends commands faster than they run: %lld bytes wait",
                          static_cast<long long>(waiting));
            EndConnection(why);
            return;
        }
        if (ScriptWindow *window = GetScriptWnd())
        {
            Use(); // released after the main thread ran the command
            if (window->Post(SWM_Command, reinterpret_cast<uintptr_t>(this), reinterpret_cast<uintptr_t>(packet)))
                return;
            Recycle();
        }
        // No window: commands run on the connection thread, in order of arrival, with the connection
        // unlocked so that other threads go on sending meanwhile. One that a leader read waits for it.
        PacketNode *node = new (std::nothrow) PacketNode;
        if (!node)
        {
            SendError(packet->m_Sequence, SE_Unknown, "Out of memory.");
            FreePkt(packet);
            return;
        }
        node->packet = packet;
        Append(m_Handoff, m_HandoffTail, node);
        if (OnConnectionThread())
            RunHandoff();
        else
            (void)m_WriteEvent.Signal();
        return;
    }
    default:
        SendError(packet->m_Sequence, SE_UnknownPacket, nullptr);
        FreePkt(packet);
        return;
    }
}

// ---- the command runner -------------------------------------------------------------------------

namespace
{
// Runs a handler, turning a C++ exception of host code into an error result.
bool CallHandler(ScriptSymbol *symbol, ScriptObject *object, ScriptArgs &args, std::string &failure)
{
    try
    {
        symbol->CallHere(object, args, false);
        return true;
    }
    catch (const std::exception &e)
    {
        failure = e.what();
    }
    catch (...)
    {
        failure = "unknown exception";
    }
    return false;
}
} // namespace

void RemoteApp::RunCommand(Packet *packet)
{
    if (!packet) return;
    m_WaitingCommandBytes.fetch_sub(packet->m_Size);
    const uint32_t sequence = packet->m_Sequence;
    ScriptError error = SE_None;
    const char *message = nullptr;
    char detail[160];

    if (!g_ScriptConfig)
        error = SE_NotInitialized;
    else if (packet->m_Type == PKT_NoMoreRefs)
    {
        ScriptObject *object = nullptr;
        if (!FindLocalObject(packet->m_Object, object))
        {
            error = SE_InvalidObject;
            message = "Cannot find object for PKT_NoMoreRefs.";
        }
        else
        {
            object->DecRef(); // the look-up's
            // Looked up again under the lock: the connection may have ended meanwhile.
            m_Lock.ObtainLock();
            RemoteObject *record = m_LocalObjects.FindId(packet->m_Object);
            bool freed = false;
            while (record && !freed && !record->IsFree())
                (void)DropLocalRecord(record, freed);
            ReleasePending(freed ? 1 : 0);
            (void)SendPkt(CreateReply(packet, Objects(), nullptr, nullptr));
        }
    }
    else if (packet->m_Type != PKT_Command)
        error = SE_UnknownPacket;
    else if (packet->m_Object == 0 || packet->m_Symbol == 0)
    {
        error = SE_Unknown;
        message = "No object/symbol id specified.";
    }
    else
    {
        ScriptObject *object = nullptr;
        (void)FindLocalObject(packet->m_Object, object);
        ScriptInfo *info = object ? object->GetScriptInfo() : nullptr;
        if (!info)
            error = SE_InvalidRemoteObject;
        else if (ScriptArgs *args = new (std::nothrow) ScriptArgs(this, sequence))
        {
            PacketResult read = FromPacket(Objects(), packet, packet->m_Size, nullptr, args);
            args->SetApp(this); // reading cleared the record: the connection to answer on again
            ScriptSymbol *symbol = read == PR_Ok ? FindSymbol(info, nullptr, packet->m_Symbol) : nullptr;
            std::string failure;
            if (read != PR_Ok)
            {
                error = SE_InvalidArguments;
                std::snprintf(detail, sizeof(detail), "Invalid arguments: %s.", PacketResultName(read));
                message = detail;
            }
            else if (!symbol)
                error = SE_UnknownSymbol;
            else if (!CallHandler(symbol, object, *args, failure))
            {
                error = SE_Unknown;
                // A host's handler fails by throwing: the caller gets its text.
                std::snprintf(detail, sizeof(detail), "%s", failure.c_str());
                message = detail;
            }
            else if (!args->IsDeferred() && !args->SendReply())
                (void)SendPkt(CreateReply(sequence, Objects(), nullptr, nullptr));
            delete args;
        }
        else
            error = SE_Unknown;
        if (object) object->DecRef(); // the look-up's extra reference
    }
    if (error != SE_None) SendError(sequence, error, message);
    FreePkt(packet);
}

// ---- object counts ------------------------------------------------------------------------------

RemoteObject *RemoteApp::_IncLocalRef(void *pointer)
{
    auto *object = static_cast<ScriptObject *>(pointer);
    if (!object) return nullptr;
    RemoteObject *record = nullptr;
    bool took = false;
    bool isNew = false;
    GlobalObjectTable &table = GetGlobalObjectTable();
    m_Lock.ObtainLock();
    {
        GlobalObjectLock hold(table);
        RemoteObject *global = table.Register(object);
        if (global)
        {
            record = m_LocalObjects.Find(object, global->m_ID);
            if (!record)
            {
                record = m_LocalObjects.Allocate(global->m_ID, object, this, true);
                isNew = record != nullptr;
            }
            if (record)
            {
                if (record->m_Count == 0)
                {
                    ++global->m_Count;
                    ++m_LocalCount;
                    took = true;
                }
                ++record->m_Count;
                // One reference per connection that names the object, however often it is sent.
                if (isNew) object->IncRef();
            }
        }
    }
    if (took) Use();
    m_Lock.ReleaseLock();
    return record;
}

// With the connection lock held: one count less on a local record. On reaching 0 the record goes,
// with the global record's count for this connection and the object's reference. `freed` tells the
// caller to release the connection's use count after the lock. False if the record was freed with no
// global record behind it.
bool RemoteApp::DropLocalRecord(RemoteObject *record, bool &freed)
{
    freed = false;
    if (!record || record->IsFree()) return false;
    if (record->m_Count > 1)
    {
        AtomicAdd(record->m_Count, -1);
        return true;
    }
    ScriptObject *object = record->m_Object;
    const uint32_t id = record->m_ID;
    bool hadGlobal = false;
    bool release = false;
    {
        GlobalObjectTable &table = GetGlobalObjectTable();
        GlobalObjectLock hold(table);
        RemoteObject *global = table.Records().FindId(id);
        if (global && object && global->m_Object == object)
        {
            hadGlobal = true;
            release = true;
            if (global->m_Count && --global->m_Count == 0 && id != GlobalObjectTable::kRootId)
                RemoteObjectTable::Free(global);
        }
    }
    RemoteObjectTable::Free(record);
    freed = true;
    if (release) m_PendingRelease.push_back(object);
    if (m_LocalCount && --m_LocalCount == 0) OnZeroLocalCount();
    return hadGlobal;
}

bool RemoteApp::_DecLocalRef(void *pointer)
{
    auto *object = static_cast<ScriptObject *>(pointer);
    if (!object) return false;
    m_Lock.ObtainLock();
    uint32_t id = 0;
    {
        GlobalObjectTable &table = GetGlobalObjectTable();
        GlobalObjectLock hold(table);
        if (RemoteObject *global = table.Records().FindObject(object)) id = global->m_ID;
    }
    RemoteObject *record = id ? m_LocalObjects.Find(object, id) : m_LocalObjects.FindObject(object);
    bool result = false;
    bool freed = false;
    if (record) result = DropLocalRecord(record, freed) || !freed;
    ReleasePending(freed ? 1 : 0);
    return result;
}

// Lets go of the connection lock, then gives the objects of freed records their references back and
// releases the connection's use counts: either may run destructors, which must not run under locks.
void RemoteApp::ReleasePending(unsigned uses)
{
    std::vector<ScriptObject *> objects;
    objects.swap(m_PendingRelease);
    m_Lock.ReleaseLock();
    for (ScriptObject *object : objects)
        object->DecRef();
    for (unsigned i = 0; i < uses; ++i)
        Recycle();
}

void RemoteApp::DropAllLocal()
{
    // Called with the lock held once; gives it back and takes it again around the releases.
    unsigned uses = 0;
    m_LocalObjects.ForEach([&](RemoteObject *record) {
        bool freed = false;
        while (!record->IsFree() && !freed)
            (void)DropLocalRecord(record, freed);
        if (freed) ++uses;
    });
    ReleasePending(uses);
    m_Lock.ObtainLock();
}

RemoteObject *RemoteApp::FindLocalObject(unsigned long id)
{
    ScriptObject *object = nullptr;
    return FindLocalObject(id, object);
}

// The record may go as soon as the lock is let go (the connection ends on its own thread), so the
// object is read under the lock; its extra reference keeps it alive for the caller.
RemoteObject *RemoteApp::FindLocalObject(unsigned long id, ScriptObject *&object)
{
    object = nullptr;
    if (id == 0 || id > 0xFFFFFFFFul) return nullptr;
    m_Lock.ObtainLock();
    RemoteObject *record = m_LocalObjects.FindId(static_cast<uint32_t>(id));
    if (record && record->m_Object)
    {
        // An object whose references were cleared (it is being destroyed) is not found any more.
        GlobalObjectTable &table = GetGlobalObjectTable();
        GlobalObjectLock hold(table);
        RemoteObject *global = table.Records().FindId(record->m_ID);
        if (global && global->m_Object == record->m_Object)
        {
            object = record->m_Object;
            object->IncRef();
        }
        else
            record = nullptr;
    }
    else
        record = nullptr;
    m_Lock.ReleaseLock();
    return record;
}

ScriptVal RemoteApp::FindRemoteObject(unsigned long id)
{
    ScriptVal value;
    m_Lock.ObtainLock();
    RemoteObject *record = id && id <= 0xFFFFFFFFul ? m_RemoteObjects.FindId(static_cast<uint32_t>(id)) : nullptr;
    if (record) value = ScriptVal(SV_RemoteObject, &record);
    m_Lock.ReleaseLock();
    return value;
}

RemoteObject *RemoteApp::IncRemoteRef(unsigned long id)
{
    if (id == 0 || id > 0xFFFFFFFFul) return nullptr;
    m_Lock.ObtainLock();
    RemoteObject *record = m_RemoteObjects.FindId(static_cast<uint32_t>(id));
    if (!record) record = m_RemoteObjects.Allocate(static_cast<uint32_t>(id), nullptr, this, false);
    if (record)
    {
        if (AtomicLoad(record->m_Count) == 0)
        {
            ++m_RemoteCount;
            Use();
        }
        AtomicAdd(record->m_Count, 1);
    }
    m_Lock.ReleaseLock();
    return record;
}

namespace
{
bool DropReply(void *, RemoteApp *, Packet *, unsigned long)
{
    return false; // the connection frees the reply
}
} // namespace

void RemoteApp::DecRemoteRef(unsigned long id)
{
    if (id == 0 || id > 0xFFFFFFFFul) return;
    m_Lock.ObtainLock();
    RemoteObject *record = m_RemoteObjects.FindId(static_cast<uint32_t>(id));
    if (!record || AtomicLoad(record->m_Count) == 0 || AtomicAdd(record->m_Count, -1) > 0)
    {
        m_Lock.ReleaseLock();
        return;
    }
    // The last reference here: the owner drops all the counts of its record at once.
    if (Connected() && !m_Ended)
    {
        if (Packet *packet = CreatePkt(PKT_NoMoreRefs, Objects(), nullptr, nullptr))
        {
            packet->m_Object = static_cast<uint32_t>(id);
            (void)DoPktAsync(packet, DropReply, nullptr);
        }
    }
    RemoteObjectTable::Free(record);
    if (m_RemoteCount && --m_RemoteCount == 0) OnZeroRemoteCount();
    m_Lock.ReleaseLock();
    Recycle();
}

void RemoteApp::OnZeroLocalCount()
{
    if (m_RemoteCount == 0)
    {
        m_Closing = true;
        (void)m_WriteEvent.Signal();
    }
}

void RemoteApp::OnZeroRemoteCount()
{
    if (m_LocalCount == 0)
    {
        m_Closing = true;
        (void)m_WriteEvent.Signal();
    }
}

ScriptObject *RemoteApp::GetObjectPtr(unsigned long id)
{
    if (id == 0 || id > 0xFFFFFFFFul) return nullptr;
    return GetGlobalObjectTable().GetObjectPtr(static_cast<uint32_t>(id));
}

bool RemoteApp::ClearObjectReferences(ScriptObject *object)
{
    if (!object) return false;
    GlobalObjectTable &table = GetGlobalObjectTable();
    bool found;
    {
        GlobalObjectLock hold(table);
        found = table.Records().FindObject(object) != nullptr;
    }
    uint32_t counts = table.ClearObject(object);
    for (uint32_t i = 0; i < counts; ++i)
        object->DecRef();
    return found;
}

// ---- packets on a connection --------------------------------------------------------------------

uint32_t RemoteApp::AppObjects::LocalObjectId(ScriptObject *object)
{
    RemoteObject *record = m_App->_IncLocalRef(object);
    return record ? record->m_ID : kPacketNoObject;
}

uint32_t RemoteApp::AppObjects::RemoteObjectId(RemoteObject *object)
{
    return object && object->m_App == m_App ? object->m_ID : kPacketNoObject;
}

const char *RemoteApp::AppObjects::LocalUUID()
{
    return GetAppUUID().ToString("");
}

const char *RemoteApp::AppObjects::RemoteUUID(RemoteObject *object)
{
    return object && object->m_App ? object->m_App->GetUUID().ToString("") : "";
}

void RemoteApp::AppObjects::ReadOwnObject(uint32_t id, const char *, ScriptVal &out)
{
    ScriptObject *object = nullptr;
    if (!m_App->FindLocalObject(id, object)) return;
    out = ScriptVal(SV_LocalObject, &object);
    object->DecRef(); // the look-up's extra reference; the value holds its own
}

void RemoteApp::AppObjects::ReadPeerObject(uint32_t id, const char *, ScriptVal &out)
{
    RemoteObject *record = m_App->IncRemoteRef(id);
    if (!record) return;
    // Both ends in one process: the proxy also knows the object itself.
    const ScriptVal &own = GetAppUUID();
    if (own.IsString() && m_App->IsUUID(own))
    {
        ScriptObject *object = RemoteApp::GetObjectPtr(id);
        m_App->ObtainLock();
        record->m_Object = object;
        m_App->ReleaseLock();
    }
    // The value takes over the count that IncRemoteRef added.
    out = ScriptVal();
    out.m_Type = SV_RemoteObject;
    out.GetValue().m_RemoteObject = record;
}

namespace
{
PacketObjects *ObjectsOf(RemoteApp *app)
{
    return app ? app->Objects() : nullptr;
}
} // namespace

Packet *CreatePkt(uint32_t type, RemoteApp *app, const ScriptVal *first, const ScriptVal *second)
{
    return CreatePkt(type, ObjectsOf(app), first, second);
}

Packet *CreateReply(uint32_t sequence, RemoteApp *app, const ScriptVal *first, const ScriptVal *second)
{
    return CreateReply(sequence, ObjectsOf(app), first, second);
}

Packet *ToPacket(RemoteObject *object, uint32_t symbol, const ScriptVal *first, const ScriptVal *second)
{
    if (!object) return nullptr;
    return ToPacket(ObjectsOf(object->m_App), object->m_ID, symbol, first, second);
}

Packet *ToPacket(RemoteApp *app, uint32_t object, uint32_t symbol, const ScriptVal *first, const ScriptVal *second)
{
    return ToPacket(ObjectsOf(app), object, symbol, first, second);
}

PacketResult FromPacket(RemoteApp *app, const Packet *packet, ScriptVal *first, ScriptVal *second)
{
    if (!packet) return PR_BadSize;
    return FromPacket(ObjectsOf(app), packet, packet->m_Size, first, second);
}

PacketResult FromPacket(RemoteObject *object, const Packet *packet, ScriptVal *first, ScriptVal *second)
{
    return FromPacket(object ? object->m_App : nullptr, packet, first, second);
}

Packet *ToReply(RemoteApp *app, uint32_t sequence, const ScriptVal *first, const ScriptVal *args)
{
    return ToReply(ObjectsOf(app), sequence, first, args);
}

// ---- proxies ------------------------------------------------------------------------------------

void RemoteObject::IncRef()
{
    if (!m_App) return;
    if (m_Local)
        (void)m_App->_IncLocalRef(m_Object);
    else
        (void)m_App->IncRemoteRef(m_ID);
}

void RemoteObject::DecRef()
{
    if (!m_App) return;
    if (m_Local)
        (void)m_App->_DecLocalRef(m_Object);
    else
        m_App->DecRemoteRef(m_ID);
}

ScriptVal RemoteObject::DoCommand(int symbol, ScriptArgs &args)
{
    ScriptVal result;
    if (m_App)
    {
        Packet *packet = ToPacket(m_App->Objects(), m_ID, static_cast<uint32_t>(symbol), nullptr, &args);
        if (Packet *reply = packet ? m_App->DoPkt(packet) : nullptr)
        {
            (void)FromPacket(m_App, reply, nullptr, &result);
            FreePkt(reply);
        }
    }
    if (symbol == SST_ToString)
    {
        // The text names the connection, so that a printed proxy tells where its object lives.
        const ScriptVal &old = result.IsTable() ? result.FindKeyConst(-1.0) : nil;
        const char *text = old.IsString() ? old.ToString() : "<nil>";
        std::string decorated;
        if (m_App)
        {
            char address[32];
            RemoteApp::StrFromIP(m_App->GetIPAddress(), address, sizeof(address));
            const char *uuid = m_App->GetUUID().ToString("");
            const char *name = m_App->GetName();
            size_t size = std::strlen(text) + std::strlen(name) + std::strlen(address) + std::strlen(uuid) + 48;
            decorated.resize(size);
            int n = std::snprintf(decorated.data(), size, "%s [App: '%s' on %s, UUID: %s]", text, name, address, uuid);
            decorated.resize(n > 0 ? static_cast<size_t>(n) : 0);
        }
        else
        {
            decorated = std::string(text) + " [App = NULL!]";
        }
        if (!result.IsTable()) result = ScriptVal(SV_Table, nullptr);
        result.FindKey(-1.0) = ScriptVal(decorated.c_str());
    }
    return result;
}

unsigned long RemoteObject::DoCommandAsync(int symbol, ScriptArgs &args, PacketCallback callback, void *user)
{
    if (!m_App) return 0;
    Packet *packet = ToPacket(m_App->Objects(), m_ID, static_cast<uint32_t>(symbol), nullptr, &args);
    return packet ? m_App->DoPktAsync(packet, callback, user) : 0;
}

// ---- hooks and window messages ------------------------------------------------------------------

namespace
{
bool HookDoCommand(RemoteObject *object, unsigned long symbol, ScriptArgs &args)
{
    ScriptVal reply = object->DoCommand(static_cast<int>(symbol), args);
    if (!reply.IsTable()) return false;
    TableEntry *cursor = nullptr;
    while (reply.NextKey(cursor))
        args.FindKey(cursor->m_Key) = cursor->m_Value;
    return true;
}

ScriptVal HookCallMember(const ScriptVal &receiver, const char *name, ScriptArgs &args)
{
    if (receiver.IsRemoteObject())
    {
        RemoteObject *object = receiver.ToRemoteObject();
        if (!object) return ScriptVal();
        args.FindKey(0.0) = ScriptVal(name);
        ScriptVal reply = object->DoCommand(SST_CallMemberFunction, args);
        return reply.IsTable() ? ScriptVal(reply.FindKeyConst(-1.0)) : ScriptVal();
    }
    ScriptObject *object = receiver.ToLocalObject();
    ScriptSymbol *symbol = object ? FindSymbol(object->GetScriptInfo(), name, SST_Function) : nullptr;
    if (!symbol) return ScriptVal();
    ScriptArgs call(args);
    call.SetApp(args.GetApp());
    symbol->Call(object, call, false);
    return ScriptVal(call.FindKeyConst(-1.0));
}

bool HookSendReply(ScriptArgs &args)
{
    RemoteApp *app = args.GetApp();
    const uint32_t context = args.GetValue().m_Args.m_Context;
    if (!app || context == 0) return false;
    Packet *packet = ToReply(app->Objects(), context, nullptr, &args);
    if (!packet) return false;
    (void)app->SendPkt(packet);
    return true;
}

// The connection whose replies wait while more commands are queued on the window: a run of commands
// is answered with one send. Only the window's thread touches it.
RemoteApp *s_Corked = nullptr;
unsigned s_CorkedRun = 0; // replies held back in the current run
// A run leaves after this many replies even while more commands wait, so that a pipelining peer
// gets answers flowing and keeps sending.
constexpr unsigned kCorkedRunMax = 16;

void UncorkReplies()
{
    if (RemoteApp *app = s_Corked)
    {
        s_Corked = nullptr;
        s_CorkedRun = 0;
        app->Uncork();
        app->Recycle();
    }
}

void HandleMessage(uint32_t message, uintptr_t param1, uintptr_t param2)
{
    auto *app = reinterpret_cast<RemoteApp *>(param1);
    ScriptConfig *config = g_ScriptConfig;
    if (s_Corked && (message != SWM_Command || s_Corked != app)) UncorkReplies();
    switch (message)
    {
    case SWM_Command:
    {
        ScriptWindow *window = GetScriptWnd();
        if (!s_Corked && window && window->Waiting() > 0)
        {
            app->Use();
            app->Cork();
            s_Corked = app;
        }
        app->RunCommand(reinterpret_cast<Packet *>(param2));
        if (s_Corked && (!window || window->Waiting() == 0 || ++s_CorkedRun >= kCorkedRunMax)) UncorkReplies();
        app->Recycle();
        break;
    }
    case SWM_Connect:
        if (config && config->onConnect) config->onConnect(config->user, app, nullptr, nullptr);
        break;
    case SWM_Disconnect:
        if (config && config->onDisconnect) config->onDisconnect(config->user, app, nullptr, nullptr);
        app->Recycle();
        break;
    case SWM_ConnectFailed:
        if (config && config->onConnectFailed) config->onConnectFailed(config->user, app, nullptr, nullptr);
        app->Recycle();
        break;
    default:
        break;
    }
}

// A message dropped with the window: what it holds is let go.
void ReleaseMessage(uint32_t message, uintptr_t param1, uintptr_t param2)
{
    UncorkReplies();
    if (message == SWM_Call && param1 == reinterpret_cast<uintptr_t>(&RemoteApp::ReleaseWatch))
    {
        RemoteApp::ReleaseWatch(reinterpret_cast<void *>(param2));
        return;
    }
    if (message < SWM_Command || message > SWM_ConnectFailed) return;
    auto *app = reinterpret_cast<RemoteApp *>(param1);
    if (!app) return;
    if (message == SWM_Command) FreePkt(reinterpret_cast<Packet *>(param2));
    if (message != SWM_Connect) app->Recycle();
}
} // namespace

void InstallConnectionHandlers(ScriptWindow &window)
{
    for (uint32_t message : {SWM_Command, SWM_Connect, SWM_Disconnect, SWM_ConnectFailed})
        window.SetHandler(message, HandleMessage);
    window.SetRelease(ReleaseMessage);
    window.SetIdle(UncorkReplies);
    window.SetSocketReady(RemoteApp::ReadOnWindow);
}

void InstallRemoteHooks()
{
    static const bool installed = [] {
        RemoteHooks hooks;
        hooks.incRef = [](RemoteObject *object) { object->IncRef(); };
        hooks.decRef = [](RemoteObject *object) { object->DecRef(); };
        hooks.equal = [](const RemoteObject *a, const RemoteObject *b) {
            return a == b || (a && b && a->m_App == b->m_App && a->m_ID == b->m_ID && a->m_Object == b->m_Object);
        };
        hooks.getApp = [](const RemoteObject *object) { return object ? object->m_App : nullptr; };
        hooks.localObject = [](const RemoteObject *object) { return object ? object->m_Object : nullptr; };
        hooks.appUse = [](RemoteApp *app) { app->Use(); };
        hooks.appRecycle = [](RemoteApp *app) { app->Recycle(); };
        hooks.doCommand = HookDoCommand;
        hooks.callMember = HookCallMember;
        hooks.sendReply = HookSendReply;
        SetRemoteHooks(hooks);
        return true;
    }();
    (void)installed;
}

} // namespace orvexScript
