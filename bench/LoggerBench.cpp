// What a log call costs against the least any shared-ring logger must do per record:
// take a machine-wide named mutex, copy one 692-byte entry into a shared mapping, release.
// Measured in one process and in four processes logging at once (wall time per record);
// the two sides alternate round by round and the medians are compared.
//
//   logger_bench            full run
//   logger_bench --short    a few thousand records, for make test (never fails on timing)
//   logger_bench --child floor|ours N START READY DONE    one of the four processes
#include "BenchSupport.h"
#include "TarnBase/KernelObjectName.h"
#include "TarnBase/win/Handle.h"
#include "TarnLog/Log.h"
#include "TarnLog/LogRecord.h"
#include "TarnLog/RingLayout.h"
#include "TarnMT/win/SecurityAttributes.h"

#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

const char kFloorMapping[] = "TarnLogBench::Floor::Mapping";
const char kFloorMutex[] = "TarnLogBench::Floor::Mutex";
constexpr uint32_t kFloorEntries = TarnLog::kDefaultRingEntries;
constexpr double kTarget = 1.5;

std::string Global(const std::string& name)
{
    return TarnBase::MakeKernelObjectName(name, true);
}

// Seconds, on the benchmarks' one clock.
double Now()
{
    return Bench::NowUs() / 1e6;
}

// The floor's ring: same header and entry sizes as the log ring, its own names.
class FloorRing {
public:
    bool Open()
    {
        TarnMT::SecurityAttributes everyone = TarnMT::SecurityAttributes::Everyone();
        size_t bytes = 0;
        TarnLog::RingBytes(kFloorEntries, bytes);
        m_mapping.Reset(::CreateFileMappingA(INVALID_HANDLE_VALUE, everyone.Get(), PAGE_READWRITE, 0,
                                             static_cast<DWORD>(bytes), Global(kFloorMapping).c_str()));
        m_mutex.Reset(::CreateMutexA(everyone.Get(), FALSE, Global(kFloorMutex).c_str()));
        if (m_mapping)
            m_view.Reset(::MapViewOfFile(m_mapping.Get(), FILE_MAP_ALL_ACCESS, 0, 0, bytes));
        std::memset(&m_record, 0, sizeof m_record);
        TarnLog::CopyField(m_record.message, sizeof m_record.message, "floor record");
        return m_view && m_mutex;
    }

    void Write()
    {
        ::WaitForSingleObject(m_mutex.Get(), INFINITE);
        auto* base = static_cast<uint8_t*>(m_view.Get());
        uint32_t counter = 0;
        std::memcpy(&counter, base + 4, 4);
        std::memcpy(base + TarnLog::kRingHeaderSize + (counter % kFloorEntries) * TarnLog::kRingEntrySize, &m_record,
                    sizeof m_record);
        ++counter;
        std::memcpy(base + 4, &counter, 4);
        ::ReleaseMutex(m_mutex.Get());
    }

private:
    TarnBase::UniqueHandle m_mapping;
    TarnBase::UniqueHandle m_mutex;
    TarnBase::UniqueMappedView m_view;
    TarnLog::LogRecord m_record;
};

enum class Kind { Floor, Ours };

// N records of one kind in this process; seconds taken.
double RunRecords(Kind kind, FloorRing& floor, unsigned count)
{
    const double start = Now();
    if (kind == Kind::Floor) {
        for (unsigned i = 0; i < count; ++i)
            floor.Write();
    } else {
        for (unsigned i = 0; i < count; ++i)
            TarnLog::Log("LoggerBench", 2, "LoggerBench: record %d.", static_cast<int>(i));
    }
    return Now() - start;
}

int RunChild(char** argv)
{
    const Kind kind = std::strcmp(argv[2], "floor") == 0 ? Kind::Floor : Kind::Ours;
    const unsigned count = static_cast<unsigned>(std::strtoul(argv[3], nullptr, 10));
    TarnBase::UniqueHandle start(::OpenEventA(SYNCHRONIZE, FALSE, Global(argv[4]).c_str()));
    TarnBase::UniqueHandle ready(::OpenSemaphoreA(SEMAPHORE_MODIFY_STATE, FALSE, Global(argv[5]).c_str()));
    TarnBase::UniqueHandle done(::OpenSemaphoreA(SEMAPHORE_MODIFY_STATE, FALSE, Global(argv[6]).c_str()));
    FloorRing floor;
    if (!start || !ready || !done || !floor.Open())
        return 3;
    RunRecords(kind, floor, 200);  // set-up (the logger's ring, the mappings) stays out of the timing
    ::ReleaseSemaphore(ready.Get(), 1, nullptr);
    if (::WaitForSingleObject(start.Get(), 60000) != WAIT_OBJECT_0)
        return 4;
    RunRecords(kind, floor, count);
    ::ReleaseSemaphore(done.Get(), 1, nullptr);
    return 0;
}

