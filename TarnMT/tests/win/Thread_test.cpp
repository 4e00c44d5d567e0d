#include "TarnBase/Exceptions.h"
#include "TarnBase/win/Handle.h"
#include "TarnMT/win/Event.h"
#include "TarnMT/win/Thread.h"
#include "LogCapture.h"

#include <doctest.h>

#include <atomic>
#include <cstdint>
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
        started = true;
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
    std::atomic<bool> started{false};
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

// "Thread HANDLE = h. Thread Id = id." as the wrapper and Sleep write it.
std::string Ids(Thread& thread)
{
    return "Thread HANDLE = " + std::to_string(reinterpret_cast<uintptr_t>(thread.GetHandle()) & 0xFFFFFFFFu) +
           ". Thread Id = " + std::to_string(thread.GetThreadId()) + ".";
}

// The OS thread itself ends after the wrapper's last record.
bool Ended(Thread& thread)
{
    return ::WaitForSingleObject(thread.GetHandle(), 5000) == WAIT_OBJECT_0;
}

bool StartAndWait(Worker& worker, TarnTest::LogCapture& capture, const char* record)
{
    if (!worker.Execute())
        return false;
    for (int i = 0; i < 5000; ++i, ::Sleep(1))
        if (capture.HasSubstring(record))
            return true;
    return false;
}

} // namespace

TEST_CASE("Execute runs the worker once at a time and keeps its result")
{
    TarnTest::LogCapture capture;
    Worker worker(Worker::Parks);
    CHECK(worker.GetHandle() == nullptr);
    REQUIRE(worker.Execute());
    CHECK(worker.IsRunning());
    CHECK(worker.GetThreadId() != ::GetCurrentThreadId());
    CHECK_FALSE(worker.Execute());
    CHECK(capture.Has("Execute call failure because this thread object is already associate with a running thread.", 1));

    ::SetEvent(worker.release.Get());
    REQUIRE(Ended(worker));
    CHECK_FALSE(worker.IsRunning());
    CHECK(worker.GetExitCode() == 42);
    CHECK(capture.Has("Internel thread creation successful. Thread HANDLE = " +
                          std::to_string(reinterpret_cast<uintptr_t>(worker.GetHandle()) & 0xFFFFFFFFu) +
                          ". Thread ID = " + std::to_string(worker.GetThreadId()) + ".",
                      2));
    CHECK(capture.Count("ThreadWrapper running. " + Ids(worker)) == 1);
    CHECK(capture.Has("ThreadWrapper exiting. Exit Code = 42. " + Ids(worker), 2));

    // Once ended it may run again.
    const DWORD firstId = worker.GetThreadId();
    REQUIRE(worker.Execute());
    REQUIRE(Ended(worker));
    CHECK(worker.GetThreadId() != firstId);
}

TEST_CASE("Abort")
{
    TarnTest::LogCapture capture;

    SUBCASE("wakes a worker asleep for a minute at once; a rerun is not stopped by it")
    {
        Worker worker(Worker::Sleeps, 60000);
        REQUIRE(StartAndWait(worker, capture, "putting the underlying thread to sleep for 60000 milliseconds"));
        const std::string ids = Ids(worker);
        const DWORD start = ::GetTickCount();
        CHECK_NOTHROW(worker.Abort(5000));
        CHECK(::GetTickCount() - start < 3000);
        CHECK_FALSE(worker.IsRunning());
        CHECK(worker.GetExitCode() == 0);
        CHECK(capture.Has("Aborting underlying thread managed by this TarnMT::Thread object. Deadlock timeout interval = 5000 (in milliseconds).", 2));
        CHECK(capture.Has("ThreadWrapper uncaught TarnMT::ThreadAbortException caught. The exception is swallowed, the thread will exit. " + ids, 1));
        CHECK(capture.Has("Successfully aborted underlying thread managed by this TarnMT::Thread object.", 2));

        worker.ms = 30;
        const DWORD rerun = ::GetTickCount();
        REQUIRE(worker.Execute());
        REQUIRE(Ended(worker));
        CHECK(::GetTickCount() - rerun >= 25);
        CHECK(worker.GetExitCode() == 5);
    }
    SUBCASE("terminates a worker that never waits after the deadlock time-out")
    {
        Worker worker(Worker::Spins);
        REQUIRE(worker.Execute());
        while (worker.count == 0)
            ::Sleep(1);
        CHECK_THROWS_AS(worker.Abort(100), ThreadDeadlockException);
        CHECK_FALSE(worker.IsRunning());
        CHECK(worker.GetExitCode() == 0xFFFFFFFF);
        REQUIRE(Ended(worker));
        const long frozen = worker.count;
        ::Sleep(20);
        CHECK(worker.count == frozen);
        CHECK(capture.Has("Timeout encountered waiting for clean thread death. TerminateThread (evil as it is) will be used to force the issue. Timeout interval: 100 (in milliseconds).", 1));
        CHECK(capture.HasSubstring("Throwing TarnMT::ThreadDeadlockException exception type. File: Thread Line: "));
    }
    SUBCASE("resumes a suspended worker so that it can unwind")
    {
        Worker worker(Worker::Sleeps, 60000);
        REQUIRE(StartAndWait(worker, capture, "putting the underlying thread to sleep"));
        ::Sleep(20);  // past its last record, into the wait
        worker.Suspend();
        REQUIRE(worker.IsSuspended());
        CHECK_NOTHROW(worker.Abort(5000));
        CHECK_FALSE(worker.IsSuspended());
        CHECK(capture.HasSubstring("ThreadWrapper uncaught TarnMT::ThreadAbortException caught."));
    }
    SUBCASE("stops a worker in a wait bound to it")
    {
        Worker worker(Worker::WaitsOnEvent);
        REQUIRE(StartAndWait(worker, capture, "Event object Wait operation bound to TarnMT::Thread with Thread Yield Event HANDLE = "));
        CHECK_NOTHROW(worker.Abort(5000));
        CHECK(worker.GetExitCode() == 0);
        CHECK(capture.Has("Event object Wait operation detected that the bound TarnMT::Thread object has been terminated.", 1));
        CHECK(capture.HasSubstring("ThreadWrapper uncaught TarnMT::ThreadAbortException caught."));
    }
}

