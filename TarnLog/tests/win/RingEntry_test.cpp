// The real logger's records in the real machine-wide ring, checked as bytes at the
// documented offsets, and the header's notification slots as readers use them.
#include "LoggerTestSupport.h"

#include <ctime>
#include <thread>

using namespace LoggerTest;

namespace {

std::string OwnProcessName()
{
    char path[MAX_PATH] = {};
    const DWORD length = ::GetModuleFileNameA(nullptr, path, MAX_PATH);
    const std::string full(path, length);
    return full.substr(full.find_last_of('\\') + 1);
}

bool AllZero(const uint8_t* from, size_t count)
{
    for (size_t i = 0; i < count; ++i)
        if (from[i] != 0)
            return false;
    return true;
}

// A field of `size` bytes holding `text`, its terminator and zeros after it.
bool FieldIs(const uint8_t* field, size_t size, const std::string& text)
{
    return text.size() < size && std::memcmp(field, text.data(), text.size()) == 0 &&
           AllZero(field + text.size(), size - text.size());
}

// A manual-reset event a test reader owns, under the name the logger will build for a slot.
TarnBase::UniqueHandle ReaderEvent(const std::string& slotName)
{
    return TarnBase::UniqueHandle(
        ::CreateEventA(nullptr, TRUE, FALSE, TarnBase::MakeKernelObjectName(slotName, true).c_str()));
}

bool IsSet(HANDLE event, DWORD waitMs = 0)
{
    return ::WaitForSingleObject(event, waitMs) == WAIT_OBJECT_0;
}

// Puts the seven slots back as they were, whatever a test did to them.
class SlotsRestorer {
public:
    SlotsRestorer() { m_saved = m_editor.Header(); }
    ~SlotsRestorer()
    {
        m_editor.Edit([&](uint8_t* base, size_t) { std::memcpy(base + 12, m_saved.slots, sizeof m_saved.slots); });
        m_editor.BumpGeneration();
    }
    TarnTest::RingHeaderEditor& Editor() { return m_editor; }

private:
    TarnTest::RingHeaderEditor m_editor;
    TarnLog::RingHeader m_saved{};
};

} // namespace

TEST_CASE("a logged record's entry in the ring, byte by byte")
{
    EnsureRing();
    const std::string nonce = Nonce();
    const uint32_t before = static_cast<uint32_t>(std::time(nullptr));
    TarnLog::Log("Layout::Probe", 1, "Layout: probe %s and %d.", nonce.c_str(), 42);
    const uint32_t after = static_cast<uint32_t>(std::time(nullptr));

    std::vector<uint8_t> bytes;
    TarnTest::RingReader reader;
    REQUIRE(reader.CopyBytes(bytes));
    REQUIRE(bytes.size() >= 292);
    const uint32_t counter = Le32(&bytes[4]);
    const uint32_t count = Le32(&bytes[8]);
    REQUIRE(count > 0);
    REQUIRE(bytes.size() >= 292 + static_cast<size_t>(count) * 692);
    CHECK(Le32(&bytes[0]) != 0);  // the creator starts the generation at 1

    // Nothing else logs while this test runs: the newest entry is ours.
    const size_t index = (counter - 1) % count;
    const uint8_t* entry = &bytes[292 + index * 692];
    const std::string message = "Layout: probe " + nonce + " and 42.";
    CHECK(FieldIs(entry + 0, 32, OwnProcessName()));
    CHECK(FieldIs(entry + 32, 64, "Layout::Probe"));
    CHECK(AllZero(entry + 96, 64));
    const uint32_t time = Le32(entry + 160);
    CHECK(time + 1 >= before);
    CHECK(time <= after + 1);
    CHECK(entry[164] == 1);
    CHECK(AllZero(entry + 165, 7));
    CHECK(Le32(entry + 172) == ::GetCurrentThreadId());
    CHECK(Le32(entry + 176) == ::GetCurrentProcessId());
    CHECK(FieldIs(entry + 180, 512, message));

    // The next record goes into the next entry, the counter moves by one.
    TarnLog::Log("Layout::Probe", 2, "Layout: second %s.", nonce.c_str());
    REQUIRE(reader.CopyBytes(bytes));
    CHECK(Le32(&bytes[4]) == counter + 1);
    CHECK(FieldIs(&bytes[292 + (counter % count) * 692 + 180], 512, "Layout: second " + nonce + "."));
}

TEST_CASE("message and class name are cut to 511 and 63 characters in the ring")
{
    EnsureRing();
    const std::string nonce = Nonce();
    const std::string longMessage = "Cut: " + nonce + " " + std::string(700, 'm');
    const std::string longClass = "Cut::" + std::string(120, 'c');
    TarnLog::Log(longClass.c_str(), 2, "%s", longMessage.c_str());
    const auto found = MyRecordsWith("Cut: " + nonce);
    REQUIRE(found.size() == 1);
    CHECK(Message(found[0]) == longMessage.substr(0, 511));
    CHECK(found[0].message[511] == '\0');
    CHECK(ClassName(found[0]) == longClass.substr(0, 63));
    CHECK(found[0].className[63] == '\0');
}

