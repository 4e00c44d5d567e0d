// The ring as raw bytes, the way another process (or a viewer built elsewhere) sees it: the
// readers must list records in order and stay inside the mapping whatever the header says.
// (Field offsets are static_asserts beside the structures; real entry bytes are Logger_test's.)
#include "TarnLog/RingLayout.h"

#include <doctest.h>

#include <atomic>
#include <cstring>
#include <optional>
#include <string>
#include <thread>
#include <vector>

using namespace TarnLog;

namespace {

void Put32(std::vector<uint8_t>& bytes, size_t at, uint32_t value) { std::memcpy(&bytes[at], &value, 4); }

void PutMessage(std::vector<uint8_t>& ring, uint32_t sequence, const std::string& text)
{
    std::memcpy(&ring[292 + sequence % ((ring.size() - 292) / 692) * 692 + 180], text.data(), text.size());
}

// A ring of `count` entries holding the message "seq <n>" for each record n still stored.
std::vector<uint8_t> MakeRing(uint32_t count, uint32_t writeCounter)
{
    std::vector<uint8_t> ring(292 + static_cast<size_t>(count) * 692, 0);
    Put32(ring, 0, 1), Put32(ring, 4, writeCounter), Put32(ring, 8, count);
    for (uint32_t sequence = (writeCounter > count ? writeCounter - count : 0); sequence != writeCounter; ++sequence)
        PutMessage(ring, sequence, "seq " + std::to_string(sequence));
    return ring;
}

// "counter/count:messages" from a snapshot, or "counter lost n:messages" reading on from `seen`.
std::string Read(const std::vector<uint8_t>& ring, std::optional<uint32_t> seen = {})
{
    RingSnapshot snapshot;
    std::string error, text;
    uint32_t lost = 99;
    const bool read = seen ? ReadRingSince(ring.data(), ring.size(), *seen, snapshot.records, snapshot.writeCounter, lost)
                           : SnapshotRing(ring.data(), ring.size(), snapshot, error);
    if (!read)
        return snapshot.records.empty() && (seen || !error.empty()) ? "refused" : "refused badly";
    for (const auto& record : snapshot.records)
        text += ReadField(record.message, sizeof record.message) + ";";
    return std::to_string(snapshot.writeCounter) +
           (seen ? " lost " + std::to_string(lost) : "/" + std::to_string(snapshot.entryCount)) + ":" + text;
}

} // namespace

TEST_CASE("the readers list the records oldest first, report what was overwritten, across the 32-bit wrap")
{
    CHECK(Read(MakeRing(4, 0)) == "0/4:");
    CHECK(Read(MakeRing(4, 3)) == "3/4:seq 0;seq 1;seq 2;");
    CHECK(Read(MakeRing(4, 7)) == "7/4:seq 3;seq 4;seq 5;seq 6;");  // record 6 overwrote entry 2
    const auto ring = MakeRing(4, 10);  // reading on from a counter:
    CHECK(Read(ring, 8) == "10 lost 0:seq 8;seq 9;");
    CHECK(Read(ring, 3) == "10 lost 3:seq 6;seq 7;seq 8;seq 9;");  // 3, 4 and 5 were overwritten
    CHECK(Read(ring, 10) == "10 lost 0:");
    auto wrapped = MakeRing(4, 0);
    Put32(wrapped, 4, 2);
    for (uint32_t sequence : {0xFFFFFFFEu, 0xFFFFFFFFu, 0u, 1u})
        PutMessage(wrapped, sequence, "n" + std::to_string(sequence));
    CHECK(Read(wrapped, 0xFFFFFFFEu) == "2 lost 0:n4294967294;n4294967295;n0;n1;");
}

TEST_CASE("a damaged header is refused, never followed outside the mapping")
{
    size_t bytes = 0;
    CHECK_FALSE((RingBytes(0, bytes) || RingBytes(0xFFFFFFFFu, bytes) || IsUsableRing(nullptr, 1000)));
    // 5: one more than the mapping holds; 291 bytes: a mapping shorter than the header.
    for (const auto& [count, size] : {std::pair<uint32_t, size_t>{0, 0}, {0xFFFFFFFFu, 0}, {5, 0}, {4, 291}}) {
        auto ring = MakeRing(4, 9);
        Put32(ring, 8, count);
        ring.resize(size ? size : ring.size());
        CHECK_FALSE(IsUsableRing(ring.data(), ring.size()));
        CHECK((Read(ring) == "refused" && Read(ring, 0) == "refused"));
    }
}

TEST_CASE("an entry count changed while the reader runs never takes it outside the mapping")
{
    // Another process may rewrite the header at any moment, lock or no lock: 4 entries fit.
    std::vector<uint8_t> ring = MakeRing(4, 8);
    std::atomic<bool> stop{false};
    std::thread flipper([&] {
        for (unsigned i = 0; !stop.load(std::memory_order_relaxed); ++i)
            std::memcpy(ring.data() + 8, i & 1 ? "\xA0\x0F\0\0" : "\x04\0\0\0", 4);  // 4000 or 4
    });
    size_t wrong = 0;
    for (int i = 0; i < 20000; ++i) {
        const std::string snapshot = Read(ring), since = Read(ring, 6u);
        wrong += (snapshot != "refused" && snapshot != "8/4:seq 4;seq 5;seq 6;seq 7;") +
                 (since != "refused" && since != "8 lost 0:seq 6;seq 7;");
    }
    stop = true;
    flipper.join();
    CHECK(wrong == 0);
    std::memcpy(ring.data() + 8, "\x04\0\0\0", 4);  // whole again: only bad counts were refused
    CHECK(Read(ring) == "8/4:seq 4;seq 5;seq 6;seq 7;");
}
