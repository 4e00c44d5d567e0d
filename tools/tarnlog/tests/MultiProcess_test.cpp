// Several processes logging at once into the one machine-wide ring while a follower reads
// it: every record is accounted for, no entry is torn, and the critical file they all
// append to stays readable across its wraps. Nothing else may log meanwhile.
#include "BackgroundProcess.h"
#include "RingReader.h"

#include "TarnBase/KernelObjectName.h"
#include "TarnLog/CriticalFile.h"
#include "TarnLog/Log.h"
#include "TarnMT/win/SecurityAttributes.h"

#include <doctest.h>

#include <cstdio>
#include <fstream>
#include <map>
#include <memory>
#include <set>
#include <tuple>

using TarnToolTest::BackgroundProcess;
using TarnToolTest::Lines;
using TarnToolTest::WaitUntil;

namespace {

constexpr unsigned kWriters = 4;
constexpr unsigned kThreadsPerWriter = 2;
constexpr unsigned kRecordsPerThread = 1500;
constexpr unsigned kErrorEvery = 10;  // every tenth record is an error: the critical file wraps several times
constexpr unsigned kTotal = kWriters * kThreadsPerWriter * kRecordsPerThread;
const char kClass[] = "LogWriter.MultiProcess";

struct WriterRecord {
    std::string processName;
    unsigned long pid = 0;
    unsigned long tid = 0;
    std::string className;
    unsigned long messagePid = 0;
    unsigned long messageTid = 0;
    unsigned long seq = 0;
};

// A whole line in the text form of a writer's record, or false.
bool ParseText(const std::string& line, WriterRecord& record)
{
    char process[64] = {};
    char className[80] = {};
    int consumed = 0;
    if (std::sscanf(line.c_str(),
                    "[%*2d/%*2d/%*4d %*2d:%*2d:%*2d][Process: %63[^]]][PID: 0x%lx][Thread: 0x%lx][Class: %79[^]]]"
                    "[Msg: logwriter pid=%lu tid=%lu seq=%lu]%n",
                    process, &record.pid, &record.tid, className, &record.messagePid, &record.messageTid, &record.seq,
                    &consumed) != 7 ||
        static_cast<size_t>(consumed) != line.size())
        return false;
    record.processName = process;
    record.className = className;
    return true;
}

// Consistent: the ids in the fields are the ids the writer put in its own message.
bool IsWhole(const WriterRecord& record)
{
    return record.processName == "logwriter.exe" && record.className == kClass && record.pid == record.messagePid &&
           record.tid == record.messageTid && record.seq < kRecordsPerThread;
}

std::string CriticalFileBytes()
{
    std::ifstream in(TarnTest::CriticalFilePath(), std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

} // namespace

TEST_CASE("four writer processes and a follower: every record accounted for, none torn, critical file intact")
{
    TarnLog::Log("MultiProcess", 2, "MultiProcess: ring wanted.");
    TarnTest::RingHeaderEditor editor;
    REQUIRE(editor.IsOpen());
    const uint32_t entryCount = editor.Header().entryCount;

    BackgroundProcess follower;
    REQUIRE(follower.Start({TarnTest::BuildPath("tools/tarnlog/tarnlog.exe"), L"--follow", L"--class", L"LogWriter.MultiProcess",
                            L"--count", std::to_wstring(kTotal), L"--seconds", L"50"}));
    const std::string followerEvent = "TarnLogView." + std::to_string(follower.Id());
    REQUIRE(WaitUntil(
        [&] {
            const TarnLog::RingHeader header = editor.Header();
            for (const auto& slot : header.slots)
                if (TarnLog::SlotEventName(slot) == followerEvent)
                    return true;
            return false;
        },
        10000));

    const std::string startName = "TarnLogWriterGo." + std::to_string(::GetCurrentProcessId());
    TarnMT::SecurityAttributes everyone = TarnMT::SecurityAttributes::Everyone();
    TarnBase::UniqueHandle start(
        ::CreateEventA(everyone.Get(), TRUE, FALSE, TarnBase::MakeKernelObjectName(startName, true).c_str()));
    REQUIRE(start);

    std::vector<std::unique_ptr<BackgroundProcess>> writers;
    std::set<unsigned long> writerPids;
    for (unsigned i = 0; i < kWriters; ++i) {
        writers.push_back(std::make_unique<BackgroundProcess>());
        REQUIRE(writers.back()->Start({TarnTest::BuildPath("testing/logwriter/logwriter.exe"), L"--count",
                                       std::to_wstring(kRecordsPerThread), L"--threads",
                                       std::to_wstring(kThreadsPerWriter), L"--error-every", std::to_wstring(kErrorEvery),
                                       L"--start-event", std::wstring(startName.begin(), startName.end()), L"--class",
                                       L"LogWriter.MultiProcess"},
                                      false));
        writerPids.insert(writers.back()->Id());
    }
    const uint32_t counterBefore = editor.Header().writeCounter;
    const ULONGLONG started = ::GetTickCount64();
    ::SetEvent(start.Get());
    for (auto& writer : writers) {
        const ULONGLONG elapsed = ::GetTickCount64() - started;
        REQUIRE_MESSAGE(writer->Wait(elapsed < 45000 ? static_cast<DWORD>(45000 - elapsed) : 0),
                        "a writer did not finish within 45 seconds");
        CHECK(writer->ExitCode() == 0u);
    }

    // The counter moved by exactly the records written: none skipped, none counted twice.
    const uint32_t counterAfter = editor.Header().writeCounter;
    CHECK(counterAfter - counterBefore == kTotal);

    REQUIRE_MESSAGE(follower.Wait(15000), "the follower did not reach its count");
    CHECK(follower.ExitCode() == 0u);
    CHECK(follower.Err().empty());

    // The follower: every record either printed once, in each thread's order, or counted lost.
    uint64_t shown = 0;
    uint64_t lost = 0;
    size_t malformed = 0;
    std::map<std::pair<unsigned long, unsigned long>, long> lastSeq;
    size_t outOfOrder = 0;
    for (const auto& line : Lines(follower.Out())) {
        unsigned long n = 0;
        int consumed = 0;
        if (std::sscanf(line.c_str(), "(%lu records lost)%n", &n, &consumed) == 1 &&
            static_cast<size_t>(consumed) == line.size()) {
            lost += n;
            continue;
        }
        WriterRecord record;
        if (!ParseText(line, record) || !IsWhole(record) || writerPids.count(record.pid) == 0) {
            if (++malformed <= 3)
                MESSAGE("follower line not a whole writer record: " << line);
            continue;
        }
        auto [it, first] = lastSeq.emplace(std::make_pair(record.pid, record.tid), -1);
        outOfOrder += static_cast<long>(record.seq) <= it->second ? 1 : 0;
        it->second = static_cast<long>(record.seq);
        ++shown;
    }
    CHECK(malformed == 0);
    CHECK(outOfOrder == 0);
    CHECK(shown + lost == kTotal);
    CHECK(lastSeq.size() == kWriters * kThreadsPerWriter);
    for (const auto& entry : lastSeq)
        CHECK(entry.second == static_cast<long>(kRecordsPerThread - 1));  // each thread's last record was seen

    // The ring: the newest entries are the writers', each entry whole.
    TarnLog::RingSnapshot snapshot;
    std::string error;
    REQUIRE(TarnTest::RingReader().Snapshot(snapshot, error));
    size_t inRing = 0;
    size_t torn = 0;
    for (const auto& entry : snapshot.records) {
        if (TarnLog::ReadField(entry.className, sizeof entry.className) != kClass)
            continue;
        ++inRing;
        WriterRecord record;
        const std::string message = TarnLog::ReadField(entry.message, sizeof entry.message);
        if (std::sscanf(message.c_str(), "logwriter pid=%lu tid=%lu seq=%lu", &record.messagePid, &record.messageTid,
                        &record.seq) != 3 ||
            entry.processId != record.messagePid || entry.threadId != record.messageTid ||
            TarnLog::ReadField(entry.processName, sizeof entry.processName) != "logwriter.exe" ||
            entry.level != (record.seq % kErrorEvery == kErrorEvery - 1 ? 0 : 2))
            ++torn;
    }
    CHECK(inRing == std::min<size_t>(kTotal, entryCount));
    CHECK(torn == 0);

    // The critical file: wrapped several times by four processes, still one valid position
    // and only whole records, each an error of a writer, none twice.
    const std::string bytes = CriticalFileBytes();
    const TarnLog::CriticalFileContents contents = TarnLog::ReadCriticalRecords(bytes);
    CHECK(contents.positionValid);
    CHECK(bytes.size() >= TarnLog::kCriticalWrapPosition);
    CHECK(bytes.size() < TarnLog::kCriticalWrapPosition + 1024);
    std::set<std::tuple<unsigned long, unsigned long, unsigned long>> seen;
    size_t badCritical = 0;
    for (const auto& line : contents.records) {
        WriterRecord record;
        const bool good = ParseText(line, record) && IsWhole(record) && record.seq % kErrorEvery == kErrorEvery - 1 &&
                          writerPids.count(record.pid) == 1 && seen.insert({record.pid, record.tid, record.seq}).second;
        if (!good && ++badCritical <= 3)
            MESSAGE("critical record not a whole writer error: " << line);
    }
    CHECK(badCritical == 0);
    CHECK(contents.records.size() > 150);
}
