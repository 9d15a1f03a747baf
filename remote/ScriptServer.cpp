// The script server: the root object "ScriptServer" with its host list, the connection of each peer
// (HostApp), the select loop with pings and hand-overs, and the server's life from start to its idle
// end. The members run on the peers' connection threads: a server has no script window.
#include "remote/ScriptServer.h"

#include <atomic>
#include <cfloat>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "objects/ScriptInfo.h"
#include "remote/RemoteApp.h"
#include "remote/ScriptApp.h"
#include "remote/Scripting.h"
#include "remote/ServerNet.h"
#include "remote/SocketIo.h"
#include "values/sync/DebugLog.h"

namespace orvexScript
{

uint32_t g_ScriptServerExitDelay = 300;

namespace
{
#define SERVER_LOG(...) GetServerLog().PrintF(__VA_ARGS__)

// Printed lines go out at once: whoever started the server may be reading them.
#define SERVER_PRINT(...)                                                                                    \
    do                                                                                                       \
    {                                                                                                        \
        std::printf(__VA_ARGS__);                                                                            \
        std::fflush(stdout);                                                                                 \
    } while (0)

// The select limit of one pass of the main loop.
constexpr long kPassMicroseconds = 106203;
// How long the main loop waits for a host's token on the local socket.
constexpr int kTokenTimeoutMs = 1000;
// How long a hand-over waits for the client connection's thread to let go of the socket.
constexpr unsigned long kReleaseTimeoutMs = 2000;
constexpr int kReplyTimeoutMs = 2000;
// At the end, how long the server waits for the connection records to go.
constexpr int kDrainMs = 3000;

bool IsLoopback(uint32_t ip)
{
    return (ip & 0xFFu) == 127u;
}

bool Up(RemoteApp *app)
{
    return app && app->Connected() && !app->IsClosing();
}

// ---- the server object ----------------------------------------------------------------------------

class ScriptServerObject : public ScriptObject
{
public:
    ScriptServerObject();
    void IncRef() override { m_Count.fetch_add(1); }
    void DecRef() override
    {
        if (m_Count.fetch_sub(1) == 1) delete this;
    }
    ScriptInfo *GetScriptInfo() const override { return m_Info; }
    void SetScriptInfo(ScriptInfo *info) override { m_Info = info; }

private:
    ScriptInfo *m_Info = nullptr;
    std::atomic<int32_t> m_Count{0};
};

// One registered application.
struct HostEntry
{
    HostEntry *next = nullptr;
    RemoteApp *app = nullptr; // the connection it registered over; the entry goes with it
    ScriptVal root;           // proxy of the application's root
    ScriptVal info;           // the table given to AddHost
    std::string name;
    ScriptVal uuid;
    int32_t processId = 0;
    bool newConnect = false;
};

class ScriptServerApp : public ScriptServerObject
{
public:
    ScriptServerApp();

    Lock m_Lock; // the host list and the deferred PktTest calls
    HostEntry *m_Hosts = nullptr;
    std::vector<ScriptArgs *> m_Unanswered; // PktTest(false): kept until their connection ends

