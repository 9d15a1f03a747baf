// Thread: a RefObject that runs its abstract Main on an operating-system thread of its own.
// A thread ends only by Main returning; the subclass gives Main the means to be told to stop.
#pragma once

#include <cstdint>

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
    // If the thread still runs, waits for it at most 10,000 ms; a thread that doesn't end by then is
    // detached and left to run (there is no forced end), and that is logged. A subclass that must see
    // Main finished stops its thread in its own destructor.
    ~Thread() override;

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

    // The wait of the destructor, in milliseconds.
    static constexpr uint32_t StopWaitMs = 10000;

protected:
    virtual unsigned long Main() = 0;

private:
    struct Record;
    static void Entry(void *record);

    Record *m_Record;
};

} // namespace orvexScript
