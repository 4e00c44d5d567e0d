#include "TarnBase/Exceptions.h"
#include "TarnBase/win/Handle.h"
#include "TarnMT/win/Event.h"
#include "TarnMT/win/Thread.h"
#include "LogCapture.h"

#include <doctest.h>

#include <atomic>
#include <memory>
#include <stdexcept>
#include <string>

using namespace TarnMT;
using TarnTest::ExpectInOrder;

namespace {

// One worker for every behaviour the tests need.
class Worker : public Thread {
public:
    enum Mode { Sleeps, Spins, Parks, WaitsOnEvent, ThrowsDeadlock, ThrowsOther };
    explicit Worker(Mode mode, DWORD ms = 0) : mode(mode), ms(ms) {}
    ~Worker() override
    {
        stop = true;
        ::SetEvent(release.Get());
        Abort(5000);
    }
    DWORD Run() override
    {
        switch (mode) {
        case Sleeps: return Sleep(ms), 5;
        case Spins:
            while (!stop)
                ++count;
            return 9;
        case Parks: return ::WaitForSingleObject(release.Get(), INFINITE) + 42;
        case WaitsOnEvent: return event.Wait(INFINITE, this) ? 1 : 2;
        case ThrowsDeadlock: throw ThreadDeadlockException();
        case ThrowsOther: throw std::runtime_error("worker failed");
        }
        return 0;
    }
    std::atomic<Mode> mode;
    std::atomic<DWORD> ms;
    std::atomic<bool> stop{false};
    std::atomic<long> count{0};
    TarnBase::UniqueHandle release{::CreateEventA(nullptr, TRUE, FALSE, nullptr)};
    Event event;
};

// Relies on the base destructor alone to stop it.
class Napper : public Thread {
    DWORD Run() override { return Sleep(60000), 0; }
};

// The OS thread itself ends after the wrapper's last record.
bool Ended(Thread& thread) { return ::WaitForSingleObject(thread.GetHandle(), 5000) == WAIT_OBJECT_0; }

bool WaitForRecord(TarnTest::LogCapture& capture, const char* part)
{
    for (int i = 0; i < 5000; ++i, ::Sleep(1))
        if (capture.HasSubstring(part))
            return true;
    return false;
}

const char* const kSleeping = "putting the underlying thread to sleep for 60000 milliseconds";
const char* const kAborting =
    "Aborting underlying thread managed by this TarnMT::Thread object. Deadlock timeout interval = 5000 (in milliseconds).";
const char* const kSwallowedAbort = "ThreadWrapper uncaught TarnMT::ThreadAbortException caught. The exception is swallowed...";

} // namespace

TEST_CASE("Execute runs the worker once at a time and keeps its result")
{
    TarnTest::LogCapture capture;
    Worker worker(Worker::Parks);
    REQUIRE(worker.Execute());
    CHECK_FALSE(worker.Execute());
    ::SetEvent(worker.release.Get());
    REQUIRE(Ended(worker));
    CHECK((!worker.IsRunning() && worker.GetExitCode() == 42));
    ExpectInOrder(capture, {{"", 1, "Execute call failure because this thread object is already associate with a running thread."}});
}

