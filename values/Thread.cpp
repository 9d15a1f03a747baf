// Body of Thread. The record is shared between the object and its running thread (a count of two while
// the thread runs), so a thread that outlives its object after the destructor's wait never touches freed
// bookkeeping.

#include "values/Thread.h"

#include <atomic>
#include <cstdio>
#include <mutex>
#include <string>

#include "values/Lock.h"
#include "values/Platform.h"

namespace orvexScript
{

struct Thread::Record
{
    Thread *owner = nullptr;
    std::atomic<Platform::ThreadHandle *> handle{nullptr}; // null unless started and Main hasn't returned
    std::atomic<uint32_t> id{0};
    std::atomic<int> refs{1};
    std::mutex handleMutex; // Start's store of the handle comes before the thread's clearing of it
    Event idReady;
    std::string name;
    unsigned long exitCode = 0;

    void Release()
    {
        if (refs.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
    }
};

Thread::Thread() : m_Record(new Record)
{
    m_Record->owner = this;
}

Thread::~Thread()
{
    Platform::ThreadHandle *handle;
    {
        std::lock_guard<std::mutex> guard(m_Record->handleMutex);
        handle = m_Record->handle.exchange(nullptr);
    }
    if (handle)
    {
        const uint32_t id = m_Record->id.load();
        if (id == Platform::CurrentThreadId())
            Platform::DetachThread(handle); // destroyed from its own Main: it can't wait for itself
        else if (!Platform::JoinThread(handle, StopWaitMs))
        {
            std::fprintf(stderr, "orvexScript: thread %u did not end within %u ms; it is left running\n", id,
                         StopWaitMs);
            Platform::DetachThread(handle);
        }
    }
    m_Record->owner = nullptr;
    m_Record->Release();
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
    {
        std::lock_guard<std::mutex> guard(record->handleMutex);
        handle = record->handle.exchange(nullptr);
        record->id.store(0);
    }
    // Null if the destructor took the handle and waits for us; otherwise nobody will join this thread.
    if (handle) Platform::DetachThread(handle);
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
    Platform::ThreadHandle *handle = Platform::StartThread(&Thread::Entry, record);
    if (!handle)
    {
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
