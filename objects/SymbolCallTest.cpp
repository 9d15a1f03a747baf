// Tests of ScriptSymbol::Call and the main-thread seam: with nothing installed every member runs on
// the caller's thread; with a main thread installed (a real second thread serving a queue) members
// flagged for it run there while the caller waits, and a call made on the main thread runs directly.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

#include "objects/ObjectHooks.h"
#include "objects/ScriptInfo.h"
#include "testsupport/TestObjects.h"

namespace orvexScript
{
namespace
{

using testobjects::NumReturns;
using testobjects::RunSpecial;
using testobjects::Scripted;

constexpr auto kWaitLimit = std::chrono::seconds(10);

// A thread that runs posted tasks in order, standing in for a host's main loop.
class MainLoop
{
public:
    MainLoop() : m_Thread([this] { Serve(); }) { s_Current = this; }
    ~MainLoop()
    {
        {
            std::lock_guard<std::mutex> hold(m_Lock);
            m_Quit = true;
        }
        m_Changed.notify_all();
        m_Thread.join();
        s_Current = nullptr;
    }

    std::thread::id Id() const { return m_Thread.get_id(); }

    // The two hooks. Run waits a bounded time; a task not yet started by then is withdrawn, so the
    // caller's stack record is never touched after it returns.
    static bool IsMain() { return std::this_thread::get_id() == s_Current->Id(); }
    static void Run(void (*function)(void *), void *data)
    {
        MainLoop &loop = *s_Current;
        Task task{function, data};
        std::unique_lock<std::mutex> hold(loop.m_Lock);
        loop.m_Queue.push_back(&task);
        loop.m_Changed.notify_all();
        if (loop.m_Changed.wait_for(hold, kWaitLimit, [&] { return task.done; })) return;
        ADD_FAILURE() << "the main loop did not run the task in time";
        if (auto it = std::find(loop.m_Queue.begin(), loop.m_Queue.end(), &task); it != loop.m_Queue.end())
            loop.m_Queue.erase(it);
        else
            loop.m_Changed.wait(hold, [&] { return task.done; }); // already running: it finishes
    }

private:
    struct Task
    {
        void (*function)(void *);
        void *data;
        bool done = false;
    };

    void Serve()
    {
        std::unique_lock<std::mutex> hold(m_Lock);
        while (m_Changed.wait(hold, [this] { return m_Quit || !m_Queue.empty(); }), !m_Queue.empty())
        {
            Task *task = m_Queue.front();
            m_Queue.pop_front();
            hold.unlock();
            task->function(task->data);
            hold.lock();
            task->done = true;
            m_Changed.notify_all();
        }
    }

    static MainLoop *s_Current;
    std::mutex m_Lock;
    std::condition_variable m_Changed; // a task posted or done, or the end
    std::deque<Task *> m_Queue;
    bool m_Quit = false;
    std::thread m_Thread;
};
MainLoop *MainLoop::s_Current = nullptr;

class Worker : public Scripted
{
public:
    Worker() { _SetScriptInfo(this, s_Info); }
    static ScriptInfoT<Worker> s_Info;
};

// Each handler answers with whether it ran on the thread the test expects, and counts its calls.
std::thread::id s_Expected;
int s_Calls = 0;
void Report(void *, ScriptArgs &args, ScriptSymbol *, bool)
{
    ++s_Calls;
    args.ReturnBoolean(std::this_thread::get_id() == s_Expected);
}

ScriptInfoT<Worker> Worker::s_Info(1, "Worker");
ScriptSymbol s_OnMain(1, "OnMain", SST_Function | SSF_MainThread, Report, Worker::s_Info);
ScriptSymbol s_Anywhere(1, "Anywhere", SST_Function, Report, Worker::s_Info);
ScriptSymbol s_WriteOnMain(1, "WriteOnMain", SST_Variable | SSF_Read | SSF_Write | SSF_MainThreadWrite,
                           Report, Worker::s_Info);
ScriptSymbol s_ReadOnMain(1, "ReadOnMain", SST_Variable | SSF_Read | SSF_MainThread, Report, Worker::s_Info);

// Calls `symbol` and tells whether its handler ran on `expected`.
bool RanOn(ScriptSymbol &symbol, Worker &worker, std::thread::id expected, bool set = false)
{
    s_Expected = expected;
    const int before = s_Calls;
    ScriptArgs args;
    symbol.Call(&worker, args, set);
    return s_Calls == before + 1 && NumReturns(args) == 1 && args.FindKeyConst(-1).ToBoolean();
}

TEST(SymbolCallWithoutMainThread, EveryMemberRunsOnTheCaller)
{
    SetMainThreadHooks(MainThreadHooks());
    Worker worker;
    const std::thread::id here = std::this_thread::get_id();
    EXPECT_TRUE(RanOn(s_OnMain, worker, here));

    bool onOther = false;
    std::thread other([&] { onOther = RanOn(s_OnMain, worker, std::this_thread::get_id()); });
    other.join();
    EXPECT_TRUE(onOther);
}

class SymbolCallWithMainThread : public ::testing::Test
{
protected:
    void SetUp() override
    {
        MainThreadHooks hooks;
        hooks.isMainThread = MainLoop::IsMain;
        hooks.runOnMainThread = MainLoop::Run;
        SetMainThreadHooks(hooks);
    }
    void TearDown() override { SetMainThreadHooks(MainThreadHooks()); }

    MainLoop m_Main;
    Worker m_Worker;
};

// Flagged members run on the main thread while the caller waits; read and write flags apply separately.
TEST_F(SymbolCallWithMainThread, FlaggedMembersRunOnTheMainThreadWhileTheCallerWaits)
{
    const struct
    {
        ScriptSymbol &symbol;
        bool set, onMain;
    } cases[] = {{s_OnMain, false, true},       {s_Anywhere, false, false},  {s_WriteOnMain, true, true},
                 {s_WriteOnMain, false, false}, {s_ReadOnMain, false, true}, {s_ReadOnMain, true, false}};
    for (const auto &c : cases)
        EXPECT_TRUE(RanOn(c.symbol, m_Worker, c.onMain ? m_Main.Id() : std::this_thread::get_id(), c.set))
            << c.symbol.m_Name.Text() << (c.set ? " set" : " get");
}

TEST_F(SymbolCallWithMainThread, CallOnTheMainThreadRunsDirectly)
{
    struct Job
    {
        Worker *worker;
        std::thread::id main;
        bool ok = false;
    } job{&m_Worker, m_Main.Id()};
    // A nested hand-over from the main thread to itself would never finish.
    RunOnMainThread(
        [](void *data)
        {
            auto *j = static_cast<Job *>(data);
            j->ok = RanOn(s_OnMain, *j->worker, j->main);
        },
        &job);
    EXPECT_TRUE(job.ok);
}

TEST_F(SymbolCallWithMainThread, MemberReadOfAFlaggedVariableGoesToTheMainThread)
{
    s_Expected = m_Main.Id();
    ScriptArgs args;
    args.FindKey(0) = "ReadOnMain";
    RunSpecial(&m_Worker, SST_GetTable, args);
    ASSERT_EQ(NumReturns(args), 1);
    EXPECT_TRUE(args.FindKeyConst(-1).ToBoolean());
}

} // namespace
} // namespace orvexScript
