// Finding an application and connecting to it: the client's ScriptApp forms, ScriptLogin and Ping,
// and the application's side of a hand-over (ConnectApp and the hidden root members __NewConnect,
// __Connect and __Login).
#include "remote/ScriptApp.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include "objects/ScriptInfo.h"
#include "remote/Scripting.h"
#include "remote/ServerNet.h"
#include "values/base/IPAddress.h"
#include "values/sync/DebugLog.h"

namespace orvexScript
{

// The connection layer's announcement of a new connection to the script window, for the records made
// here of a ready socket.
struct ConnectionAccess
{
    static void Announce(RemoteApp &app) { app.Announce(); }
};

namespace
{
#define SERVER_LOG(...) GetServerLog().PrintF(__VA_ARGS__)

// Serialises the setting up of connections of one process (see ScriptApp).
Lock &ConnectLock()
{
    static Lock *lock = new Lock;
    return *lock;
}

std::atomic<bool> s_LoopbackOnly{false};

std::mutex s_LoginMutex;
LoginHook s_LoginHook = nullptr;
void *s_LoginUser = nullptr;

std::mutex s_PingMutex;
char s_PingAddress[64] = "255.255.255.255";

// The hand-over: how long a host waits for the server's answer on the local socket.
constexpr int kHandoverTimeoutMs = 3000;
// A named connect waits for scripting to start at most this long when it has no time-out of its own.
constexpr double kScriptingWaitSeconds = 10.0;
// Ping: answers counted at most, so that a flood cannot keep the call going.
constexpr int kMaxPingAnswers = 256;

bool SwitchedOn(const char *variable)
{
    const char *value = std::getenv(variable);
    return !(value && std::strcmp(value, "false") == 0);
}

bool IsLoopback(uint32_t ip)
{
    return (ip & 0xFFu) == 127u; // network order: the first number is the lowest byte
}

// A named connect needs this process's scripting started: its name and UUID go to the peer.
void WaitForScripting(double timeout)
{
    const double limit = timeout > 0 ? timeout : kScriptingWaitSeconds;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(limit);
    while (!std::atomic_ref<bool>(g_ScriptingActive).load())
    {
        if (std::chrono::steady_clock::now() >= deadline)
        {
            SERVER_LOG("ScriptApp: scripting has not started, connecting anyway\n");
            return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
}

uint64_t NowMs()
{
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                     std::chrono::steady_clock::now().time_since_epoch())
                                     .count());
}

// ---- the hidden root members ----------------------------------------------------------------------

// The older hand-over named the target process in a duplicated protocol record; sockets don't pass
// that way here.
void ConnectMember(void *, ScriptArgs &args, ScriptSymbol *, bool)
{
    SERVER_LOG("__Connect: not supported, the server is to use __NewConnect\n");
    args.ReturnBoolean(false);
}

bool TakeOver(ScriptArgs &args)
{
    const ScriptVal &block = args.FindKeyConst(1);
    const MemBlock bytes = block.IsMemBlock() ? block.ToMemBlock() : MemBlock();
    if (!bytes.m_Ptr || bytes.m_Size != 16)
    {
        SERVER_LOG("__NewConnect: refused, the block is no 16-byte record\n");
        return false;
    }
    uint64_t record[2];
    std::memcpy(record, bytes.m_Ptr, sizeof(record));
    const uint64_t serverPid = record[0];
    const uint64_t token = record[1];
    if (serverPid == 0 || serverPid > 0x7FFFFFFFu)
    {
        SERVER_LOG("__NewConnect: refused, no such server process %llu\n",
                   static_cast<unsigned long long>(serverPid));
        return false;
    }
    const char *why = nullptr;
    int fd = ServerNet::TakeHandedSocket(g_ScriptServerPort, static_cast<int>(serverPid), token,
                                         kHandoverTimeoutMs, why);
    if (fd < 0)
    {
        SERVER_LOG("__NewConnect: failed: %s\n", why ? why : "unknown");
        return false;
    }
    const ScriptVal &name = args.FindKeyConst(2);
    auto *app = new ConnectApp;
    ScriptVal root = ScriptApp(app, fd, name.IsString() ? name.ToString() : "unknown", args.FindKeyConst(3));
    if (root.IsNil()) return false; // the record has gone with its connection
    app->KeepRoot(root);
    SERVER_LOG("__NewConnect: socket %d taken over by %p\n", fd, static_cast<void *>(app));
    return true;
}

void NewConnectMember(void *, ScriptArgs &args, ScriptSymbol *, bool)
{
    args.ReturnBoolean(TakeOver(args));
}

void LoginMember(void *, ScriptArgs &args, ScriptSymbol *, bool)
{
    LoginHook hook;
    void *user;
    {
        std::lock_guard<std::mutex> hold(s_LoginMutex);
        hook = s_LoginHook;
        user = s_LoginUser;
    }
    RemoteApp *app = args.GetApp();
    const bool ok =
        !hook || hook(user, app, args.FindKeyConst(1).ToString(""), args.FindKeyConst(2).ToString(""));
    if (app)
    {
        // Under the connection lock: the connection thread reads the flag for every command.
        app->ObtainLock();
        app->SetLoggedIn(ok);
        app->ReleaseLock();
    }
    args.ReturnBoolean(ok);
}

constexpr unsigned long kHiddenFunction = SSF_HideHelp | SST_Function; // 0x400001

// A record of a connection to make, held once by the caller: listed at the head of g_AppList by its
// constructor, and named under the list's lock since other threads read the names.
RemoteApp *NewClientApp(const char *name, const char *subtype, const ScriptVal &uuid, const char *host,
                        double timeout)
{
    auto *app = new RemoteApp;
    g_AppLock.ObtainLock();
    app->SetName(name ? name : "");
    if (subtype) app->SetSubtype(subtype);
    app->SetHost(host);
    app->SetUUID(uuid);
    g_AppLock.ReleaseLock();
    app->Use();
    app->SetTimeOut(timeout);
    return app;
}

} // namespace

// ---- ConnectApp ---------------------------------------------------------------------------------------

ConnectApp::ConnectApp() : RemoteApp(kNoSocket) {}

ConnectApp::~ConnectApp()
{
    m_Root.CleanUp();
}

int ConnectApp::AppThreadFunc()
{
    Use();
    const int result = RemoteApp::AppThreadFunc();
    ObtainLock();
    ScriptVal root(std::move(m_Root));
    m_Finished = true;
    ReleaseLock();
    root.CleanUp(); // outside the lock: the proxy's count goes back through the connection
    Recycle();
    return result;
}

void ConnectApp::OnZeroLocalCount()
{
    // The client holds nothing of ours any more: let go of its root too, which closes the connection.
    // With the connection lock held (the caller's), taken again by the proxy's release.
    ScriptVal root(std::move(m_Root));
    root.CleanUp();
    RemoteApp::OnZeroLocalCount();
}

void ConnectApp::OnZeroRemoteCount()
{
    RemoteApp::OnZeroRemoteCount();
}

bool ConnectApp::KeepRoot(const ScriptVal &root)
{
    ObtainLock();
    const bool kept = !m_Finished;
    if (kept) m_Root = root;
    ReleaseLock();
    return kept;
}

// ---- connecting ---------------------------------------------------------------------------------------

ScriptVal ScriptApp(const char *name, const char *subtype, ScriptVal uuid, const char *host, double timeout)
{
    const bool lock = SwitchedOn("KELMAR_CONNECTLOCK");
    const bool early = SwitchedOn("KELMAR_EARLY_CONNECTLOCK");
    if (name && *name) WaitForScripting(timeout);
    if (!host || !*host) host = "127.0.0.1";
    if (LoopbackOnly() && !IsLoopback(IPFromStr(host)))
    {
        SERVER_LOG("ScriptApp: '%s' is no loopback address, refused\n", host);
        return ScriptVal();
    }

    bool held = false;
    if (lock)
    {
        ConnectLock().ObtainLock();
        held = true;
    }
    RemoteApp *app = NewClientApp(name, subtype, uuid, host, timeout);
    // The proxy of the peer's root exists from the record's start; its value keeps the connection.
    ScriptVal result = app->FindRemoteObject(GlobalObjectTable::kRootId);
    if (held && early)
    {
        ConnectLock().ReleaseLock();
        held = false;
    }
    if (!app->Connected() && !app->Connect())
    {
        result.CleanUp();
        app->Abandon();
    }
    SERVER_LOG("ScriptApp('%s') - %p %s\n", name ? name : "", static_cast<void *>(app),
               result.IsNil() ? "failed" : "connected");
    app->Recycle();
    if (held) ConnectLock().ReleaseLock();
    return result;
}

ScriptVal ScriptApp(RemoteApp *app, int socket, const char *name, ScriptVal uuid)
{
    if (!app)
    {
        ServerNet::Close(socket);
        return ScriptVal();
    }
    ScriptVal result;
    g_AppLock.ObtainLock();
    app->SetName(name ? name : "unknown");
    app->SetUUID(uuid);
    app->Use();
    // A host that checks logins serves no command but __Login until one succeeded.
    if (LoginRequired()) app->SetLoggedIn(false);
    if (app->Connect(socket))
    {
        ConnectionAccess::Announce(*app);
        result = app->FindRemoteObject(GlobalObjectTable::kRootId);
    }
    else
        app->Abandon();
    g_AppLock.ReleaseLock();
    app->Recycle();
    return result;
}

ScriptVal ScriptApp(int socket, const char *name, ScriptVal uuid)
{
    return ScriptApp(new RemoteApp, socket, name, uuid);
}

ScriptVal AsyncScriptApp(const char *name, const char *subtype, ScriptVal uuid, const char *host,
                         double timeout, bool start)
{
    if (!host || !*host) host = "127.0.0.1";
    if (LoopbackOnly() && !IsLoopback(IPFromStr(host))) return ScriptVal();
    RemoteApp *app = NewClientApp(name, subtype, uuid, host, timeout);
    ScriptVal result = app->FindRemoteObject(GlobalObjectTable::kRootId);
    if (start) app->AsyncConnect();
    app->Recycle();
    return result;
}

bool ScriptLogin(const char *host, const char *name, const char *user, const char *password)
{
    ScriptVal root = ScriptApp(name, nullptr, nil, host, 5.0);
    if (root.IsNil()) return false;
    const bool ok = root.CallMember("__Login", user ? user : "", password ? password : "").ToBoolean();
    root.CleanUp(); // the last reference: the connection closes
    return ok;
}

// ---- discovery ----------------------------------------------------------------------------------------

void SetPingBroadcastAddress(const char *address)
{
    std::lock_guard<std::mutex> hold(s_PingMutex);
    std::snprintf(s_PingAddress, sizeof(s_PingAddress), "%s",
                  address && *address ? address : "255.255.255.255");
}

bool Ping(const char *name, double timeout, ScriptVal &result)
{
    result = ScriptVal(SV_Table, nullptr);
    char target[64];
    {
        std::lock_guard<std::mutex> hold(s_PingMutex);
        std::memcpy(target, s_PingAddress, sizeof(target));
    }
    int err = 0;
    int fd = ServerNet::OpenBroadcastSocket(err);
    if (fd < 0)
    {
        SERVER_LOG("Ping: no socket: Error %d\n", err);
        return false;
    }
    char request[1024];
    const int length = std::snprintf(request, sizeof(request), "SPP:%s", name ? name : "");
    const size_t size = length < 0 ? 4 : std::min(static_cast<size_t>(length), sizeof(request) - 1);
    if (!ServerNet::SendDatagram(fd, IPFromStr(target), g_ScriptServerPort, request, size))
    {
        SERVER_LOG("Ping: send to %s failed\n", target);
        ServerNet::Close(fd);
        return false;
    }
    const uint64_t waitMs = timeout > 0 ? static_cast<uint64_t>(timeout * 1000.0 + 0.5) : 0;
    uint64_t base = NowMs();
    int count = 0;
    // Answers are awaited until `timeout` has passed since the request or the last answer.
    while (count < kMaxPingAnswers)
    {
        const uint64_t now = NowMs();
        if (now >= base + waitMs) break;
        bool ready = false;
        if (ServerNet::WaitReadable(&fd, &ready, 1, static_cast<long>((base + waitMs - now) * 1000), err) < 0)
            break;
        if (!ready) continue;
        char answer[1024];
        uint32_t from = 0;
        uint16_t port = 0;
        const int n = ServerNet::ReceiveDatagram(fd, answer, sizeof(answer), from, port, err);
        if (n < 4 || std::memcmp(answer, "RSP:", 4) != 0 || from == 0) continue;
        ScriptVal &entry = result.FindKey(++count);
        entry = ScriptVal(SV_Table, nullptr);
        char dotted[32];
        StrFromIP(from, dotted, sizeof(dotted));
        entry.FindKey("IP") = ScriptVal(dotted);
        const std::string hostName = ServerNet::HostName(from);
        if (!hostName.empty()) entry.FindKey("HostName") = ScriptVal(hostName.c_str());
        base = NowMs();
    }
    ServerNet::Close(fd);
    return count > 0;
}

// ---- the members of a connectable root --------------------------------------------------------------

void AddConnectMembers(ScriptInfo *info)
{
    if (!info) return;
    static std::mutex mutex;
    static std::vector<ScriptInfo *> *done = new std::vector<ScriptInfo *>;
    std::lock_guard<std::mutex> hold(mutex);
    for (ScriptInfo *seen : *done)
        if (seen == info) return;
    done->push_back(info);
    // The symbols live as long as the class: never deleted.
    new ScriptSymbol(1, "__Connect", kHiddenFunction, ConnectMember, *info);
    new ScriptSymbol(1, "__NewConnect", kHiddenFunction, NewConnectMember, *info);
    new ScriptSymbol(1, "__Login", kHiddenFunction, LoginMember, *info);
}

void SetLoginHook(LoginHook hook, void *user)
{
    std::lock_guard<std::mutex> hold(s_LoginMutex);
    s_LoginHook = hook;
    s_LoginUser = hook ? user : nullptr;
}

bool LoginRequired()
{
    std::lock_guard<std::mutex> hold(s_LoginMutex);
    return s_LoginHook != nullptr;
}

void SetLoopbackOnly(bool on)
{
    s_LoopbackOnly.store(on);
}

bool LoopbackOnly()
{
    return s_LoopbackOnly.load();
}

} // namespace orvexScript
