// The few operating-system services that the value layer needs: thread ids, sleeping, a millisecond tick
// and raw threads. The Linux bodies live in linux/Platform.cpp; nothing here includes a system header.
#pragma once

#include <cstdint>

namespace orvexScript::Platform
{

// The calling thread's id as the kernel knows it (never 0, never 0xFFFFFFFF). Cached per thread; the
// child of a fork gets its own.
uint32_t CurrentThreadId();

// Sleeps the calling thread for about `ms` milliseconds.
void SleepMs(uint32_t ms);

// Milliseconds of the monotonic clock, cut to 32 bits (wraps after about 49 days).
uint32_t TickMs();

// Names the calling thread for debuggers and `ps`; long names are cut to what the system keeps.
void SetCurrentThreadName(const char *name);

// An operating-system thread, opaque to callers. Each handle is given back exactly once, by a
// successful JoinThread or by DetachThread.
struct ThreadHandle;
using ThreadEntry = void (*)(void *arg);

// Starts a thread with the default stack size that runs entry(arg). Null if it could not be made.
ThreadHandle *StartThread(ThreadEntry entry, void *arg);

// Waits at most `timeoutMs` (0xFFFFFFFF: no limit) for the thread to end. True when it ended, and the
// handle is then gone; false on a time-out, and the handle is still the caller's.
[[nodiscard]] bool JoinThread(ThreadHandle *handle, uint32_t timeoutMs);

// Lets the thread run on by itself; its resources go when it ends. The handle is gone.
void DetachThread(ThreadHandle *handle);

} // namespace orvexScript::Platform
