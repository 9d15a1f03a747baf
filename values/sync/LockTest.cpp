// Tests of Lock, SpinLock, Event and EventQueue, with real threads: recursion, exclusion under
// contention, the auto-reset rule and the queue's drain loop.
// Every wait is bounded; time is only checked against generous bounds.

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "testsupport/TestSupport.h"
#include "values/sync/EventQueue.h"
#include "values/sync/Lock.h"
#include "values/base/Platform.h"

namespace orvexScript
{
namespace
{

using Clock = std::chrono::steady_clock;

using orvexTest::WaitUntil;

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

TEST(Lock, IsRecursiveExcludesOtherThreadsAndLosesNoUpdates)
{
    Lock lock;
    ExpectRecursiveExclusion(lock);
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
    delete lock;
}

TEST(SpinLock, ChildOfAForkOwnsWithItsOwnThreadId)
{
    const uint32_t parentId = Platform::CurrentThreadId(); // cached in the parent before the fork
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0)
    {
        // Only async-signal-safe work here; the verdict is the exit status.
        const uint32_t id = Platform::CurrentThreadId();
        SpinLock lock;
        lock.ObtainLock();
        const bool ok = id != parentId && id == static_cast<uint32_t>(::getpid()) && lock.m_Owner == id;
        ::_exit(ok ? 0 : 1);
    }
    int status = -1;
    ASSERT_TRUE(WaitUntil([&] { return ::waitpid(child, &status, WNOHANG) == child; }));
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0) << "the child saw its parent's thread id";
    EXPECT_EQ(Platform::CurrentThreadId(), parentId);
}

TEST(SpinLock, IsRecursiveExcludesOtherThreadsAndLosesNoUpdates)
{
    SpinLock lock;
    ExpectRecursiveExclusion(lock);
    ExpectNoLostUpdates(lock, 3, 300);
    EXPECT_TRUE(lock.m_Owner == 0u && lock.m_Depth == 0u); // free again
}

TEST(Event, OneSignalSatisfiesOneWaitAndTimedWaitsTimeOut)
{
    Event event;
    EXPECT_FALSE(event.Wait(0));
    event.Signal();
    event.Signal(); // signals don't count
    EXPECT_TRUE(event.Wait(0));
    EXPECT_FALSE(event.Wait(0));
    event.Signal();
    event.Reset();
    const auto start = Clock::now();
    EXPECT_FALSE(event.Wait(60));
    const auto waited = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
    EXPECT_GE(waited, 55);
    EXPECT_LT(waited, 5000);
}

// One signal wakes exactly one of two waiters; two back-to-back signals wake both and leave nothing set.
// One of the waiters waits without a limit.
TEST(Event, EachSignalWakesOneWaiter)
{
    for (bool backToBack : {false, true})
    {
        SCOPED_TRACE(backToBack ? "back to back" : "one at a time");
        Event event;
        std::atomic<int> woken{0};
        auto waiter = [&](unsigned long limit)
        {
            if (event.Wait(limit)) ++woken;
        };
        std::thread a(waiter, 5000ul), b(waiter, Event::NoTimeout);
        std::this_thread::sleep_for(std::chrono::milliseconds(100)); // both are inside Wait by now
        event.Signal();
        if (!backToBack)
        {
            EXPECT_TRUE(WaitUntil([&] { return woken.load() >= 1; }));
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            EXPECT_EQ(woken.load(), 1);
        }
        event.Signal();
        a.join();
        b.join();
        EXPECT_EQ(woken.load(), 2);
        EXPECT_FALSE(event.Wait(0));
    }
}

// A wake flag stays set until reset, times out unset, and wakes a thread that sleeps on it, with and
// without a time-out.
TEST(WakeFlag, WakesItsWaiterAndStaysSetUntilReset)
{
    WakeFlag flag;
    EXPECT_FALSE(flag.Wait(0));
    EXPECT_FALSE(flag.Wait(30));
    flag.Set();
    EXPECT_TRUE(flag.Wait(0) && flag.Wait(WakeFlag::NoTimeout) && flag.IsSet());
    flag.Reset();
    EXPECT_FALSE(flag.IsSet());
    for (unsigned long limit : {5000ul, WakeFlag::NoTimeout})
    {
        flag.Reset();
        std::atomic<bool> woken{false};
        std::thread waiter([&] { woken = flag.Wait(limit); });
        std::this_thread::sleep_for(std::chrono::milliseconds(50)); // asleep on the word by now
        flag.Set();
        waiter.join();
        EXPECT_TRUE(woken.load()) << limit;
    }
}

using CountedNode = orvexTest::DestroyCounted<QueueNode, std::atomic<int>>;

TEST(EventQueue, GetsInPutOrderAndADrainedSignalGivesAnEmptyWake)
{
    std::atomic<int> destroyed{0};
    EventQueue queue;
    QueueNode *first = new CountedNode(&destroyed, 1ul), *second = new CountedNode(&destroyed, 2ul);
    queue.Put(first);
    queue.Put(second);
    EXPECT_TRUE(queue.Wait(0));
    EXPECT_TRUE(queue.Get() == first && queue.Get() == second && queue.Get() == nullptr);
    EXPECT_FALSE(queue.Wait(0));
    first->Reply(); // the base class's Reply destroys the node, through the most derived destructor
    second->Reply();
    EXPECT_EQ(destroyed.load(), 2);

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
                    queue.Put(new CountedNode(&destroyed, static_cast<unsigned long>(p * perProducer + i)));
            });
    std::vector<int> lastSeen(producers, -1);
    bool ordered = true;
    int received = 0;
    const auto deadline = Clock::now() + std::chrono::seconds(20);
    while (received < producers * perProducer && Clock::now() < deadline)
    {
        (void)queue.Wait(100); // the loop checks the count and the deadline itself
        for (QueueNode *node; (node = queue.Get()); ++received, node->Reply())
        {
            const int kind = static_cast<int>(node->m_Kind);
            ordered = ordered && kind > lastSeen[kind / perProducer]; // each producer's order is kept
            lastSeen[kind / perProducer] = kind;
        }
    }
    for (auto &thread : threads)
        thread.join();
    EXPECT_EQ(received, producers * perProducer);
    EXPECT_TRUE(ordered);
    EXPECT_EQ(destroyed.load(), producers * perProducer);
}

} // namespace
} // namespace orvexScript
