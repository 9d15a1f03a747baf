// The script window's queue, its pump and the process's one window behind GetScriptWnd. Posted
// messages live in nodes of their own; a sent message lives in the sender's stack frame, so Send never
// allocates.

#include "remote/ScriptWindow.h"

#include "remote/RemoteApp.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <new>

#include "objects/ObjectHooks.h"
#include "remote/Scripting.h"

namespace orvexScript
{

// A sender's record: its message's node and how it ended.
struct ScriptWindow::SendWait
{
    enum State
    {
        Queued,
        Running,
        Ran,
        Failed
    };
    State state = Queued;
};

struct ScriptWindow::Node
{
    Node *next = nullptr;
    uint32_t message = 0;
    uintptr_t param1 = 0;
    uintptr_t param2 = 0;
    SendWait *waiter = nullptr; // null for a posted message, which the node owns
};

ScriptWindow::ScriptWindow() : m_Owner(std::this_thread::get_id()) {}

ScriptWindow::~ScriptWindow()
{
    std::unique_lock<std::mutex> lock(m_Mutex);
    m_Closing = true;
    // Posted messages are released after the lock is let go: a release may end a connection, whose
    // end takes locks that a thread posting to this window may hold while it waits for m_Mutex.
    Node *dropped = nullptr, *droppedTail = nullptr;
    while (Node *node = TakeFirst())
    {
        if (node->waiter)
        {
            node->waiter->state = SendWait::Failed;
            continue;
        }
        (droppedTail ? droppedTail->next : dropped) = node;
        droppedTail = node;
    }
    m_Ran.notify_all();
    // The senders just failed are awake and only leave; none can enter any more.
    m_Ran.wait(lock, [this] { return m_Senders == 0; });
    lock.unlock();
    while (Node *node = dropped)
    {
        dropped = node->next;
        if (m_Release) m_Release(node->message, node->param1, node->param2);
        delete node;
    }
}

bool ScriptWindow::Open()
{
    return m_Ready.IsOpen() || m_Ready.Open();
}

int ScriptWindow::Fd() const
{
    // The descriptor is kept in step with the queue only from the first time a host asks for it: a
    // host that only pumps spares two system calls per message.
    std::lock_guard<std::mutex> lock(m_Mutex);
    if (!m_FdWanted)
    {
        m_FdWanted = true;
        if (m_Count > 0) (void)m_Ready.Signal();
    }
    return m_Ready.Fd();
}

size_t ScriptWindow::Waiting() const
{
    std::lock_guard<std::mutex> lock(m_Mutex);
    return m_Count;
}

void ScriptWindow::SetHandler(uint32_t message, Handler handler)
{
    if (message < SWM_Command || message > SWM_ConnectFailed) return;
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_Handlers[message - SWM_Command] = handler;
}

bool ScriptWindow::WatchSocket(int fd, void *cookie)
{
    std::lock_guard<std::mutex> lock(m_Mutex);
    if (m_Closing || !cookie) return false;
    if (!m_Sockets.IsOpen())
    {
        if (!m_SetWake.Open() || !m_Sockets.Open() || !m_Sockets.AddPointer(m_SetWake.Fd(), &m_SetWake, false))
        {
            m_Sockets.Close();
            return false;
        }
    }
    return m_Sockets.AddPointer(fd, cookie, true);
}

void ScriptWindow::UnwatchSocket(int fd)
{
    std::lock_guard<std::mutex> lock(m_Mutex);
    if (m_Sockets.IsOpen()) (void)m_Sockets.Remove(fd);
}

void ScriptWindow::SetSocketReady(void (*ready)(void *cookie))
{
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_SocketReady = ready;
}

void ScriptWindow::SetIdle(void (*idle)())
{
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_Idle = idle;
}

void ScriptWindow::SetRelease(Handler release)
{
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_Release = release;
}

bool ScriptWindow::Enqueue(Node *node)
{
    if (m_Closing) return false;
    if (m_Tail)
        m_Tail->next = node;
    else
        m_Head = node;
    m_Tail = node;
    if (m_Count++ == 0)
    {
        if (m_FdWanted) m_Ready.Signal();
        m_NotifyPending = true; // the caller notifies, after letting go of the mutex if it can
    }
    return true;
}

ScriptWindow::Node *ScriptWindow::TakeFirst()
{
    Node *node = m_Head;
    if (!node) return nullptr;
    m_Head = node->next;
    if (!m_Head) m_Tail = nullptr;
    node->next = nullptr;
    if (--m_Count == 0 && m_FdWanted) m_Ready.Drain();
    return node;
}

void ScriptWindow::Unlink(Node *node)
{
    Node *previous = nullptr;
    for (Node *at = m_Head; at; previous = at, at = at->next)
    {
        if (at != node) continue;
        (previous ? previous->next : m_Head) = at->next;
        if (m_Tail == at) m_Tail = previous;
        if (--m_Count == 0 && m_FdWanted) m_Ready.Drain();
        return;
    }
}

bool ScriptWindow::Post(uint32_t message, uintptr_t param1, uintptr_t param2)
{
    Node *node = new (std::nothrow) Node;
    if (!node) return false;
    node->message = message;
    node->param1 = param1;
    node->param2 = param2;
    bool notify;
    bool inSet;
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        if (!Enqueue(node))
        {
            delete node;
            return false;
        }
        notify = m_NotifyPending;
        m_NotifyPending = false;
        inSet = m_OwnerInSet.load();
    }
    // Outside the mutex, so that the woken owner does not at once block on it.
    if (notify)
    {
        if (inSet)
            (void)m_SetWake.Signal();
        else
            m_Wake.Set();
    }
    return true;
}