// Starts `processes` copies of this program, releases them together, and returns the wall
// time from the start signal until the last one has written its records; negative on failure.
double RunProcesses(Kind kind, unsigned processes, unsigned perProcess)
{
    static unsigned round = 0;
    const std::string suffix = std::to_string(::GetCurrentProcessId()) + "." + std::to_string(round++);
    const std::string startName = "TarnLogBench.Start." + suffix;
    const std::string readyName = "TarnLogBench.Ready." + suffix;
    const std::string doneName = "TarnLogBench.Done." + suffix;
    TarnMT::SecurityAttributes everyone = TarnMT::SecurityAttributes::Everyone();
    TarnBase::UniqueHandle start(::CreateEventA(everyone.Get(), TRUE, FALSE, Global(startName).c_str()));
    TarnBase::UniqueHandle ready(::CreateSemaphoreA(everyone.Get(), 0, 64, Global(readyName).c_str()));
    TarnBase::UniqueHandle done(::CreateSemaphoreA(everyone.Get(), 0, 64, Global(doneName).c_str()));
    // Children die with this process, whatever happens to it.
    TarnBase::UniqueHandle job(::CreateJobObjectA(nullptr, nullptr));
    JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits{};
    limits.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;
    ::SetInformationJobObject(job.Get(), JobObjectExtendedLimitInformation, &limits, sizeof limits);

    char self[MAX_PATH] = {};
    ::GetModuleFileNameA(nullptr, self, MAX_PATH);
    std::vector<TarnBase::UniqueHandle> children;
    for (unsigned i = 0; i < processes; ++i) {
        std::string command = std::string("\"") + self + "\" --child " + (kind == Kind::Floor ? "floor" : "ours") + " " +
                              std::to_string(perProcess) + " " + startName + " " + readyName + " " + doneName;
        STARTUPINFOA startup{};
        startup.cb = sizeof startup;
        PROCESS_INFORMATION info{};
        // No inherited handles: a child must not keep the caller's output pipe open.
        if (!::CreateProcessA(nullptr, &command[0], nullptr, nullptr, FALSE, CREATE_SUSPENDED | CREATE_NO_WINDOW,
                              nullptr, nullptr, &startup, &info))
            return -1;
        TarnBase::UniqueHandle thread(info.hThread);
        children.emplace_back(info.hProcess);
        ::AssignProcessToJobObject(job.Get(), info.hProcess);
        ::ResumeThread(info.hThread);
    }
    for (unsigned i = 0; i < processes; ++i)
        if (::WaitForSingleObject(ready.Get(), 60000) != WAIT_OBJECT_0)
            return -1;
    const double begin = Now();
    ::SetEvent(start.Get());
    for (unsigned i = 0; i < processes; ++i)
        if (::WaitForSingleObject(done.Get(), 120000) != WAIT_OBJECT_0)
            return -1;
    const double elapsed = Now() - begin;
    for (auto& child : children) {
        DWORD code = 1;
        ::WaitForSingleObject(child.Get(), 30000);
        if (!::GetExitCodeProcess(child.Get(), &code) || code != 0)
            return -1;
    }
    return elapsed;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc == 7 && std::strcmp(argv[1], "--child") == 0)
        return RunChild(argv);
    const bool shortRun = argc > 1 && std::strcmp(argv[1], "--short") == 0;
    const unsigned single = shortRun ? 3000 : 20000;
    const unsigned perProcess = shortRun ? 1000 : 5000;
    const unsigned processes = 4;
    const int rounds = shortRun ? 1 : 3;

    FloorRing floor;
    if (!floor.Open()) {
        std::fprintf(stderr, "logger_bench: cannot create the floor's mapping and mutex\n");
        return 1;
    }
    RunRecords(Kind::Ours, floor, 200);
    RunRecords(Kind::Floor, floor, 200);

    // Microseconds per record: the single-process sides are timed here, the four-process
    // sides report the wall time between the start signal and the last child's last record.
    const unsigned fourRecords = processes * perProcess;
    auto single1 = [&](Kind kind) {
        return [&, kind](std::vector<double>& samples) {
            samples.push_back(RunRecords(kind, floor, single) * 1e6 / single);
            return true;
        };
    };
    auto four = [&](Kind kind) {
        return [&, kind](std::vector<double>& samples) {
            const double seconds = RunProcesses(kind, processes, perProcess);
            samples.push_back(seconds * 1e6 / fourRecords);
            return seconds >= 0;
        };
    };
    const Bench::Comparison one = Bench::AlternateSamples(rounds, single1(Kind::Ours), single1(Kind::Floor));
    const Bench::Comparison many = Bench::AlternateSamples(rounds, four(Kind::Ours), four(Kind::Floor));
    if (!many.ok) {
        std::fprintf(stderr, "logger_bench: a child process failed\n");
        return 1;
    }

    std::printf("logger_bench%s: %u records in one process, %u x %u in four processes, median of %d\n",
                shortRun ? " --short" : "", single, processes, perProcess, rounds);
    Bench::PrintHeader();
    Bench::PrintRow("log call into the shared ring, 1 process", "record", Bench::Median(one.ours),
                    Bench::Median(one.floor), kTarget);
    Bench::PrintRow("log call into the shared ring, 4 processes (wall)", "record", Bench::Median(many.ours),
                    Bench::Median(many.floor), kTarget);
    return 0;
}
