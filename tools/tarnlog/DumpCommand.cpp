#include "Commands.h"
#include "LineOutput.h"
#include "SharedRing.h"

#include "TarnLog/RingLayout.h"

namespace TarnLogTool {

const char kNoRingMessage[] = "tarnlog: no log ring on this machine (no process has logged yet)";

int RunDump(const Options& options, std::FILE* out, std::FILE* err)
{
    SharedRing ring;
    std::string error;
    switch (ring.Open(false, error)) {
    case OpenResult::Missing:
        std::fprintf(err, "%s\n", kNoRingMessage);
        return kExitUnreadable;
    case OpenResult::Failed:
        std::fprintf(err, "%s\n", error.c_str());
        return kExitUnreadable;
    case OpenResult::Opened:
        break;
    }

    TarnLog::RingSnapshot snapshot;
    bool read = false;
    {
        RingLock lock(ring.Mutex(), 5000);
        if (!lock.Held())
            std::fprintf(err, "tarnlog: the log ring stayed locked for 5 seconds; reading it unlocked\n");
        // Copied out under the lock, formatted after it: writers wait only for the copy.
        read = TarnLog::SnapshotRing(ring.Base(), ring.Size(), snapshot, error);
    }
    if (!read) {
        std::fprintf(err, "tarnlog: %s\n", error.c_str());
        return kExitUnreadable;
    }
    for (const auto& record : snapshot.records)
        if (options.filter.Matches(record))
            WriteLine(out, TarnLog::FormatRecordText(record));
    std::fflush(out);
    return kExitOk;
}

} // namespace TarnLogTool
