// The test host's classes and their members.
#include "remote/testhost/HostObjects.h"

#include "remote/Scripting.h"

#include <chrono>
#include <stdexcept>
#include <thread>

namespace orvexScript::testhost
{

std::atomic<int> Item::s_Live{0};
std::atomic<double> Root::s_MaxSleep{10.0};

namespace
{
ScriptInfoT<Item> s_ItemInfo(1, "Item", "an object the test host makes");
ScriptInfoT<Root> s_RootInfo(1, "TestRoot", "the test host's root");

Root *RootOf(void *self)
{
    return static_cast<Root *>(self);
}

void ItemName(void *self, ScriptArgs &args, ScriptSymbol *, bool)
{
    args.ReturnString(static_cast<Item *>(self)->m_Name.c_str());
}

void ItemSetName(void *self, ScriptArgs &args, ScriptSymbol *, bool)
{
    static_cast<Item *>(self)->m_Name = args[1].ToString("");
}

void Echo(void *, ScriptArgs &args, ScriptSymbol *, bool)
{
    const int count = args.NumArgs();
    for (int i = 1; i <= count; ++i)
        args.Return(ScriptVal(args.FindKeyConst(i)));
}

void Add(void *, ScriptArgs &args, ScriptSymbol *, bool)
{
    args.ReturnNumber(args[1].ToNumber() + args[2].ToNumber());
}

void Make(void *, ScriptArgs &args, ScriptSymbol *, bool)
{
    Item *item = new Item(args[1].ToString(""));
    args.ReturnObject(item); // the result holds the item now; it dies when nothing holds it
    item->DecRef();
}

void Sleep(void *, ScriptArgs &args, ScriptSymbol *, bool)
{
    double seconds = args[1].ToNumber();
    const double most = Root::s_MaxSleep.load();
    if (!(seconds <= most)) seconds = most; // NaN too
    if (seconds > 0) std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    args.ReturnBoolean(true);
}

void Fail(void *, ScriptArgs &args, ScriptSymbol *, bool)
{
    throw std::runtime_error(args[1].ToString("failed"));
}

void Live(void *, ScriptArgs &args, ScriptSymbol *, bool)
{
    args.ReturnNumber(Item::s_Live.load());
}

void Keep(void *self, ScriptArgs &args, ScriptSymbol *, bool)
{
    std::lock_guard<std::mutex> hold(RootOf(self)->m_Lock);
    RootOf(self)->m_Kept.push_back(args[1]);
    args.ReturnNumber(static_cast<double>(RootOf(self)->m_Kept.size()));
}

void Drop(void *self, ScriptArgs &, ScriptSymbol *, bool)
{
    std::vector<ScriptVal> kept;
    {
        std::lock_guard<std::mutex> hold(RootOf(self)->m_Lock);
        kept.swap(RootOf(self)->m_Kept);
    }
}

void Call(void *, ScriptArgs &args, ScriptSymbol *, bool)
{
    ScriptArgs call;
    const int count = args.NumArgs();
    for (int i = 3; i <= count; ++i)
        call[i - 2] = args.FindKeyConst(i);
    args.Return(args[1].CallMemberA(args[2].ToString(""), call));
}

// Answers after it returned: the reply goes from another thread 20 ms later.
void Later(void *, ScriptArgs &args, ScriptSymbol *, bool)
{
    ScriptArgs *later = args.DeferReply();
    if (!later) return; // no peer to answer: the caller gets nothing
    std::thread([later] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        later->Return(ScriptVal(later->FindKeyConst(1)));
        (void)later->SendReply();
        delete later;
    }).detach();
}

void Value(void *self, ScriptArgs &args, ScriptSymbol *, bool set)
{
    std::lock_guard<std::mutex> hold(RootOf(self)->m_Lock);
    if (set)
        RootOf(self)->m_Value = args[1];
    else
        args.Return(RootOf(self)->m_Value);
}

void Thread(void *self, ScriptArgs &args, ScriptSymbol *, bool)
{
    args.ReturnString(std::this_thread::get_id() == RootOf(self)->m_MainThread ? "main" : "other");
}

void AddHost(void *self, ScriptArgs &args, ScriptSymbol *, bool)
{
    const bool isTable = args[1].IsTable();
    if (isTable)
    {
        std::lock_guard<std::mutex> hold(RootOf(self)->m_Lock);
        if (RootOf(self)->m_Hosts.size() < 1024) RootOf(self)->m_Hosts.push_back(args[1]);
    }
    args.ReturnBoolean(isTable);
}

void RemoveHost(void *self, ScriptArgs &args, ScriptSymbol *, bool)
{
    std::lock_guard<std::mutex> hold(RootOf(self)->m_Lock);
    if (RootOf(self)->m_Removed.size() < 1024) RootOf(self)->m_Removed.push_back(args[1].ToNumber(-1));
    args.ReturnBoolean(true);
}

ScriptSymbol s_ItemName(1, "Name", SST_Function, ItemName, s_ItemInfo);
ScriptSymbol s_ItemSetName(1, "SetName", SST_Function, ItemSetName, s_ItemInfo);
ScriptSymbol s_Echo(1, "Echo", SST_Function, Echo, s_RootInfo);
ScriptSymbol s_Add(1, "Add", SST_Function, Add, s_RootInfo);
ScriptSymbol s_Make(1, "Make", SST_Function, Make, s_RootInfo);
ScriptSymbol s_Sleep(1, "Sleep", SST_Function, Sleep, s_RootInfo);
ScriptSymbol s_Fail(1, "Fail", SST_Function, Fail, s_RootInfo);
ScriptSymbol s_Live(1, "Live", SST_Function, Live, s_RootInfo);
ScriptSymbol s_Keep(1, "Keep", SST_Function, Keep, s_RootInfo);
ScriptSymbol s_Drop(1, "Drop", SST_Function, Drop, s_RootInfo);
ScriptSymbol s_Call(1, "Call", SST_Function, Call, s_RootInfo);
ScriptSymbol s_Thread(1, "Thread", SST_Function, Thread, s_RootInfo);
ScriptSymbol s_Later(1, "Later", SST_Function, Later, s_RootInfo);
ScriptSymbol s_AddHost(1, "AddHost", SST_Function, AddHost, s_RootInfo);
ScriptSymbol s_RemoveHost(1, "RemoveHost", SST_Function, RemoveHost, s_RootInfo);
ScriptSymbol s_Value(1, "Value", SST_Variable | SSF_Read | SSF_Write, Value, s_RootInfo);
} // namespace

Item::Item(const char *name) : m_Name(name ? name : "")
{
    _SetScriptInfo(this, s_ItemInfo);
    ++s_Live;
}

Item::~Item()
{
    --s_Live;
}

Root::Root() : m_MainThread(std::this_thread::get_id())
{
    _SetScriptInfo(this, s_RootInfo);
}

Root *InitTestScripting(const char *name)
{
    static Root *root = new Root;
    static ScriptConfig config = [name] {
        ScriptConfig c;
        c.name = name;
        c.user = root;
        c.root = [](void *user, void *) -> ScriptObject * { return static_cast<Root *>(user); };
        c.onConnect = [](void *user, RemoteApp *, void *, void *) { ++static_cast<Root *>(user)->m_Connects; };
        c.onDisconnect = [](void *user, RemoteApp *, void *, void *) { ++static_cast<Root *>(user)->m_Disconnects; };
        c.onConnectFailed = [](void *user, RemoteApp *, void *, void *) {
            ++static_cast<Root *>(user)->m_ConnectFailures;
        };
        return c;
    }();
    InitScripting(config);
    return root;
}

} // namespace orvexScript::testhost
