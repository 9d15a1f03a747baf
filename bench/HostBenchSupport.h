// The library's side of the remote benchmarks: the bytes of a command packet for the raw baselines,
// and a host in a forked process whose root answers "Foo" and "Value", reached by a connection of
// each benchmark's own.
#pragma once

#include "bench/RemoteBenchSupport.h"

#include <cstdint>
#include <cstdio>
#include <thread>
#include <vector>

#include "objects/ScriptInfo.h"
#include "remote/Packet.h"
#include "remote/RemoteApp.h"
#include "remote/ScriptWindow.h"
#include "remote/Scripting.h"
#include "values/model/ScriptArgs.h"
#include "values/model/SymbolNumbers.h"

namespace RemoteBench
{

// The bytes of the PKT_Command that calls member args[0] with the rest of `args` on object 1.
inline std::vector<unsigned char> MemberCallBytes(const orvexScript::ScriptArgs &args)
{
    using namespace orvexScript;
    std::vector<unsigned char> bytes;
    if (Packet *packet =
            ToPacket(static_cast<PacketObjects *>(nullptr), 1, SST_CallMemberFunction, nullptr, &args))
    {
        const auto *raw = reinterpret_cast<const unsigned char *>(packet);
        bytes.assign(raw, raw + packet->m_Size);
        FreePkt(packet);
    }
    return bytes;
}

// The bytes of the call of member "Foo" with 2.0 on object 1, the message of the raw round trips.
inline const std::vector<unsigned char> &FooCallBytes()
{
    static const std::vector<unsigned char> bytes = []
    {
        orvexScript::ScriptArgs args;
        args[0] = "Foo";
        args[1] = 2.0;
        return MemberCallBytes(args);
    }();
    return bytes;
}

// The host's root: "Foo" gives back its argument, so a call carries the bytes of the raw message, and
// the variable "Value" reads as 2.
class BenchRoot : public orvexScript::RefObject
{
public:
    BenchRoot();
    void IncRef() override { Use(); }
    void DecRef() override { Recycle(); }
    orvexScript::ScriptInfo *GetScriptInfo() const override { return m_Info; }
    void SetScriptInfo(orvexScript::ScriptInfo *info) override { m_Info = info; }

private:
    orvexScript::ScriptInfo *m_Info = nullptr;
};

inline orvexScript::ScriptInfoT<BenchRoot> s_BenchRootInfo(1, "BenchRoot");

inline void BenchRootFoo(void *, orvexScript::ScriptArgs &args, orvexScript::ScriptSymbol *, bool)
{
    args.Return(orvexScript::ScriptVal(args.FindKeyConst(1)));
}

inline void BenchRootValue(void *, orvexScript::ScriptArgs &args, orvexScript::ScriptSymbol *, bool set)
{
    if (!set) args.Return(orvexScript::ScriptVal(2.0));
}

inline orvexScript::ScriptSymbol s_BenchRootFoo(1, "Foo", orvexScript::SST_Function, BenchRootFoo,
                                                s_BenchRootInfo);
inline orvexScript::ScriptSymbol s_BenchRootValue(1, "Value",
                                                  orvexScript::SST_Variable | orvexScript::SSF_Read,
                                                  BenchRootValue, s_BenchRootInfo);

inline BenchRoot::BenchRoot()
{
    orvexScript::_SetScriptInfo(this, s_BenchRootInfo);
}

// A host in a forked process: its main thread pumps the script window, which runs every command, and
// a thread accepts connections. It ends when its parent does.
class HostPeer
{
public:
    ~HostPeer() { Stop(); }

    bool Start(const char *name)
    {
        int listener = ListenLoopback(m_Port);
        if (listener < 0) return false;
        std::fflush(nullptr);
        const pid_t parent = getpid();
        m_Pid = fork();
        if (m_Pid == 0) Serve(name, listener, parent);
        close(listener);
        return m_Pid > 0;
    }

    void Stop()
    {
        if (m_Pid <= 0) return;
        kill(m_Pid, SIGKILL);
        waitpid(m_Pid, nullptr, 0);
        m_Pid = -1;
    }

    uint16_t Port() const { return m_Port; }

private:
    [[noreturn]] static void Serve(const char *name, int listener, pid_t parent)
    {
        using namespace orvexScript;
        static ScriptConfig config;
        config.flags = SCF_Host;
        config.name = name;
        config.user = new BenchRoot;
        config.root = [](void *user, void *) -> ScriptObject * { return static_cast<BenchRoot *>(user); };
        InitScripting(config);
        if (!CreateScriptWindow()) _exit(1);
        std::thread(
            [listener, parent]
            {
                for (;;)
                {
                    pollfd entry{listener, POLLIN, 0};
                    if (getppid() != parent) _exit(0);
                    if (poll(&entry, 1, 1000) <= 0) continue;
                    int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
                    if (fd >= 0 && SetNoDelay(fd)) new RemoteApp(fd); // lives by its counts
                }
            })
            .detach();
        for (;;)
        {
            int exitCode = 0;
            (void)GetScriptWnd()->Pump(0, 1000, exitCode);
            if (getppid() != parent) _exit(0);
        }
    }

    pid_t m_Pid = -1;
    uint16_t m_Port = 0;
};

// The host process of the whole program, named `name`, forked at first use.
inline HostPeer *TheHost(const char *name)
{
    static HostPeer *host = [name]
    {
        auto *peer = new HostPeer;
        return peer->Start(name) ? peer : nullptr;
    }();
    return host;
}

// A connection of its own for one benchmark run, as the raw runs have: TCP keeps state per connection
// (acknowledgement modes), which one benchmark should not leave to the next.
struct HostLink
{
    orvexScript::RemoteApp *app = nullptr;
    orvexScript::ScriptVal root;

    explicit HostLink(const char *name)
    {
        HostPeer *host = TheHost(name);
        if (!host) return;
        orvexScript::g_ScriptServerPort = host->Port();
        app = new orvexScript::RemoteApp;
        app->Use();
        app->SetHost("127.0.0.1");
        app->SetTimeOut(kPeerWaitMs / 1000.0);
        if (app->Connect()) root = app->FindRemoteObject(1);
    }
    ~HostLink()
    {
        root = orvexScript::ScriptVal();
        if (!app) return;
        app->_Disconnect();
        app->Recycle();
    }
};

} // namespace RemoteBench
