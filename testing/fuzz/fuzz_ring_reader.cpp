// The log ring is writable by every local process: a viewer must survive any bytes.
#include "TarnLog/RingLayout.h"

#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    TarnLog::RingSnapshot snapshot;
    std::string error;
    if (TarnLog::SnapshotRing(data, size, snapshot, error)) {
        for (const auto& record : snapshot.records)
            (void)TarnLog::FormatRecordText(record);
    }
    std::vector<TarnLog::LogRecord> records;
    uint32_t counter = 0, lost = 0;
    const uint32_t seen = size >= 4 ? data[0] * 7919u : 0;
    TarnLog::ReadRingSince(data, size, seen, records, counter, lost);
    if (size >= sizeof(TarnLog::RingHeader)) {
        TarnLog::RingHeader header;
        std::memcpy(&header, data, sizeof header);
        for (const auto& slot : header.slots)
            (void)TarnLog::SlotEventName(slot);
    }
    return 0;
}
