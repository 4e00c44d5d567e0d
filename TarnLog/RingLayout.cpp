#include "TarnLog/RingLayout.h"

#include <cstring>

namespace TarnLog {

bool RingBytes(uint32_t entries, size_t& bytes)
{
    if (entries == 0 || entries > kMaxRingEntries)
        return false;
    bytes = static_cast<size_t>(entries) * kRingEntrySize + kRingHeaderSize;
    return true;
}

namespace {
// Copies the header once and judges that copy: a second read of the live header could see
// a count another process wrote in between.
bool ReadUsableHeader(const uint8_t* base, size_t mappedSize, RingHeader& header)
{
    if (base == nullptr || mappedSize < kRingHeaderSize)
        return false;
    std::memcpy(&header, base, sizeof header);
    size_t needed = 0;
    return RingBytes(header.entryCount, needed) && needed <= mappedSize;
}
} // namespace

bool IsUsableRing(const uint8_t* base, size_t mappedSize)
{
    RingHeader header;
    return ReadUsableHeader(base, mappedSize, header);
}

std::string SlotEventName(const NotificationSlot& slot)
{
    if (slot.inUse == 0)
        return std::string();
    const void* end = std::memchr(slot.eventName, '\0', sizeof slot.eventName);
    if (end == nullptr)
        return std::string();
    return std::string(slot.eventName, static_cast<const char*>(end));
}

namespace {
LogRecord EntryAt(const uint8_t* base, uint32_t index)
{
    LogRecord record;
    std::memcpy(&record, base + kRingHeaderSize + static_cast<size_t>(index) * kRingEntrySize, sizeof record);
    return record;
}
} // namespace

bool SnapshotRing(const uint8_t* base, size_t mappedSize, RingSnapshot& snapshot, std::string& error)
{
    snapshot = RingSnapshot();
    RingHeader header;
    if (!ReadUsableHeader(base, mappedSize, header)) {
        error = "the log ring's header is damaged (entry count does not fit the mapping)";
        return false;
    }
    snapshot.generation = header.generation;
    snapshot.writeCounter = header.writeCounter;
    snapshot.entryCount = header.entryCount;
    const uint32_t count = header.entryCount;
    const uint32_t available = header.writeCounter < count ? header.writeCounter : count;
    snapshot.records.reserve(available);
    for (uint32_t i = 0; i < available; ++i) {
        const uint32_t sequence = header.writeCounter - available + i;
        snapshot.records.push_back(EntryAt(base, sequence % count));
    }
    return true;
}

bool ReadRingSince(const uint8_t* base, size_t mappedSize, uint32_t seenCounter, std::vector<LogRecord>& records,
                   uint32_t& newCounter, uint32_t& lost)
{
    records.clear();
    lost = 0;
    RingHeader header;
    if (!ReadUsableHeader(base, mappedSize, header))
        return false;
    newCounter = header.writeCounter;
    const uint32_t fresh = header.writeCounter - seenCounter;  // wraps correctly past 2^32
    uint32_t take = fresh;
    if (take > header.entryCount) {
        lost = take - header.entryCount;
        take = header.entryCount;
    }
    for (uint32_t i = 0; i < take; ++i) {
        const uint32_t sequence = header.writeCounter - take + i;
        records.push_back(EntryAt(base, sequence % header.entryCount));
    }
    return true;
}

} // namespace TarnLog
