// RemoteApp: one end of one TCP connection to another process. It owns the socket and one thread, the
// connection thread, that reads packets and dispatches them, writes what could not be sent at once,
// matches replies to the requests that wait for them and enforces deadlines. Callers on any thread
// hand in packets and block on a private event or register a callback.
//
// Dispatch and counts: commands of the peer run on the script window's thread when the process has a
// window (a host), otherwise on the connection thread. Objects of this process named to the peer are in
// the local table, proxies of the peer's objects in the remote table; the process-wide table of named
// objects gives every object one id for all connections.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <thread>
#include <vector>

#include "remote/Packet.h"
#include "remote/RemoteObject.h"
#include "remote/SocketIo.h"
#include "values/base/Export.h"
#include "values/model/ScriptArgs.h"
#include "values/model/ScriptVal.h"
#include "values/sync/Lock.h"

namespace orvexScript
{

class DebugLog;
class ScriptWindow;

// The TCP port of the script server, which Connect() dials. Tests and hosts may change it before
// connecting.
ORVEX_API extern unsigned short g_ScriptServerPort;

// The log of connections and of the script server: on when KESCRIPT_LOG_SERVER is "true".
ORVEX_API DebugLog &GetServerLog();

// A reply's callback: on the connection thread with the connection lock held, or with a null packet
// on a time-out or the loss of the connection. True means the callback took the packet (FreePkt).
using PacketCallback = bool (*)(void *user, RemoteApp *app, Packet *packet, unsigned long sequence);

// The socket field when there is none.
constexpr int kNoSocket = -1;
// ReleaseSocket's mark of a caller that stopped waiting (internal).
constexpr int kReleaseAbandoned = -2;

class ORVEX_API RemoteApp
{
public:
    // A record for an accepted socket (it takes it over and starts at once), or with kNoSocket one that
    // Connect() will open. A record made with a socket lives by its counts and may end as soon as its
    // connection does: to keep using it, make it with kNoSocket, Use() it, then Connect(socket).
    explicit RemoteApp(int socket = kNoSocket);
    RemoteApp(const RemoteApp &) = delete;
    RemoteApp &operator=(const RemoteApp &) = delete;

    // ---- the operations, in their order ---------------------------------------------------------
    virtual ~RemoteApp();
    // Opens a connection to the host at g_ScriptServerPort (SetHost). With an empty name that is all
    // (a bare connection); otherwise the peer's root is asked to connect this record to the named
    // application, and the peer's answer (that application's UUID) is kept.
    virtual bool Connect();
    // Takes over a connected socket and starts the connection thread.
    virtual bool Connect(int socket);
    // Ends the connection now and waits (bounded) for the connection thread.
    virtual void _Disconnect();
    virtual int AppThreadFunc();
    virtual RemoteObject *_IncLocalRef(void *object);
    virtual bool _DecLocalRef(void *object);
    virtual void Use() const;
    virtual void Recycle() const;
    // Takes the data lock and gives the entry `key` of the per-connection data, a table if it was
    // none. End with UnlockData.
    virtual ScriptVal &LockData(const char *key);
    virtual void UnlockData();
    // A value on the existing proxy of `id`, or nil; never makes a proxy.
    virtual ScriptVal FindRemoteObject(unsigned long id);
    // The local record of `id`. On success its object got one extra IncRef for the caller to give back.
    virtual RemoteObject *FindLocalObject(unsigned long id);
    virtual RemoteObject *IncRemoteRef(unsigned long id);
    virtual void DecRemoteRef(unsigned long id);
    // Ends the connection once the traffic has drained.
    virtual void Disconnect();
    // Queues a packet (the connection owns it from here) and gives its sequence; 0 if not connected.
    virtual unsigned long SendPkt(Packet *packet);
    // Waits for the reply of `sequence` with the connection's time-out; null on time-out or loss.
    virtual Packet *WaitPkt(unsigned long sequence);
    // Sends and waits: the reply, or null. The packet is owned by the connection (freed if not up).
    virtual Packet *DoPkt(Packet *packet);
    // Sends and returns the sequence; the callback gets the reply (or null). 0 if not connected.
    virtual unsigned long DoPktAsync(Packet *packet, PacketCallback callback, void *user);
    // The transport: send and recv without waiting; 0 on a socket error or when nothing moves.
    virtual int WriteData(void *data, int size);
    virtual int ReadData(void *data, int size);
    // On the connection thread with the lock held: reads what the socket has, dispatching every whole
    // packet, and writes what the send queue holds.
    virtual void DoRead();
    virtual void DoWrite();
    // Owns the packet. On the connection thread with the lock held.
    virtual void DispatchPacket(Packet *packet);
    // Connect() on a thread of its own; a failure posts the connect-failed message to the window.
    virtual void AsyncConnect();
    virtual bool Connected();
    virtual uint32_t GetIPAddress();
    virtual const char *GetName();
    virtual const char *GetHostName();
    virtual const ScriptVal &GetUUID();
    virtual bool ClearUUID();
    virtual bool IsUUID(const ScriptVal &uuid);
    virtual int GetSocket();
    virtual void OnZeroLocalCount();
    virtual void OnZeroRemoteCount();
    virtual double SetTimeOut(double seconds);
    virtual double GetTimeOut();