ScriptWindow::SendResult ScriptWindow::Send(uint32_t message, uintptr_t param1, uintptr_t param2,
                                            unsigned long timeoutMs)
{
    if (IsOwnerThread())
    {
        // A quit is queued instead, so that the pump reports it.
        if (message == SWM_Quit) return Post(message, param1, param2) ? Send_Done : Send_Failed;
        // The owner never queues for itself and never waits, so a send from inside a handler (or from
        // the host's loop between pumps) cannot block the very pump that would serve it.
        int exitCode = 0;
        bool quit = false;
        Dispatch(message, param1, param2, exitCode, quit);
        return Send_Done;
    }
    std::unique_lock<std::mutex> lock(m_Mutex);
    ++m_Senders;
    return SendEntered(lock, message, param1, param2, timeoutMs);
}

// With m_Mutex held and m_Senders counting this caller, which the destructor waits for.
ScriptWindow::SendResult ScriptWindow::SendEntered(std::unique_lock<std::mutex> &lock, uint32_t message,
                                                   uintptr_t param1, uintptr_t param2,
                                                   unsigned long timeoutMs)
{
    SendWait wait;
    Node node;
    node.message = message;
    node.param1 = param1;
    node.param2 = param2;
    node.waiter = &wait;
    if (!Enqueue(&node)) wait.state = SendWait::Failed;
    if (m_NotifyPending)
    {
        m_NotifyPending = false;
        if (m_OwnerInSet.load())
            (void)m_SetWake.Signal();
        else
            m_Wake.Set();
    }

    auto finished = [&wait] { return wait.state == SendWait::Ran || wait.state == SendWait::Failed; };
    if (timeoutMs >= kNoTimeout)
        m_Ran.wait(lock, finished);
    else if (!m_Ran.wait_for(lock, std::chrono::milliseconds(timeoutMs), finished) &&
             wait.state == SendWait::Queued)
    {
        Unlink(&node);
        wait.state = SendWait::Failed;
        --m_Senders;
        m_Ran.notify_all();
        return Send_TimedOut;
    }
    // A message the owner has begun must be waited for: the handler reads nothing of this frame, but
    // the owner marks it done here. It runs on, so this wait ends with the handler.
    m_Ran.wait(lock, finished);
    SendResult result = wait.state == SendWait::Ran ? Send_Done : Send_Failed;
    --m_Senders;
    m_Ran.notify_all();
    return result;
}

void ScriptWindow::Dispatch(uint32_t message, uintptr_t param1, uintptr_t param2, int &exitCode, bool &quit)
{
    if (message == SWM_Call)
    {
        auto function = reinterpret_cast<void (*)(void *)>(param1);
        if (function) function(reinterpret_cast<void *>(param2));
        return;
    }
    if (message == SWM_Quit)
    {
        exitCode = static_cast<int>(param1);
        quit = true;
        return;
    }
    Handler handler = nullptr;
    Handler release = nullptr;
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        if (message >= SWM_Command && message <= SWM_ConnectFailed)
            handler = m_Handlers[message - SWM_Command];
        release = m_Release;
    }
    if (handler)
        handler(message, param1, param2);
    else if (release)
        release(message, param1, param2);
}

ScriptWindow::PumpResult ScriptWindow::Pump(unsigned maxMessages, unsigned long timeoutMs, int &exitCode)
{
    PumpResult result = PumpMessages(maxMessages, timeoutMs, exitCode);
    void (*idle)() = nullptr;
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        idle = m_Idle;
    }
    if (idle && result != Pump_WrongThread) idle();
    return result;
}

// With m_Mutex held through `lock`: waits for a post or a watched socket, at most `left` ms, and lets
// the connections of ready sockets read (they post what they read). False on a time-out or a failure.
bool ScriptWindow::WaitOnSockets(std::unique_lock<std::mutex> &lock, unsigned long left)
{
    m_OwnerInSet.store(true);
    void (*ready)(void *) = m_SocketReady;
    lock.unlock();
    void *cookies[16];
    int count = 0;
    const int timeoutMs = left >= WakeFlag::NoTimeout ? -1 : static_cast<int>(std::min<unsigned long>(left, 0x7FFFFFFF));
    SocketIo::IoStatus status = m_Sockets.WaitPointers(timeoutMs, cookies, 16, count);
    m_OwnerInSet.store(false);
    for (int i = 0; i < count; ++i)
    {
        if (cookies[i] == &m_SetWake)
            m_SetWake.Drain();
        else if (ready)
            ready(cookies[i]);
    }
    lock.lock();
    return status == SocketIo::IO_Ok;
}

