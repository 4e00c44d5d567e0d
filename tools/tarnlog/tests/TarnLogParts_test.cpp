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

bool Parse(const std::vector<std::string>& args, Options& options, std::string& error)
{
    error.clear();
    return ParseOptions(args, options, error);
}

std::string ErrorOf(const std::vector<std::string>& args)
{
    Options options;
    std::string error;
    return Parse(args, options, error) ? std::string("<accepted>") : error;
}

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

TEST_CASE("the command line selects a mode and its filters")
{
    Options options;
    std::string error;
    REQUIRE(Parse({}, options, error));
    CHECK(options.mode == Mode::Dump);
    CHECK(options.filter.IsEmpty());

    REQUIRE(Parse({"--follow", "--count", "12", "--seconds", "30", "--level", "1", "--pid", "0x1A4", "--process",
                   "IEXPLORE", "--class", "tarnmt::mutex"},
                  options, error));
    CHECK(options.mode == Mode::Follow);
    CHECK((options.hasCount && options.count == 12u));
    CHECK((options.hasSeconds && options.seconds == 30u));
    CHECK((options.filter.hasLevel && options.filter.maxLevel == 1));
    CHECK((options.filter.hasProcessId && options.filter.processId == 0x1a4u));
    CHECK(options.filter.processName == "IEXPLORE");
    CHECK(options.filter.className == "tarnmt::mutex");

    REQUIRE(Parse({"--pid", "420"}, options, error));
    CHECK(options.filter.processId == 420u);
    REQUIRE(Parse({"--critical"}, options, error));
    CHECK(options.mode == Mode::Critical);
    CHECK(options.criticalPath.empty());
    REQUIRE(Parse({"--critical", "C:\\logs\\critical copy.txt"}, options, error));
    CHECK(options.criticalPath == "C:\\logs\\critical copy.txt");
    REQUIRE(Parse({"--level", "3", "--help"}, options, error));
    CHECK(options.mode == Mode::Help);
}

TEST_CASE("bad command lines are refused with one line that names the problem")
{
    CHECK(ErrorOf({"--bogus"}) == "tarnlog: unknown option '--bogus' (see tarnlog --help)");
    CHECK(ErrorOf({"stray"}) == "tarnlog: unexpected argument 'stray' (see tarnlog --help)");
    CHECK(ErrorOf({"--level"}) == "tarnlog: --level needs a value");
    CHECK(ErrorOf({"--level", "256"}) == "tarnlog: --level wants a level from 0 to 255, not '256'");
    CHECK(ErrorOf({"--level", "-1"}) == "tarnlog: --level wants a level from 0 to 255, not '-1'");
    CHECK(ErrorOf({"--level", " 1"}) == "tarnlog: --level wants a level from 0 to 255, not ' 1'");
    CHECK(ErrorOf({"--pid", "0x"}) == "tarnlog: --pid wants a process id (decimal or 0x hex), not '0x'");
    CHECK(ErrorOf({"--pid", "4294967296"}) == "tarnlog: --pid wants a process id (decimal or 0x hex), not '4294967296'");
    CHECK(ErrorOf({"--pid", "12abc"}) == "tarnlog: --pid wants a process id (decimal or 0x hex), not '12abc'");
    CHECK(ErrorOf({"--follow", "--count", "0"}) == "tarnlog: --count wants a number from 1 to 4294967295, not '0'");
    CHECK(ErrorOf({"--follow", "--seconds", "x"}) ==
          "tarnlog: --seconds wants a number of seconds from 1 to 31536000, not 'x'");
    CHECK(ErrorOf({"--count", "5"}) == "tarnlog: --count only goes with --follow");
    CHECK(ErrorOf({"--seconds", "5"}) == "tarnlog: --seconds only goes with --follow");
    CHECK(ErrorOf({"--critical", "--follow"}) == "tarnlog: --critical cannot be combined with --follow");
    CHECK(ErrorOf({"--critical", "--pid", "1"}) ==
          "tarnlog: --level, --process, --class and --pid apply to the ring, not to --critical");
    CHECK(ErrorOf({"--pid", "1", "--pid", "2"}) == "tarnlog: --pid is given twice");
    CHECK(ErrorOf({"--process", ""}) == "tarnlog: --process wants a program name");
    CHECK(ErrorOf({"--class", ""}) == "tarnlog: --class wants a class name");
    CHECK(ErrorOf({"--follow", "--follow"}) == "<accepted>");
}

