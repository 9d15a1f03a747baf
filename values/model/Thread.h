// Thread: a RefObject that runs its abstract Main on an operating-system thread of its own.
// A thread ends only by Main returning; the subclass gives Main the means to be told to stop.
#pragma once

#include <cstddef>
#include <cstdint>
#include <new>

#include "values/base/Export.h"
#include "values/model/ScriptObject.h"

namespace orvexScript
{

class ORVEX_API Thread : public RefObject
{
public:
    Thread();
    Thread(const Thread &) = delete;
    Thread &operator=(const Thread &) = delete;
    // The running thread holds a use of its object from Start until Main returns, so an object whose
    // owners recycle it while Main runs goes when Main returns, on its own thread. An object deleted
    // directly while its thread runs waits for it at most GetStopWaitMs(); a thread that doesn't end by
    // then is detached and left to run (there is no forced end), and that is logged. The memory of such
    // a heap object stays until Main returns, but its members are destroyed: a subclass that must see Main
    // finished stops its thread in its own destructor.
    ~Thread() override;
    // The global allocation; delete frees the memory at once, or after Main returns if the destructor
    // gave up waiting for it.
    static void *operator new(std::size_t size);
    static void *operator new(std::size_t size, std::align_val_t alignment);
    static void operator delete(void *block);
    static void operator delete(void *block, std::align_val_t alignment);

    // Starts the thread, running at once, with the default stack size. A failed start leaves IsRunning
    // false. `name`, if given, names the thread for debuggers.
    void Start();
    void Start(const char *name);
    // Suspending another thread is not possible on Linux: these do nothing.
    void Suspend();
    void Resume();
    // Does nothing: Main ends by returning.
    void Stop();
    // True from Start until Main has returned. Reads without a lock.
    bool IsRunning() const;
    // The kernel's id of the running thread; 0 when not running.
    uint32_t GetThreadId() const;

    // The wait of the destructor, in milliseconds: StopWaitMs unless set otherwise for the process.
    static constexpr uint32_t StopWaitMs = 10000;
    static void SetStopWaitMs(uint32_t ms);
    static uint32_t GetStopWaitMs();

protected:
    virtual unsigned long Main() = 0;

private:
    struct Record;
    static void Entry(void *record);
    ORVEX_INTERNAL static void TakeBlock(void *block, bool aligned, std::align_val_t alignment);

    Record *m_Record;
};

} // namespace orvexScript
