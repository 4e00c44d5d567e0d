// tarnlog's parts without the ring: the command line, the filters, the escaping of
// untrusted text, and the choice of a notification slot.
#include "LineOutput.h"
#include "Options.h"
#include "ReaderSlot.h"
#include "RecordFilter.h"

#include <doctest.h>

#include <cstring>

using namespace TarnLogTool;

namespace {

TarnLog::LogRecord Record(const char* process, const char* className, uint8_t level, uint32_t pid)
{
    TarnLog::LogRecord record;
    std::memset(&record, 0, sizeof record);
    TarnLog::CopyField(record.processName, sizeof record.processName, process);
    TarnLog::CopyField(record.className, sizeof record.className, className);
    record.level = level;
    record.processId = pid;
    return record;
}

} // namespace

TEST_CASE("the command line selects a mode and its filters; a bad one is refused with one line naming the problem")
{
    Options options;
    std::string error;
    REQUIRE(ParseOptions({"--follow", "--count", "12", "--seconds", "30", "--level", "1", "--pid", "0x1A4", "--process",
                          "IEXPLORE", "--class", "tarnmt::mutex"},
                         options, error));
    CHECK(options.mode == Mode::Follow);
    CHECK((options.hasCount && options.count == 12u && options.hasSeconds && options.seconds == 30u));
    CHECK((options.filter.hasLevel && options.filter.maxLevel == 1));
    CHECK((options.filter.hasProcessId && options.filter.processId == 0x1a4u));
    CHECK(options.filter.processName == "IEXPLORE");
    CHECK(options.filter.className == "tarnmt::mutex");

    const struct { std::vector<std::string> args; Mode mode; const char* error; } table[] = {
        {{}, Mode::Dump, nullptr},
        {{"--pid", "420"}, Mode::Dump, nullptr},
        {{"--critical", "C:\\logs\\critical copy.txt"}, Mode::Critical, nullptr},
        {{"--level", "3", "--help"}, Mode::Help, nullptr},
        {{"--follow", "--follow"}, Mode::Follow, nullptr},
        {{"--bogus"}, Mode::Dump, "tarnlog: unknown option '--bogus'"},
        {{"stray"}, Mode::Dump, "tarnlog: unexpected argument 'stray'"},
        {{"--level"}, Mode::Dump, "tarnlog: --level needs a value"},
        {{"--level", "256"}, Mode::Dump, "tarnlog: --level wants a level from 0 to 255"},
        {{"--level", " 1"}, Mode::Dump, "tarnlog: --level wants a level from 0 to 255"},
        {{"--pid", "4294967296"}, Mode::Dump, "tarnlog: --pid wants a process id"},
        {{"--pid", "12abc"}, Mode::Dump, "tarnlog: --pid wants a process id"},
        {{"--follow", "--count", "0"}, Mode::Dump, "tarnlog: --count wants a number from 1"},
        {{"--count", "5"}, Mode::Dump, "tarnlog: --count only goes with --follow"},
        {{"--critical", "--follow"}, Mode::Dump, "tarnlog: --critical cannot be combined with --follow"},
        {{"--critical", "--pid", "1"}, Mode::Dump, "tarnlog: --level, --process, --class and --pid apply to the ring"},
        {{"--pid", "1", "--pid", "2"}, Mode::Dump, "tarnlog: --pid is given twice"},
        {{"--process", ""}, Mode::Dump, "tarnlog: --process wants a program name"},
    };
    for (const auto& row : table) {
        INFO((row.args.empty() ? std::string() : row.args[0]));
        Options parsed;
        error.clear();
        CHECK(ParseOptions(row.args, parsed, error) == (row.error == nullptr));
        if (row.error)
            CHECK(error.rfind(row.error, 0) == 0);
        else
            CHECK(parsed.mode == row.mode);
    }
}

