// Linux bodies of values/Platform.h: gettid, nanosleep, CLOCK_MONOTONIC and pthreads.
// Joining with a time-out uses pthread_clockjoin_np on the monotonic clock, so wall-clock jumps don't
// shorten or stretch the wait.

#include "values/base/Platform.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <new>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace orvexScript::Platform
{

struct ThreadHandle
{
    pthread_t thread;
};

namespace
{
// The calling thread's id, 0 until first asked for. The kernel gives the child of a fork new ids, so the
// child's only thread forgets the one it copied from its parent.
constinit thread_local uint32_t t_ThreadId = 0;

void ForgetThreadIdInChild()
{
    t_ThreadId = 0;
}

[[gnu::noinline]] uint32_t LookUpThreadId()
{
    static const bool s_ForkHandler = ::pthread_atfork(nullptr, nullptr, ForgetThreadIdInChild) == 0;
    (void)s_ForkHandler;
    t_ThreadId = static_cast<uint32_t>(::syscall(SYS_gettid));
    return t_ThreadId;
}
} // namespace

uint32_t CurrentThreadId()
{
    const uint32_t id = t_ThreadId;
    return id != 0 ? id : LookUpThreadId();
}

void SleepMs(uint32_t ms)
{
    timespec request{static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000L};
    while (::nanosleep(&request, &request) != 0 && errno == EINTR)
    {
    }
}

uint32_t TickMs()
{
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    uint64_t ms = static_cast<uint64_t>(now.tv_sec) * 1000u + static_cast<uint64_t>(now.tv_nsec) / 1000000u;
    return static_cast<uint32_t>(ms);
}

void SetCurrentThreadName(const char *name)
{
    if (!name) return;
    char shortName[16]; // the kernel keeps 15 characters and the terminator
    std::strncpy(shortName, name, sizeof(shortName) - 1);
    shortName[sizeof(shortName) - 1] = 0;
    ::pthread_setname_np(::pthread_self(), shortName);
}

namespace
{
struct StartRecord
{
    ThreadEntry entry;
    void *arg;
};

void *RunEntry(void *raw)
{
    StartRecord record = *static_cast<StartRecord *>(raw);
    delete static_cast<StartRecord *>(raw);
    record.entry(record.arg);
    return nullptr;
}
} // namespace

ThreadHandle *StartThread(ThreadEntry entry, void *arg)
{
    auto *record = new (std::nothrow) StartRecord{entry, arg};
    auto *handle = new (std::nothrow) ThreadHandle{};
    if (!record || !handle || ::pthread_create(&handle->thread, nullptr, RunEntry, record) != 0)
    {
        delete record;
        delete handle;
        return nullptr;
    }
    return handle;
}

bool JoinThread(ThreadHandle *handle, uint32_t timeoutMs)
{
    if (!handle) return true;
    int rc;
    if (timeoutMs == 0xFFFFFFFFu)
        rc = ::pthread_join(handle->thread, nullptr);
    else
    {
        timespec deadline{};
        ::clock_gettime(CLOCK_MONOTONIC, &deadline);
        deadline.tv_sec += static_cast<time_t>(timeoutMs / 1000);
        deadline.tv_nsec += static_cast<long>(timeoutMs % 1000) * 1000000L;
        if (deadline.tv_nsec >= 1000000000L)
        {
            deadline.tv_sec += 1;
            deadline.tv_nsec -= 1000000000L;
        }
        rc = ::pthread_clockjoin_np(handle->thread, nullptr, CLOCK_MONOTONIC, &deadline);
    }
    if (rc == ETIMEDOUT) return false;
    delete handle;
    return true;
}

void DetachThread(ThreadHandle *handle)
{
    if (!handle) return;
    ::pthread_detach(handle->thread);
    delete handle;
}

} // namespace orvexScript::Platform
