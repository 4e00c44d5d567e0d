#include "TarnBase/Exceptions.h"
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

class Worker : public Thread {
public:
    enum Mode { Sleeps, Spins, WaitsOnEvent, ThrowsDeadlock, ThrowsOther };
    explicit Worker(Mode mode, DWORD ms = 0) : mode(mode), ms(ms) {}
    ~Worker() override { stop = true, Abort(5000); }
    DWORD Run() override
    {
        switch (mode) {
        case Sleeps: return Sleep(ms), 5;
        case Spins: for (TarnLog::Log("Worker", 2, "Spinning."); !stop;) continue; return 9;
        case WaitsOnEvent: return event.Wait(INFINITE, this) ? 1 : 2;
        case ThrowsDeadlock: throw ThreadDeadlockException();
        case ThrowsOther: throw std::runtime_error("worker failed");
        }
        return 0;
    }
    const Mode mode;
    std::atomic<DWORD> ms;
    std::atomic<bool> stop{false};
    Event event;
};

// Relies on the base destructor alone to stop it.
class Napper : public Thread { DWORD Run() override { return Sleep(60000), 0; } };

// The OS thread itself ends after the wrapper's last record.
bool Ended(Thread& thread) { return ::WaitForSingleObject(thread.GetHandle(), 5000) == WAIT_OBJECT_0; }

bool WaitForRecord(TarnTest::LogCapture& capture, const char* part)
{
    for (int i = 0; i < 5000 && !capture.HasSubstring(part); ++i)
        ::Sleep(1);
    return capture.HasSubstring(part);
}

const char* const kSleeping = "putting the underlying thread to sleep for 60000 milliseconds";
const char* const kAborting = "Aborting underlying thread managed by this TarnMT::Thread object. Deadlock timeout interval = 5000 (in milliseconds).";
const char* const kSwallowedAbort = "ThreadWrapper uncaught TarnMT::ThreadAbortException caught. The exception is swallowed...";
const std::string kUncaught = "ThreadWrapper uncaught ", kSwallowed = " caught. The exception is swallowed, the thread will exit. Thread HANDLE = ...";
const char* const kExiting = "ThreadWrapper exiting. Exit Code = 0. Thread HANDLE = ...";

} // namespace

TEST_CASE("Abort: a sleeper wakes at once, a spinner is terminated, a suspended or bound waiter unwinds; throws are swallowed")
{
    const std::initializer_list<TarnTest::ExpectedRecord> aborted = {
        {"", 2, kAborting}, {"", 1, kSwallowedAbort}, {"", 2, "Successfully aborted underlying thread managed by this TarnMT::Thread object."}};
    const struct { Worker::Mode mode; const char* waitFor; bool suspend; DWORD abortMs, exitCode; std::initializer_list<TarnTest::ExpectedRecord> records; } table[] = {
        {Worker::Sleeps, kSleeping, false, 5000, 0, aborted},
        {Worker::Sleeps, kSleeping, true, 5000, 0, aborted},
        {Worker::WaitsOnEvent, "Event object Wait operation bound to TarnMT::Thread with Thread Yield Event HANDLE = ", false, 5000, 0, aborted},
        {Worker::Spins, "Spinning.", false, 100, 0xFFFFFFFF, {
            {"", 1, "Timeout encountered waiting for clean thread death. TerminateThread (evil as it is) will be used to force the issue. Timeout interval: 100 (in milliseconds)."},
            {"", 0, "Throwing TarnMT::ThreadDeadlockException exception type. File: Thread Line: ..."}}},
        {Worker::ThrowsDeadlock, nullptr, false, 0, 0, {{"", 1, kUncaught + "TarnMT::ThreadDeadlockException" + kSwallowed}, {"", 2, kExiting}}},
        {Worker::ThrowsOther, nullptr, false, 0, 0, {{"", 1, kUncaught + "unhandled exception" + kSwallowed}, {"", 2, kExiting}}},
    };
    for (const auto& row : table) {
        TarnTest::LogCapture capture;
        Worker worker(row.mode, 60000);
        REQUIRE(worker.Execute());
        REQUIRE((row.waitFor ? WaitForRecord(capture, row.waitFor) : Ended(worker)));
        if (row.suspend)
            ::Sleep(20), worker.Suspend();  // past its last record, into the wait
        REQUIRE(worker.IsSuspended() == row.suspend);
        const DWORD start = ::GetTickCount();
        const auto abort = [&] { try { return worker.Abort(row.abortMs), 0; } catch (const ThreadDeadlockException&) { return 1; } };
        CHECK((row.abortMs ? abort() : 0) == (row.mode == Worker::Spins ? 1 : 0));  // only the spinner's abort throws
        CHECK((::GetTickCount() - start < 3000 && Ended(worker) && worker.GetExitCode() == row.exitCode));
        CHECK((!worker.IsRunning() && !worker.IsSuspended()));
        TarnTest::ExpectInOrder(capture, row.records);
        if (row.mode == Worker::Sleeps)  // a rerun after an abort is not stopped by it
            CHECK(((worker.ms = 30) && worker.Execute() && Ended(worker) && worker.GetExitCode() == 5));
    }
}

TEST_CASE("a thread runs one worker at a time; destroying it with the worker running aborts the worker")
{
    TarnTest::LogCapture capture;
    auto napper = std::make_unique<Napper>();
    REQUIRE((napper->Execute() && WaitForRecord(capture, kSleeping)));
    CHECK((!napper->Execute() && capture.Has("Execute call failure because this thread object is already associate with a running thread.", 1)));
    const DWORD start = ::GetTickCount();
    napper.reset();
    CHECK(::GetTickCount() - start < 3000);
    TarnTest::ExpectInOrder(capture, {{"", 1, "Execute call failure..."}, {"", 2, "Destructor running, aborting any underlying thread with a deadlock timeout value = 5000 (milliseconds)."},
                            {"", 2, kAborting}, {"", 1, kSwallowedAbort}});
}
