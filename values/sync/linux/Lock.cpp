// Bodies of Lock, Event and the spinning lock words. The spin algorithm works by full-barrier exchanges
// on the owner word alone; the depth word is guarded by the owner word holding all ones.

#include "values/sync/Lock.h"

#include <linux/futex.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>

#include "values/base/Platform.h"

namespace orvexScript
{

namespace
{
// Lock keeps its mutex as bytes, so that its header shows no system type.
pthread_mutex_t *Native(unsigned char *storage)
{
    static_assert(sizeof(pthread_mutex_t) <= Lock::kMutexSize && alignof(pthread_mutex_t) <= alignof(void *));
    return reinterpret_cast<pthread_mutex_t *>(storage);
}
} // namespace

Lock::Lock()
{
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    // Robust, so that a thread that ends while holding the lock doesn't block every later waiter.
    pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
    pthread_mutex_init(Native(m_Mutex), &attributes);
    pthread_mutexattr_destroy(&attributes);
}

Lock::~Lock()
{
    pthread_mutex_destroy(Native(m_Mutex));
}

void Lock::ObtainLock()
{
    // The owner ended holding the lock: it is ours now, held once, and usable again.
    if (pthread_mutex_lock(Native(m_Mutex)) == EOWNERDEAD) pthread_mutex_consistent(Native(m_Mutex));
}

void Lock::ReleaseLock()
{
    pthread_mutex_unlock(Native(m_Mutex));
}

Event::~Event() = default;

void Event::Signal()
{
    // Notified under the lock: a waiter that sees the flag may destroy the event as soon as it has the
    // lock (a reply event on its stack), so nothing here may touch the event after the lock is gone.
    std::lock_guard<std::mutex> guard(m_Mutex);
    if (m_Waiters > m_Releases)
    {
        ++m_Releases;
        m_Changed.notify_one();
    }
    else
        m_Signalled = true;
}

bool Event::Wait(unsigned long timeoutMs)
{
    std::unique_lock<std::mutex> guard(m_Mutex);
    if (m_Signalled)
    {
        m_Signalled = false;
        return true;
    }
    ++m_Waiters;
    auto released = [this] { return m_Releases > 0; };
    bool got = true;
    if (timeoutMs >= NoTimeout)
        m_Changed.wait(guard, released);
    else
        got = m_Changed.wait_for(guard, std::chrono::milliseconds(timeoutMs), released);
    --m_Waiters;
    if (got) --m_Releases;
    return got;
}

void Event::Reset()
{
    std::lock_guard<std::mutex> guard(m_Mutex);
    m_Signalled = false;
}

// ---- WakeFlag ------------------------------------------------------------------------------------

namespace
{
long Futex(std::atomic<uint32_t> &word, int operation, uint32_t value, const timespec *timeout)
{
    static_assert(sizeof(std::atomic<uint32_t>) == sizeof(uint32_t));
    return ::syscall(SYS_futex, reinterpret_cast<uint32_t *>(&word), operation | FUTEX_PRIVATE_FLAG, value, timeout,
                     nullptr, 0);
}
} // namespace

void WakeFlag::Set()
{
    if (m_Word.exchange(kSet, std::memory_order_acq_rel) == kSleeping) (void)Futex(m_Word, FUTEX_WAKE, 1, nullptr);
}

bool WakeFlag::Wait(unsigned long timeoutMs)
{
    using Clock = std::chrono::steady_clock;
    const bool forever = timeoutMs >= NoTimeout;
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(forever ? 0 : timeoutMs);
    for (;;)
    {
        uint32_t word = m_Word.load(std::memory_order_acquire);
        if (word == kSet) return true;
        if (word == 0 && !m_Word.compare_exchange_strong(word, kSleeping, std::memory_order_acq_rel))
            continue; // set meanwhile, or another thread announced its sleep: look again
        timespec limit{};
        if (!forever)
        {
            const auto left = deadline - Clock::now();
            if (left <= Clock::duration::zero()) return m_Word.load(std::memory_order_acquire) == kSet;
            const auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(left).count();
            limit.tv_sec = static_cast<time_t>(ns / 1000000000);
            limit.tv_nsec = static_cast<long>(ns % 1000000000);
        }
        // Sleeps only while the word still says "sleeping": a Set in between returns at once.
        (void)Futex(m_Word, FUTEX_WAIT, kSleeping, forever ? nullptr : &limit);
    }
}

namespace SpinWords
{
namespace
{
constexpr uint32_t Busy = 0xFFFFFFFFu;

uint32_t Exchange(uint32_t &word, uint32_t value)
{
    return std::atomic_ref<uint32_t>(word).exchange(value, std::memory_order_seq_cst);
}

// Puts all ones into the owner word and gives what it held, waiting while another thread is inside.
uint32_t Enter(uint32_t &owner)
{
    for (;;)
    {
        uint32_t old = Exchange(owner, Busy);
        if (old != Busy) return old;
        Platform::SleepMs(1);
    }
}
} // namespace

void Obtain(uint32_t &owner, uint32_t &depth)
{
    const uint32_t self = Platform::CurrentThreadId();
    for (;;)
    {
        uint32_t old = Enter(owner);
        if (old == 0 || old == self)
        {
            ++depth;
            Exchange(owner, self);
            return;
        }
        Exchange(owner, old); // another thread holds it: put its id back and try again later
        Platform::SleepMs(1);
    }
}

void Release(uint32_t &owner, uint32_t &depth)
{
    Enter(owner);
    --depth;
    Exchange(owner, depth == 0 ? 0 : Platform::CurrentThreadId());
}

} // namespace SpinWords
} // namespace orvexScript
