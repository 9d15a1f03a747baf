// The script window: the one way onto the host's main thread. A queue of messages owned by the thread
// that made it, with an eventfd that is readable while messages wait, so a host either calls Pump or
// adds Fd() to its own event loop. No protocol logic here: connection messages go to handlers.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>

#include "remote/SocketIo.h"
#include "values/base/Export.h"
#include "values/sync/Lock.h"

namespace orvexScript
{

// The messages the window knows.
enum ScriptWindowMessage : uint32_t
{
    SWM_Quit = 16,            // param1: the exit code; Pump stops and reports it
    SWM_Call = 1024,          // param1: void (*)(void *), param2: its argument
    SWM_Command = 1025,       // param1: RemoteApp *, param2: Packet *; run a peer's command
    SWM_Connect = 1026,       // param1: RemoteApp *; a connection came up
    SWM_Disconnect = 1027,    // param1: RemoteApp *; a connection went down
    SWM_ConnectFailed = 1028, // param1: RemoteApp *; a connect did not succeed
};

class ScriptWindow
{
public:
    // Handles one message on the owner thread.
    using Handler = void (*)(uint32_t message, uintptr_t param1, uintptr_t param2);

    enum SendResult : int
    {
        Send_Done = 0, // the owner ran the message (or the caller is the owner and ran it)
        Send_Failed,   // the window is closing or was destroyed before the message ran
        Send_TimedOut, // the time-out ran out while the message still waited; it was taken back
    };

    enum PumpResult : int
    {
        Pump_Idle = 0,    // the messages asked for ran, or the time-out ran out with none waiting
        Pump_Quit,        // a quit message ran; exitCode holds its code
        Pump_WrongThread, // only the owner thread pumps
    };

    static constexpr unsigned long kNoTimeout = 0xFFFFFFFFul;

    // Owned by the calling thread. Open must succeed before use.
    ScriptWindow();
    ScriptWindow(const ScriptWindow &) = delete;
    ScriptWindow &operator=(const ScriptWindow &) = delete;
    // Fails every waiting sender, drops the posted messages through the release callback, and returns
    // once no sender is inside Send any more. Call it on the owner thread, outside Pump.
    ~ScriptWindow();

    [[nodiscard]] bool Open();

    // Queues a message from any thread; never waits. Messages of one thread run in the order posted.
    // False if the window is closing or out of memory (nothing was queued).
    [[nodiscard]] bool Post(uint32_t message, uintptr_t param1, uintptr_t param2);
    // Runs a message on the owner thread and returns once it has run. From the owner thread it runs
    // directly; from another thread it is queued behind what waits and the caller sleeps until the owner
    // pumped it, the window is destroyed, or timeoutMs ran out while it still waited.
    [[nodiscard]] SendResult Send(uint32_t message, uintptr_t param1, uintptr_t param2,
                                  unsigned long timeoutMs = kNoTimeout);

    // Runs waiting messages in arrival order on the owner thread: waits at most timeoutMs for the first
    // (0: does not wait), then runs up to maxMessages (0: all that wait), stopping after a quit.
    ORVEX_API PumpResult Pump(unsigned maxMessages, unsigned long timeoutMs, int &exitCode);
    // Readable while messages wait; for a host's own poll loop. Stays owned by the window.
    ORVEX_API int Fd() const;

    bool IsOwnerThread() const { return std::this_thread::get_id() == m_Owner; }
    size_t Waiting() const;

    // Replaces the handler of one message (null: the message is released unhandled). SWM_Call and
    // SWM_Quit have built-in handlers that stay.
    void SetHandler(uint32_t message, Handler handler);
    // Called for every queued message that is dropped or has no handler, so its parameters can be freed.
    void SetRelease(Handler release);
    // Called on the owner thread whenever Pump returns, for work held back while messages waited.
    void SetIdle(void (*idle)());

    // Sockets whose input the owner takes itself while it waits in Pump: a connection served on this
    // thread then reads its commands here, without a hand-over from its own thread. `ready(cookie)`
    // runs on the owner when the socket has input. The window holds the socket exclusively and
    // first, ahead of the connection's own waiters, which are woken only while the owner is busy.
    // From any thread; false if the socket could not be added (the connection reads it as before).
    bool WatchSocket(int fd, void *cookie);
    // Stops watching a socket, before it is closed. Any thread.
    void UnwatchSocket(int fd);
    void SetSocketReady(void (*ready)(void *cookie));

private:
    struct Node;
    struct SendWait;
    friend void SendMainThreadCall(void (*function)(void *), void *data);

    bool Enqueue(Node *node); // with m_Mutex held
    Node *TakeFirst();        // with m_Mutex held
    void Unlink(Node *node);  // with m_Mutex held
    PumpResult PumpMessages(unsigned maxMessages, unsigned long timeoutMs, int &exitCode);
    bool WaitOnSockets(std::unique_lock<std::mutex> &lock, unsigned long left);
    void Dispatch(uint32_t message, uintptr_t param1, uintptr_t param2, int &exitCode, bool &quit);
    SendResult SendEntered(std::unique_lock<std::mutex> &lock, uint32_t message, uintptr_t param1,
                           uintptr_t param2, unsigned long timeoutMs);

    std::thread::id m_Owner;
    mutable SocketIo::EventFd m_Ready;
    mutable bool m_FdWanted = false; // Fd() was asked for: m_Ready follows the queue
    mutable std::mutex m_Mutex;
    WakeFlag m_Wake; // set when the queue stops being empty: the owner waits for it
    // With watched sockets the owner waits on this set instead, woken for posts by m_SetWake.
    SocketIo::EventSet m_Sockets;
    SocketIo::EventFd m_SetWake;
    std::atomic<bool> m_OwnerInSet{false};
    void (*m_SocketReady)(void *cookie) = nullptr;
    std::condition_variable m_Ran;     // senders wait for their message; the destructor for senders
    Node *m_Head = nullptr;
    Node *m_Tail = nullptr;
    size_t m_Count = 0;
    bool m_NotifyPending = false; // the queue went from empty to not: the owner is to be woken
    unsigned m_Senders = 0; // threads inside Send
    bool m_Closing = false;
    Handler m_Handlers[4] = {}; // SWM_Command .. SWM_ConnectFailed
    Handler m_Release = nullptr;
    void (*m_Idle)() = nullptr;
};

// The process's script window, or null if there is none.
ORVEX_API ScriptWindow *GetScriptWnd();
// Makes the script window on the calling thread, which becomes the main thread, if there is none, and
// installs the main-thread hooks so that RunOnMainThread goes through it. True if a window exists.
// After InitScripting only its thread may make the window; another thread gets false. The instance is
// not used.
bool CreateScriptWindow(void *instance = nullptr);
// Removes the hooks and destroys the window; only on its owner thread (elsewhere nothing happens).
// Waiting senders fail.
void DestroyScriptWindow();

} // namespace orvexScript
