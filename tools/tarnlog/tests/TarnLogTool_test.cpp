// tarnlog.exe against the real ring, as a support engineer runs it. The first test needs
// a machine where no process has logged yet, so nothing in this program logs before it.
#include "BackgroundProcess.h"
#include "Commands.h"
#include "LineOutput.h"
#include "RingReader.h"

#include "TarnLog/Log.h"

#include <doctest.h>

#include <cstdio>

using TarnToolTest::BackgroundProcess;
using TarnToolTest::Lines;
using TarnToolTest::WaitUntil;

namespace {

std::wstring Tool()
{
    return TarnTest::BuildPath("tools/tarnlog/tarnlog.exe");
}

TarnTest::ChildResult RunTool(std::vector<std::wstring> args)
{
    args.insert(args.begin(), Tool());
    return TarnTest::RunChild(args, 30000);
}

std::wstring OwnPid()
{
    return std::to_wstring(::GetCurrentProcessId());
}

bool RingExists()
{
    TarnBase::UniqueHandle mapping(::OpenFileMappingA(FILE_MAP_READ, FALSE, TarnTest::RingMappingName().c_str()));
    return static_cast<bool>(mapping);
}

TarnLog::RingSnapshot Snapshot()
{
    TarnLog::RingSnapshot snapshot;
    std::string error;
    REQUIRE(TarnTest::RingReader().Snapshot(snapshot, error));
    return snapshot;
}

std::vector<std::string> Formatted(const std::vector<TarnLog::LogRecord>& records,
                                   bool (*keep)(const TarnLog::LogRecord&) = nullptr)
{
    std::vector<std::string> lines;
    for (const auto& record : records)
        if (keep == nullptr || keep(record))
            lines.push_back(TarnLogTool::PrintableLine(TarnLog::FormatRecordText(record)));
    return lines;
}

// The slot a follower of that pid holds, or -1.
int FollowerSlot(DWORD followerPid)
{
    const std::string name = "TarnLogView." + std::to_string(followerPid);
    TarnTest::RingHeaderEditor editor;
    const TarnLog::RingHeader header = editor.Header();
    for (int i = 0; i < 7; ++i)
        if (TarnLog::SlotEventName(header.slots[i]) == name)
            return i;
    return -1;
}

bool StartFollower(BackgroundProcess& follower, std::vector<std::wstring> args)
{
    args.insert(args.begin(), {Tool(), L"--follow"});
    return follower.Start(args);
}

} // namespace

using TarnTest::Nonce;

TEST_CASE("before any process has logged: the dump says so, a follower waits for the first record")
{
    // A process of an earlier test may still be on its way out.
    REQUIRE_MESSAGE(WaitUntil([] { return !RingExists(); }, 5000), "a process still holds the log ring open");

    const auto dump = RunTool({});
    CHECK(dump.exitCode == 1u);
    CHECK(dump.out.empty());
    CHECK(dump.err == std::string(TarnLogTool::kNoRingMessage) + "\n");

    BackgroundProcess follower;
    REQUIRE(StartFollower(follower, {L"--pid", OwnPid(), L"--count", L"2", L"--seconds", L"30"}));
    REQUIRE(WaitUntil([&] { return follower.Err().find("waiting") != std::string::npos; }, 10000));
    CHECK(follower.Err() == "tarnlog: no log ring yet; waiting for a process to log\n");

    const std::string nonce = Nonce();
    TarnLog::Log("Tool::First", 2, "Tool: first %s.", nonce.c_str());  // creates the ring
    REQUIRE(WaitUntil([&] { return FollowerSlot(follower.Id()) >= 0; }, 10000));
    TarnLog::Log("Tool::First", 1, "Tool: second %s.", nonce.c_str());
    TarnLog::Log("Tool::First", 0, "Tool: third %s.", nonce.c_str());
    REQUIRE(follower.Wait(10000));
    CHECK(follower.ExitCode() == 0u);
    CHECK(Lines(follower.Out()) == Formatted(TarnTest::RingReader().RecordsOfProcess(::GetCurrentProcessId())));
    CHECK(FollowerSlot(follower.Id()) == -1);
}