    // ---- more --------------------------------------------------------------------------------
    // The reply of `sequence` if it has arrived, else null; never waits.
    Packet *PollPkt(unsigned long sequence);
    // As WaitPkt with this time-out: > 0 seconds, 0 for ever, < 0 only what has arrived.
    Packet *WaitPkt(unsigned long sequence, double timeout);

    RemoteObject *IncLocalRef(ScriptObject *object) { return _IncLocalRef(object); }
    bool DecLocalRef(ScriptObject *object) { return _DecLocalRef(object); }

    uint32_t GetID() const { return m_AppID; }
    int32_t GetUseCount() const { return m_UseCount.load(); }
    unsigned GetLocalObjectCount();
    unsigned GetRemoteObjectCount();
    bool IsClosing() const { return m_Closing; }

    // Before Connect(): the application asked for, the subtype passed on, the host to dial.
    void SetName(const char *name);
    void SetSubtype(const char *subtype);
    void SetHost(const char *host);
    void SetUUID(const ScriptVal &uuid);
    // Commands of a peer that is not logged in fail with error 4.
    void SetLoggedIn(bool loggedIn) { m_LoggedIn = loggedIn; }

    // The connection lock (re-entrant), for code that reads the tables.
    void ObtainLock() { m_Lock.ObtainLock(); }
    void ReleaseLock() { m_Lock.ReleaseLock(); }

    // How a packet names objects on this connection.
    PacketObjects *Objects() { return &m_Objects; }

    // The most bytes the send queue may hold before the connection is ended (a peer that stopped
    // reading), and likewise the commands read and waiting to run; 0 restores the default of 64 MiB.
    static void SetMaxSendQueue(size_t bytes);

    static bool IsLocalIP(uint32_t ip);
    static uint32_t IPFromStr(const char *text);
    static const char *StrFromIP(uint32_t ip, char *buffer, size_t size);
    static ScriptObject *GetObjectPtr(unsigned long id);
    static bool ClearObjectReferences(ScriptObject *object);
    static int GetNumConnections();
    static bool EverConnected();

    // Ends the connection without shutting its socket down or closing it, and gives the socket to the
    // caller, who closes it: for a socket handed on to another process, which goes on with the very
    // connection. Waits at most timeoutMs for the connection thread to let go of the socket, so that no
    // thread here waits on it any more; not on that thread, and not for a connection whose socket a
    // script window reads. kNoSocket if there was no connection or the thread did not let go in time.
    int ReleaseSocket(unsigned long timeoutMs);
    // For a record that is not connected and will not be: lets go of what the connection would have
    // dropped at its end (the root entry's hold), so that the record goes with its last use. A record
    // that never connected is otherwise kept by that hold. The caller holds a use.
    void Abandon();

    // The process-wide list of records, under g_AppLock.
    RemoteApp *m_NextApp = nullptr;

private:
    struct Waiter;
    struct PacketNode;
    class AppObjects final : public PacketObjects
    {
    public:
        explicit AppObjects(RemoteApp *app) : m_App(app) {}
        uint32_t LocalObjectId(ScriptObject *object) override;
        uint32_t RemoteObjectId(RemoteObject *object) override;
        const char *LocalUUID() override;
        const char *RemoteUUID(RemoteObject *object) override;
        void ReadOwnObject(uint32_t id, const char *uuid, ScriptVal &out) override;
        void ReadPeerObject(uint32_t id, const char *uuid, ScriptVal &out) override;

    private:
        RemoteApp *m_App;
    };
    friend class AppObjects;
    friend struct ConnectionAccess;