    // True if a host has exactly this name (its connection up or not).
    bool HasHost(const char *name);
    // Unlinks every entry of `app` and the unanswered calls on it; the caller frees them unlocked.
    HostEntry *TakeEntriesOf(RemoteApp *app, std::vector<ScriptArgs *> &unanswered);
};

ScriptInfoT<ScriptServerObject> s_ObjectInfo(1, "Object", "");
ScriptInfoT<ScriptServerApp> s_ServerInfo(1, "ScriptServer", "the script server");

ScriptServerObject::ScriptServerObject()
{
    _SetScriptInfo(this, s_ObjectInfo);
}

ScriptServerApp::ScriptServerApp()
{
    _SetScriptInfo(this, s_ServerInfo);
}

bool ScriptServerApp::HasHost(const char *name)
{
    m_Lock.ObtainLock();
    bool found = false;
    for (HostEntry *entry = m_Hosts; entry && !found; entry = entry->next)
        found = entry->name == name;
    m_Lock.ReleaseLock();
    return found;
}

HostEntry *ScriptServerApp::TakeEntriesOf(RemoteApp *app, std::vector<ScriptArgs *> &unanswered)
{
    HostEntry *gone = nullptr;
    m_Lock.ObtainLock();
    for (HostEntry **link = &m_Hosts; *link;)
    {
        HostEntry *entry = *link;
        if (entry->app != app)
        {
            link = &entry->next;
            continue;
        }
        *link = entry->next;
        SERVER_PRINT("Host '%s' Killed\n", entry->name.c_str());
        entry->next = gone;
        gone = entry;
    }
    for (size_t i = 0; i < m_Unanswered.size();)
    {
        if (m_Unanswered[i]->GetApp() == app)
        {
            unanswered.push_back(m_Unanswered[i]);
            m_Unanswered[i] = m_Unanswered.back();
            m_Unanswered.pop_back();
        }
        else
            ++i;
    }
    m_Lock.ReleaseLock();
    return gone;
}

void FreeEntries(HostEntry *entries)
{
    while (HostEntry *entry = entries)
    {
        entries = entry->next;
        delete entry;
    }
}

// The process's server object; set once by ScriptServerMain.
std::atomic<ScriptServerApp *> s_Server{nullptr};
std::atomic<int> s_LiveHostApps{0};

// ---- pending hand-overs -----------------------------------------------------------------------------

// A client socket offered to a host: the host that shows the token from the named process gets a
// copy of `fd`. The token holds the number of that copy, and a count that keeps it unique.
struct Handover
{
    uint64_t token;
    int processId;
    int fd;
};

std::mutex &HandoverLock()
{
    static std::mutex *lock = new std::mutex;
    return *lock;
}

std::vector<Handover> &Handovers()
{
    static std::vector<Handover> *list = new std::vector<Handover>;
    return *list;
}

void OfferHandover(const Handover &offer)
{
    std::lock_guard<std::mutex> hold(HandoverLock());
    Handovers().push_back(offer);
}

// Takes an offer back; false if it was not there (already claimed).
bool WithdrawHandover(uint64_t token, Handover &out)
{
    std::lock_guard<std::mutex> hold(HandoverLock());
    std::vector<Handover> &list = Handovers();
    for (size_t i = 0; i < list.size(); ++i)
        if (list[i].token == token)
        {
            out = list[i];
            list[i] = list.back();
            list.pop_back();
            return true;
        }
    return false;
}

void RefuseHandover(int processId, const char *why)
{
    SERVER_LOG("hand-over refused (process %d): %s\n", processId, why);
}

// A host's request on the local socket: its token, checked against the offers and the process id the
// host registered with.
void ServeHandover(int localFd)
{
    int conn = ServerNet::AcceptLocal(localFd);
    if (conn < 0) return;
    const int peer = ServerNet::PeerProcess(conn);
    uint64_t token = 0;
    Handover offer{};
    if (peer <= 0)
        RefuseHandover(peer, "the peer's process is unknown");
    else if (!ServerNet::ReadExact(conn, &token, sizeof(token), kTokenTimeoutMs))
        RefuseHandover(peer, "no whole token");
    else
    {
        bool known = false, mismatch = false;
        {
            std::lock_guard<std::mutex> hold(HandoverLock());
            for (const Handover &candidate : Handovers())
                if (candidate.token == token)
                {
                    known = true;
                    mismatch = candidate.processId != peer;
                }
        }
        if (!known)
            RefuseHandover(peer, "no socket offered under that token");
        else if (mismatch)
            RefuseHandover(peer, "the socket was offered to another process");
        else if (WithdrawHandover(token, offer))
        {
            if (ServerNet::SendDescriptor(conn, offer.fd))
                SERVER_LOG("socket %" PRIu64 " handed to process %d\n", token, peer);
            else
                RefuseHandover(peer, "the socket could not be sent");
            ServerNet::Close(offer.fd);
        }
    }
    ServerNet::Close(conn);
}

// ---- HostApp -----------------------------------------------------------------------------------------

// The connection of one peer of the server: an application that registers, or a client on its way to
// an application.
class HostApp : public RemoteApp
{
public:
    HostApp() : RemoteApp(kNoSocket)
    {
        ++s_LiveHostApps;
        SERVER_LOG("HostApp create\n");
    }
    ~HostApp() override
    {
        m_Value.CleanUp();
        SERVER_LOG("HostApp destroy\n");
        --s_LiveHostApps;
    }
    int AppThreadFunc() override;
    // The peer holds nothing of ours any more: let go of its root too, which closes the connection.
    void OnZeroLocalCount() override
    {
        ScriptVal value(std::move(m_Value));
        value.CleanUp();
        RemoteApp::OnZeroLocalCount();
    }
    void OnZeroRemoteCount() override { RemoteApp::OnZeroRemoteCount(); }

