#include "Options.h"

#include <cstdlib>

namespace TarnLogTool {
namespace {

// Digits only (or 0x and hex digits when allowed), no sign, no blanks, within `max`.
bool ParseNumber(const std::string& text, bool allowHex, uint64_t max, uint64_t& value)
{
    size_t at = 0;
    int base = 10;
    if (allowHex && text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        at = 2;
        base = 16;
    }
    if (at >= text.size() || text.size() - at > 16)
        return false;
    value = 0;
    for (; at < text.size(); ++at) {
        const char c = text[at];
        int digit = -1;
        if (c >= '0' && c <= '9')
            digit = c - '0';
        else if (base == 16 && c >= 'a' && c <= 'f')
            digit = c - 'a' + 10;
        else if (base == 16 && c >= 'A' && c <= 'F')
            digit = c - 'A' + 10;
        if (digit < 0)
            return false;
        value = value * base + static_cast<uint64_t>(digit);
        if (value > max)
            return false;
    }
    return true;
}

struct Parser {
    const std::vector<std::string>& args;
    size_t at = 0;
    std::string& error;

    bool Value(const std::string& option, std::string& value)
    {
        if (at + 1 >= args.size()) {
            error = "tarnlog: " + option + " needs a value";
            return false;
        }
        value = args[++at];
        return true;
    }

    bool Number(const std::string& option, bool allowHex, uint64_t min, uint64_t max, const char* what, uint64_t& value)
    {
        std::string text;
        if (!Value(option, text))
            return false;
        if (!ParseNumber(text, allowHex, max, value) || value < min) {
            error = "tarnlog: " + option + " wants " + what + ", not '" + text + "'";
            return false;
        }
        return true;
    }
};

} // namespace

bool ParseOptions(const std::vector<std::string>& args, Options& options, std::string& error)
{
    options = Options();
    Parser p{args, 0, error};
    bool follow = false;
    bool critical = false;
    bool seen[8] = {};
    auto once = [&](int slot, const std::string& option) {
        if (seen[slot]) {
            error = "tarnlog: " + option + " is given twice";
            return false;
        }
        seen[slot] = true;
        return true;
    };

    for (; p.at < args.size(); ++p.at) {
        const std::string& arg = args[p.at];
        uint64_t number = 0;
        if (arg == "--help" || arg == "-h" || arg == "/?") {
            options.mode = Mode::Help;
            return true;
        } else if (arg == "--follow") {
            follow = true;
        } else if (arg == "--critical") {
            if (!once(0, arg))
                return false;
            critical = true;
            if (p.at + 1 < args.size() && args[p.at + 1].compare(0, 2, "--") != 0)
                options.criticalPath = args[++p.at];
        } else if (arg == "--count") {
            if (!once(1, arg) || !p.Number(arg, false, 1, 0xFFFFFFFFu, "a number from 1 to 4294967295", number))
                return false;
            options.hasCount = true;
            options.count = static_cast<uint32_t>(number);
        } else if (arg == "--seconds") {
            if (!once(2, arg) || !p.Number(arg, false, 1, 31536000u, "a number of seconds from 1 to 31536000", number))
                return false;
            options.hasSeconds = true;
            options.seconds = static_cast<uint32_t>(number);
        } else if (arg == "--level") {
            if (!once(3, arg) || !p.Number(arg, false, 0, 255, "a level from 0 to 255", number))
                return false;
            options.filter.hasLevel = true;
            options.filter.maxLevel = static_cast<uint8_t>(number);
        } else if (arg == "--pid") {
            if (!once(4, arg) || !p.Number(arg, true, 0, 0xFFFFFFFFu, "a process id (decimal or 0x hex)", number))
                return false;
            options.filter.hasProcessId = true;
            options.filter.processId = static_cast<uint32_t>(number);
        } else if (arg == "--process") {
            if (!once(5, arg) || !p.Value(arg, options.filter.processName))
                return false;
            if (options.filter.processName.empty()) {
                error = "tarnlog: --process wants a program name";
                return false;
            }
        } else if (arg == "--class") {
            if (!once(6, arg) || !p.Value(arg, options.filter.className))
                return false;
            if (options.filter.className.empty()) {
                error = "tarnlog: --class wants a class name";
                return false;
            }
        } else if (arg.compare(0, 1, "-") == 0) {
            error = "tarnlog: unknown option '" + arg + "' (see tarnlog --help)";
            return false;
        } else {
            error = "tarnlog: unexpected argument '" + arg + "' (see tarnlog --help)";
            return false;
        }
    }

    if (critical && follow) {
        error = "tarnlog: --critical cannot be combined with --follow";
        return false;
    }
    if (critical && !options.filter.IsEmpty()) {
        error = "tarnlog: --level, --process, --class and --pid apply to the ring, not to --critical";
        return false;
    }
    if (!follow && (options.hasCount || options.hasSeconds)) {
        error = std::string("tarnlog: ") + (options.hasCount ? "--count" : "--seconds") + " only goes with --follow";
        return false;
    }
    options.mode = critical ? Mode::Critical : follow ? Mode::Follow : Mode::Dump;
    return true;
}

const char* UsageText()
{
    return "usage: tarnlog [filters]                 print the log ring, oldest record first\n"
           "       tarnlog --follow [filters] [--count N] [--seconds S]\n"
           "                                         print the ring, then each new record as it lands\n"
           "       tarnlog --critical [path]         print the critical (error) file, oldest first\n"
           "\n"
           "filters (all given must hold):\n"
           "  --level N       records of level N or more severe: 0 errors only, 1 errors and\n"
           "                  warnings, 2 and above include debug records up to that level\n"
           "  --process NAME  the logging program, case-insensitive; \"iexplore\" matches iexplore.exe\n"
           "  --class NAME    the logging class, whole name, case-insensitive (e.g. TarnMT::Mutex)\n"
           "  --pid N         the logging process id, decimal or 0x hex as printed in [PID: 0x..]\n"
           "\n"
           "--follow stops on Ctrl+C, after --count N new records (records that do not pass the\n"
           "filters are not counted; records overwritten before they could be read count, and are\n"
           "reported as \"(N records lost)\"), or after --seconds S. Started before any program has\n"
           "logged, it waits for the log ring to appear.\n"
           "--critical reads %ProgramData%\\Ostrum\\critical.txt unless a path is given.\n"
           "\n"
           "exit status: 0 done, 1 nothing to read or the log is unreadable, 2 bad arguments\n";
}

} // namespace TarnLogTool
