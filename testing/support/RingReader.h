#pragma once
// Reads back the machine-wide log ring as an outside viewer does (read-only, the mutex held
// only while copying); RingHeaderEditor plays a second process writing the header. The
// critical file is read back here too, since a record that misses the ring must reach it.

#include "ChildProcess.h"
#include "TarnBase/KernelObjectName.h"
#include "TarnBase/win/Handle.h"
#include "TarnLog/CriticalFile.h"
#include "TarnLog/Log.h"
#include "TarnLog/RingLayout.h"
#include "TarnLog/win/Logger.h"
#include "tools/tarnlog/SharedRing.h"

#include <windows.h>
#include <shlobj.h>

#include <atomic>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace TarnTest {

// A text no other test, process or run writes: lets a test find its own records.
inline std::string Nonce()
{
    static std::atomic<unsigned> counter{0};
    return std::to_string(::GetCurrentProcessId()) + "-" + std::to_string(::GetTickCount()) + "-" + std::to_string(counter++);
}

inline std::string MessageOf(const TarnLog::LogRecord& r) { return TarnLog::ReadField(r.message, sizeof r.message); }
inline std::string ClassOf(const TarnLog::LogRecord& r) { return TarnLog::ReadField(r.className, sizeof r.className); }

inline uint32_t Le32(const uint8_t* at) { return at[0] | at[1] << 8 | at[2] << 16 | static_cast<uint32_t>(at[3]) << 24; }

inline std::string RingMappingName() { return TarnBase::MakeKernelObjectName(TarnLog::kRingMappingName, true); }
inline std::string RingMutexName() { return TarnBase::MakeKernelObjectName(TarnLog::kRingMutexName, true); }

// The ring opened and locked exactly as the tarnlog tool does it.
using RingMutexHold = TarnLogTool::RingLock;

struct RingView : TarnLogTool::SharedRing {
    // False when no process has the ring open.
    bool Open(bool writable)
    {
        std::string error;
        return SharedRing::Open(writable, error) == TarnLogTool::OpenResult::Opened;
    }
    bool IsOpen() const { return Base() && Mutex(); }
};

class RingReader {
public:
    RingReader() { m_view.Open(false); }

    // The whole mapping as it was at one moment.
    bool CopyBytes(std::vector<uint8_t>& bytes, DWORD lockTimeoutMs = 5000)
    {
        bytes.clear();
        RingMutexHold hold(m_view.IsOpen() || m_view.Open(false) ? m_view.Mutex() : nullptr, lockTimeoutMs);
        if (!hold.Held())
            return false;
        bytes.assign(m_view.Base(), m_view.Base() + m_view.Size());
        return true;
    }

    bool Snapshot(TarnLog::RingSnapshot& snapshot, std::string& error, DWORD lockTimeoutMs = 5000)
    {
        std::vector<uint8_t> bytes;
        if (CopyBytes(bytes, lockTimeoutMs))
            return TarnLog::SnapshotRing(bytes.data(), bytes.size(), snapshot, error);
        error = "the log ring is not open or its mutex was not released";
        return false;
    }

    // The records of one process still in the ring (whose message contains `part`), oldest first.
    std::vector<TarnLog::LogRecord> RecordsWith(const std::string& part, DWORD processId = ::GetCurrentProcessId())
    {
        std::vector<TarnLog::LogRecord> found;
        TarnLog::RingSnapshot snapshot;
        std::string error;
        Snapshot(snapshot, error);  // no records when the ring cannot be read
        for (const auto& record : snapshot.records)
            if (record.processId == processId && MessageOf(record).find(part) != std::string::npos)
                found.push_back(record);
        return found;
    }
    std::vector<TarnLog::LogRecord> RecordsOfProcess(DWORD processId) { return RecordsWith("", processId); }

    std::vector<std::string> MessagesOf(DWORD processId)
    {
        std::vector<std::string> messages;
        for (const auto& record : RecordsOfProcess(processId))
            messages.push_back(MessageOf(record));
        return messages;
    }

