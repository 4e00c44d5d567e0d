#include "TarnBase/Exceptions.h"
#include "TarnMT/win/Event.h"
#include "TarnMT/win/Mutex.h"
#include "LogCapture.h"

#include <doctest.h>

#include <future>
#include <string>
#include <thread>

using namespace TarnMT;

namespace {

// Holds a mutex on a thread of its own: mutexes are recursive for their owner, so "held
// elsewhere" needs another thread.
struct Holder {
    explicit Holder(Mutex& mutex) : thread([&mutex, this] { held.set_value(mutex.Acquire(INFINITE)), release.get_future().wait(), mutex.Release(); })
    { REQUIRE(held.get_future().get()); }
    ~Holder() { release.set_value(), thread.join(); }
    std::promise<bool> held;
    std::promise<void> release;
    std::thread thread;
};

bool FreeForOthers(Mutex& mutex)
{
    bool acquired = false;
    std::thread([&] { (acquired = mutex.Acquire(0)) && (mutex.Release(), true); }).join();
    return acquired;
}

} // namespace

TEST_CASE("named mutexes share one kernel object; configuring a created mutex changes nothing")
{
    const std::string name = "Local\\TarnMT::LocksTest::" + std::to_string(::GetCurrentProcessId());
    TarnTest::LogCapture capture;
    Mutex first, second;
    first.Config(name, nullptr), second.Config(name, nullptr);
    Holder holder(first);
    CHECK_FALSE(second.Acquire(0));
    second.Config("Local\\Other", nullptr);
    CHECK(second.GetName() == name);
    TarnTest::Expect(capture, {
        {"", 2, "Internel CreateMutex call was successful, but indicated that a handle to an already existing named object was returned."},
        {"", 1, "Mutex object Acquire operation failed due to timeout. Timeout interval: 0 (milliseconds)."},
        {"", 2, "Mutex object Config operation failed because the object is already configured."}});
}

TEST_CASE("mutex acquire: abandoned counts as acquired; AutoLockMutex holds for its scope, refuses null and times out")
{
    Mutex mutex;
    std::thread([&] { mutex.Acquire(INFINITE); }).join();
    CHECK((mutex.Acquire(1000) && !FreeForOthers(mutex)));
    CHECK((mutex.Release(), FreeForOthers(mutex)));

    // AutoLockMutex holds for its scope; a null mutex and a time-out throw.
    TarnTest::LogCapture capture;
    CHECK_THROWS_AS(AutoLockMutex(nullptr, 0), TarnBase::InvalidParameterException);
    CHECK_FALSE((AutoLockMutex(&mutex, 1000), FreeForOthers(mutex)));
    Holder holder(mutex);
    CHECK_THROWS_AS(AutoLockMutex(&mutex, 0), AutoLockTimeoutException);
    TarnTest::ExpectInOrder(capture, {
        {"TarnMT::AutoLockMutex", 0, "Throwing TarnBase::InvalidParameterException exception type. File: AutoLockMutex Line: ..."},
        {"TarnMT::AutoLockMutex", 1, "Throwing TarnMT::AutoLockTimeoutException exception type. File: AutoLockMutex Line: ..."}});
}

TEST_CASE("an event whose name a mutex already holds is not created, and says why")
{
    const std::string name = "Local\\TarnMT::LocksTest::Taken::" + std::to_string(::GetCurrentProcessId());
    Mutex mutex;
    mutex.Config(name, nullptr);
    REQUIRE(mutex.GetHandle());
    TarnTest::LogCapture capture;
    Event event;
    event.Config(name, nullptr);
    CHECK_THROWS_AS(event.Set(), TarnBase::InvalidObjectException);
    TarnTest::ExpectInOrder(capture, {{"TarnMT::Event", 0, "Internel CreateEvent call failed. GetLastError = 6."}});
}