TEST_CASE("destroying a thread with a running worker aborts it")
{
    TarnTest::LogCapture capture;
    auto napper = std::make_unique<Napper>();
    REQUIRE(napper->Execute());
    while (!capture.HasSubstring("putting the underlying thread to sleep for 60000"))
        ::Sleep(1);
    const DWORD start = ::GetTickCount();
    napper.reset();
    CHECK(::GetTickCount() - start < 3000);
    CHECK(capture.Has("Destructor running, aborting any underlying thread with a deadlock timeout value = 5000 (milliseconds).", 2));
    CHECK(capture.Has("Aborting underlying thread managed by this TarnMT::Thread object. Deadlock timeout interval = 5000 (in milliseconds).", 2));
    CHECK(capture.HasSubstring("ThreadWrapper uncaught TarnMT::ThreadAbortException caught."));
}

TEST_CASE("the wrapper swallows what the worker throws")
{
    for (auto mode : {Worker::ThrowsDeadlock, Worker::ThrowsOther}) {
        TarnTest::LogCapture capture;
        Worker worker(mode);
        REQUIRE(worker.Execute());
        REQUIRE(Ended(worker));
        const char* kind = mode == Worker::ThrowsDeadlock ? "TarnMT::ThreadDeadlockException" : "unhandled exception";
        CHECK(capture.Has(std::string("ThreadWrapper uncaught ") + kind +
                              " caught. The exception is swallowed, the thread will exit. " + Ids(worker),
                          1));
        CHECK(capture.Has("ThreadWrapper exiting. Exit Code = 0. " + Ids(worker), 2));
        CHECK_FALSE(worker.IsRunning());
    }
}

TEST_CASE("a suspended worker makes no progress until resumed, however often it was suspended")
{
    Worker worker(Worker::Spins);
    REQUIRE(worker.Execute());
    while (worker.count == 0)
        ::Sleep(1);
    worker.Suspend();
    worker.Suspend();
    CHECK(worker.IsSuspended());
    const long frozen = worker.count;
    ::Sleep(50);
    CHECK(worker.count == frozen);
    worker.Resume();
    CHECK_FALSE(worker.IsSuspended());
    for (int i = 0; i < 5000 && worker.count == frozen; ++i)
        ::Sleep(1);
    CHECK(worker.count != frozen);
}

TEST_CASE("WaitForThreadToEnd")
{
    Worker worker(Worker::Parks), waiter(Worker::Parks);
    CHECK(worker.WaitForThreadToEnd(0, nullptr, nullptr));
    REQUIRE(worker.Execute());
    CHECK_FALSE(worker.WaitForThreadToEnd(30, nullptr, nullptr));

    TarnTest::LogCapture capture;
    CHECK_THROWS_AS(worker.WaitForThreadToEnd(0, nullptr, &waiter), TarnBase::InvalidOperationException);
    CHECK(capture.Has("WaitForThreadToEnd(): Error - Invalid Thread HANDLE.", 0));
    REQUIRE(waiter.Execute());
    ::SetEvent(waiter.GetYieldEvent());
    CHECK_THROWS_AS(worker.WaitForThreadToEnd(10000, nullptr, &waiter), ThreadAbortException);

    // An extra event ends the wait early without claiming the thread ended.
    Event stop;
    stop.Set();
    CHECK_FALSE(worker.WaitForThreadToEnd(10000, &stop, nullptr));
    CHECK(capture.Has("WaitForThreadToEnd(): Error - Unhandled return code from wait.", 0));

    ::SetEvent(worker.release.Get());
    CHECK(worker.WaitForThreadToEnd(5000, nullptr, nullptr));
}

TEST_CASE("event waits")
{
    TarnTest::LogCapture capture;
    Event event;
    CHECK_FALSE(event.Wait(30, nullptr));
    CHECK(capture.Has("Event object Wait operation being attempted without being bound to a TarnMT::Thread object.", 2));
    CHECK(capture.Has("Event object Wait operation failed due to timeout. Timeout interval: 30 (milliseconds)."));

    event.Set();
    CHECK(event.Wait(0, nullptr));
    CHECK(event.Wait(0, nullptr));  // manual reset: still set
    CHECK(capture.Has("Event object Wait operation successful for current thread. ThreadID: " +
                      std::to_string(::GetCurrentThreadId()) + "."));
    event.Reset();
    CHECK_FALSE(event.Wait(0, nullptr));

    // Bound: a set yield event wins over the unset event.
    Worker worker(Worker::Parks);
    REQUIRE(worker.Execute());
    ::SetEvent(worker.GetYieldEvent());
    CHECK_THROWS_AS(event.Wait(10000, &worker), ThreadAbortException);
    CHECK(capture.HasSubstring("Throwing TarnMT::ThreadAbortException exception type. File: Event Line: "));

    // Named: a second object opens the same event.
    const std::string name = "Local\\TarnMT::ThreadTest::" + std::to_string(::GetCurrentProcessId());
    Event first, second;
    first.Config(name, nullptr);
    second.Config(name, nullptr);
    first.Set();
    CHECK(second.Wait(0, nullptr));
    CHECK(second.AlreadyExisted());
    CHECK(capture.Has("Internel CreateEvent call was successful, but indicated that a handle to an already existing named object was returned."));
}
