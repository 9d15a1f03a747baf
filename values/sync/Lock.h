// Locks and the auto-reset event: Lock (recursive, blocking), SpinLock (recursive, two words, sleeps
// 1 ms per attempt) and Event. SpinLock alone stands in the global namespace. None of these has a timed
// lock or reports an error.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "values/base/Export.h"

namespace orvexScript
{

// A recursive lock owned by a thread; waits in the kernel. A lock whose owner ended without releasing
// it passes to the next thread that obtains it.
class ORVEX_API Lock
{
public:
    Lock();
    Lock(const Lock &) = delete;
    Lock &operator=(const Lock &) = delete;
    virtual ~Lock();

    void ObtainLock();
    // Gives up one hold; only the owner calls it.
    void ReleaseLock();

    static constexpr unsigned kMutexSize = 40; // a pthread mutex on 64-bit Linux

private:
    alignas(void *) unsigned char m_Mutex[kMutexSize]; // a recursive, robust mutex (linux/Lock.cpp)
};

// An auto-reset event that starts unsignalled: one Signal lets one Wait through and resets. A Signal
// while threads wait releases one of them; with none waiting it leaves the event set, and signals don't
// add up. So two Signals release two threads that are both waiting, however quickly they follow.
class ORVEX_API Event
{
public:
    static constexpr unsigned long NoTimeout = 0xFFFFFFFFul;

    Event() = default;
    Event(const Event &) = delete;
    Event &operator=(const Event &) = delete;
    virtual ~Event();

    void Signal();
    // Waits at most `timeoutMs` (NoTimeout or more: no limit). False only on a time-out; a wait that is
    // satisfied resets the event.
    [[nodiscard]] bool Wait(unsigned long timeoutMs);
    void Reset();

private:
    std::mutex m_Mutex;
    std::condition_variable m_Changed; // waits on the monotonic clock
    bool m_Signalled = false;
    unsigned m_Waiters = 0;  // threads inside Wait
    unsigned m_Releases = 0; // signals handed to waiting threads, not yet taken
};

// A flag that threads set and one thread waits for, in one word: setting it wakes the waiter with one
// system call (none if nobody sleeps on it), and waiting neither spins nor takes a mutex. For hand-overs
// where the wake-up is on the critical path, such as a reply reaching the thread that waits for it.
class ORVEX_API WakeFlag
{
public:
    static constexpr unsigned long NoTimeout = 0xFFFFFFFFul;

    // Sets the flag and wakes a thread waiting for it.
    void Set();
    // Waits until the flag is set, at most `timeoutMs` (NoTimeout or more: no limit). True if it is set.
    // The flag stays set until Reset.
    [[nodiscard]] bool Wait(unsigned long timeoutMs);
    void Reset() { m_Word.store(0, std::memory_order_relaxed); }
    bool IsSet() const { return m_Word.load(std::memory_order_acquire) == kSet; }

private:
    static constexpr uint32_t kSet = 1;
    static constexpr uint32_t kSleeping = 2; // not set, and a thread sleeps on the word
    std::atomic<uint32_t> m_Word{0};
};

// The recursive spinning lock algorithm on two 32-bit words of the caller, shared by SpinLock and
// TagList. `owner` is 0 when free, the owner's thread id, or all ones while a thread changes the lock;
// `depth` is touched only while `owner` holds all ones.
namespace SpinWords
{
ORVEX_API void Obtain(uint32_t &owner, uint32_t &depth);
ORVEX_API void Release(uint32_t &owner, uint32_t &depth);
} // namespace SpinWords

} // namespace orvexScript

// A recursive lock of two words and no kernel object; waiters sleep 1 ms per attempt, in no order.
class ORVEX_API SpinLock
{
public:
    SpinLock() = default;
    void ObtainLock() { orvexScript::SpinWords::Obtain(m_Owner, m_Depth); }
    // Gives up one hold; only the owner calls it.
    void ReleaseLock() { orvexScript::SpinWords::Release(m_Owner, m_Depth); }

    uint32_t m_Owner = 0; // 0 free, else the owner's thread id; 0xFFFFFFFF while being changed
    uint32_t m_Depth = 0; // how many times the owner holds it
};
