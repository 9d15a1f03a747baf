// The script window: order and thread of posted messages, blocking sends, the fd, destruction with
// waiting senders and posted messages, and RunOnMainThread through the installed hooks.

#include "remote/ScriptWindow.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "objects/ObjectHooks.h"

namespace orvexScript
{
namespace
{

bool FdReadable(const ScriptWindow &window)
{
    SocketIo::ConnectionEvents events;
    EXPECT_NE(SocketIo::WaitConnection(window.Fd(), SocketIo::kNoFd, SocketIo::kNoFd, false, 0, events),
              SocketIo::IO_Error);
    return events.quit;
}

// Waits (bounded) until `count` senders have queued their messages.
bool WaitForQueued(const ScriptWindow &window, size_t count)
{
    for (int i = 0; i < 5000; ++i)
    {
        if (window.Waiting() >= count) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
}

struct Record
{
    std::vector<std::pair<uintptr_t, uintptr_t>> seen; // (sender, sequence)
    bool offThread = false;
    std::thread::id owner;
};
Record *s_Record = nullptr;

void RecordMessage(uint32_t, uintptr_t param1, uintptr_t param2)
{
    if (std::this_thread::get_id() != s_Record->owner) s_Record->offThread = true;
    s_Record->seen.emplace_back(param1, param2);
}

TEST(ScriptWindowThreads, PostedMessagesRunInOrderPerSenderOnTheOwner)
{
    ScriptWindow window;
    ASSERT_TRUE(window.Open());
    Record record;
    record.owner = std::this_thread::get_id();
    s_Record = &record;
    window.SetHandler(SWM_Connect, RecordMessage);

    constexpr uintptr_t kSenders = 4, kEach = 200;
    std::vector<std::thread> senders;
    for (uintptr_t sender = 0; sender < kSenders; ++sender)
        senders.emplace_back(
            [&window, sender]
            {
                for (uintptr_t i = 0; i < kEach; ++i)
                    EXPECT_TRUE(window.Post(SWM_Connect, sender, i));
            });
    int exitCode = -1;
    auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (record.seen.size() < kSenders * kEach && std::chrono::steady_clock::now() < limit)
        EXPECT_EQ(window.Pump(0, 10, exitCode), ScriptWindow::Pump_Idle);
    for (auto &sender : senders)
        sender.join();

    ASSERT_EQ(record.seen.size(), kSenders * kEach);
    EXPECT_FALSE(record.offThread);
    std::vector<uintptr_t> next(kSenders, 0);
    for (auto [sender, sequence] : record.seen)
        EXPECT_EQ(sequence, next[sender]++);
    EXPECT_EQ(exitCode, -1);
    s_Record = nullptr;
}

void SetFlag(void *data)
{
    static_cast<std::atomic<int> *>(data)->fetch_add(1);
}

TEST(ScriptWindowThreads, SendWaitsUntilTheOwnerRanIt)
{
    ScriptWindow window;
    ASSERT_TRUE(window.Open());
    std::atomic<int> ran{0};
    std::atomic<bool> returned{false};
    ScriptWindow::SendResult result = ScriptWindow::Send_Failed;
    std::thread sender(
        [&]
        {
            result = window.Send(SWM_Call, reinterpret_cast<uintptr_t>(SetFlag),
                                 reinterpret_cast<uintptr_t>(&ran));
            EXPECT_EQ(ran.load(), 1); // the handler ran before Send returned
            returned = true;
        });
    ASSERT_TRUE(WaitForQueued(window, 1));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(returned.load());
    EXPECT_EQ(ran.load(), 0);
    int exitCode = 0;
    EXPECT_EQ(window.Pump(0, 0, exitCode), ScriptWindow::Pump_Idle);
    sender.join();
    EXPECT_EQ(result, ScriptWindow::Send_Done);
    EXPECT_TRUE(returned.load());
}

TEST(ScriptWindowThreads, SendTimesOutAndIsTakenBack)
{
    ScriptWindow window;
    ASSERT_TRUE(window.Open());
    std::atomic<int> ran{0};
    std::thread sender(
        [&]
        {
            EXPECT_EQ(window.Send(SWM_Call, reinterpret_cast<uintptr_t>(SetFlag),
                                  reinterpret_cast<uintptr_t>(&ran), 20),
                      ScriptWindow::Send_TimedOut);
        });
    sender.join();
    EXPECT_EQ(window.Waiting(), 0u);
    EXPECT_FALSE(FdReadable(window));
    int exitCode = 0;
    EXPECT_EQ(window.Pump(0, 0, exitCode), ScriptWindow::Pump_Idle);
    EXPECT_EQ(ran.load(), 0);
}

TEST(ScriptWindow, SendFromTheOwnerRunsDirectlyAndPumpIsOwnersOnly)
{
    ScriptWindow window;
    ASSERT_TRUE(window.Open());
    std::atomic<int> ran{0};
    EXPECT_EQ(window.Send(SWM_Call, reinterpret_cast<uintptr_t>(SetFlag), reinterpret_cast<uintptr_t>(&ran)),
              ScriptWindow::Send_Done);
    EXPECT_EQ(ran.load(), 1);
    EXPECT_EQ(window.Waiting(), 0u);

    ScriptWindow::PumpResult other = ScriptWindow::Pump_Idle;
    std::thread(
        [&]
        {
            int code = 0;
            other = window.Pump(0, 0, code);
        })
        .join();
    EXPECT_EQ(other, ScriptWindow::Pump_WrongThread);
}

TEST(ScriptWindow, FdReadableExactlyWhileMessagesWaitAndQuitStopsThePump)
{
    ScriptWindow window;
    ASSERT_TRUE(window.Open());
    std::atomic<int> ran{0};
    EXPECT_FALSE(FdReadable(window));
    ASSERT_TRUE(
        window.Post(SWM_Call, reinterpret_cast<uintptr_t>(SetFlag), reinterpret_cast<uintptr_t>(&ran)));
    ASSERT_TRUE(window.Post(SWM_Quit, 7, 0));
    ASSERT_TRUE(
        window.Post(SWM_Call, reinterpret_cast<uintptr_t>(SetFlag), reinterpret_cast<uintptr_t>(&ran)));
    EXPECT_TRUE(FdReadable(window));

    int exitCode = 0;
    EXPECT_EQ(window.Pump(1, 0, exitCode), ScriptWindow::Pump_Idle);
    EXPECT_EQ(ran.load(), 1);
    EXPECT_TRUE(FdReadable(window));
    EXPECT_EQ(window.Pump(0, 0, exitCode), ScriptWindow::Pump_Quit);
    EXPECT_EQ(exitCode, 7);
    EXPECT_TRUE(FdReadable(window)); // the message after the quit still waits
    EXPECT_EQ(window.Pump(0, 0, exitCode), ScriptWindow::Pump_Idle);
    EXPECT_EQ(ran.load(), 2);
    EXPECT_FALSE(FdReadable(window));

    // A quit sent by the owner is queued, so that the pump reports it.
    EXPECT_EQ(window.Send(SWM_Quit, 3, 0), ScriptWindow::Send_Done);
    EXPECT_EQ(window.Pump(0, 0, exitCode), ScriptWindow::Pump_Quit);
    EXPECT_EQ(exitCode, 3);
}

std::atomic<int> s_Released{0};

void FreeParam(uint32_t, uintptr_t param1, uintptr_t)
{
    delete reinterpret_cast<int *>(param1);
    s_Released.fetch_add(1);
}

TEST(ScriptWindowThreads, DestroyingFailsSendersAndReleasesPostedMessages)
{
    s_Released = 0;
    std::atomic<int> ran{0};
    std::vector<ScriptWindow::SendResult> results(3, ScriptWindow::Send_Done);
    std::vector<std::thread> senders;
    {
        ScriptWindow window;
        ASSERT_TRUE(window.Open());
        window.SetRelease(FreeParam);
        ASSERT_TRUE(window.Post(SWM_Command, reinterpret_cast<uintptr_t>(new int(1)), 0));
        ASSERT_TRUE(window.Post(SWM_Disconnect, reinterpret_cast<uintptr_t>(new int(2)), 0));
        for (size_t i = 0; i < results.size(); ++i)
            senders.emplace_back(
                [&, i]
                {
                    results[i] = window.Send(SWM_Call, reinterpret_cast<uintptr_t>(SetFlag),
                                             reinterpret_cast<uintptr_t>(&ran), 10000);
                });
        ASSERT_TRUE(WaitForQueued(window, 2 + results.size()));
    } // destroyed with everything still waiting
    for (auto &sender : senders)
        sender.join();
    for (auto result : results)
        EXPECT_EQ(result, ScriptWindow::Send_Failed);
    EXPECT_EQ(ran.load(), 0);
    EXPECT_EQ(s_Released.load(), 2);
}

TEST(ScriptWindow, UnhandledConnectionMessagesAreReleasedAndHandlersReplaceable)
{
    s_Released = 0;
    ScriptWindow window;
    ASSERT_TRUE(window.Open());
    window.SetRelease(FreeParam);
    ASSERT_TRUE(window.Post(SWM_ConnectFailed, reinterpret_cast<uintptr_t>(new int(3)), 0));
    int exitCode = 0;
    EXPECT_EQ(window.Pump(0, 0, exitCode), ScriptWindow::Pump_Idle);
    EXPECT_EQ(s_Released.load(), 1);

    window.SetHandler(SWM_ConnectFailed,
                      [](uint32_t message, uintptr_t param1, uintptr_t)
                      {
                          EXPECT_EQ(message, SWM_ConnectFailed);
                          delete reinterpret_cast<int *>(param1);
                      });
    ASSERT_TRUE(window.Post(SWM_ConnectFailed, reinterpret_cast<uintptr_t>(new int(4)), 0));
    EXPECT_EQ(window.Pump(0, 0, exitCode), ScriptWindow::Pump_Idle);
    EXPECT_EQ(s_Released.load(), 1);
}

std::thread::id s_RanOn;
void NoteThread(void *data)
{
    s_RanOn = std::this_thread::get_id();
    *static_cast<int *>(data) += 1;
}

TEST(ScriptWindowThreads, RunOnMainThreadGoesThroughTheWindow)
{
    ASSERT_EQ(GetScriptWnd(), nullptr);
    ASSERT_TRUE(CreateScriptWindow());
    ASSERT_TRUE(CreateScriptWindow()); // twice makes one
    ScriptWindow *window = GetScriptWnd();
    ASSERT_NE(window, nullptr);
    ASSERT_NE(GetMainThreadHooks().isMainThread, nullptr);
    EXPECT_TRUE(GetMainThreadHooks().isMainThread());

    int count = 0;
    RunOnMainThread(NoteThread, &count); // on the owner: directly
    EXPECT_EQ(count, 1);
    EXPECT_EQ(s_RanOn, std::this_thread::get_id());

    std::atomic<bool> done{false};
    std::thread worker(
        [&]
        {
            EXPECT_FALSE(GetMainThreadHooks().isMainThread());
            RunOnMainThread(NoteThread, &count);
            done = true;
        });
    int exitCode = 0;
    auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!done && std::chrono::steady_clock::now() < limit)
        window->Pump(0, 10, exitCode);
    worker.join();
    EXPECT_EQ(count, 2);
    EXPECT_EQ(s_RanOn, std::this_thread::get_id());

    std::thread([] { DestroyScriptWindow(); }).join(); // not the owner: nothing happens
    EXPECT_EQ(GetScriptWnd(), window);
    DestroyScriptWindow();
    EXPECT_EQ(GetScriptWnd(), nullptr);
    EXPECT_EQ(GetMainThreadHooks().runOnMainThread, nullptr);
}

} // namespace
} // namespace orvexScript
