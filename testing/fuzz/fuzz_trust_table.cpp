// The trusted-process table is shared memory any local process can write: reading it must
// never go out of bounds, and an entry found must really carry the identifier asked for.
#include "TarnSys/TrustTable.h"

#include <cstdlib>
#include <cstring>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // The table is always mapped at its full size; the input fills its start.
    static std::vector<uint8_t> table(TarnSys::kTableBytes);
    std::memset(table.data(), 0, table.size());
    std::memcpy(table.data(), data, size < table.size() ? size : table.size());

    std::u16string asked;
    for (size_t index = 0; index < TarnSys::kTableEntryCount; ++index) {
        const auto entry = TarnSys::ReadEntry(table.data(), table.size(), index);
        if (entry && !entry->IsFree())
            asked = entry->pid;
    }
    if (!asked.empty()) {
        const auto found = TarnSys::FindEntry(table.data(), table.size(), asked);
        const auto entry = found ? TarnSys::ReadEntry(table.data(), table.size(), *found) : std::nullopt;
        // Over-long identifiers are refused by the look-up; whatever it does find must match.
        if (found && (!entry || !TarnSys::EqualsNoCase(entry->pid, asked)))
            std::abort();
        if (entry) {
            (void)TarnSys::PathsMatchForQuery(entry->path, u"C:\\Windows\\system32\\mshta.exe", (size & 1) != 0);
            (void)TarnSys::ToNarrowForLog(entry->pid);
        }
    }
    (void)TarnSys::FirstFreeEntry(table.data(), table.size());
    return 0;
}