TEST_CASE("Abort: a sleeper wakes at once, a spinner is terminated, a suspended or bound waiter unwinds")
{
    const struct { Worker::Mode mode; const char* waitFor; bool suspend; } table[] = {
        {Worker::Sleeps, kSleeping, false},
        {Worker::Sleeps, kSleeping, true},
        {Worker::WaitsOnEvent, "Event object Wait operation bound to TarnMT::Thread with Thread Yield Event HANDLE = ", false},
    };
    for (const auto& row : table) {
        TarnTest::LogCapture capture;
        Worker worker(row.mode, 60000);
        REQUIRE(worker.Execute());
        REQUIRE(WaitForRecord(capture, row.waitFor));
        if (row.suspend) {
            ::Sleep(20);  // past its last record, into the wait
            worker.Suspend();
            REQUIRE(worker.IsSuspended());
        }
        const DWORD start = ::GetTickCount();
        CHECK_NOTHROW(worker.Abort(5000));
        CHECK(::GetTickCount() - start < 3000);
        CHECK((!worker.IsRunning() && !worker.IsSuspended() && worker.GetExitCode() == 0));
        ExpectInOrder(capture, {{"", 2, kAborting}, {"", 1, kSwallowedAbort},
                                {"", 2, "Successfully aborted underlying thread managed by this TarnMT::Thread object."}});
        if (row.mode != Worker::Sleeps)
            continue;
        worker.ms = 30;  // a rerun after an abort is not stopped by it
        REQUIRE(worker.Execute());
        REQUIRE(Ended(worker));
        CHECK(worker.GetExitCode() == 5);
    }

    TarnTest::LogCapture capture;
    Worker spinner(Worker::Spins);
    REQUIRE(spinner.Execute());
    while (spinner.count == 0)
        ::Sleep(1);
    CHECK_THROWS_AS(spinner.Abort(100), ThreadDeadlockException);
    REQUIRE(Ended(spinner));
    CHECK(spinner.GetExitCode() == 0xFFFFFFFF);
    ExpectInOrder(capture, {{"", 1, "Timeout encountered waiting for clean thread death. TerminateThread (evil as it is) will be used to force the issue. Timeout interval: 100 (in milliseconds)."},
                            {"", 0, "Throwing TarnMT::ThreadDeadlockException exception type. File: Thread Line: ..."}});
}

TEST_CASE("destroying a thread with a running worker aborts it")
{
    TarnTest::LogCapture capture;
    auto napper = std::make_unique<Napper>();
    REQUIRE(napper->Execute());
    REQUIRE(WaitForRecord(capture, kSleeping));
    const DWORD start = ::GetTickCount();
    napper.reset();
    CHECK(::GetTickCount() - start < 3000);
    ExpectInOrder(capture, {{"", 2, "Destructor running, aborting any underlying thread with a deadlock timeout value = 5000 (milliseconds)."},
                            {"", 2, kAborting}, {"", 1, kSwallowedAbort}});
}

TEST_CASE("the wrapper swallows what the worker throws")
{
    for (auto mode : {Worker::ThrowsDeadlock, Worker::ThrowsOther}) {
        TarnTest::LogCapture capture;
        Worker worker(mode);
        REQUIRE(worker.Execute());
        REQUIRE(Ended(worker));
        const std::string kind = mode == Worker::ThrowsDeadlock ? "TarnMT::ThreadDeadlockException" : "unhandled exception";
        ExpectInOrder(capture, {{"", 1, "ThreadWrapper uncaught " + kind + " caught. The exception is swallowed, the thread will exit. Thread HANDLE = ..."},
                                {"", 2, "ThreadWrapper exiting. Exit Code = 0. Thread HANDLE = ..."}});
    }
}

TEST_CASE("WaitForThreadToEnd and event waits: ended, timed out, no thread, aborted waiter, early stop event")
{
    Worker worker(Worker::Parks), waiter(Worker::Parks);
    CHECK(worker.WaitForThreadToEnd(0, nullptr, nullptr));
    REQUIRE(worker.Execute());
    CHECK_FALSE(worker.WaitForThreadToEnd(30, nullptr, nullptr));
    REQUIRE(waiter.Execute());
    ::SetEvent(waiter.GetYieldEvent());
    CHECK_THROWS_AS(worker.WaitForThreadToEnd(10000, nullptr, &waiter), ThreadAbortException);
    Event stop;
    CHECK_FALSE(stop.Wait(30, nullptr));
    stop.Set();
    CHECK(stop.Wait(0, nullptr));
    CHECK_FALSE(worker.WaitForThreadToEnd(10000, &stop, nullptr));  // ends early, not claiming the thread ended
    ::SetEvent(worker.release.Get());
    CHECK(worker.WaitForThreadToEnd(5000, nullptr, nullptr));
}
