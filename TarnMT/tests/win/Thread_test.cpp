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
        case Sleeps:
            Sleep(ms);
            return 5;
        case Spins:
            while (!stop)
                ++count;
            return 9;
        case Parks:
            return ::WaitForSingleObject(release.Get(), INFINITE) + 42;
        case WaitsOnEvent:
            return event.Wait(INFINITE, this) ? 1 : 2;
        case ThrowsDeadlock:
            throw ThreadDeadlockException();
        case ThrowsOther:
            throw std::runtime_error("worker failed");
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
    DWORD Run() override
    {
        Sleep(60000);
        return 0;
    }
};

// The OS thread itself ends after the wrapper's last record.
bool Ended(Thread& thread)
{
    return ::WaitForSingleObject(thread.GetHandle(), 5000) == WAIT_OBJECT_0;
}

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

TEST_CASE("Execute runs the worker once at a time and keeps its result; once ended it may run again")
{
    TarnTest::LogCapture capture;
    Worker worker(Worker::Parks);
    REQUIRE(worker.Execute());
    CHECK(worker.IsRunning());
    CHECK(worker.GetThreadId() != ::GetCurrentThreadId());
    CHECK_FALSE(worker.Execute());
    ::SetEvent(worker.release.Get());
    REQUIRE(Ended(worker));
    CHECK_FALSE(worker.IsRunning());
    CHECK(worker.GetExitCode() == 42);
    // The worker's records and the second Execute's may come in either order.
    TarnTest::ExpectInOrder(capture, {{"TarnMT::Thread", 2, "Internel thread creation successful. Thread HANDLE = ..."},
                                      {"", 2, "ThreadWrapper running. Thread HANDLE = ..."},
                                      {"", 2, "ThreadWrapper exiting. Exit Code = 42. Thread HANDLE = ..."}});
    TarnTest::ExpectInOrder(capture, {{"", 1, "Execute call failure because this thread object is already associate with a running thread."}});
    CHECK(capture.Records().size() == 4);
    const DWORD firstId = worker.GetThreadId();
    REQUIRE(worker.Execute());
    REQUIRE(Ended(worker));
    CHECK(worker.GetThreadId() != firstId);
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
        CHECK_FALSE(worker.IsRunning());
        CHECK_FALSE(worker.IsSuspended());
        CHECK(worker.GetExitCode() == 0);
        TarnTest::ExpectInOrder(capture, {{"", 2, kAborting}, {"", 1, kSwallowedAbort},
                                          {"", 2, "Successfully aborted underlying thread managed by this TarnMT::Thread object."}});
        if (row.mode != Worker::Sleeps)
            continue;
        // A rerun after an abort is not stopped by it.
        worker.ms = 30;
        const DWORD rerun = ::GetTickCount();
        REQUIRE(worker.Execute());
        REQUIRE(Ended(worker));
        CHECK(::GetTickCount() - rerun >= 25);
        CHECK(worker.GetExitCode() == 5);
    }

    TarnTest::LogCapture capture;
    Worker spinner(Worker::Spins);
    REQUIRE(spinner.Execute());
    while (spinner.count == 0)
        ::Sleep(1);
    CHECK_THROWS_AS(spinner.Abort(100), ThreadDeadlockException);
    CHECK(spinner.GetExitCode() == 0xFFFFFFFF);
    REQUIRE(Ended(spinner));
    const long frozen = spinner.count;
    ::Sleep(20);
    CHECK(spinner.count == frozen);
    TarnTest::ExpectInOrder(capture, {
        {"", 1, "Timeout encountered waiting for clean thread death. TerminateThread (evil as it is) will be used to force the issue. Timeout interval: 100 (in milliseconds)."},
        {"", 0, "Throwing TarnMT::ThreadDeadlockException exception type. File: Thread Line: ..."},
    });
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
    TarnTest::ExpectInOrder(capture, {
        {"", 2, "Destructor running, aborting any underlying thread with a deadlock timeout value = 5000 (milliseconds)."},
        {"", 2, kAborting},
        {"", 1, kSwallowedAbort},
    });
}

TEST_CASE("the wrapper swallows what the worker throws")
{
    for (auto mode : {Worker::ThrowsDeadlock, Worker::ThrowsOther}) {
        TarnTest::LogCapture capture;
        Worker worker(mode);
        REQUIRE(worker.Execute());
        REQUIRE(Ended(worker));
        CHECK_FALSE(worker.IsRunning());
        const std::string kind = mode == Worker::ThrowsDeadlock ? "TarnMT::ThreadDeadlockException" : "unhandled exception";
        TarnTest::ExpectInOrder(capture, {
            {"", 1, "ThreadWrapper uncaught " + kind + " caught. The exception is swallowed, the thread will exit. Thread HANDLE = ..."},
            {"", 2, "ThreadWrapper exiting. Exit Code = 0. Thread HANDLE = ..."},
        });
    }
}

TEST_CASE("WaitForThreadToEnd: ended, timed out, no thread, aborted waiter, early stop event")
{
    Worker worker(Worker::Parks), waiter(Worker::Parks);
    CHECK(worker.WaitForThreadToEnd(0, nullptr, nullptr));
    REQUIRE(worker.Execute());
    CHECK_FALSE(worker.WaitForThreadToEnd(30, nullptr, nullptr));

    TarnTest::LogCapture capture;
    CHECK_THROWS_AS(worker.WaitForThreadToEnd(0, nullptr, &waiter), TarnBase::InvalidOperationException);
    REQUIRE(waiter.Execute());
    ::SetEvent(waiter.GetYieldEvent());
    CHECK_THROWS_AS(worker.WaitForThreadToEnd(10000, nullptr, &waiter), ThreadAbortException);
    // An extra event ends the wait early without claiming the thread ended.
    Event stop;
    stop.Set();
    CHECK_FALSE(worker.WaitForThreadToEnd(10000, &stop, nullptr));
    TarnTest::ExpectInOrder(capture, {{"", 0, "WaitForThreadToEnd(): Error - Invalid Thread HANDLE."},
                                      {"", 0, "WaitForThreadToEnd(): Error - Unhandled return code from wait."}});
    ::SetEvent(worker.release.Get());
    CHECK(worker.WaitForThreadToEnd(5000, nullptr, nullptr));
}

TEST_CASE("event waits: time-out, manual reset, a bound yield event wins, names shared")
{
    TarnTest::LogCapture capture;
    Event event;
    CHECK_FALSE(event.Wait(30, nullptr));
    event.Set();
    CHECK(event.Wait(0, nullptr));
    CHECK(event.Wait(0, nullptr));  // manual reset: still set
    event.Reset();
    CHECK_FALSE(event.Wait(0, nullptr));
    TarnTest::ExpectInOrder(capture, {
        {"", 2, "Event object Wait operation being attempted without being bound to a TarnMT::Thread object."},
        {"", -1, "Event object Wait operation failed due to timeout. Timeout interval: 30 (milliseconds)."},
        {"", -1, "Event object Wait operation successful for current thread. ThreadID: " + std::to_string(::GetCurrentThreadId()) + "."},
    });

    Worker worker(Worker::Parks);
    REQUIRE(worker.Execute());
    ::SetEvent(worker.GetYieldEvent());
    CHECK_THROWS_AS(event.Wait(10000, &worker), ThreadAbortException);

    const std::string name = "Local\\TarnMT::ThreadTest::" + std::to_string(::GetCurrentProcessId());
    Event first, second;
    first.Config(name, nullptr);
    second.Config(name, nullptr);
    first.Set();
    CHECK(second.Wait(0, nullptr));
    CHECK(second.AlreadyExisted());
}