TEST_CASE("the dump prints every record oldest first in the text form; filters narrow it")
{
    const std::string nonce = Nonce();
    TarnLog::Log("Tool::Alpha", 0, "Dump: error %s.", nonce.c_str());
    TarnLog::Log("Tool::Beta", 1, "Dump: warning %s.", nonce.c_str());
    TarnLog::Log("Tool::Alpha", 2, "Dump: debug %s.", nonce.c_str());
    TarnLog::Log("Tool::Alpha", 7, "Dump: verbose %s with\ttab and\nnewline.", nonce.c_str());
    const TarnLog::RingSnapshot snapshot = Snapshot();
    REQUIRE(snapshot.records.size() >= 4);

    const auto all = RunTool({});
    REQUIRE(all.exitCode == 0u);
    CHECK(all.err.empty());
    CHECK(Lines(all.out) == Formatted(snapshot.records));
    CHECK(all.out.find("[Msg: Dump: verbose " + nonce + " with\\ttab and\\nnewline.]\n") != std::string::npos);

    wchar_t hexPid[16];
    std::swprintf(hexPid, 16, L"0x%lX", ::GetCurrentProcessId());
    const auto mine = [](const TarnLog::LogRecord& r) { return r.processId == ::GetCurrentProcessId(); };
    using Keep = bool (*)(const TarnLog::LogRecord&);
    const struct { std::vector<std::wstring> args; Keep keep; } table[] = {
        {{L"--pid", OwnPid()}, mine},
        {{L"--pid", hexPid}, mine},
        {{L"--level", L"0"}, [](const TarnLog::LogRecord& r) { return r.level == 0; }},
        {{L"--level", L"1", L"--pid", OwnPid()},
         [](const TarnLog::LogRecord& r) { return r.level <= 1 && r.processId == ::GetCurrentProcessId(); }},
        {{L"--class", L"TOOL::alpha", L"--level", L"2"},
         [](const TarnLog::LogRecord& r) { return TarnLog::ReadField(r.className, sizeof r.className) == "Tool::Alpha" && r.level <= 2; }},
        {{L"--process", L"TARNLOG_TESTS"}, mine},
        {{L"--process", L"no-such-program.exe"}, [](const TarnLog::LogRecord&) { return false; }},
    };
    for (const auto& row : table)
        CHECK(Lines(RunTool(row.args).out) == Formatted(snapshot.records, row.keep));
}

TEST_CASE("a follower prints new records as they land, counts what it lost, and frees its slot")
{
    TarnLog::Log("Tool::Follow", 2, "Follow: ring wanted.");
    TarnTest::RingHeaderEditor editor;
    const TarnLog::RingHeader before = editor.Header();
    const uint32_t count = before.entryCount;
    const uint32_t overrun = 40;

    BackgroundProcess follower;
    REQUIRE(StartFollower(follower, {L"--pid", OwnPid(), L"--count", std::to_wstring(count + overrun + 2)}));
    REQUIRE(WaitUntil([&] { return FollowerSlot(follower.Id()) >= 0; }, 10000));
    const size_t printedAtStart = Lines(follower.Out()).size();
    CHECK(printedAtStart == TarnTest::RingReader().RecordsOfProcess(::GetCurrentProcessId()).size());

    const std::string nonce = Nonce();
    TarnLog::Log("Tool::Follow", 2, "Follow: live %s 1.", nonce.c_str());
    REQUIRE(WaitUntil([&] { return Lines(follower.Out()).size() == printedAtStart + 1; }, 10000));
    TarnLog::Log("Tool::Follow", 2, "Follow: live %s 2.", nonce.c_str());
    REQUIRE(WaitUntil([&] { return Lines(follower.Out()).size() == printedAtStart + 2; }, 10000));

    // Frozen while idle (not inside its hold of the ring mutex), it misses a ring's worth.
    bool frozenIdle = false;
    for (int attempt = 0; attempt < 20 && !frozenIdle; ++attempt) {
        follower.Suspend();
        frozenIdle = TarnTest::RingMutexHold(editor.View().Mutex(), 0).Held();
        if (!frozenIdle) {
            follower.Resume();
            ::Sleep(50);
        }
    }
    REQUIRE(frozenIdle);
    for (uint32_t i = 0; i < count + overrun; ++i)
        TarnLog::Log("Tool::Follow", 2, "Follow: burst %s %u.", nonce.c_str(), i);
    follower.Resume();
    REQUIRE(follower.Wait(15000));
    CHECK(follower.ExitCode() == 0u);

    const auto lines = Lines(follower.Out());
    REQUIRE(lines.size() == printedAtStart + 2 + 1 + count);
    CHECK(lines[printedAtStart].find("[Msg: Follow: live " + nonce + " 1.]") != std::string::npos);
    CHECK(lines[printedAtStart + 2] == "(" + std::to_string(overrun) + " records lost)");
    for (uint32_t i = 0; i < count; i += 97)
        CHECK(lines[printedAtStart + 3 + i].find("[Msg: Follow: burst " + nonce + " " + std::to_string(overrun + i) +
                                                 ".]") != std::string::npos);
    CHECK(lines.back().find("[Msg: Follow: burst " + nonce + " " + std::to_string(count + overrun - 1) + ".]") !=
          std::string::npos);

    const TarnLog::RingHeader after = editor.Header();
    CHECK(FollowerSlot(follower.Id()) == -1);
    CHECK(after.generation == before.generation + 2);  // one claim, one release
}

