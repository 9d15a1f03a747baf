// Tests of Lock, SpinLock, Event, EventQueue and Thread, with real threads: recursion, exclusion under
// contention, the auto-reset rule, the queue's drain loop, and a thread's life from Start to ~Thread.
// Every wait is bounded; time is only checked against generous bounds.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "values/EventQueue.h"
#include "values/Lock.h"
#include "values/Platform.h"
#include "values/Thread.h"

namespace orvexScript
{
namespace
{

using Clock = std::chrono::steady_clock;

// Polls `done` every millisecond for at most `limitMs`; gives its last answer.
template <class F> bool WaitUntil(F done, int limitMs = 5000)
{
    const auto deadline = Clock::now() + std::chrono::milliseconds(limitMs);
    while (!done())
    {
        if (Clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// Holds `lock` twice on this thread and checks that another thread gets it only after both releases.
template <class L> void ExpectRecursiveExclusion(L &lock)
{
    lock.ObtainLock();
    lock.ObtainLock();
    std::atomic<bool> taken{false};
    std::thread other(
        [&]
        {
            lock.ObtainLock();
            taken = true;
            lock.ReleaseLock();
        });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(taken);
    lock.ReleaseLock();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(taken);
    lock.ReleaseLock();
    EXPECT_TRUE(WaitUntil([&] { return taken.load(); }));
    other.join();
}

// Several threads add to a plain counter under `lock`, each hold taken recursively.
template <class L> void ExpectNoLostUpdates(L &lock, int threads, int rounds)
{
    long counter = 0;
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t)
        workers.emplace_back(
            [&]
            {
                for (int i = 0; i < rounds; ++i)
                {
                    lock.ObtainLock();
                    lock.ObtainLock();
                    long seen = counter;
                    std::this_thread::yield();
                    counter = seen + 1;
                    lock.ReleaseLock();
                    lock.ReleaseLock();
                }
            });
    for (auto &worker : workers)
        worker.join();
    EXPECT_EQ(counter, static_cast<long>(threads) * rounds);
}

TEST(Lock, IsRecursiveAndExcludesOtherThreads)
{
    Lock lock;
    ExpectRecursiveExclusion(lock);
}

TEST(Lock, NoLostUpdatesUnderContention)
{
    Lock lock;
    ExpectNoLostUpdates(lock, 4, 2000);
}

TEST(Lock, PassesToTheNextWaiterWhenItsOwnerEndsHoldingIt)
{
    // On the heap: if the waiter never gets the lock it is left blocked on it, so the lock must outlive
    // the test.
    auto *lock = new Lock;
    std::thread([lock] { lock->ObtainLock(), lock->ObtainLock(); }).join(); // ends holding it twice
    std::atomic<bool> taken{false};
    std::thread waiter(
        [lock, &taken]
        {
            lock->ObtainLock();
            taken = true;
            lock->ReleaseLock();
        });
    if (!WaitUntil([&] { return taken.load(); }, 2000))
    {
        waiter.detach();
        FAIL() << "the lock of a thread that ended stays held";
    }
    waiter.join();
    ExpectRecursiveExclusion(*lock); // and it works as before
    delete lock;
}

TEST(SpinLock, IsTwoZeroWordsAndRecordsOwnerAndDepth)
{
    static_assert(sizeof(SpinLock) == 8);
    SpinLock lock;
    EXPECT_EQ(lock.m_Owner, 0u);
    lock.ObtainLock();
    lock.ObtainLock();
    EXPECT_EQ(lock.m_Owner, Platform::CurrentThreadId());
    EXPECT_EQ(lock.m_Depth, 2u);
    lock.ReleaseLock();
    EXPECT_EQ(lock.m_Owner, Platform::CurrentThreadId());
    lock.ReleaseLock();
    EXPECT_EQ(lock.m_Owner, 0u);
    EXPECT_EQ(lock.m_Depth, 0u);
}

TEST(SpinLock, IsRecursiveAndExcludesOtherThreads)
{
    SpinLock lock;
    ExpectRecursiveExclusion(lock);
}

TEST(SpinLock, NoLostUpdatesUnderContention)
{
    SpinLock lock;
    ExpectNoLostUpdates(lock, 3, 300);
    EXPECT_EQ(lock.m_Owner, 0u);
    EXPECT_EQ(lock.m_Depth, 0u);
}

TEST(Event, OneSignalSatisfiesOneWait)
{
    Event event;
    EXPECT_FALSE(event.Wait(0));
    event.Signal();
    event.Signal(); // signals don't count
    EXPECT_TRUE(event.Wait(0));
    EXPECT_FALSE(event.Wait(0));
    event.Signal();
    event.Reset();
    EXPECT_FALSE(event.Wait(0));
}

TEST(Event, TimedWaitTimesOutAfterAboutItsTime)
{
    Event event;
    const auto start = Clock::now();
    EXPECT_FALSE(event.Wait(60));
    const auto waited = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
    EXPECT_GE(waited, 55);
    EXPECT_LT(waited, 5000);
}

TEST(Event, SignalWakesExactlyOneOfTwoWaiters)
{
    Event event;
    std::atomic<int> woken{0};
    auto waiter = [&]
    {
        if (event.Wait(5000)) ++woken;
    };
    std::thread a(waiter), b(waiter);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    event.Signal();
    EXPECT_TRUE(WaitUntil([&] { return woken.load() >= 1; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(woken.load(), 1);
    event.Signal();
    a.join();
    b.join();
    EXPECT_EQ(woken.load(), 2);
}

TEST(Event, BackToBackSignalsReleaseTwoWaitingThreads)
{
    Event event;
    std::atomic<int> woken{0};
    auto waiter = [&]
    {
        if (event.Wait(5000)) ++woken;
    };
    std::thread a(waiter), b(waiter);
    std::this_thread::sleep_for(std::chrono::milliseconds(100)); // both are inside Wait by now
    event.Signal();
    event.Signal();
    a.join();
    b.join();
    EXPECT_EQ(woken.load(), 2);
    EXPECT_FALSE(event.Wait(0)); // both signals were taken: nothing is left set
}

TEST(Event, UnlimitedWaitEndsOnSignalFromAnotherThread)
{
    Event event;
    std::thread signaller(
        [&]
        {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            event.Signal();
        });
    EXPECT_TRUE(event.Wait(Event::NoTimeout));
    signaller.join();
}

struct CountedNode : QueueNode
{
    CountedNode(unsigned long kind, std::atomic<int> &destroyed) : QueueNode(kind), m_Destroyed(destroyed) {}
    ~CountedNode() override { ++m_Destroyed; }
    std::atomic<int> &m_Destroyed;
};

TEST(EventQueue, TwoPutsOneWaitThenBothGetsInOrder)
{
    std::atomic<int> destroyed{0};
    EventQueue queue;
    QueueNode *first = new CountedNode(1, destroyed);
    QueueNode *second = new CountedNode(2, destroyed);
    queue.Put(first);
    queue.Put(second);
    EXPECT_TRUE(queue.Wait(0));
    EXPECT_EQ(queue.Get(), first);
    EXPECT_EQ(queue.Get(), second);
    EXPECT_FALSE(queue.Wait(0));
    EXPECT_EQ(queue.Get(), nullptr);
    EXPECT_EQ(first->m_Kind, 1u);

    // Reply of the base class destroys the node, through the most derived destructor.
    first->Reply();
    second->Reply();
    EXPECT_EQ(destroyed.load(), 2);
}

TEST(EventQueue, PutAfterDrainLeavesSignalForAnEmptyWake)
{
    EventQueue queue;
    queue.Put(new QueueNode(7));
    QueueNode *node = queue.Get(); // taken before any Wait: the signal stays set
    ASSERT_NE(node, nullptr);
    node->Reply();
    EXPECT_TRUE(queue.Wait(0));
    EXPECT_EQ(queue.Get(), nullptr);
}

TEST(EventQueue, ManyProducersOneConsumerLoseNothing)
{
    constexpr int producers = 3, perProducer = 400;
    std::atomic<int> destroyed{0};
    EventQueue queue;
    std::vector<std::thread> threads;
    for (int p = 0; p < producers; ++p)
        threads.emplace_back(
            [&, p]
            {
                for (int i = 0; i < perProducer; ++i)
                    queue.Put(new CountedNode(static_cast<unsigned long>(p * perProducer + i), destroyed));
            });

    std::vector<int> lastSeen(producers, -1);
    bool ordered = true;
    int received = 0;
    const auto deadline = Clock::now() + std::chrono::seconds(20);
    while (received < producers * perProducer && Clock::now() < deadline)
    {
        (void)queue.Wait(100); // the loop checks the count and the deadline itself
        while (QueueNode *node = queue.Get())
        {
            const int kind = static_cast<int>(node->m_Kind);
            ordered = ordered && kind > lastSeen[kind / perProducer]; // each producer's order is kept
            lastSeen[kind / perProducer] = kind;
            ++received;
            node->Reply();
        }
    }
    for (auto &thread : threads)
        thread.join();
    EXPECT_EQ(received, producers * perProducer);
    EXPECT_TRUE(ordered);
    EXPECT_EQ(destroyed.load(), producers * perProducer);
}

// ---- Thread ---------------------------------------------------------------------------------------

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
        EXPECT_EQ(thread.GetThreadId(), 0u);
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

TEST(Thread, RunsUntilMainReturnsAndIsARefObject)
{
    auto *thread = new GatedThread;
    thread->Start("gated test");
    ASSERT_TRUE(WaitUntil([&] { return thread->m_Entered.load(); }));
    EXPECT_TRUE(thread->IsRunning());
    EXPECT_NE(thread->GetThreadId(), 0u);
    thread->Start(); // already running: no second thread
    thread->Suspend();
    thread->Resume();
    thread->Stop();
    EXPECT_TRUE(thread->IsRunning());
    thread->m_Go.Signal();
    EXPECT_TRUE(WaitUntil([&] { return !thread->IsRunning(); }));
    thread->Recycle(); // count 1 to 0 destroys it
}

TEST(Thread, DestructorWaitsForAMainThatIsEnding)
{
    auto *thread = new GatedThread;
    thread->Start();
    ASSERT_TRUE(WaitUntil([&] { return thread->m_Entered.load(); }));
    const auto start = Clock::now();
    delete thread; // its destructor signals, the base joins
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(5));
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

Event g_Release;
std::atomic<bool> g_StuckEntered{false};
std::atomic<bool> g_StuckLeft{false};

// A Main that ignores every request to stop; it touches no member once it waits.
class StuckThread : public Thread
{
protected:
    unsigned long Main() override
    {
        g_StuckEntered = true;
        (void)g_Release.Wait(60000); // bounded; released by the test or given up on
        g_StuckLeft = true;
        return 0;
    }
};

TEST(Thread, DestructorGivesUpOnAStuckThreadAfterTenSeconds)
{
    auto *thread = new StuckThread;
    thread->Start("stuck test");
    ASSERT_TRUE(WaitUntil([] { return g_StuckEntered.load(); }));
    const auto start = Clock::now();
    delete thread;
    const auto waited = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
    EXPECT_GE(waited, 9500);
    EXPECT_LT(waited, 40000);
    EXPECT_FALSE(g_StuckLeft.load()); // detached, still running

    g_Release.Signal();
    EXPECT_TRUE(WaitUntil([] { return g_StuckLeft.load(); }));
    Platform::SleepMs(50);
}

} // namespace
} // namespace orvexScript