TEST_CASE("a reader's event in slot 3 is set by the next record of every process, until it leaves")
{
    EnsureRing();
    SlotsRestorer restore;
    const std::string name = "TarnLogTest." + std::to_string(::GetCurrentProcessId()) + ".3";
    TarnBase::UniqueHandle event = ReaderEvent(name);
    REQUIRE(event);
    REQUIRE(restore.Editor().PublishEvent(3, name));

    TarnLog::Log("Slot::Probe", 2, "Slot: from this process.");
    CHECK(IsSet(event.Get(), 2000));

    ::ResetEvent(event.Get());
    const auto child = RunLogWriter({L"--count", L"1", L"--class", L"Slot::Probe"});
    REQUIRE(child.started);
    CHECK(child.exitCode == 0);
    CHECK(IsSet(event.Get()));

    // Once the slot is cleared (and the generation moved) the writers let the event go.
    REQUIRE(restore.Editor().ClearSlot(3));
    ::ResetEvent(event.Get());
    TarnLog::Log("Slot::Probe", 2, "Slot: after the reader left.");
    CHECK_FALSE(IsSet(event.Get()));
}

TEST_CASE("slot names without a terminator or with a backslash are skipped, later slots still served")
{
    EnsureRing();
    SlotsRestorer restore;
    uint8_t unterminated[40] = {};
    std::memset(unterminated, 'A', 32);
    unterminated[32] = 1;
    uint8_t backslash[40] = {};
    std::memcpy(backslash, "Bad\\Name", 8);
    backslash[32] = 1;
    REQUIRE(restore.Editor().WriteSlot(1, unterminated));
    REQUIRE(restore.Editor().WriteSlot(2, backslash));
    const std::string good = "TarnLogTest." + std::to_string(::GetCurrentProcessId()) + ".6";
    TarnBase::UniqueHandle goodEvent = ReaderEvent(good);
    REQUIRE(restore.Editor().PublishEvent(6, good));

    // Names a reader overrunning the slot could have made of those bytes.
    TarnBase::UniqueHandle cut31 = ReaderEvent(std::string(31, 'A'));
    TarnBase::UniqueHandle cut32 = ReaderEvent(std::string(32, 'A'));
    TarnBase::UniqueHandle overrun = ReaderEvent(std::string(32, 'A') + "\x01");

    TarnLog::Log("Slot::Probe", 2, "Slot: bad names in the header.");
    CHECK(IsSet(goodEvent.Get(), 2000));
    CHECK_FALSE(IsSet(cut31.Get()));
    CHECK_FALSE(IsSet(cut32.Get()));
    CHECK_FALSE(IsSet(overrun.Get()));
    CHECK(MyRecordsWith("Slot: bad names in the header.").size() == 1);
}

TEST_CASE("a record that cannot get the ring within a second still reaches the critical file")
{
    EnsureRing();
    const std::string nonce = Nonce();
    const uint32_t counterBefore = WriteCounter();

    // Another thread holds the ring mutex through a handle of its own, as another process would.
    TarnBase::UniqueHandle locked(::CreateEventA(nullptr, TRUE, FALSE, nullptr));
    TarnBase::UniqueHandle done(::CreateEventA(nullptr, TRUE, FALSE, nullptr));
    std::thread holder([&] {
        TarnBase::UniqueHandle mutex(::OpenMutexA(SYNCHRONIZE | MUTEX_MODIFY_STATE, FALSE, TarnTest::RingMutexName().c_str()));
        TarnTest::RingMutexHold hold(mutex.Get(), 5000);
        ::SetEvent(locked.Get());
        ::WaitForSingleObject(done.Get(), 5000);
    });
    REQUIRE(::WaitForSingleObject(locked.Get(), 5000) == WAIT_OBJECT_0);

    ::SetLastError(4321);
    const ULONGLONG start = ::GetTickCount64();
    TarnLog::Log("Timeout::Probe", 0, "Timeout: locked out %s.", nonce.c_str());
    const ULONGLONG waited = ::GetTickCount64() - start;
    CHECK(::GetLastError() == 4321u);
    ::SetEvent(done.Get());
    holder.join();

    CHECK(waited >= 900);
    CHECK(waited < 3000);
    CHECK(WriteCounter() == counterBefore);
    CHECK(MyRecordsWith("Timeout: locked out " + nonce).empty());
    CHECK(CriticalFileHas("[Class: Timeout::Probe][Msg: Timeout: locked out " + nonce + ".]"));
}
