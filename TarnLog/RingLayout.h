#pragma once
// The machine-wide log ring as bytes: header, seven reader notification slots, entries.
// Everything here treats the mapping as untrusted, since any local process can write it.

#include "TarnLog/LogRecord.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace TarnLog {

constexpr uint32_t kRingHeaderSize = 292;
constexpr uint32_t kRingEntrySize = 692;
constexpr uint32_t kNotificationSlots = 7;
constexpr uint32_t kDefaultRingEntries = 512;
// Far beyond any sensible ring; a count above it is treated as damage, not configuration.
constexpr uint32_t kMaxRingEntries = 1u << 20;

#pragma pack(push, 1)
struct NotificationSlot {
    char eventName[32];
    uint8_t inUse;
    uint8_t reserved[7];
};
struct RingHeader {
    uint32_t generation;
    uint32_t writeCounter;
    uint32_t entryCount;
    NotificationSlot slots[kNotificationSlots];
};
#pragma pack(pop)

static_assert(sizeof(NotificationSlot) == 40, "slot size");
static_assert(sizeof(RingHeader) == kRingHeaderSize, "header size");
static_assert(offsetof(RingHeader, slots) == 12, "slots offset");
static_assert(offsetof(NotificationSlot, inUse) == 32, "slot in-use flag offset");
static_assert(kRingEntrySize == sizeof(LogRecord), "one entry is one record");

// Bytes needed for `entries` entries; false when the count is 0, absurd, or overflows.
bool RingBytes(uint32_t entries, size_t& bytes);

// Whether a mapping of `mappedSize` bytes holds a ring whose header can be trusted enough
// to index entries.
bool IsUsableRing(const uint8_t* base, size_t mappedSize);

// The slot's event name, or empty when the slot is free or its name has no terminator.
std::string SlotEventName(const NotificationSlot& slot);

struct RingSnapshot {
    uint32_t generation = 0;
    uint32_t writeCounter = 0;
    uint32_t entryCount = 0;
    std::vector<LogRecord> records;  // oldest first
};

// Copies the ring out, oldest record first. False (with a reason) for an unusable ring.
bool SnapshotRing(const uint8_t* base, size_t mappedSize, RingSnapshot& snapshot, std::string& error);

// Records written after `seenCounter`, oldest first; `lost` counts those already overwritten.
bool ReadRingSince(const uint8_t* base, size_t mappedSize, uint32_t seenCounter, std::vector<LogRecord>& records,
                   uint32_t& newCounter, uint32_t& lost);

} // namespace TarnLog