TEST_CASE("filters: level at or below, names without regard to case, all conditions together")
{
    const auto error = Record("IExplore.exe", "TarnMT::Mutex", 0, 100);
    const auto warning = Record("host.exe", "TarnSMX::TarnSM", 1, 200);
    const auto debug = Record("iexplore.exe", "TarnMT::Mutex", 5, 100);

    RecordFilter none;
    CHECK(none.Matches(debug));

    RecordFilter level;
    level.hasLevel = true;
    level.maxLevel = 0;
    CHECK(level.Matches(error));
    CHECK_FALSE(level.Matches(warning));
    level.maxLevel = 1;
    CHECK(level.Matches(warning));
    CHECK_FALSE(level.Matches(debug));
    level.maxLevel = 5;
    CHECK(level.Matches(debug));

    RecordFilter process;
    process.processName = "IEXPLORE";
    CHECK(process.Matches(error));
    CHECK(process.Matches(debug));
    CHECK_FALSE(process.Matches(warning));
    process.processName = "iexplore.EXE";
    CHECK(process.Matches(error));
    process.processName = "iexplor";
    CHECK_FALSE(process.Matches(error));

    RecordFilter className;
    className.className = "tarnmt::MUTEX";
    CHECK(className.Matches(error));
    CHECK_FALSE(className.Matches(warning));
    className.className = "TarnMT";
    CHECK_FALSE(className.Matches(error));

    RecordFilter all;
    all.hasProcessId = true;
    all.processId = 100;
    all.hasLevel = true;
    all.maxLevel = 2;
    all.className = "TarnMT::Mutex";
    CHECK(all.Matches(error));
    CHECK_FALSE(all.Matches(debug));    // level too high
    CHECK_FALSE(all.Matches(warning));  // other process
}

TEST_CASE("text from shared memory is printed on one line with its control characters escaped")
{
    CHECK(PrintableLine("plain [Msg: text]") == "plain [Msg: text]");
    CHECK(PrintableLine("a\nb\rc\td") == "a\\nb\\rc\\td");
    CHECK(PrintableLine("esc\x1b[31mred\x7f") == "esc\\x1b[31mred\\x7f");
    CHECK(PrintableLine(std::string("nul\0end", 7)) == "nul\\x00end");
    CHECK(PrintableLine("caf\xe9") == "caf\xe9");  // the ANSI code page's letters stay
}

TEST_CASE("a follower's event name fits a slot, and only its own kind of slot is ever taken over")
{
    const std::string longest = FollowerEventName(0xFFFFFFFFu);
    CHECK(longest == "TarnLogView.4294967295");
    CHECK(longest.size() < 32);
    CHECK(longest.find('\\') == std::string::npos);
    uint32_t pid = 0;
    CHECK(FollowerProcessId(longest, pid));
    CHECK(pid == 0xFFFFFFFFu);
    CHECK_FALSE(FollowerProcessId("TarnLogView.", pid));
    CHECK_FALSE(FollowerProcessId("TarnLogView.12x", pid));
    CHECK_FALSE(FollowerProcessId("TarnLogView.4294967296", pid));
    CHECK_FALSE(FollowerProcessId("OtherViewer.12", pid));

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
    CHECK(header[12 + 40 + 32] == 1);
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
    CHECK(slotName(4) == "TarnLogView.55");
}
