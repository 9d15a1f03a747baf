// The classes of the test host: a root object with members a peer calls (echo, arithmetic, objects
// made and returned, a sleep, an error, calls back into the peer) and the items it makes. Shared by the
// test host program and the tests that run both ends in one process.
#pragma once

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "objects/ScriptInfo.h"

namespace orvexScript::testhost
{

class Item : public RefObject
{
public:
    explicit Item(const char *name); // born with one reference, the maker's
    ~Item() override;
    void IncRef() override { Use(); }
    void DecRef() override { Recycle(); }
    ScriptInfo *GetScriptInfo() const override { return m_Info; }
    void SetScriptInfo(ScriptInfo *info) override { m_Info = info; }

    std::string m_Name;
    static std::atomic<int> s_Live; // items that exist

private:
    ScriptInfo *m_Info = nullptr;
};

// Members: Echo(...) gives back its arguments; Add(a, b); Make(name) gives a new Item; Sleep(seconds)
// blocks the thread that runs it (at most 10 s); Fail(text) fails with that text; Live() counts Items;
// Keep(value) holds a value (a peer's object, say) until Drop(); Call(object, member, ...) calls a
// member of an object, a proxy of the peer's included, and gives its first result; Thread() names the
// thread that ran it ("main" for the thread that made the root, else "other"); Later(v) answers v from
// another thread after returning (a deferred reply). The variable Value is read and written.
// AddHost(info) and RemoveHost(pid) stand in for a script server's registry: they record what hosts
// send, so that start-up can be watched against this root.
class Root : public RefObject
{
public:
    Root(); // born with one reference, the host's, kept for the host's life
    void IncRef() override { Use(); }
    void DecRef() override { Recycle(); }
    ScriptInfo *GetScriptInfo() const override { return m_Info; }
    void SetScriptInfo(ScriptInfo *info) override { m_Info = info; }

    std::mutex m_Lock;
    std::vector<ScriptVal> m_Kept;
    // The configuration's connection notices, counted.
    std::atomic<int> m_Connects{0}, m_Disconnects{0}, m_ConnectFailures{0};
    ScriptVal m_Value;
    std::vector<ScriptVal> m_Hosts;  // the tables given to AddHost, in order
    std::vector<double> m_Removed;   // the process ids given to RemoveHost, in order
    std::thread::id m_MainThread;
    // The longest Sleep in seconds; a harness that feeds random commands sets it to 0.
    static std::atomic<double> s_MaxSleep;

private:
    ScriptInfo *m_Info = nullptr;
};

// Scripting once per process with a Root as the configuration's root and `name` as the application's
// name (the first call's); gives the root. The calling thread becomes the main thread.
Root *InitTestScripting(const char *name);

} // namespace orvexScript::testhost