    // The write counter, or 0 when the ring cannot be read.
    uint32_t WriteCounter() { std::vector<uint8_t> bytes; return CopyBytes(bytes) ? Le32(bytes.data() + 4) : 0; }

private:
    RingView m_view;
};

// A second, writable view of the ring: every change is made under the ring mutex, as a
// reader process would make it.
class RingHeaderEditor {
public:
    RingHeaderEditor() { m_view.Open(true); }
    bool IsOpen() const { return m_view.IsOpen(); }

    template <typename Change>
    bool Edit(Change change, DWORD lockTimeoutMs = 5000)
    {
        RingMutexHold hold(m_view.IsOpen() ? m_view.Mutex() : nullptr, lockTimeoutMs);
        if (!hold.Held())
            return false;
        change(m_view.Base(), m_view.Size());
        return true;
    }

    TarnLog::RingHeader Header()
    {
        TarnLog::RingHeader header{};
        Edit([&](uint8_t* base, size_t) { std::memcpy(&header, base, sizeof header); });
        return header;
    }

    // What every reader does after touching a slot: makes each writer reload.
    bool BumpGeneration() { return Edit([](uint8_t* base, size_t) { ++*reinterpret_cast<uint32_t*>(base); }); }

    // Writes 40 raw slot bytes at slot `index` and bumps the generation.
    bool WriteSlot(uint32_t index, const void* slotBytes)
    {
        return Edit([&](uint8_t* base, size_t) { std::memcpy(base + 12 + index * 40, slotBytes, 40); }) && BumpGeneration();
    }

    bool PublishEvent(uint32_t index, const std::string& name)
    {
        uint8_t slot[40] = {};
        std::memcpy(slot, name.data(), name.size() < 31 ? name.size() : 31);
        slot[32] = 1;
        return WriteSlot(index, slot);
    }

    bool ClearSlot(uint32_t index) { return WriteSlot(index, std::string(40, '\0').data()); }

    const RingView& View() const { return m_view; }

private:
    RingView m_view;
};

// Puts the seven notification slots back as they were, whatever a test did to them.
class SlotsRestorer {
public:
    SlotsRestorer() = default;
    ~SlotsRestorer()
    {
        m_editor.Edit([&](uint8_t* base, size_t) { std::memcpy(base + 12, m_saved.slots, sizeof m_saved.slots); });
        m_editor.BumpGeneration();
    }
    SlotsRestorer(const SlotsRestorer&) = delete; SlotsRestorer& operator=(const SlotsRestorer&) = delete;
    RingHeaderEditor& Editor() { return m_editor; }

private:
    RingHeaderEditor m_editor;
    TarnLog::RingHeader m_saved = m_editor.Header();
};

inline std::string CriticalFilePath()
{
    char folder[MAX_PATH] = {};
    return SUCCEEDED(::SHGetFolderPathA(nullptr, CSIDL_COMMON_APPDATA, nullptr, 0, folder)) ? std::string(folder) + "\\Ostrum\\critical.txt" : "";
}

inline std::string FileBytes(const std::string& path) { std::ifstream in(path, std::ios::binary); return {std::istreambuf_iterator<char>(in), {}}; }

// The critical file's records, oldest first (none when there is no file).
inline std::vector<std::string> CriticalRecords() { return TarnLog::ReadCriticalRecords(FileBytes(CriticalFilePath())).records; }

// Whether some record of the critical file holds every one of `parts`.
inline bool CriticalFileHas(const std::string& part, const std::string& andPart = "")
{
    for (const auto& r : CriticalRecords())
        if (r.find(part) != std::string::npos && r.find(andPart) != std::string::npos)
            return true;
    return false;
}

// The logger creates the ring on its first record; readers need it to exist.
inline void EnsureRing() { TarnLog::Log("TarnTest::Ring", 2, "TarnTest: ring wanted by pid %lu.", ::GetCurrentProcessId()); }

// testing/logwriter: another process that logs as a host would.
inline ChildResult RunLogWriter(std::vector<std::wstring> args, DWORD timeoutMs = 30000)
{
    args.insert(args.begin(), BuildPath("testing/logwriter/logwriter.exe"));
    return RunChild(args, timeoutMs);
}

} // namespace TarnTest