ScriptWindow::PumpResult ScriptWindow::PumpMessages(unsigned maxMessages, unsigned long timeoutMs, int &exitCode)
{
    if (!IsOwnerThread()) return Pump_WrongThread;
    std::unique_lock<std::mutex> lock(m_Mutex);
    if (timeoutMs > 0 && !m_Head)
    {
        // A wake flag rather than a condition variable: a post wakes the owner with one system call
        // and no mutex hand-over. A flag set for a message already taken only makes the loop look
        // again.
        using Clock = std::chrono::steady_clock;
        const bool forever = timeoutMs >= kNoTimeout;
        const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(forever ? 0 : timeoutMs);
        while (!m_Head)
        {
            unsigned long left = WakeFlag::NoTimeout;
            if (!forever)
            {
                const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
                left = ms > 0 ? static_cast<unsigned long>(ms) : 0;
                if (left == 0) break;
            }
            if (m_Sockets.IsOpen())
            {
                if (!WaitOnSockets(lock, left)) break;
                continue;
            }
            m_Wake.Reset();
            lock.unlock();
            const bool woken = m_Wake.Wait(left);
            lock.lock();
            if (!woken) break;
        }
    }
    for (unsigned ran = 0; maxMessages == 0 || ran < maxMessages; ++ran)
    {
        Node *node = TakeFirst();
        if (!node) break;
        if (node->waiter) node->waiter->state = SendWait::Running;
        lock.unlock();
        bool quit = false;
        Dispatch(node->message, node->param1, node->param2, exitCode, quit);
        lock.lock();
        if (node->waiter)
        {
            node->waiter->state = SendWait::Ran;
            m_Ran.notify_all();
        }
        else
            delete node;
        if (quit) return Pump_Quit;
    }
    return Pump_Idle;
}

// ---- the process's window -----------------------------------------------------------------------

namespace
{
std::mutex s_WindowLock; // guards s_Window against destruction while a sender looks it up
std::atomic<ScriptWindow *> s_Window{nullptr};
std::atomic<std::thread::id> s_WindowThread{}; // kept apart: read without touching the window

bool IsWindowThread()
{
    return s_Window.load() && s_WindowThread.load() == std::this_thread::get_id();
}
} // namespace

// The main-thread hand-over: message 1024 sent to the window. If the window goes away first, the
// function runs on the caller's thread, as it does when there is no main thread at all.
void SendMainThreadCall(void (*function)(void *), void *data)
{
    std::unique_lock<std::mutex> windowLock(s_WindowLock);
    ScriptWindow *window = s_Window.load();
    if (!window || window->IsOwnerThread())
    {
        windowLock.unlock();
        function(data);
        return;
    }
    std::unique_lock<std::mutex> lock(window->m_Mutex);
    ++window->m_Senders; // from here the destructor waits for this caller
    windowLock.unlock();
    auto result = window->SendEntered(lock, SWM_Call, reinterpret_cast<uintptr_t>(function),
                                      reinterpret_cast<uintptr_t>(data), ScriptWindow::kNoTimeout);
    lock.unlock();
    if (result != ScriptWindow::Send_Done) function(data);
}

ScriptWindow *GetScriptWnd()
{
    return s_Window.load();
}

bool CreateScriptWindow(void * /*instance*/)
{
    std::lock_guard<std::mutex> windowLock(s_WindowLock);
    if (s_Window.load()) return true;
    // Once scripting knows its main thread, only that thread may own the window: it is the one that
    // pumps it.
    std::thread::id mainThread = GetScriptingMainThread();
    if (mainThread != std::thread::id() && mainThread != std::this_thread::get_id()) return false;
    ScriptWindow *window = new (std::nothrow) ScriptWindow;
    if (!window) return false;
    if (!window->Open())
    {
        delete window;
        return false;
    }
    InstallConnectionHandlers(*window);
    s_WindowThread.store(std::this_thread::get_id());
    s_Window.store(window);
    MainThreadHooks hooks;
    hooks.isMainThread = IsWindowThread;
    hooks.runOnMainThread = SendMainThreadCall;
    SetMainThreadHooks(hooks);
    return true;
}

void DestroyScriptWindow()
{
    ScriptWindow *window = nullptr;
    {
        std::lock_guard<std::mutex> windowLock(s_WindowLock);
        window = s_Window.load();
        if (window && !window->IsOwnerThread())
            return; // only the thread that pumps it can know no message is running
        s_Window.store(nullptr);
        if (window)
        {
            SetMainThreadHooks(MainThreadHooks());
            s_WindowThread.store(std::thread::id());
        }
    }
    delete window;
}

} // namespace orvexScript