TEST_CASE("filters: level at or below, names without regard to case, all conditions together")
{
    const auto error = Record("IExplore.exe", "TarnMT::Mutex", 0, 100);
    const auto warning = Record("host.exe", "TarnSMX::TarnSM", 1, 200);
    const auto debug = Record("iexplore.exe", "TarnMT::Mutex", 5, 100);
    const auto filter = [](int maxLevel, uint32_t pid, const char* process, const char* className) {
        RecordFilter f;
        f.hasLevel = maxLevel >= 0;
        f.maxLevel = static_cast<uint8_t>(maxLevel < 0 ? 0 : maxLevel);
        f.hasProcessId = pid != 0;
        f.processId = pid;
        f.processName = process;
        f.className = className;
        return f;
    };
    const struct { RecordFilter filter; bool error, warning, debug; } table[] = {
        {filter(-1, 0, "", ""), true, true, true},
        {filter(0, 0, "", ""), true, false, false},
        {filter(1, 0, "", ""), true, true, false},
        {filter(5, 0, "", ""), true, true, true},
        {filter(-1, 0, "IEXPLORE", ""), true, false, true},
        {filter(-1, 0, "iexplore.EXE", ""), true, false, true},
        {filter(-1, 0, "iexplor", ""), false, false, false},
        {filter(-1, 0, "", "tarnmt::MUTEX"), true, false, true},
        {filter(-1, 0, "", "TarnMT"), false, false, false},
        {filter(2, 100, "", "TarnMT::Mutex"), true, false, false},
    };
    for (const auto& row : table) {
        CHECK(row.filter.Matches(error) == row.error);
        CHECK(row.filter.Matches(warning) == row.warning);
        CHECK(row.filter.Matches(debug) == row.debug);
    }
}

TEST_CASE("text from shared memory is printed on one line with its control characters escaped")
{
    const struct { std::string text, printed; } table[] = {
        {"plain [Msg: text]", "plain [Msg: text]"},
        {"a\nb\rc\td", "a\\nb\\rc\\td"},
        {"esc\x1b[31mred\x7f", "esc\\x1b[31mred\\x7f"},
        {std::string("nul\0end", 7), "nul\\x00end"},
        {"caf\xe9", "caf\xe9"},  // the ANSI code page's letters stay
    };
    for (const auto& row : table)
        CHECK(PrintableLine(row.text) == row.printed);
}

TEST_CASE("a follower's event name fits a slot, and only its own kind of slot is ever taken over")
{
    const std::string longest = FollowerEventName(0xFFFFFFFFu);
    CHECK(longest == "TarnLogView.4294967295");
    uint32_t pid = 0;
    CHECK(FollowerProcessId(longest, pid));
    CHECK(pid == 0xFFFFFFFFu);
    for (const char* name : {"TarnLogView.", "TarnLogView.12x", "TarnLogView.4294967296", "OtherViewer.12"})
        CHECK_FALSE(FollowerProcessId(name, pid));

    uint8_t header[TarnLog::kRingHeaderSize] = {};
    header[0] = 7;  // generation 7
    auto slotName = [&](int i) {
        TarnLog::NotificationSlot slot;
        std::memcpy(&slot, header + 12 + i * 40, sizeof slot);
        return TarnLog::SlotEventName(slot);
    };
    auto occupy = [&](int i, const std::string& name) {
        std::memset(header + 12 + i * 40, 0, 40);
        std::memcpy(header + 12 + i * 40, name.data(), name.size());
        header[12 + i * 40 + 32] = 1;
    };
    const auto nobodyGone = [](uint32_t) { return false; };

    occupy(0, "OtherViewer.1");
    CHECK(ClaimSlot(header, "TarnLogView.55", nobodyGone) == 1);
    CHECK(slotName(1) == "TarnLogView.55");
    CHECK(header[0] == 8);
    // Freed only while it still holds our name.
    ReleaseSlot(header, 1, "TarnLogView.56");
    CHECK(slotName(1) == "TarnLogView.55");
    CHECK(header[0] == 8);
    ReleaseSlot(header, 1, "TarnLogView.55");
    CHECK(slotName(1).empty());
    CHECK(header[12 + 40 + 32] == 0);
    CHECK(header[0] == 9);

    // All taken: a dead follower's slot is reused, another reader's never.
    for (int i = 0; i < 7; ++i)
        occupy(i, "OtherViewer." + std::to_string(i));
    CHECK(ClaimSlot(header, "TarnLogView.55", [](uint32_t) { return true; }) == -1);
    occupy(4, "TarnLogView.1234");
    CHECK(ClaimSlot(header, "TarnLogView.55", nobodyGone) == -1);
    CHECK(ClaimSlot(header, "TarnLogView.55", [](uint32_t id) { return id == 1234; }) == 4);
}
