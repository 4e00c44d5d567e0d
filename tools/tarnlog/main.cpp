// tarnlog.exe: the support engineer's view of the machine-wide log ring and of the
// critical log file.
#include "Commands.h"
#include "Options.h"

#include <cstdio>
#include <string>
#include <vector>

int main(int argc, char** argv)
{
    using namespace TarnLogTool;
    std::vector<std::string> args(argv + 1, argv + argc);
    Options options;
    std::string error;
    if (!ParseOptions(args, options, error)) {
        std::fprintf(stderr, "%s\n", error.c_str());
        return kExitBadArguments;
    }
    try {
        switch (options.mode) {
        case Mode::Help:
            std::fputs(UsageText(), stdout);
            return kExitOk;
        case Mode::Dump:
            return RunDump(options, stdout, stderr);
        case Mode::Follow:
            return RunFollow(options, stdout, stderr);
        case Mode::Critical:
            return RunCritical(options, stdout, stderr);
        }
    } catch (const std::exception& e) {
        std::fprintf(stderr, "tarnlog: %s\n", e.what());
    } catch (...) {
        std::fprintf(stderr, "tarnlog: unexpected failure\n");
    }
    return kExitUnreadable;
}
