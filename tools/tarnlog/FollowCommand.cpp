#include "Commands.h"
#include "LineOutput.h"
#include "ReaderSlot.h"
#include "SharedRing.h"
#include "StopSignal.h"

#include "TarnBase/KernelObjectName.h"
#include "TarnLog/RingLayout.h"
#include "TarnLog/win/LowIntegrity.h"
#include "TarnMT/win/SecurityAttributes.h"

#include <cstring>
#include <vector>

namespace TarnLogTool {
namespace {

constexpr DWORD kPollMs = 50;  // while there is no ring, or no slot for our event
constexpr DWORD kSafetyWakeMs = 1000;  // a missed wake-up costs at most this long
constexpr DWORD kAttachLockMs = 5000;
constexpr DWORD kReadLockMs = 1000;

class Follower {
public:
    Follower(const Options& options, std::FILE* out, std::FILE* err)
        : m_options(options), m_out(out), m_err(err), m_eventName(FollowerEventName(::GetCurrentProcessId()))
    {
        if (options.hasSeconds)
            m_deadline = ::GetTickCount64() + options.seconds * 1000ull;
    }

    int Run()
    {
        const int waited = WaitForRing();
        if (waited >= 0)
            return waited;
        if (!Attach())
            return kExitUnreadable;
        const int status = Loop();
        Detach();
        return status;
    }

private:
    // Time left before --seconds runs out, capped at `cap`.
    DWORD Remaining(DWORD cap) const
    {
        if (m_deadline == 0)
            return cap;
        const ULONGLONG now = ::GetTickCount64();
        return now >= m_deadline ? 0 : static_cast<DWORD>(m_deadline - now < cap ? m_deadline - now : cap);
    }
    bool Expired() const { return m_deadline != 0 && ::GetTickCount64() >= m_deadline; }
    bool CountReached() const { return m_options.hasCount && m_newRecords >= m_options.count; }

    // -1 once the ring is open, else the exit status.
    int WaitForRing()
    {
        bool announced = false;
        for (;;) {
            std::string error;
            const OpenResult result = m_ring.Open(true, error);
            if (result == OpenResult::Opened)
                return -1;
            if (result == OpenResult::Failed) {
                std::fprintf(m_err, "%s\n", error.c_str());
                return kExitUnreadable;
            }
            if (!announced) {
                std::fprintf(m_err, "tarnlog: no log ring yet; waiting for a process to log\n");
                std::fflush(m_err);
                announced = true;
            }
            if (::WaitForSingleObject(m_stop.Handle(), Remaining(kPollMs)) == WAIT_OBJECT_0)
                return kExitOk;
            if (Expired()) {
                std::fprintf(m_err, "tarnlog: no log ring appeared within %u seconds\n", m_options.seconds);
                return kExitUnreadable;
            }
        }
    }

    void CreateWakeEvent()
    {
        std::string fullName;
        try {
            fullName = TarnBase::MakeKernelObjectName(m_eventName, true);
        } catch (...) {
            return;
        }
        // Writers run as other users and at low integrity; they must be able to set it.
        TarnMT::SecurityAttributes everyone = TarnMT::SecurityAttributes::Everyone();
        m_wake.Reset(::CreateEventA(everyone.Get(), TRUE, FALSE, fullName.c_str()));
        TarnLog::ApplyLowIntegrityLabel(m_wake.Get());
    }

