#include "TarnBase/Exceptions.h"
#include "TarnBase/win/Handle.h"
#include "TarnMT/win/Mutex.h"
#include "TarnMT/win/Thread.h"
#include "LogCapture.h"

#include <doctest.h>

#include <functional>
#include <future>
#include <string>
#include <thread>

using namespace TarnMT;

namespace {

// Holds a mutex on a thread of its own: mutexes are recursive for their owner, so "held
// elsewhere" needs another thread.
class Holder {
public:
    explicit Holder(Mutex& mutex)
    {
        std::promise<bool> acquired;
        std::future<bool> ready = acquired.get_future();
        m_thread = std::thread([&mutex, acquired = std::move(acquired), this]() mutable {
            acquired.set_value(mutex.Acquire(INFINITE));
            m_release.get_future().wait();
            mutex.Release();
        });
        REQUIRE(ready.get());
    }
    ~Holder()
    {
        m_release.set_value();
        m_thread.join();
    }

private:
    std::promise<void> m_release;
    std::thread m_thread;
};

bool FreeForOthers(Mutex& mutex)
{
    bool acquired = false;
    std::thread([&] {
        if ((acquired = mutex.Acquire(0)))
            mutex.Release();
    }).join();
    return acquired;
}

// Stays alive, deaf to its yield event, until destroyed.
class Parked : public Thread {
public:
    ~Parked() override
    {
        ::SetEvent(m_release.Get());
        WaitForThreadToEnd(5000, nullptr, nullptr);
    }
    DWORD Run() override { return ::WaitForSingleObject(m_release.Get(), INFINITE); }

private:
    TarnBase::UniqueHandle m_release{::CreateEventA(nullptr, TRUE, FALSE, nullptr)};
};

DWORD MillisecondsFor(const std::function<void()>& action)
{
    const DWORD start = ::GetTickCount();
    action();
    return ::GetTickCount() - start;
}

} // namespace

TEST_CASE("named mutexes share one kernel object; configuring a created mutex changes nothing")
{
    const std::string name = "Local\\TarnMT::LocksTest::" + std::to_string(::GetCurrentProcessId());
    TarnTest::LogCapture capture;
    Mutex first, second;
    first.Config(name, nullptr);
    second.Config(name, nullptr);
    REQUIRE(second.GetHandle() != nullptr);
    Holder holder(first);
    CHECK_FALSE(second.Acquire(0));
    second.Config("Local\\Other", nullptr);
    CHECK(second.GetName() == name);
    TarnTest::Expect(capture, {
        {"", 2, "Internel CreateMutex call was successful, but indicated that a handle to an already existing named object was returned."},
        {"", 1, "Mutex object Acquire operation failed due to timeout. Timeout interval: 0 (milliseconds)."},
        {"", 2, "Mutex object Config operation failed because the object is already configured."},
    });
}

TEST_CASE("mutex acquire: time-out, abandoned, bound yield event, a free mutex wins over the yield event")
{
    Mutex mutex;
    {
        TarnTest::LogCapture capture;
        Holder holder(mutex);
        CHECK(MillisecondsFor([&] { CHECK_FALSE(mutex.Acquire(50)); }) >= 40);
        TarnTest::Expect(capture, {{"", 1, "Mutex object Acquire operation failed due to timeout. Timeout interval: 50 (milliseconds)."}});
    }
    // An abandoned mutex counts as acquired.
    std::thread([&] { mutex.Acquire(INFINITE); }).join();
    CHECK(mutex.Acquire(1000));
    CHECK_FALSE(FreeForOthers(mutex));
    mutex.Release();
    CHECK(FreeForOthers(mutex));

    Parked worker;
    REQUIRE(worker.Execute());
    REQUIRE(::SetEvent(worker.GetYieldEvent()));
    {
        TarnTest::LogCapture capture;
        Holder holder(mutex);
        CHECK(MillisecondsFor([&] { CHECK_THROWS_AS(mutex.Acquire(10000, &worker), ThreadAbortException); }) < 5000);
        TarnTest::ExpectInOrder(capture, {
            {"", 1, "Mutex object Acquire operation detected that the bound TarnMT::Thread object has been terminated."},
            {"", 0, "Throwing TarnMT::ThreadAbortException exception type. File: Mutex Line: ..."},
        });
    }
    CHECK(mutex.Acquire(1000, &worker));
    CHECK_FALSE(FreeForOthers(mutex));
    mutex.Release();
}

TEST_CASE("AutoLockMutex: holds for its scope; a null mutex and a time-out throw")
{
    Mutex mutex;
    TarnTest::LogCapture capture;
    CHECK_THROWS_AS(AutoLockMutex(nullptr, 0), TarnBase::InvalidParameterException);
    {
        AutoLockMutex lock(&mutex, 1000);
        CHECK_FALSE(FreeForOthers(mutex));
    }
    CHECK(FreeForOthers(mutex));
    Holder holder(mutex);
    CHECK(MillisecondsFor([&] { CHECK_THROWS_AS(AutoLockMutex(&mutex, 0), AutoLockTimeoutException); }) < 1000);
    TarnTest::ExpectInOrder(capture, {
        {"TarnMT::AutoLockMutex", 0, "Throwing TarnBase::InvalidParameterException exception type. File: AutoLockMutex Line: ..."},
        {"TarnMT::AutoLockMutex", 1, "Throwing TarnMT::AutoLockTimeoutException exception type. File: AutoLockMutex Line: ..."},
    });
}