    // Keeps the value ScriptApp gave for the socket, unless the connection has ended already.
    void KeepValue(const ScriptVal &value)
    {
        ObtainLock();
        if (!m_Finished) m_Value = value;
        ReleaseLock();
    }

private:
    ScriptVal m_Value;
    bool m_Finished = false; // under the connection lock
};

int HostApp::AppThreadFunc()
{
    SERVER_LOG("HostApp::AppThreadFunc()\n");
    Use();
    const int result = RemoteApp::AppThreadFunc();
    std::vector<ScriptArgs *> unanswered;
    HostEntry *gone = nullptr;
    if (ScriptServerApp *server = s_Server.load()) gone = server->TakeEntriesOf(this, unanswered);
    FreeEntries(gone);
    for (ScriptArgs *args : unanswered)
        delete args;
    ObtainLock();
    ScriptVal value(std::move(m_Value));
    m_Finished = true;
    ReleaseLock();
    value.CleanUp();
    Recycle();
    return result;
}

// ---- the members of "ScriptServer" ------------------------------------------------------------------

ScriptServerApp *Self(void *self)
{
    return static_cast<ScriptServerApp *>(self);
}

const char *TextOr(const ScriptVal &value, const char *fallback)
{
    return value.IsString() ? value.ToString() : fallback;
}

void PktTest(void *self, ScriptArgs &args, ScriptSymbol *, bool)
{
    if (args.FindKeyConst(1).ToBoolean())
    {
        args.ReturnBoolean(true);
        return;
    }
    // Never answered: the caller's time-out is what is tested. Freed with the connection.
    if (ScriptArgs *later = args.DeferReply())
    {
        ScriptServerApp *server = Self(self);
        server->m_Lock.ObtainLock();
        server->m_Unanswered.push_back(later);
        server->m_Lock.ReleaseLock();
    }
}

void AddHost(void *self, ScriptArgs &args, ScriptSymbol *, bool)
{
    const ScriptVal &info = args.FindKeyConst(1);
    RemoteApp *app = args.GetApp();
    if (!info.IsTable() || !app)
    {
        args.ReturnBoolean(false);
        return;
    }
    auto *entry = new HostEntry;
    entry->info = info;
    entry->app = app;
    entry->name = TextOr(info.FindKeyConst("Name"), "");
    entry->uuid = info.FindKeyConst("UUID");
    entry->processId = static_cast<int32_t>(info.FindKeyConst("ProcessID").ToNumber());
    entry->newConnect = info.FindKeyConst("SupportsNewConnect").ToBoolean();
    entry->root = app->FindRemoteObject(GlobalObjectTable::kRootId);
    SERVER_LOG("AddHost '%s' [%d] (App = %08lx, UUID = %s): \n", entry->name.c_str(), entry->processId,
               static_cast<unsigned long>(reinterpret_cast<uintptr_t>(app)), TextOr(entry->uuid, "none"));
    ScriptServerApp *server = Self(self);
    server->m_Lock.ObtainLock();
    HostEntry **link = &server->m_Hosts;
    while (*link)
        link = &(*link)->next;
    *link = entry;
    SERVER_PRINT("Host '%s' [%d] Added\n", entry->name.c_str(), entry->processId);
    server->m_Lock.ReleaseLock();
    SERVER_LOG("Added\n");
    args.ReturnBoolean(true);
}

// The first host registered as `name` whose connection is up: its process id, and its record when
// `info` is given. Under the server's lock; false when there is none.
bool FindUpHost(ScriptServerApp *server, const char *name, int32_t &processId, ScriptVal *info = nullptr)
{
    bool found = false;
    server->m_Lock.ObtainLock();
    for (HostEntry *entry = server->m_Hosts; entry && !found; entry = entry->next)
        if (entry->name == name && Up(entry->app))
        {
            found = true;
            processId = entry->processId;
            if (info) *info = entry->info;
        }
    server->m_Lock.ReleaseLock();
    return found;
}

void FindHost(void *self, ScriptArgs &args, ScriptSymbol *, bool)
{
    const ScriptVal &name = args.FindKeyConst(1);
    if (!name.IsString())
    {
        args.ReturnNil();
        return;
    }
    SERVER_LOG("FindHost '%s': \n", name.ToString());
    ScriptVal info;
    int32_t processId = 0;
    if (FindUpHost(Self(self), name.ToString(), processId, &info))
    {
        SERVER_LOG("Found [%d]\n", processId);
        args.Return(info);
    }
    else
    {
        SERVER_LOG("Not Found!\n");
        args.ReturnNil();
    }
}

void RemoveHost(void *self, ScriptArgs &args, ScriptSymbol *, bool)
{
    const ScriptVal &id = args.FindKeyConst(1);
    if (!id.IsNumber())
    {
        args.ReturnBoolean(false);
        return;
    }
    const auto processId = static_cast<int32_t>(id.ToNumber());
    SERVER_LOG("RemoveHost %d: \n", processId);
    ScriptServerApp *server = Self(self);
    HostEntry *gone = nullptr;
    server->m_Lock.ObtainLock();
    for (HostEntry **link = &server->m_Hosts; *link; link = &(*link)->next)
        if ((*link)->processId == processId)
        {
            gone = *link;
            *link = gone->next;
            gone->next = nullptr;
            SERVER_PRINT("Host '%s' Removed\n", gone->name.c_str());
            SERVER_LOG("Host '%s' removed\n", gone->name.c_str());
            break;
        }
    server->m_Lock.ReleaseLock();
    if (!gone) SERVER_LOG("Host not found!\n");
    FreeEntries(gone); // unlocked: its proxy goes back through the host's connection
    args.ReturnBoolean(gone != nullptr);
}

void GetHostList(void *self, ScriptArgs &args, ScriptSymbol *, bool)
{
    SERVER_LOG("GetHostList\n");
    ScriptServerApp *server = Self(self);
    ScriptVal list(SV_Table, nullptr);
    int count = 0;
    server->m_Lock.ObtainLock();
    for (HostEntry *entry = server->m_Hosts; entry; entry = entry->next)
        if (Up(entry->app)) list.FindKey(++count) = entry->info;
    server->m_Lock.ReleaseLock();
    args.Return(list);
}

void StartHost(void *self, ScriptArgs &args, ScriptSymbol *, bool)
{
    const ScriptVal &name = args.FindKeyConst(1);
    const ScriptVal &command = args.FindKeyConst(2);
    if (!name.IsString() || !command.IsString())
    {
        args.ReturnBoolean(false);
        return;
    }
    SERVER_LOG("StartHost '%s' ('%s'): \n", name.ToString(), command.ToString());
    if (!args.FindKeyConst(3).ToBoolean())
    {
        int32_t processId = 0;
        if (FindUpHost(Self(self), name.ToString(), processId))
        {
            SERVER_LOG("Host found.\n");
            args.ReturnBoolean(true);
            args.ReturnNumber(processId);
            return;
        }
    }
    SERVER_LOG("Host not found, running: \n");
    int pid = 0, err = 0;
    if (ServerNet::SpawnDetached(command.ToString(), ServerNet::OwnDirectory().c_str(), pid, err))
    {
        SERVER_LOG("Started %d.\n", pid);
        args.ReturnBoolean(true);
        args.ReturnNumber(pid);
    }
    else
    {
        SERVER_LOG("Failed! err = %d\n", err);
        args.ReturnBoolean(false);
    }
}

// One ConnectHost on its way: the client's deferred call and what the completion needs.
struct PendingConnect
{
    ScriptArgs *deferred; // the client's call, answered at the end
    RemoteApp *client;    // used until the end
    ScriptVal hostUUID;
    uint64_t token;
    bool accepted = false;
};

// Answers the client. Accepted: this process lets go of the socket first, so that nothing here reads
// what the client sends next, then sends the answer itself and closes its copy, with no shutdown.
// Otherwise: the answer (no result) goes the usual way and the connection closes.
void FinishConnect(PendingConnect *pending)
{
    Handover offer{};
    if (WithdrawHandover(pending->token, offer)) ServerNet::Close(offer.fd); // never claimed
    bool answered = false;
    if (pending->accepted)
    {
        int fd = pending->client->ReleaseSocket(kReleaseTimeoutMs);
        if (fd >= 0)
        {
            const uint32_t context = pending->deferred->GetValue().m_Args.m_Context;
            if (Packet *reply = ToReply(nullptr, context, nullptr, pending->deferred))
            {
                answered = SocketIo::SendPacket(fd, reply, kReplyTimeoutMs) == SocketIo::IO_Ok;
                FreePkt(reply);
            }
            ServerNet::Close(fd);
        }
        if (!answered) SERVER_LOG("the answer to the client could not be sent\n");
    }
    else
    {
        (void)pending->deferred->SendReply();
        pending->client->Disconnect();
    }
    delete pending->deferred;
    pending->client->Recycle();
    delete pending;
}

// The host's answer to __NewConnect, on the host connection's thread with its lock held (null packet:
// time-out or a lost connection). The rest waits for the client's connection thread to let go of the
// socket, which must not happen under the host's lock: it goes to a thread of its own.
bool HandedOver(void *user, RemoteApp *host, Packet *packet, unsigned long)
{
    auto *pending = static_cast<PendingConnect *>(user);
    if (packet)
    {
        ScriptVal reply;
        (void)FromPacket(host, packet, nullptr, &reply);
        FreePkt(packet);
        pending->accepted = reply.FindKeyConst(-1.0).ToBoolean();
        if (pending->accepted) pending->deferred->Return(pending->hostUUID);
        SERVER_LOG("done\n");
    }
    try
    {
        std::thread(FinishConnect, pending).detach();
    }
    catch (...)
    {
        pending->accepted = false; // answered without a hand-over
        FinishConnect(pending);
    }
    return packet != nullptr;
}

void ConnectHost(void *self, ScriptArgs &args, ScriptSymbol *, bool)
{
    const ScriptVal &name = args.FindKeyConst(1);
    if (!name.IsString()) return;
    const ScriptVal &uuid = args.FindKeyConst(2);
    const ScriptVal &subtype = args.FindKeyConst(5);
    const bool bySubtype = subtype.IsString() && *subtype.ToString();
    SERVER_LOG("Connect to Host '%s' (UUID: %s) from '%s' (UUID: %s): \n", name.ToString(),
               TextOr(uuid, "any"), TextOr(args.FindKeyConst(3), "unknown"),
               TextOr(args.FindKeyConst(4), "unknown"));
    RemoteApp *client = args.GetApp();
    if (!client)
    {
        SERVER_LOG("not found!\n");
        return;
    }

    ScriptServerApp *server = Self(self);
    RemoteApp *host = nullptr;
    ScriptVal hostRoot, hostUUID;
    int32_t processId = 0;
    bool newConnect = false;
    server->m_Lock.ObtainLock();
    HostEntry *chosen = nullptr;
    double best = -DBL_MAX;
    for (HostEntry *entry = server->m_Hosts; entry; entry = entry->next)
    {
        if (entry->name != name.ToString() || (!uuid.IsNil() && entry->uuid != uuid) || !Up(entry->app) ||
            entry->app == client)
            continue;
        if (!bySubtype)
        {
            chosen = entry;
            break;
        }
        const ScriptVal &priority = entry->info.FindKeyConst("Priorities").FindKeyConst(subtype.ToString());
        if (priority.IsNumber() && (!chosen || priority.ToNumber() > best))
        {
            chosen = entry;
            best = priority.ToNumber();
        }
    }
    if (chosen)
    {
        host = chosen->app;
        host->Use(); // the entry may go with its connection once the lock is let go
        hostUUID = chosen->uuid;
        processId = chosen->processId;
        newConnect = chosen->newConnect;
    }
    server->m_Lock.ReleaseLock();
    if (!host)
    {
        SERVER_LOG("not found!\n");
        return;
    }

    const int socket = client->GetSocket();
    SERVER_LOG("found, passing socket %d to %d: \n", socket, processId);
    hostRoot = host->FindRemoteObject(GlobalObjectTable::kRootId);
    RemoteObject *root = hostRoot.ToRemoteObject();
    Handover offer{0, processId, socket >= 0 ? ServerNet::Duplicate(socket) : -1};
    if (!newConnect)
        SERVER_LOG("Using old Connect: not supported here\n");
    else
        SERVER_LOG("Using NewConnect\n");
    if (!newConnect || !root || offer.fd < 0)
    {
        ServerNet::Close(offer.fd);
        host->Recycle();
        return;
    }
    // The socket's number, with a count above it: a number comes back once closed, the token never.
    static std::atomic<uint32_t> s_Offers{0};
    offer.token = (static_cast<uint64_t>(s_Offers.fetch_add(1) + 1) << 32) | static_cast<uint32_t>(offer.fd);
    OfferHandover(offer);

    ScriptArgs call;
    call.FindKey(0.0) = ScriptVal("__NewConnect");
    uint64_t record[2] = {static_cast<uint64_t>(ServerNet::ProcessId()), offer.token};
    call.FindKey(1.0) = ScriptVal(MemBlock(record, sizeof(record)));
    call.FindKey(2.0) = args.FindKeyConst(3);
    call.FindKey(3.0) = args.FindKeyConst(4);

    ScriptArgs *deferred = args.DeferReply();
    if (!deferred)
    {
        if (WithdrawHandover(offer.token, offer)) ServerNet::Close(offer.fd);
        host->Recycle();
        return;
    }
    auto *pending = new PendingConnect{deferred, client, hostUUID, offer.token};
    client->Use();
    if (!root->DoCommandAsync(SST_CallMemberFunction, call, HandedOver, pending))
        FinishConnect(pending); // the host's connection has gone: no result
    host->Recycle();
}

ScriptSymbol s_PktTest(1, "PktTest", SSF_HideHelp | SST_Function, PktTest, s_ServerInfo);
ScriptSymbol s_AddHost(1, "AddHost", SST_Function, AddHost, s_ServerInfo);
ScriptSymbol s_FindHost(1, "FindHost", SST_Function, FindHost, s_ServerInfo);
ScriptSymbol s_RemoveHost(1, "RemoveHost", SST_Function, RemoveHost, s_ServerInfo);
ScriptSymbol s_GetHostList(1, "GetHostList", SST_Function, GetHostList, s_ServerInfo);
ScriptSymbol s_StartHost(1, "StartHost", SST_Function, StartHost, s_ServerInfo);
ScriptSymbol s_ConnectHost(1, "ConnectHost", SST_Function, ConnectHost, s_ServerInfo);

// ---- the main loop ------------------------------------------------------------------------------------

ScriptObject *ServerRoot(void *, void *)
{
    return s_Server.load();
}

void AnswerPing(int pingFd)
{
    char buffer[1024] = {};
    uint32_t from = 0;
    uint16_t port = 0;
    int err = 0;
    const int n = ServerNet::ReceiveDatagram(pingFd, buffer, sizeof(buffer) - 1, from, port, err);
    if (n < 0)
    {
        SERVER_LOG("ping socket: Error %d\n", err);
        return;
    }
    if (n < 4 || std::memcmp(buffer, "SPP:", 4) != 0) return;
    if (LoopbackOnly() && !IsLoopback(from)) return;
    const char *name = buffer + 4;
    ScriptServerApp *server = s_Server.load();
    if (*name && !(server && server->HasHost(name))) return;
    (void)ServerNet::SendDatagram(pingFd, from, port, "RSP:", 4);
}

void Accept(int tcpFd)
{
    uint32_t peer = 0;
    int err = 0;
    int fd = ServerNet::AcceptTcp(tcpFd, peer, err);
    if (fd < 0)
    {
        SERVER_LOG("accepted invalid socket: Error %d\n", err);
        return;
    }
    if (LoopbackOnly() && !IsLoopback(peer))
    {
        SERVER_LOG("connection from another machine refused\n");
        ServerNet::Close(fd);
        return;
    }
    SERVER_LOG("Incoming connection\n");
    auto *app = new HostApp;
    ScriptVal value = ScriptApp(app, fd, nullptr, nil);
    if (!value.IsNil()) app->KeepValue(value); // else the record went with its connection
}
} // namespace

int ScriptServerMain(void *, void *)
{
    SERVER_LOG("ScriptServerMain\n");
    static ScriptConfig config; // no window, no registering
    config.name = "orvexScriptServer";
    config.root = ServerRoot;
    InitScripting(config);
    auto *server = new ScriptServerApp;
    SERVER_LOG("ScriptServerApp construct\n");
    s_Server.store(server);
    server->IncRef();
    StartScripting(nullptr, nil); // registers nothing: the configuration is no host's
    SERVER_LOG("ScriptServerApp::Main() enter\n");

    const int pid = ServerNet::ProcessId();
    const uint16_t port = g_ScriptServerPort;
    int status = 0, err = 0;
    int tcpFd = ServerNet::OpenTcp(err);
    int pingFd = -1, localFd = -1;
    if (tcpFd < 0)
    {
        SERVER_LOG("failed to create socket: Error %d\n", err);
        SERVER_PRINT("orvexScript Server [%d] failed to create socket: Error %d\n", pid, err);
        status = 1;
    }
    else if (!ServerNet::BindAny(tcpFd, port, err))
    {
        // The usual end of a second server on a machine.
        SERVER_LOG("failed to bind socket: Error %d\n", err);
        SERVER_PRINT("orvexScript Server [%d] failed to bind socket: Error %d\n", pid, err);
        status = 1;
    }
    else
    {
        // Listening before "Started" is printed: whoever waits for that line may connect at once.
        if (!ServerNet::Listen(tcpFd, 0x7FFFFFFF, err)) SERVER_LOG("listen: Error %d\n", err);
        SERVER_LOG("Script Server Started\n");
        SERVER_PRINT("orvexScript Server [%d] Started\n", pid);
        pingFd = ServerNet::OpenPingSocket(port, err);
        if (pingFd < 0) SERVER_LOG("failed to bind pingsocket: Error %d\n", err);
        localFd = ServerNet::ListenHandover(port, pid, err);
        if (localFd < 0) SERVER_LOG("failed to listen for hand-overs: Error %d\n", err);

        bool done = false;
        int lastSelect = 0;
        uint32_t idle = 0;
        while (!done)
        {
            const int fds[3] = {tcpFd, pingFd, localFd};
            bool ready[3] = {};
            lastSelect = ServerNet::WaitReadable(fds, ready, 3, kPassMicroseconds, err);
            if (lastSelect < 0)
            {
                SERVER_LOG("select: Error %d\n", err);
                done = true;
            }
            else if (lastSelect > 0)
            {
                if (ready[0]) Accept(tcpFd);
                if (ready[1]) AnswerPing(pingFd);
                if (ready[2]) ServeHandover(localFd);
            }
            else if (RemoteApp::GetNumConnections() == 0)
            {
                SERVER_LOG("No connections yet, count: %u\n", idle);
                ++idle;
                if ((idle >= g_ScriptServerExitDelay || RemoteApp::EverConnected()) &&
                    g_ScriptServerExitDelay != 0xFFFFFFFFu)
                    done = true;
            }
            else
                idle = 0;
            ServerNet::ReapChildren();
        }
        ServerNet::Close(pingFd);
        ServerNet::Close(localFd);
        SERVER_LOG("Script Server Terminated: done: %d, err: %d\n", done ? 1 : 0, lastSelect);
        SERVER_PRINT("orvexScript Server [%d] Terminated\n", pid);
    }
    ServerNet::Close(tcpFd);
    SERVER_LOG("ScriptServerApp::Main() exit\n");
    // Connection threads finish their records after the count of connections fell: let them.
    for (int waited = 0; s_LiveHostApps.load() > 0 && waited < kDrainMs; waited += 10)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    CleanupScripting();
    s_Server.store(nullptr);
    server->DecRef();
    return status;
}

} // namespace orvexScript
