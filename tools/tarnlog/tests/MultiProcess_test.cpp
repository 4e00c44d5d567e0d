// Several processes logging at once into the one machine-wide ring while a follower reads
// it: every record is accounted for, no entry is torn, and the critical file they all
// append to stays readable across its wraps. Nothing else may log meanwhile.
#include "RingReader.h"

#include "TarnBase/KernelObjectName.h"
#include "TarnMT/win/SecurityAttributes.h"

#include <doctest.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <memory>
#include <set>
#include <tuple>

using namespace TarnTest;

namespace {

constexpr unsigned kWriters = 4;
constexpr unsigned kThreadsPerWriter = 2;
constexpr unsigned kRecordsPerThread = 1500;
constexpr unsigned kErrorEvery = 10;  // every tenth record is an error: the critical file wraps several times
constexpr unsigned kTotal = kWriters * kThreadsPerWriter * kRecordsPerThread;
const char kClass[] = "LogWriter.MultiProcess";

struct WriterRecord {
    std::string processName, className;
    unsigned long pid = 0, tid = 0, messagePid = 0, messageTid = 0, seq = 0;
};

// A whole line in the text form of a writer's record, or false.
bool ParseText(const std::string& line, WriterRecord& record)
{
    char process[64] = {}, className[80] = {};
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

} // namespace

TEST_CASE("four writer processes and a follower: every record accounted for, none torn, critical file intact")
{
    TarnLog::Log("MultiProcess", 2, "MultiProcess: ring wanted.");
    RingHeaderEditor editor;
    REQUIRE(editor.IsOpen());

    Process follower({BuildPath("tools/tarnlog/tarnlog.exe"), L"--follow", L"--class", L"LogWriter.MultiProcess",
                      L"--count", std::to_wstring(kTotal), L"--seconds", L"50"});
    const auto following = [&] {
        const TarnLog::RingHeader h = editor.Header();
        return std::any_of(h.slots, h.slots + 7, [&](auto& s) { return TarnLog::SlotEventName(s) == "TarnLogView." + std::to_string(follower.Pid()); });
    };
    REQUIRE(WaitUntil(following, 10000));

    const std::string startName = "TarnLogWriterGo." + std::to_string(::GetCurrentProcessId());
    TarnMT::SecurityAttributes everyone = TarnMT::SecurityAttributes::Everyone();
    TarnBase::UniqueHandle start(
        ::CreateEventA(everyone.Get(), TRUE, FALSE, TarnBase::MakeKernelObjectName(startName, true).c_str()));
    REQUIRE(start);

    std::vector<std::unique_ptr<Process>> writers;
    std::set<unsigned long> writerPids;
    for (unsigned i = 0; i < kWriters; ++i) {
        writers.push_back(std::make_unique<Process>(std::vector<std::wstring>{
            BuildPath("testing/logwriter/logwriter.exe"), L"--count", std::to_wstring(kRecordsPerThread), L"--threads",
            std::to_wstring(kThreadsPerWriter), L"--error-every", std::to_wstring(kErrorEvery), L"--start-event",
            Widen(startName), L"--class", L"LogWriter.MultiProcess"}));
        REQUIRE(writers.back()->Started());
        writerPids.insert(writers.back()->Pid());
    }
    const uint32_t counterBefore = editor.Header().writeCounter;
    ::SetEvent(start.Get());
    for (auto& writer : writers) {
        REQUIRE(writer->Wait(45000));
        CHECK(writer->ExitCode() == 0u);
    }

    // The counter moved by exactly the records written: none skipped, none counted twice.
    CHECK(editor.Header().writeCounter - counterBefore == kTotal);

    REQUIRE(follower.Wait(15000));  // it reached its count
    CHECK((follower.ExitCode() == 0u && follower.Err().empty()));

    // The follower: every record either printed once, whole and in each thread's order, or
    // counted lost. A torn entry would be malformed, or missing from both counts.
    uint64_t shown = 0, lost = 0;
    size_t malformed = 0, outOfOrder = 0;
    std::map<std::pair<unsigned long, unsigned long>, long> lastSeq;
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
            ++malformed;
            continue;
        }
        auto [it, first] = lastSeq.emplace(std::make_pair(record.pid, record.tid), -1);
        outOfOrder += static_cast<long>(record.seq) <= it->second ? 1 : 0;
        it->second = static_cast<long>(record.seq);
        ++shown;
    }
    CHECK((malformed == 0 && outOfOrder == 0));
    CHECK(shown + lost == kTotal);
    CHECK(lastSeq.size() == kWriters * kThreadsPerWriter);
    for (const auto& entry : lastSeq)
        CHECK(entry.second == static_cast<long>(kRecordsPerThread - 1));  // each thread's last record was seen

    // The critical file: wrapped several times by four processes, still one valid position
    // and only whole records, each an error of a writer, none twice.
    std::ifstream in(CriticalFilePath(), std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const TarnLog::CriticalFileContents contents = TarnLog::ReadCriticalRecords(bytes);
    CHECK(contents.positionValid);
    CHECK((bytes.size() >= TarnLog::kCriticalWrapPosition && bytes.size() < TarnLog::kCriticalWrapPosition + 1024));
    std::set<std::tuple<unsigned long, unsigned long, unsigned long>> seen;
    size_t badCritical = 0;
    for (const auto& line : contents.records) {
        WriterRecord record;
        const bool good = ParseText(line, record) && IsWhole(record) && record.seq % kErrorEvery == kErrorEvery - 1 &&
                          writerPids.count(record.pid) == 1 && seen.insert({record.pid, record.tid, record.seq}).second;
        badCritical += good ? 0 : 1;
    }
    CHECK(badCritical == 0);
    CHECK(contents.records.size() > 150);
}
