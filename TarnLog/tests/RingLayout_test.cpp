// The ring as raw bytes, the way another process (or a viewer built elsewhere) sees it:
// fields written at their documented offsets must read back through the structures, and
// the readers must stay inside the mapping whatever the header says.
#include "TarnLog/RingLayout.h"

#include <doctest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

using namespace TarnLog;

namespace {

void Put32(std::vector<uint8_t>& bytes, size_t at, uint32_t value)
{
    for (int i = 0; i < 4; ++i)
        bytes[at + i] = static_cast<uint8_t>(value >> (8 * i));
}

void PutText(std::vector<uint8_t>& bytes, size_t at, const std::string& text)
{
    std::memcpy(&bytes[at], text.data(), text.size());
}

// A ring of `count` entries whose entry i holds the message "seq <n>" for the record
// number n that the write counter places there.
std::vector<uint8_t> MakeRing(uint32_t count, uint32_t writeCounter)
{
    std::vector<uint8_t> ring(292 + static_cast<size_t>(count) * 692, 0);
    Put32(ring, 0, 1);
    Put32(ring, 4, writeCounter);
    Put32(ring, 8, count);
    const uint32_t stored = writeCounter < count ? writeCounter : count;
    for (uint32_t k = 0; k < stored; ++k) {
        const uint32_t sequence = writeCounter - stored + k;
        PutText(ring, 292 + static_cast<size_t>(sequence % count) * 692 + 180, "seq " + std::to_string(sequence));
    }
    return ring;
}

std::string Message(const LogRecord& record)
{
    return ReadField(record.message, sizeof record.message);
}

} // namespace

TEST_CASE("header, slot and entry fields sit at their documented byte offsets")
{
    std::vector<uint8_t> ring(292 + 2 * 692, 0);
    Put32(ring, 0, 0x11223344);
    Put32(ring, 4, 0x55667788);
    Put32(ring, 8, 2);
    for (uint32_t i = 0; i < 7; ++i) {
        PutText(ring, 12 + i * 40, "slot" + std::to_string(i));
        ring[12 + i * 40 + 32] = static_cast<uint8_t>(i + 1);
    }
    const size_t entry = 292 + 692;  // the second entry
    PutText(ring, entry + 0, "host.exe");
    PutText(ring, entry + 32, "Some::Class");
    ring[entry + 96] = 0xEE;  // reserved: readers ignore it
    Put32(ring, entry + 160, 1236434709);
    ring[entry + 164] = 1;
    Put32(ring, entry + 172, 0x9c8);
    Put32(ring, entry + 176, 0x1a4);
    PutText(ring, entry + 180, "the message");

    RingHeader header;
    std::memcpy(&header, ring.data(), sizeof header);
    CHECK(header.generation == 0x11223344u);
    CHECK(header.writeCounter == 0x55667788u);
    CHECK(header.entryCount == 2u);
    for (uint32_t i = 0; i < 7; ++i) {
        CHECK(SlotEventName(header.slots[i]) == "slot" + std::to_string(i));
        CHECK(header.slots[i].inUse == i + 1);
    }
    LogRecord record;
    std::memcpy(&record, ring.data() + entry, sizeof record);
    CHECK(ReadField(record.processName, sizeof record.processName) == "host.exe");
    CHECK(ReadField(record.className, sizeof record.className) == "Some::Class");
    CHECK(record.time == 1236434709u);
    CHECK(record.level == 1);
    CHECK(record.threadId == 0x9c8u);
    CHECK(record.processId == 0x1a4u);
    CHECK(Message(record) == "the message");

    size_t bytes = 0;
    REQUIRE(RingBytes(512, bytes));
    CHECK(bytes == 512u * 692u + 292u);
    CHECK_FALSE(RingBytes(0, bytes));
    CHECK_FALSE(RingBytes(0xFFFFFFFFu, bytes));
}

TEST_CASE("a snapshot lists the records oldest first, before and after the ring wraps")
{
    RingSnapshot snapshot;
    std::string error;

    SUBCASE("not yet full")
    {
        const auto ring = MakeRing(4, 3);
        REQUIRE(SnapshotRing(ring.data(), ring.size(), snapshot, error));
        REQUIRE(snapshot.records.size() == 3);
        CHECK(Message(snapshot.records[0]) == "seq 0");
        CHECK(Message(snapshot.records[2]) == "seq 2");
    }
    SUBCASE("wrapped: record 6 overwrote entry 2")
    {
        const auto ring = MakeRing(4, 7);
        REQUIRE(SnapshotRing(ring.data(), ring.size(), snapshot, error));
        CHECK(snapshot.writeCounter == 7u);
        CHECK(snapshot.entryCount == 4u);
        REQUIRE(snapshot.records.size() == 4);
        for (uint32_t i = 0; i < 4; ++i)
            CHECK(Message(snapshot.records[i]) == "seq " + std::to_string(3 + i));
    }
    SUBCASE("empty")
    {
        const auto ring = MakeRing(4, 0);
        REQUIRE(SnapshotRing(ring.data(), ring.size(), snapshot, error));
        CHECK(snapshot.records.empty());
    }
}