    ORVEX_INTERNAL void StartSocket(int socket);
    ORVEX_INTERNAL void Announce();
    ORVEX_INTERNAL void ThreadLoop();
    ORVEX_INTERNAL void FinishConnection();
    ORVEX_INTERNAL bool Drained() const;
    ORVEX_INTERNAL int NextWaitMs();
    ORVEX_INTERNAL void CheckDeadlines();
    ORVEX_INTERNAL bool Enqueue(Packet *packet);
    ORVEX_INTERNAL bool StartWrite();
    ORVEX_INTERNAL void ReleaseWrite();
    ORVEX_INTERNAL void Flush();
    ORVEX_INTERNAL bool WriteOpen();
    ORVEX_INTERNAL void EndConnection(const char *why);
    ORVEX_INTERNAL Packet *WaitServing(uint32_t sequence, double timeout);
    ORVEX_INTERNAL bool OpenEventSets(int socket);
    ORVEX_INTERNAL bool LeadUntilWoken(Waiter *waiter, unsigned long backstopMs);
    ORVEX_INTERNAL void WakeWaiter(Waiter *waiter, Packet *packet);
    ORVEX_INTERNAL void RunHandoff();
    ORVEX_INTERNAL bool OnConnectionThread() const;
    ORVEX_INTERNAL RemoteObject *FindLocalObject(unsigned long id, ScriptObject *&object);
    ORVEX_INTERNAL Packet *TakeReply(uint32_t sequence, bool countDone);
    ORVEX_INTERNAL void MatchReply(Packet *packet);
    ORVEX_INTERNAL void Unlink(Waiter *waiter);
    ORVEX_INTERNAL static void FreePackets(PacketNode *&head, PacketNode *&tail);
    ORVEX_INTERNAL void SendError(uint32_t sequence, ScriptError code, const char *message);
    ORVEX_INTERNAL bool DropLocalRecord(RemoteObject *record, bool &freed);
    ORVEX_INTERNAL void DropAllLocal();
    ORVEX_INTERNAL void ReleasePending(unsigned uses);
    ORVEX_INTERNAL void JoinThread();

public:
    // While corked, replies wait in the send queue and leave together when uncorked; requests flush
    // the queue at once. The window corks a connection while more of its commands wait.
    void Cork();
    void Uncork();

    // The window's side of a watched socket: reads what arrived (on the window's thread), and gives
    // back the window's use once the connection has ended.
    ORVEX_INTERNAL static void ReadOnWindow(void *app);
    ORVEX_INTERNAL static void ReleaseWatch(void *app);

