// tarnlog's parts without the ring: command line, filters, escaping, notification slots.
#include "LineOutput.h"
#include "Options.h"
#include "ReaderSlot.h"
#include "RecordFilter.h"

#include <doctest.h>

#include <cstring>

using namespace TarnLogTool;

TEST_CASE("the command line picks a mode and filters records by level, process and class; a bad one is refused")
{
    TarnLog::LogRecord records[3] = {};  // an error, a warning and a debug record
    const struct { const char *process, *className; uint8_t level; uint32_t pid; } fields[] = {
        {"IExplore.exe", "TarnMT::Mutex", 0, 100}, {"host.exe", "TarnSMX::TarnSM", 1, 200}, {"iexplore.exe", "TarnMT::Mutex", 5, 100}};
    for (int i = 0; i < 3; ++i) {
        TarnLog::CopyField(records[i].processName, sizeof records[i].processName, fields[i].process);
        TarnLog::CopyField(records[i].className, sizeof records[i].className, fields[i].className);
        records[i].level = fields[i].level, records[i].processId = fields[i].pid;
    }
    const struct { std::vector<std::string> args; Mode mode; const char* shows; const char* error; } table[] = {
        {{}, Mode::Dump, "EWD", nullptr}, {{"--level", "1"}, Mode::Dump, "EW", nullptr},
        {{"--follow", "--level", "0", "--count", "3", "--seconds", "9"}, Mode::Follow, "E", nullptr},
        {{"--process", "IEXPLORE"}, Mode::Dump, "ED", nullptr}, {{"--process", "iexplor"}, Mode::Dump, "", nullptr},
        {{"--class", "tarnmt::MUTEX"}, Mode::Dump, "ED", nullptr}, {{"--class", "TarnMT"}, Mode::Dump, "", nullptr},
        {{"--level", "2", "--pid", "0x64", "--class", "TarnMT::Mutex"}, Mode::Dump, "E", nullptr},
        {{"--critical", "C:\\logs\\critical copy.txt"}, Mode::Critical, "EWD", nullptr}, {{"--level", "3", "--help"}, Mode::Help, "", nullptr},
        {{"--bogus"}, Mode::Dump, "", "tarnlog: unknown option '--bogus'"}, {{"--pid", "4294967296"}, Mode::Dump, "", "tarnlog: --pid wants a process id"},
        {{"--level", " 1"}, Mode::Dump, "", "tarnlog: --level wants a level from 0 to 255"},
        {{"--follow", "--count", "0"}, Mode::Dump, "", "tarnlog: --count wants a number from 1"},
        {{"--critical", "--pid", "1"}, Mode::Dump, "", "tarnlog: --level, --process, --class and --pid apply to the ring"},
    };
    for (const auto& row : table) {
        INFO((row.args.empty() ? std::string() : row.args[0] + " " + row.args.back()));
        Options parsed;
        std::string error;
        CHECK((ParseOptions(row.args, parsed, error) == !row.error && error.rfind(row.error ? row.error : "", 0) == 0));
        CHECK((row.error || parsed.mode == row.mode));
        for (int i = 0; !row.error && row.mode != Mode::Help && i < 3; ++i)
            CHECK(parsed.filter.Matches(records[i]) == (std::strchr(row.shows, "EWD"[i]) != nullptr));
    }
}

TEST_CASE("a follower takes a free slot or a dead follower's, never another reader's, frees only its own; shared text is escaped")
{
    const struct { std::string text, printed; } table[] = {
        {"plain [Msg: text]", "plain [Msg: text]"}, {"a\nb\rc\td", "a\\nb\\rc\\td"},
        {"esc\x1b[31mred\x7f", "esc\\x1b[31mred\\x7f"}, {std::string("nul\0end", 7), "nul\\x00end"},
        {"caf\xe9", "caf\xe9"}};  // the ANSI code page's letters stay
    for (const auto& row : table)
        CHECK(PrintableLine(row.text) == row.printed);
    uint32_t pid = 0;
    CHECK((FollowerProcessId(FollowerEventName(0xFFFFFFFFu), pid) && pid == 0xFFFFFFFFu));
    for (const char* name : {"TarnLogView.", "TarnLogView.12x", "TarnLogView.4294967296", "OtherViewer.12"})
        CHECK_FALSE(FollowerProcessId(name, pid));

    uint8_t header[TarnLog::kRingHeaderSize] = {7};  // generation 7
    auto slotName = [&](int i) { return TarnLog::SlotEventName(*reinterpret_cast<TarnLog::NotificationSlot*>(header + 12 + i * 40)); };
    auto occupy = [&](int i, const std::string& name) {
        std::memset(header + 12 + i * 40, 0, 40);
        std::memcpy(header + 12 + i * 40, name.data(), name.size()), header[12 + i * 40 + 32] = 1;
    };
    const auto nobodyGone = [](uint32_t) { return false; };
    occupy(0, "OtherViewer.1");
    CHECK((ClaimSlot(header, "TarnLogView.55", nobodyGone) == 1 && slotName(1) == "TarnLogView.55" && header[0] == 8));
    CHECK((ReleaseSlot(header, 1, "TarnLogView.56"), slotName(1) == "TarnLogView.55" && header[0] == 8));
    CHECK((ReleaseSlot(header, 1, "TarnLogView.55"), slotName(1).empty() && header[12 + 40 + 32] == 0 && header[0] == 9));

    for (int i = 0; i < 7; ++i)  // all taken, one by a follower
        occupy(i, i == 4 ? "TarnLogView.1234" : "OtherViewer." + std::to_string(i));
    CHECK(ClaimSlot(header, "TarnLogView.55", nobodyGone) == -1);
    CHECK(ClaimSlot(header, "TarnLogView.55", [](uint32_t id) { return id == 1234; }) == 4);
}
