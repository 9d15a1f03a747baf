// Body of Thread. The record is shared between the object and its running thread (a count of two while
// the thread runs), so a thread that outlives its object after the destructor's wait never touches freed
// bookkeeping. The running thread also holds a use of its object from Start until Main returns, so the
// last Recycle of a running thread's owners doesn't destroy it under Main; the object then goes when Main
// returns, on its own thread. Only an object deleted directly can still meet the destructor's wait.

#include "values/model/Thread.h"

#include <atomic>
#include <cstdio>
#include <mutex>
#include <new>
#include <string>
#include <utility>

#include "values/base/Platform.h"
#include "values/sync/Lock.h"

namespace orvexScript
{

struct Thread::Record
{
    Thread *owner = nullptr; // null once the destructor no longer lets the thread touch the object
    std::atomic<Platform::ThreadHandle *> handle{nullptr}; // null unless started and Main hasn't returned
    std::atomic<uint32_t> id{0};
    std::atomic<int> refs{1};
    std::mutex handleMutex; // Start's store of the handle comes before the thread's clearing of it
    Event idReady;
    std::string name;
    unsigned long exitCode = 0;
    // After a destructor gave up on this thread: whether Main has returned since, and the object's
    // memory, kept for the thread to free once it has.
    bool mainReturned = false;
    void *block = nullptr;
    bool blockAligned = false;
    std::align_val_t blockAlignment{};

    void Release()
    {
        if (refs.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
    }
};

namespace
{
std::atomic<uint32_t> s_StopWaitMs{Thread::StopWaitMs};

// The record of an object whose destructor gave up waiting on this thread, until that object's operator
// delete takes it (right after the destructor). Holds one count of the record.
thread_local void *t_GivenUp = nullptr;

void FreeBlock(void *block, bool aligned, std::align_val_t alignment)
{
    if (aligned)
        ::operator delete(block, alignment);
    else
        ::operator delete(block);
}
} // namespace

void Thread::SetStopWaitMs(uint32_t ms)
{
    s_StopWaitMs.store(ms);
}

uint32_t Thread::GetStopWaitMs()
{
    return s_StopWaitMs.load();
}

Thread::Thread() : m_Record(new Record)
{
    m_Record->owner = this;
}

Thread::~Thread()
{
    // A give-up left by an object that was no heap object of ours (it got no operator delete of ours).
    if (void *stale = std::exchange(t_GivenUp, nullptr)) static_cast<Record *>(stale)->Release();

    Platform::ThreadHandle *handle;
    {
        std::lock_guard<std::mutex> guard(m_Record->handleMutex);
        handle = m_Record->handle.exchange(nullptr);
    }
    bool gaveUp = false;
    if (handle)
    {
        const uint32_t id = m_Record->id.load();
        const uint32_t waitMs = GetStopWaitMs();
        if (id == Platform::CurrentThreadId())
            Platform::DetachThread(handle); // destroyed from its own Main: it can't wait for itself
        else if (!Platform::JoinThread(handle, waitMs))
        {
            std::fprintf(stderr, "orvexScript: thread %u did not end within %u ms; it is left running\n", id,
                         waitMs);
            Platform::DetachThread(handle);
            gaveUp = true;
        }
    }
    {
        std::lock_guard<std::mutex> guard(m_Record->handleMutex);
        m_Record->owner = nullptr;
    }
    if (gaveUp)
        t_GivenUp = m_Record; // our count goes to operator delete, which keeps the memory for Main
    else
        m_Record->Release();
}

void *Thread::operator new(std::size_t size)
{
    return ::operator new(size);
}

void *Thread::operator new(std::size_t size, std::align_val_t alignment)
{
    return ::operator new(size, alignment);
}

void Thread::operator delete(void *block)
{
    TakeBlock(block, false, std::align_val_t{});
}

void Thread::operator delete(void *block, std::align_val_t alignment)
{
    TakeBlock(block, true, alignment);
}

void Thread::TakeBlock(void *block, bool aligned, std::align_val_t alignment)
{
    Record *record = static_cast<Record *>(std::exchange(t_GivenUp, nullptr));
    if (record)
    {
        std::lock_guard<std::mutex> guard(record->handleMutex);
        if (!record->mainReturned)
        {
            // Main still runs on this memory: its thread frees it when Main returns.
            record->block = block;
            record->blockAligned = aligned;
            record->blockAlignment = alignment;
            block = nullptr;
        }
    }
    if (block) FreeBlock(block, aligned, alignment);
    if (record) record->Release();
}

void Thread::Entry(void *raw)
{
    Record *record = static_cast<Record *>(raw);
    if (!record->name.empty()) Platform::SetCurrentThreadName(record->name.c_str());
    record->id.store(Platform::CurrentThreadId());
    record->idReady.Signal();
    {
        // Start holds this until the handle is stored, so the clearing below can't come first.
        std::lock_guard<std::mutex> guard(record->handleMutex);
    }
    record->exitCode = record->owner->Main();

    Platform::ThreadHandle *handle;
    Thread *destroy = nullptr;
    void *block;
    {
        std::lock_guard<std::mutex> guard(record->handleMutex);
        handle = record->handle.exchange(nullptr);
        record->id.store(0);
        // A handle still here means no destructor has begun on the object: drop the use that Start took.
        // Otherwise the destructor owns the end and the object is not touched again.
        if (handle && record->owner->m_UseCount.fetch_sub(1, std::memory_order_acq_rel) == 1)
            destroy = record->owner;
        record->mainReturned = true;
        block = std::exchange(record->block, nullptr);
    }
    // Null if the destructor took the handle and waits for us; otherwise nobody will join this thread.
    if (handle) Platform::DetachThread(handle);
    if (block) FreeBlock(block, record->blockAligned, record->blockAlignment);
    delete destroy; // the last use was ours: the object goes on this thread, its handle already clear
    record->Release();
}

void Thread::Start()
{
    Start(nullptr);
}

void Thread::Start(const char *name)
{
    Record *record = m_Record;
    std::lock_guard<std::mutex> guard(record->handleMutex);
    if (record->handle.load()) return; // already running
    record->name = name ? name : "";
    record->idReady.Reset();
    record->refs.fetch_add(1, std::memory_order_relaxed);
    m_UseCount.fetch_add(1, std::memory_order_relaxed); // the running thread's use of its object
    Platform::ThreadHandle *handle = Platform::StartThread(&Thread::Entry, record);
    if (!handle)
    {
        m_UseCount.fetch_sub(1, std::memory_order_relaxed);
        record->refs.fetch_sub(1, std::memory_order_relaxed);
        return;
    }
    record->handle.store(handle);
    (void)record->idReady.Wait(Event::NoTimeout); // without a limit it returns only when signalled
}

void Thread::Suspend() {}

void Thread::Resume() {}

void Thread::Stop() {}

bool Thread::IsRunning() const
{
    return m_Record->handle.load() != nullptr;
}

uint32_t Thread::GetThreadId() const
{
    return m_Record->id.load();
}

} // namespace orvexScript