    // For the dispatcher: runs a peer's command on the calling thread (unlocked) and replies. Owns the
    // packet. Hosts never call this; it is how the window's command message is served.
    void RunCommand(Packet *packet);

private:
    mutable std::atomic<int32_t> m_UseCount{0};
    unsigned m_LocalCount = 0;  // local records with a count above 0
    unsigned m_RemoteCount = 0; // remote records with a count above 0
    Lock m_Lock;
    ScriptVal m_UUID;
    char m_Name[128] = {};
    char m_Subtype[128] = {};
    char m_Host[128] = {};
    uint32_t m_Address = 0;
    std::atomic<double> m_TimeOut{0.0};
    std::atomic<int> m_Socket{kNoSocket};
    uint32_t m_LastSequence = 0;
    uint32_t m_RequestsOpen = 0;
    uint32_t m_RepliesOwed = 0;
    PacketNode *m_Replies = nullptr; // arrived, not taken, in order of arrival
    PacketNode *m_RepliesTail = nullptr;
    Waiter *m_Waiters = nullptr; // in order of sending
    Waiter *m_WaitersTail = nullptr;
    PacketNode *m_SendQueue = nullptr;
    PacketNode *m_SendTail = nullptr;
    size_t m_QueuedBytes = 0;
    std::atomic<int64_t> m_WaitingCommandBytes{0}; // commands read and not yet run
    SocketIo::PacketReader m_Reader;
    Packet *m_WritePacket = nullptr;
    SocketIo::SendState m_WriteState;
    std::vector<unsigned char> m_Batch; // small packets sent as one block
    static constexpr size_t kBatchBytes = 64 * 1024;
    bool m_Corked = false;
    std::thread m_Thread; // the connection thread
    std::atomic<std::thread::id> m_ThreadId{}; // its id, once it runs
    // A caller blocked for its reply reads the socket itself while it waits (the leader), so that the
    // reply needs no hand-over from the connection thread: its set holds the socket exclusively and was
    // added first, so while it waits the connection thread is not woken by the socket.
    SocketIo::EventSet m_ThreadSet; // quit (bit 0), write (bit 1), socket (bit 2)
    SocketIo::EventSet m_LeaderSet; // socket (bit 0), the leader's wake event (bit 1)
    SocketIo::EventFd m_LeaderEvent;
    bool m_LeaderMode = false; // the sets are ready
    bool m_Watched = false;    // the script window reads the socket while it waits
    Waiter *m_Leader = nullptr;
    std::thread::id m_LeaderThread;
    PacketNode *m_Handoff = nullptr; // commands read by a leader, for the connection thread to run
    PacketNode *m_HandoffTail = nullptr;
    Event m_ThreadGate;   // opened once m_Thread is stored (and the constructor is done)
    bool m_Constructing = false;
    bool m_ReadPending = false; // more packets may be in hand: read on without waiting
    SocketIo::EventFd m_WriteEvent;
    SocketIo::EventFd m_QuitEvent;
    RemoteObjectTable m_LocalObjects;
    RemoteObjectTable m_RemoteObjects;
    bool m_LoggedIn = true;
    // ReleaseSocket: the thread keeps the socket open and hands it over through m_KeptSocket.
    std::atomic<bool> m_KeepSocket{false};
    std::atomic<int> m_KeptSocket{kNoSocket};
    Event m_SocketKept;
    std::atomic<bool> m_Closing{false};
    bool m_Announced = false;
    bool m_Ended = false; // the socket failed or the queue overflowed: the loop ends
    Lock m_DataLock;
    ScriptVal m_Data;
    uint32_t m_AppID = 0;
    std::atomic<int> m_NotifyCount{0};
    std::vector<ScriptObject *> m_PendingRelease; // references to give back once the lock is let go
    AppObjects m_Objects{this};
    char m_UUIDText[40] = {};
};

// The head of all records, guarded by g_AppLock.
ORVEX_API extern RemoteApp *g_AppList;
ORVEX_API extern Lock &g_AppLock;

// ---- packets on a connection --------------------------------------------------------------------
// The same as the PacketObjects forms, naming objects through the connection's tables (null: none).

ORVEX_API Packet *CreatePkt(uint32_t type, RemoteApp *app, const ScriptVal *first, const ScriptVal *second);
ORVEX_API Packet *CreateReply(uint32_t sequence, RemoteApp *app, const ScriptVal *first, const ScriptVal *second);
ORVEX_API Packet *ToPacket(RemoteObject *object, uint32_t symbol, const ScriptVal *first, const ScriptVal *second);
ORVEX_API Packet *ToPacket(RemoteApp *app, uint32_t object, uint32_t symbol, const ScriptVal *first,
                           const ScriptVal *second);
ORVEX_API PacketResult FromPacket(RemoteApp *app, const Packet *packet, ScriptVal *first, ScriptVal *second);
ORVEX_API PacketResult FromPacket(RemoteObject *object, const Packet *packet, ScriptVal *first,
                                  ScriptVal *second);
ORVEX_API Packet *ToReply(RemoteApp *app, uint32_t sequence, const ScriptVal *first, const ScriptVal *args);

// Without a connection (objects travel unnamed): a plain null picks these.
inline Packet *CreatePkt(uint32_t type, std::nullptr_t, const ScriptVal *first, const ScriptVal *second)
{
    return CreatePkt(type, static_cast<PacketObjects *>(nullptr), first, second);
}
inline Packet *CreateReply(uint32_t sequence, std::nullptr_t, const ScriptVal *first, const ScriptVal *second)
{
    return CreateReply(sequence, static_cast<PacketObjects *>(nullptr), first, second);
}
inline Packet *ToPacket(std::nullptr_t, uint32_t object, uint32_t symbol, const ScriptVal *first,
                        const ScriptVal *second)
{
    return ToPacket(static_cast<PacketObjects *>(nullptr), object, symbol, first, second);
}
inline PacketResult FromPacket(std::nullptr_t, const Packet *packet, ScriptVal *first, ScriptVal *second)
{
    return FromPacket(static_cast<RemoteApp *>(nullptr), packet, first, second);
}
inline Packet *ToReply(std::nullptr_t, uint32_t sequence, const ScriptVal *first, const ScriptVal *args)
{
    return ToReply(static_cast<PacketObjects *>(nullptr), sequence, first, args);
}

// Puts the connection messages (command, connect, disconnect, connect failed) on a script window.
void InstallConnectionHandlers(ScriptWindow &window);

// Makes sure that values reach the connection layer (proxy counts, remote keys, member calls).
ORVEX_API void InstallRemoteHooks();

} // namespace orvexScript
