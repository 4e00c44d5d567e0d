// The logger's registry settings as every logging process sees them after a reader moves
// the generation, and a ring header that another process has damaged.
#include "LoggerTestSupport.h"

using namespace LoggerTest;

TEST_CASE("FilterLogLevel keeps records at or above the filter out of the ring, not out of the critical file")
{
    EnsureRing();
    const std::string nonce = Nonce();
    {
        LoggerValue filter("FilterLogLevel", 1);
        TarnLog::Log("Filter::Probe", 2, "Filter1: debug %s.", nonce.c_str());
        TarnLog::Log("Filter::Probe", 1, "Filter1: warning %s.", nonce.c_str());
        TarnLog::Log("Filter::Probe", 0, "Filter1: error %s.", nonce.c_str());
        CHECK(MyRecordsWith("Filter1: debug " + nonce).empty());
        CHECK(MyRecordsWith("Filter1: warning " + nonce).empty());
        CHECK(MyRecordsWith("Filter1: error " + nonce).size() == 1);
        CHECK(CriticalFileHas("[Msg: Filter1: error " + nonce + ".]"));

        filter.Set(0);
        const uint32_t counter = WriteCounter();
        TarnLog::Log("Filter::Probe", 0, "Filter0: error %s.", nonce.c_str());
        CHECK(WriteCounter() == counter);
        CHECK(CriticalFileHas("[Msg: Filter0: error " + nonce + ".]"));
    }
    // Back to the default: every level reaches the ring again.
    TarnLog::Log("Filter::Probe", 2, "FilterDefault: debug %s.", nonce.c_str());
    CHECK(MyRecordsWith("FilterDefault: debug " + nonce).size() == 1);
}

TEST_CASE("EnableCriticalLogger 0 keeps errors in the ring but out of the critical file")
{
    EnsureRing();
    const std::string nonce = Nonce();
    {
        LoggerValue critical("EnableCriticalLogger", 0);
        TarnLog::Log("Critical::Probe", 0, "CriticalOff: error %s.", nonce.c_str());
        CHECK(MyRecordsWith("CriticalOff: error " + nonce).size() == 1);
        CHECK_FALSE(CriticalFileHas("CriticalOff: error " + nonce));
    }
    TarnLog::Log("Critical::Probe", 0, "CriticalOn: error %s.", nonce.c_str());
    CHECK(CriticalFileHas("[Class: Critical::Probe][Msg: CriticalOn: error " + nonce + ".]"));
}

TEST_CASE("a second process adopts the ring's entry count whatever its own registry says")
{
    EnsureRing();
    TarnTest::RingHeaderEditor editor;
    const uint32_t count = editor.Header().entryCount;
    REQUIRE(count > 0);
    const uint32_t counter = editor.Header().writeCounter;
    const DWORD otherCount = count == 100 ? 150 : 100;
    std::vector<uint8_t> bytes;
    {
        LoggerValue entries("NumberOfLogEntries", otherCount);
        const auto child = RunLogWriter({L"--count", L"1", L"--class", L"Adopt::Probe"});
        REQUIRE(child.started);
        CHECK(child.exitCode == 0);
        REQUIRE(TarnTest::RingReader().CopyBytes(bytes));
    }
    CHECK(Le32(&bytes[8]) == count);
    // Generation bumps in between do not write records: the child's record is the next one.
    const uint32_t childCounter = Le32(&bytes[4]);
    REQUIRE(childCounter == counter + 1);
    const uint8_t* entry = &bytes[292 + static_cast<size_t>(counter % count) * 692];
    CHECK(std::string(reinterpret_cast<const char*>(entry + 32)) == "Adopt::Probe");
    CHECK(std::string(reinterpret_cast<const char*>(entry)) == "logwriter.exe");
}

TEST_CASE("a damaged entry count in the header is left alone by every writer")
{
    EnsureRing();
    TarnTest::RingHeaderEditor editor;
    REQUIRE(editor.IsOpen());
    const uint32_t count = editor.Header().entryCount;
    const size_t mapped = editor.View().Size();
    REQUIRE(count > 0);
    const std::string nonce = Nonce();

    uint32_t damaged = 0;
    SUBCASE("entry count 0") { damaged = 0; }
    SUBCASE("entry count 0xFFFFFFFF") { damaged = 0xFFFFFFFFu; }
    SUBCASE("entry count one more than the mapping holds") { damaged = static_cast<uint32_t>((mapped - 292) / 692 + 1); }

    struct Restore {
        TarnTest::RingHeaderEditor& editor;
        uint32_t count;
        ~Restore()
        {
            editor.Edit([&](uint8_t* base, size_t) { std::memcpy(base + 8, &count, 4); });
        }
    } restore{editor, count};
    REQUIRE(editor.Edit([&](uint8_t* base, size_t) { std::memcpy(base + 8, &damaged, 4); }));

    // A process that adopts the ring now must not trust the count: no record, no crash.
    const uint32_t counter = editor.Header().writeCounter;
    const auto child = RunLogWriter({L"--count", L"5", L"--error-every", L"2", L"--class", L"Damaged::Probe"});
    REQUIRE(child.started);
    CHECK(child.exitCode == 0);
    const TarnLog::RingHeader afterChild = editor.Header();
    CHECK(afterChild.writeCounter == counter);
    CHECK(afterChild.entryCount == damaged);

    // This process validated the count when it attached; it goes on with its own copy.
    TarnLog::Log("Damaged::Probe", 2, "Damaged: own record %s.", nonce.c_str());
    std::vector<uint8_t> bytes;
    REQUIRE(editor.Edit([&](uint8_t* base, size_t size) { bytes.assign(base, base + size); }));
    CHECK(Le32(&bytes[4]) == counter + 1);
    CHECK(Le32(&bytes[8]) == damaged);
    const char* message = reinterpret_cast<const char*>(&bytes[292 + static_cast<size_t>(counter % count) * 692 + 180]);
    CHECK(std::string(message) == "Damaged: own record " + nonce + ".");

    // The readers refuse the header rather than index with it.
    TarnLog::RingSnapshot snapshot;
    std::string error;
    CHECK_FALSE(TarnTest::RingReader().Snapshot(snapshot, error));
}