    // Publishes our event and prints what the ring already holds, in one hold of the
    // mutex, so that no record falls between the two.
    bool Attach()
    {
        CreateWakeEvent();
        TarnLog::RingSnapshot snapshot;
        std::string error;
        bool read = false;
        {
            RingLock lock(m_ring.Mutex(), kAttachLockMs);
            if (!lock.Held()) {
                std::fprintf(m_err, "tarnlog: the log ring stayed locked for 5 seconds; cannot attach\n");
                return false;
            }
            read = TarnLog::SnapshotRing(m_ring.Base(), m_ring.Size(), snapshot, error);
            if (read && m_ring.Writable() && m_wake)
                m_slot = ClaimSlot(m_ring.Base(), m_eventName, IsProcessGone);
        }
        if (!read) {
            std::fprintf(m_err, "tarnlog: %s\n", error.c_str());
            return false;
        }
        if (m_slot < 0)
            std::fprintf(m_err, "tarnlog: no notification slot for this viewer (all %u taken); checking every %lu ms\n",
                         TarnLog::kNotificationSlots, static_cast<unsigned long>(kPollMs));
        for (const auto& record : snapshot.records)
            if (m_options.filter.Matches(record))
                WriteLine(m_out, TarnLog::FormatRecordText(record));
        std::fflush(m_out);
        m_seen = snapshot.writeCounter;
        return true;
    }

    int Loop()
    {
        while (!CountReached()) {
            HANDLE handles[2] = {m_stop.Handle(), m_wake.Get()};
            const DWORD wait = ::WaitForMultipleObjects(m_slot >= 0 ? 2 : 1, handles, FALSE,
                                                        Remaining(m_slot >= 0 ? kSafetyWakeMs : kPollMs));
            if (wait == WAIT_OBJECT_0)
                return kExitOk;
            if (m_slot >= 0)
                ::ResetEvent(m_wake.Get());  // before reading: a record after this wakes us again
            if (!ReadNew())
                return kExitUnreadable;
            if (Expired())
                return kExitOk;
        }
        return kExitOk;
    }

    bool ReadNew()
    {
        std::vector<TarnLog::LogRecord> records;
        uint32_t counter = 0;
        uint32_t lost = 0;
        bool read = false;
        bool wentBack = false;
        {
            RingLock lock(m_ring.Mutex(), kReadLockMs);
            if (!lock.Held())
                return true;  // a writer holds it; try again at the next wake-up
            uint32_t live = 0;
            std::memcpy(&live, m_ring.Base() + offsetof(TarnLog::RingHeader, writeCounter), sizeof live);
            wentBack = static_cast<int32_t>(live - m_seen) < 0;
            if (wentBack)
                m_seen = live;
            read = TarnLog::ReadRingSince(m_ring.Base(), m_ring.Size(), m_seen, records, counter, lost);
        }
        if (!read) {
            std::fprintf(m_err, "tarnlog: the log ring's header is damaged (entry count does not fit the mapping)\n");
            return false;
        }
        if (wentBack)
            std::fprintf(m_err, "tarnlog: the ring's write counter went back; following from its new value\n");
        m_seen = counter;
        Print(records, lost);
        return true;
    }

    void Print(const std::vector<TarnLog::LogRecord>& records, uint32_t lost)
    {
        if (lost > 0) {
            std::fprintf(m_out, "(%lu records lost)\n", static_cast<unsigned long>(lost));
            m_newRecords += lost;
        }
        for (const auto& record : records) {
            if (CountReached())
                break;
            if (!m_options.filter.Matches(record))
                continue;
            WriteLine(m_out, TarnLog::FormatRecordText(record));
            ++m_newRecords;
        }
        std::fflush(m_out);
    }

    void Detach()
    {
        if (m_slot < 0)
            return;
        RingLock lock(m_ring.Mutex(), kAttachLockMs);
        if (lock.Held())
            ReleaseSlot(m_ring.Base(), m_slot, m_eventName);
        else
            std::fprintf(m_err, "tarnlog: the log ring stayed locked; notification slot %d is left to the next viewer\n",
                         m_slot);
        m_slot = -1;
    }

    const Options& m_options;
    std::FILE* m_out;
    std::FILE* m_err;
    const std::string m_eventName;
    StopSignal m_stop;
    SharedRing m_ring;
    TarnBase::UniqueHandle m_wake;
    int m_slot = -1;
    uint32_t m_seen = 0;
    uint64_t m_newRecords = 0;
    ULONGLONG m_deadline = 0;
};

} // namespace

int RunFollow(const Options& options, std::FILE* out, std::FILE* err)
{
    Follower follower(options, out, err);
    return follower.Run();
}

} // namespace TarnLogTool
