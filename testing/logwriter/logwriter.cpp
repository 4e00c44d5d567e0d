// Logs numbered records from one or more threads, as a stand-in for the processes that
// share the log ring on a real machine. Each message names its own process, thread and
// sequence number, so a reader can tell a torn or misplaced entry from a good one.
//
//   logwriter [--count N] [--threads T] [--error-every K] [--start-event NAME] [--class NAME]
//
// --error-every K logs every K-th record at level 0 (it then also goes to the critical
// file); the others are level 2. --start-event waits for that named event (set by the
// test) so that all writers begin together.
#include "TarnBase/KernelObjectName.h"
#include "TarnBase/win/Handle.h"
#include "TarnLog/Log.h"

#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

namespace {

struct Settings {
    unsigned long count = 1, threads = 1, errorEvery = 0;
    std::string startEvent, className = "LogWriter";
};

bool Parse(int argc, char** argv, Settings& settings)
{
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string arg = argv[i], value = argv[i + 1];
        if (arg == "--start-event" || arg == "--class")
            (arg == "--class" ? settings.className : settings.startEvent) = value;
        else if (arg == "--count" || arg == "--threads" || arg == "--error-every")
            (arg == "--count" ? settings.count : arg == "--threads" ? settings.threads : settings.errorEvery) =
                std::strtoul(value.c_str(), nullptr, 10);
        else
            return false;
    }
    return argc % 2 == 1 && settings.threads >= 1 && settings.threads <= 64;
}

void WriteRecords(const Settings& settings)
{
    const unsigned long pid = ::GetCurrentProcessId(), tid = ::GetCurrentThreadId();
    for (unsigned long seq = 0; seq < settings.count; ++seq) {
        const bool error = settings.errorEvery != 0 && seq % settings.errorEvery == settings.errorEvery - 1;
        TarnLog::Log(settings.className.c_str(), error ? 0 : 2, "logwriter pid=%lu tid=%lu seq=%lu", pid, tid, seq);
    }
}

} // namespace

int main(int argc, char** argv)
{
    Settings settings;
    if (!Parse(argc, argv, settings)) {
        std::fputs("usage: logwriter [--count N] [--threads T] [--error-every K] [--start-event NAME] [--class NAME]\n", stderr);
        return 2;
    }
    if (!settings.startEvent.empty()) {
        TarnBase::UniqueHandle start(
            ::OpenEventA(SYNCHRONIZE, FALSE, TarnBase::MakeKernelObjectName(settings.startEvent, true).c_str()));
        if (!start || ::WaitForSingleObject(start.Get(), 30000) != WAIT_OBJECT_0) {
            std::fprintf(stderr, "logwriter: start event %s never came\n", settings.startEvent.c_str());
            return 3;
        }
    }
    std::vector<std::thread> workers;
    for (unsigned long i = 0; i < settings.threads; ++i)
        workers.emplace_back(WriteRecords, std::cref(settings));
    for (auto& worker : workers)
        worker.join();
    std::printf("logwriter: wrote %lu records\n", settings.count * settings.threads);
    return 0;
}