TEST_CASE("Ctrl+C stops a follower, which frees its slot before it goes")
{
    TarnLog::Log("Tool::CtrlC", 2, "CtrlC: ring wanted.");
    BackgroundProcess follower;
    REQUIRE(follower.Start({Tool(), L"--follow", L"--seconds", L"30"}, true, true));
    REQUIRE(WaitUntil([&] { return FollowerSlot(follower.Id()) >= 0; }, 10000));

    // Ctrl+C goes to every process of a console: join the follower's, ignoring it here.
    ::FreeConsole();
    REQUIRE(::AttachConsole(follower.Id()));
    ::SetConsoleCtrlHandler(nullptr, TRUE);
    const BOOL sent = ::GenerateConsoleCtrlEvent(CTRL_C_EVENT, 0);
    const bool ended = follower.Wait(10000);
    ::FreeConsole();
    ::SetConsoleCtrlHandler(nullptr, FALSE);
    REQUIRE(sent);
    REQUIRE(ended);
    CHECK(follower.ExitCode() == 0u);  // ended by its own handler, not killed by the default one
    CHECK(FollowerSlot(follower.Id()) == -1);
}

TEST_CASE("with every slot taken a follower polls")
{
    TarnLog::Log("Tool::Slots", 2, "Slots: ring wanted.");
    TarnTest::SlotsRestorer restore;
    for (uint32_t i = 0; i < 7; ++i)
        REQUIRE(restore.Editor().PublishEvent(i, "OtherViewer." + std::to_string(i)));
    BackgroundProcess follower;
    REQUIRE(StartFollower(follower, {L"--pid", OwnPid(), L"--count", L"2", L"--seconds", L"20"}));
    REQUIRE(WaitUntil([&] { return follower.Err().find("no notification slot") != std::string::npos; }, 10000));
    const std::string nonce = Nonce();
    TarnLog::Log("Tool::Slots", 2, "Slots: polled %s 1.", nonce.c_str());
    TarnLog::Log("Tool::Slots", 2, "Slots: polled %s 2.", nonce.c_str());
    REQUIRE(follower.Wait(10000));
    CHECK(follower.ExitCode() == 0u);
    const auto lines = Lines(follower.Out());
    REQUIRE(lines.size() >= 2);
    CHECK(lines.back().find("Slots: polled " + nonce + " 2.") != std::string::npos);
    CHECK(FollowerSlot(follower.Id()) == -1);
}

TEST_CASE("--critical prints the machine's critical file oldest first")
{
    const std::string nonce = Nonce();
    TarnLog::Log("Tool::Critical", 0, "Critical: newest %s.", nonce.c_str());
    const auto machine = RunTool({L"--critical"});
    CHECK(machine.exitCode == 0u);
    std::vector<std::string> expected;
    for (const auto& record : TarnTest::CriticalRecords())
        expected.push_back(TarnLogTool::PrintableLine(record));
    CHECK(Lines(machine.out) == expected);
    REQUIRE_FALSE(Lines(machine.out).empty());
    CHECK(Lines(machine.out).back().find("[Class: Tool::Critical][Msg: Critical: newest " + nonce + ".]") !=
          std::string::npos);
}
