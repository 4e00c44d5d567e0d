// tarnlog.exe against the real ring, as a support engineer runs it. The first test needs
// a machine where no process has logged yet, so nothing in this program logs before it.
#include "Commands.h"
#include "LineOutput.h"
#include "RingReader.h"

#include <doctest.h>

#include <algorithm>

using namespace TarnTest;

namespace {

const DWORD kSelf = ::GetCurrentProcessId();

std::vector<std::wstring> Tool(std::vector<std::wstring> args) { return args.insert(args.begin(), BuildPath("tools/tarnlog/tarnlog.exe")), args; }

std::vector<std::string> Formatted(const std::vector<TarnLog::LogRecord>& records, bool (*keep)(const TarnLog::LogRecord&))
{
    std::vector<std::string> lines;
    for (const auto& record : records)
        if (keep(record))
            lines.push_back(TarnLogTool::PrintableLine(TarnLog::FormatRecordText(record)));
    return lines;
}

bool All(const TarnLog::LogRecord&) { return true; }

bool HasSlot(DWORD followerPid)
{
    const TarnLog::RingHeader h = RingHeaderEditor().Header();
    return std::any_of(h.slots, h.slots + 7, [&](const auto& slot) { return TarnLog::SlotEventName(slot) == "TarnLogView." + std::to_string(followerPid); });
}

} // namespace

TEST_CASE("before any process has logged the dump says so and a follower waits; then the dump prints every record oldest first, filtered")
{
    // A process of an earlier test may still be on its way out.
    REQUIRE(WaitUntil([] { return !TarnBase::UniqueHandle(::OpenFileMappingA(FILE_MAP_READ, FALSE, RingMappingName().c_str())); }, 5000));
    const auto dump = RunChild(Tool({}), 30000);
    CHECK((dump.exitCode == 1u && dump.out.empty() && dump.err == std::string(TarnLogTool::kNoRingMessage) + "\n"));

    Process follower(Tool({L"--follow", L"--pid", std::to_wstring(kSelf), L"--count", L"1", L"--seconds", L"30"}));
    REQUIRE(WaitUntil([&] { return follower.Err() == "tarnlog: no log ring yet; waiting for a process to log\n"; }, 10000));
    TarnLog::Log("Tool::First", 2, "Tool: first %s.", Nonce().c_str());  // creates the ring
    REQUIRE(WaitUntil([&] { return HasSlot(follower.Pid()); }, 10000));
    TarnLog::Log("Tool::First", 1, "Tool: second.");
    REQUIRE((follower.Wait(10000) && follower.ExitCode() == 0u));
    CHECK(Lines(follower.Out()) == Formatted(RingReader().RecordsOfProcess(kSelf), All));

    TarnLog::Log("Tool::Alpha", 0, "Dump: error."), TarnLog::Log("Tool::Alpha", 2, "Dump: debug.");
    TarnLog::RingSnapshot snapshot;
    std::string error;
    REQUIRE(RingReader().Snapshot(snapshot, error));
    CHECK(Lines(RunChild(Tool({}), 30000).out) == Formatted(snapshot.records, All));
    CHECK(Lines(RunChild(Tool({L"--level", L"1", L"--pid", std::to_wstring(kSelf), L"--class", L"TOOL::alpha", L"--process", L"TARNLOG_TESTS"}), 30000).out) ==
          Formatted(snapshot.records, [](const TarnLog::LogRecord& r) { return r.level <= 1 && r.processId == kSelf && ClassOf(r) == "Tool::Alpha"; }));
}

TEST_CASE("a follower prints new records as they land and counts what it lost; Ctrl+C stops it, and it frees its slot")
{
    TarnLog::Log("Tool::Follow", 2, "Follow: ring wanted.");
    RingHeaderEditor editor;
    const uint32_t count = editor.Header().entryCount, overrun = 40, generation = editor.Header().generation;
    Process follower(Tool({L"--follow", L"--pid", std::to_wstring(kSelf), L"--seconds", L"60"}), false, true);
    REQUIRE(WaitUntil([&] { return HasSlot(follower.Pid()); }, 10000));
    const size_t printedAtStart = RingReader().RecordsOfProcess(kSelf).size();
    REQUIRE(WaitUntil([&] { return Lines(follower.Out()).size() == printedAtStart; }, 10000));
    TarnLog::Log("Tool::Follow", 2, "Follow: live.");
    REQUIRE(WaitUntil([&] { return Lines(follower.Out()).size() == printedAtStart + 1; }, 10000));

    // Frozen while idle (not inside its hold of the ring mutex), it misses a ring's worth.
    bool frozenIdle = false;
    for (int attempt = 0; attempt < 20 && !frozenIdle; ++attempt)
        if (follower.Suspend(), !(frozenIdle = RingMutexHold(editor.View().Mutex(), 0).Held()))
            follower.Resume(), ::Sleep(50);
    REQUIRE(frozenIdle);
    const std::string nonce = Nonce();
    for (uint32_t i = 0; i < count + overrun; ++i)
        TarnLog::Log("Tool::Follow", 2, "Follow: burst %s %u.", nonce.c_str(), i);
    follower.Resume();
    std::vector<std::string> lines;
    REQUIRE(WaitUntil([&] { return (lines = Lines(follower.Out())).size() == printedAtStart + 2 + count; }, 15000));
    CHECK((lines[printedAtStart + 1] == "(" + std::to_string(overrun) + " records lost)" && lines[printedAtStart + 2].find("[Msg: Follow: burst " + nonce + " " + std::to_string(overrun) + ".]") != std::string::npos));

    // Ctrl+C goes to every process of a console: join the follower's, ignoring it here.
    REQUIRE((::FreeConsole(), ::AttachConsole(follower.Pid())));
    const BOOL sent = (::SetConsoleCtrlHandler(nullptr, TRUE), ::GenerateConsoleCtrlEvent(CTRL_C_EVENT, 0));
    const bool ended = follower.Wait(10000);
    ::FreeConsole(), ::SetConsoleCtrlHandler(nullptr, FALSE);
    REQUIRE((sent && ended));  // ended by its own handler, not killed by the default one:
    CHECK((follower.ExitCode() == 0u && !HasSlot(follower.Pid()) && editor.Header().generation == generation + 2));
}

TEST_CASE("with every slot taken a follower polls; --critical prints the critical file oldest first")
{
    const std::string nonce = Nonce();
    TarnLog::Log("Tool::Slots", 0, "Slots: critical %s.", nonce.c_str());
    SlotsRestorer restore;
    for (uint32_t i = 0; i < 7; ++i)
        REQUIRE(restore.Editor().PublishEvent(i, "OtherViewer." + std::to_string(i)));
    Process follower(Tool({L"--follow", L"--pid", std::to_wstring(kSelf), L"--count", L"2", L"--seconds", L"20"}));
    REQUIRE(WaitUntil([&] { return follower.Err().find("no notification slot") != std::string::npos; }, 10000));
    TarnLog::Log("Tool::Slots", 2, "Slots: polled 1."), TarnLog::Log("Tool::Slots", 2, "Slots: polled 2.");
    REQUIRE(follower.Wait(10000));
    CHECK(Lines(follower.Out()).back().find("Slots: polled 2.") != std::string::npos);

    std::vector<std::string> expected;
    for (const auto& record : CriticalRecords())
        expected.push_back(TarnLogTool::PrintableLine(record));
    REQUIRE(expected.back().find("[Msg: Slots: critical " + nonce + ".]") != std::string::npos);
    CHECK(Lines(RunChild(Tool({L"--critical"}), 30000).out) == expected);
}