TEST_CASE("reading on from a counter reports what was overwritten in between")
{
    std::vector<LogRecord> records;
    uint32_t counter = 0;
    uint32_t lost = 0;

    const auto ring = MakeRing(4, 10);
    REQUIRE(ReadRingSince(ring.data(), ring.size(), 8, records, counter, lost));
    CHECK(counter == 10u);
    CHECK(lost == 0u);
    REQUIRE(records.size() == 2);
    CHECK(Message(records[0]) == "seq 8");
    CHECK(Message(records[1]) == "seq 9");

    REQUIRE(ReadRingSince(ring.data(), ring.size(), 3, records, counter, lost));
    CHECK(lost == 3u);  // records 3, 4 and 5 were overwritten by 7, 8 and 9
    REQUIRE(records.size() == 4);
    CHECK(Message(records[0]) == "seq 6");

    REQUIRE(ReadRingSince(ring.data(), ring.size(), 10, records, counter, lost));
    CHECK(records.empty());
    CHECK(lost == 0u);

    // The counter is 32 bits: a follower keeps up across its wrap.
    auto wrapped = MakeRing(4, 0);
    Put32(wrapped, 4, 2);
    for (uint32_t sequence : {0xFFFFFFFEu, 0xFFFFFFFFu, 0u, 1u})
        PutText(wrapped, 292 + (sequence % 4) * 692 + 180, "n" + std::to_string(sequence));
    REQUIRE(ReadRingSince(wrapped.data(), wrapped.size(), 0xFFFFFFFEu, records, counter, lost));
    CHECK(counter == 2u);
    CHECK(lost == 0u);
    REQUIRE(records.size() == 4);
    CHECK(Message(records[0]) == "n4294967294");
    CHECK(Message(records[3]) == "n1");
}

TEST_CASE("a damaged header is refused, never followed outside the mapping")
{
    RingSnapshot snapshot;
    std::string error;
    std::vector<LogRecord> records;
    uint32_t counter = 0;
    uint32_t lost = 0;
    auto ring = MakeRing(4, 9);

    SUBCASE("entry count 0")
    {
        Put32(ring, 8, 0);
    }
    SUBCASE("entry count 0xFFFFFFFF")
    {
        Put32(ring, 8, 0xFFFFFFFFu);
    }
    SUBCASE("entry count one more than the mapping holds")
    {
        Put32(ring, 8, 5);
    }
    SUBCASE("a mapping shorter than the header")
    {
        ring.resize(291);
    }
    CHECK_FALSE(IsUsableRing(ring.data(), ring.size()));
    CHECK_FALSE(SnapshotRing(ring.data(), ring.size(), snapshot, error));
    CHECK_FALSE(error.empty());
    CHECK(snapshot.records.empty());
    CHECK_FALSE(ReadRingSince(ring.data(), ring.size(), 0, records, counter, lost));
    CHECK(records.empty());
    CHECK_FALSE(IsUsableRing(nullptr, 1000));
}

TEST_CASE("an entry count changed while the reader runs never takes it outside the mapping")
{
    // Another process may rewrite the header at any moment, lock or no lock. The mapping
    // holds 4 entries; the header flips between 4 and a count that does not fit it.
    std::vector<uint8_t> ring = MakeRing(4, 8);
    uint8_t* countField = ring.data() + 8;
    std::atomic<bool> stop{false};
    std::thread flipper([&] {
        const uint32_t counts[2] = {4, 4000};
        for (unsigned i = 0; !stop.load(std::memory_order_relaxed); ++i)
            std::memcpy(countField, &counts[i & 1], 4);
    });
    size_t readable = 0;
    size_t tooMany = 0;
    for (int i = 0; i < 200000; ++i) {
        RingSnapshot snapshot;
        std::string error;
        if (SnapshotRing(ring.data(), ring.size(), snapshot, error))
            ++readable;
        tooMany += snapshot.records.size() > 4 ? 1 : 0;
        std::vector<LogRecord> records;
        uint32_t counter = 0, lost = 0;
        if (ReadRingSince(ring.data(), ring.size(), 6, records, counter, lost))
            tooMany += records.size() != 2 ? 1 : 0;
    }
    stop = true;
    flipper.join();
    CHECK(tooMany == 0);
    CHECK(readable > 0);
}

TEST_CASE("slot names are only taken when in use and terminated inside the slot")
{
    NotificationSlot slot{};
    std::memcpy(slot.eventName, "Viewer.1", 8);
    CHECK(SlotEventName(slot).empty());  // not in use
    slot.inUse = 1;
    CHECK(SlotEventName(slot) == "Viewer.1");
    std::memset(slot.eventName, 'A', sizeof slot.eventName);
    CHECK(SlotEventName(slot).empty());  // 32 characters and no terminator
    slot.eventName[31] = '\0';
    CHECK(SlotEventName(slot) == std::string(31, 'A'));
}
