// Tests of Thread with real threads: a thread's life from Start to ~Thread, a stop that waits, a
// thread that deletes itself, and one that outlives its bounded stop. Every wait is bounded; time is
// only checked against generous bounds.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "testsupport/TestSupport.h"
#include "values/base/Platform.h"
#include "values/model/Thread.h"
#include "values/sync/Lock.h"

namespace orvexScript
{
namespace
{

using Clock = std::chrono::steady_clock;

using orvexTest::WaitUntil;

class QuickThread : public Thread
{
public:
    std::atomic<int> m_Runs{0};
    std::atomic<uint32_t> m_SeenId{0};

protected:
    unsigned long Main() override
    {
        m_SeenId = Platform::CurrentThreadId();
        ++m_Runs;
        return 5;
    }
};

TEST(Thread, NotRunningBeforeStartAndAfterAnImmediateReturn)
{
    for (int round = 0; round < 50; ++round) // a Main that returns at once must never leave it true
    {
        QuickThread thread;
        EXPECT_FALSE(thread.IsRunning());
        thread.Start();
        ASSERT_TRUE(WaitUntil([&] { return !thread.IsRunning(); })) << "round " << round;
        EXPECT_EQ(thread.m_Runs.load(), 1);
        EXPECT_EQ(thread.GetThreadId(), 0u);
        EXPECT_NE(thread.m_SeenId.load(), Platform::CurrentThreadId());
    }
}

class GatedThread : public Thread
{
public:
    Event m_Go;
    std::atomic<bool> m_Entered{false};

    ~GatedThread() override
    {
        m_Go.Signal(); // stop our own Main before the base waits for it
        for (int i = 0; i < 5000 && IsRunning(); ++i)
            Platform::SleepMs(1);
    }

protected:
    unsigned long Main() override
    {
        m_Entered = true;
        (void)m_Go.Wait(10000); // bounded; the test checks what happened meanwhile
        return 0;
    }
};

// A thread runs until Main returns, and its last Recycle destroys it; a delete waits for a Main that
// is ending.
TEST(Thread, RunsUntilMainReturnsAndTheDestructorWaitsForIt)
{
    auto *thread = new GatedThread, *deleted = new GatedThread;
    thread->Start("gated test");
    deleted->Start();
    ASSERT_TRUE(WaitUntil([&] { return thread->m_Entered.load() && deleted->m_Entered.load(); }));
    EXPECT_TRUE(thread->IsRunning());
    EXPECT_NE(thread->GetThreadId(), 0u);
    const auto start = Clock::now();
    delete deleted; // its destructor signals, the base joins
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(5));
    thread->Start(); // already running: no second thread
    thread->Suspend();
    thread->Resume();
    thread->Stop();
    EXPECT_TRUE(thread->IsRunning());
    thread->m_Go.Signal();
    EXPECT_TRUE(WaitUntil([&] { return !thread->IsRunning(); }));
    thread->Recycle(); // count 1 to 0 destroys it
}

std::atomic<bool> g_SelfRecycled{false};

class SelfRecyclingThread : public Thread
{
protected:
    unsigned long Main() override
    {
        Recycle(); // the last use goes on the thread itself: the destructor must not wait for itself
        g_SelfRecycled = true;
        return 0;
    }
};

TEST(Thread, MayBeDestroyedFromItsOwnMain)
{
    auto *thread = new SelfRecyclingThread;
    thread->Start();
    EXPECT_TRUE(WaitUntil([] { return g_SelfRecycled.load(); }));
    Platform::SleepMs(50); // let the thread's epilogue finish before the test ends
}

// Sets the destructor's wait for one test.
class StopWaitFor
{
public:
    explicit StopWaitFor(uint32_t ms) : m_Saved(Thread::GetStopWaitMs()) { Thread::SetStopWaitMs(ms); }
    ~StopWaitFor() { Thread::SetStopWaitMs(m_Saved); }

private:
    uint32_t m_Saved;
};

Event g_Release;
std::atomic<bool> g_StuckEntered{false};
std::atomic<bool> g_StuckLeft{false};
std::atomic<uint32_t> g_DestroyedOn{0};

// A Main that ignores every request to stop, and still writes to its object when it is let go.
class StuckThread : public Thread
{
public:
    ~StuckThread() override { g_DestroyedOn = Platform::CurrentThreadId(); }
    long m_Rounds = 0;

protected:
    unsigned long Main() override
    {
        long *rounds = &m_Rounds; // reached without the object once it is let go
        g_StuckEntered = true;
        (void)g_Release.Wait(60000); // bounded; released by the test or given up on
        ++*rounds; // the object's memory must still be there
        g_StuckLeft = true;
        return 0;
    }
};

TEST(Thread, LastRecycleWhileMainRunsDefersTheEndToTheThread)
{
    g_StuckEntered = g_StuckLeft = false;
    g_DestroyedOn = 0;
    auto *thread = new StuckThread;
    thread->Start();
    ASSERT_TRUE(WaitUntil([] { return g_StuckEntered.load(); }));
    const uint32_t threadId = thread->GetThreadId();
    EXPECT_EQ(thread->GetUseCount(), 2); // ours and the running thread's
    const auto start = Clock::now();
    thread->Recycle(); // no wait here: the thread still holds its use
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(1));
    EXPECT_EQ(g_DestroyedOn.load(), 0u);

    g_Release.Signal();
    ASSERT_TRUE(WaitUntil([] { return g_DestroyedOn.load() != 0; }));
    EXPECT_EQ(g_DestroyedOn.load(), threadId); // destroyed by the thread once Main returned
    Platform::SleepMs(50);
}

TEST(Thread, DestructorGivesUpOnAStuckThreadAndItsMemoryOutlivesMain)
{
    g_StuckEntered = g_StuckLeft = false;
    StopWaitFor shortWait(200);
    auto *thread = new StuckThread;
    thread->Start("stuck test");
    ASSERT_TRUE(WaitUntil([] { return g_StuckEntered.load(); }));
    const auto start = Clock::now();
    ::testing::internal::CaptureStderr();
    delete thread;
    const std::string report = ::testing::internal::GetCapturedStderr();
    const auto waited = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
    EXPECT_GE(waited, 180);
    EXPECT_LT(waited, 5000);
    EXPECT_FALSE(report.empty());     // the give-up is reported
    EXPECT_FALSE(g_StuckLeft.load()); // detached, still running

    g_Release.Signal(); // Main writes to the object after its destructor: the memory is freed after that
    EXPECT_TRUE(WaitUntil([] { return g_StuckLeft.load(); }));
    Platform::SleepMs(50);
}

} // namespace
} // namespace orvexScript
