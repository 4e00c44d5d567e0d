// The ring as raw bytes, the way another process (or a viewer built elsewhere) sees it: the
// readers must list records in order and stay inside the mapping whatever the header says.
// (Field offsets are static_asserts beside the structures; real entry bytes are Logger_test's.)
#include "TarnLog/RingLayout.h"

#include <doctest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

using namespace TarnLog;

namespace {

void Put32(std::vector<uint8_t>& bytes, size_t at, uint32_t value) { std::memcpy(&bytes[at], &value, 4); }

void PutMessage(std::vector<uint8_t>& ring, uint32_t sequence, const std::string& text)
{
    const uint32_t count = ring.size() > 292 ? static_cast<uint32_t>((ring.size() - 292) / 692) : 1;
    std::memcpy(&ring[292 + static_cast<size_t>(sequence % count) * 692 + 180], text.data(), text.size());
}

// A ring of `count` entries holding the message "seq <n>" for each record n still stored.
std::vector<uint8_t> MakeRing(uint32_t count, uint32_t writeCounter)
{
    std::vector<uint8_t> ring(292 + static_cast<size_t>(count) * 692, 0);
    Put32(ring, 0, 1);
    Put32(ring, 4, writeCounter);
    Put32(ring, 8, count);
    for (uint32_t sequence = writeCounter - std::min(writeCounter, count); sequence != writeCounter; ++sequence)
        PutMessage(ring, sequence, "seq " + std::to_string(sequence));
    return ring;
}

std::string Messages(const std::vector<LogRecord>& records)
{
    std::string text;
    for (const auto& record : records)
        text += ReadField(record.message, sizeof record.message) + ";";
    return text;
}

} // namespace

TEST_CASE("a snapshot lists the records oldest first, before and after the ring wraps")
{
    const struct { uint32_t counter; const char* messages; } table[] = {
        {0, ""},
        {3, "seq 0;seq 1;seq 2;"},
        {7, "seq 3;seq 4;seq 5;seq 6;"},  // record 6 overwrote entry 2
    };
    for (const auto& row : table) {
        const auto ring = MakeRing(4, row.counter);
        RingSnapshot snapshot;
        std::string error;
        REQUIRE(SnapshotRing(ring.data(), ring.size(), snapshot, error));
        CHECK((snapshot.writeCounter == row.counter && snapshot.entryCount == 4u));
        CHECK(Messages(snapshot.records) == row.messages);
    }
}

TEST_CASE("reading on from a counter reports what was overwritten in between, across the 32-bit wrap")
{
    auto wrapped = MakeRing(4, 0);
    Put32(wrapped, 4, 2);
    for (uint32_t sequence : {0xFFFFFFFEu, 0xFFFFFFFFu, 0u, 1u})
        PutMessage(wrapped, sequence, "n" + std::to_string(sequence));
    const auto ring = MakeRing(4, 10);
    const struct { const std::vector<uint8_t>* ring; uint32_t seen, counter, lost; const char* messages; } table[] = {
        {&ring, 8, 10, 0, "seq 8;seq 9;"},
        {&ring, 3, 10, 3, "seq 6;seq 7;seq 8;seq 9;"},  // 3, 4 and 5 were overwritten
        {&ring, 10, 10, 0, ""},
        {&wrapped, 0xFFFFFFFEu, 2, 0, "n4294967294;n4294967295;n0;n1;"},
    };
    for (const auto& row : table) {
        std::vector<LogRecord> records;
        uint32_t counter = 0, lost = 99;
        REQUIRE(ReadRingSince(row.ring->data(), row.ring->size(), row.seen, records, counter, lost));
        CHECK((counter == row.counter && lost == row.lost));
        CHECK(Messages(records) == row.messages);
    }
}

TEST_CASE("a damaged header is refused, never followed outside the mapping")
{
    size_t bytes = 0;
    CHECK_FALSE((RingBytes(0, bytes) || RingBytes(0xFFFFFFFFu, bytes) || IsUsableRing(nullptr, 1000)));
    const struct { uint32_t count; size_t size; } table[] = {
        {0, 0}, {0xFFFFFFFFu, 0}, {5, 0},  // 5: one more than the mapping holds
        {4, 291},                          // a mapping shorter than the header
    };
    for (const auto& row : table) {
        auto ring = MakeRing(4, 9);
        Put32(ring, 8, row.count);
        if (row.size)
            ring.resize(row.size);
        RingSnapshot snapshot;
        std::string error;
        std::vector<LogRecord> records;
        uint32_t counter = 0, lost = 0;
        CHECK_FALSE(IsUsableRing(ring.data(), ring.size()));
        CHECK_FALSE(SnapshotRing(ring.data(), ring.size(), snapshot, error));
        CHECK_FALSE(ReadRingSince(ring.data(), ring.size(), 0, records, counter, lost));
        CHECK((!error.empty() && snapshot.records.empty() && records.empty()));
    }
}

TEST_CASE("an entry count changed while the reader runs never takes it outside the mapping")
{
    // Another process may rewrite the header at any moment, lock or no lock. The mapping
    // holds 4 entries; the header flips between 4 and a count that does not fit it.
    std::vector<uint8_t> ring = MakeRing(4, 8);
    std::atomic<bool> stop{false};
    std::thread flipper([&] {
        for (unsigned i = 0; !stop.load(std::memory_order_relaxed); ++i)
            std::memcpy(ring.data() + 8, i & 1 ? "\xA0\x0F\0\0" : "\x04\0\0\0", 4);  // 4000 or 4
    });
    size_t tooMany = 0;
    for (int i = 0; i < 20000; ++i) {
        RingSnapshot snapshot;
        std::string error;
        SnapshotRing(ring.data(), ring.size(), snapshot, error);
        tooMany += snapshot.records.size() > 4 ? 1 : 0;
        std::vector<LogRecord> records;
        uint32_t counter = 0, lost = 0;
        if (ReadRingSince(ring.data(), ring.size(), 6, records, counter, lost))
            tooMany += records.size() != 2 ? 1 : 0;
    }
    stop = true;
    flipper.join();
    CHECK(tooMany == 0);
    // Once the header is whole again the same ring reads: the reader refused only bad counts.
    std::memcpy(ring.data() + 8, "\x04\0\0\0", 4);
    RingSnapshot snapshot;
    std::string error;
    CHECK(SnapshotRing(ring.data(), ring.size(), snapshot, error));
}

TEST_CASE("slot names are only taken when in use and terminated inside the slot")
{
    NotificationSlot slot{};
    std::memset(slot.eventName, 'A', sizeof slot.eventName - 1);
    CHECK(SlotEventName(slot).empty());  // not in use
    slot.inUse = 1;
    CHECK(SlotEventName(slot) == std::string(31, 'A'));
    slot.eventName[31] = 'A';
    CHECK(SlotEventName(slot).empty());  // 32 characters and no terminator
}
