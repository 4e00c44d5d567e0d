// A page's questions while another process keeps the log ring's mutex, against the same
// page with the mutex free. Any local process can take that mutex; the host pays one
// bounded wait for it, then stops waiting.
//   - the whole page process (start-up, the first log record's wait, every answer);
//   - the later questions of a page, timed inside the page's script.
// Held and free runs alternate.
//   ring_stall_bench           full run, results as Markdown table rows
//   ring_stall_bench --short   one round, for the test run (never fails on timing)
#include "BenchSupport.h"
#include "TarnBase/KernelObjectName.h"
#include "TarnLog/win/Logger.h"
#include "testing/support/ChildProcess.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

namespace {

constexpr int kLaterQuestions = 24;
constexpr double kFirstExtraTargetMs = 1000;
constexpr double kLaterTarget = 1.2;

std::wstring BuildFolder()
{
    wchar_t path[MAX_PATH + 1] = {};
    std::wstring exe(path, ::GetModuleFileNameW(nullptr, path, MAX_PATH));
    exe.resize(exe.find_last_of(L'\\') + 1);
    return exe + L"..\\";
}

struct PageTimes {
    bool ok = false;
    double wholeMs = 0;
    double laterMs = 0;  // mean of the later questions
};

// One page: a first question, then kLaterQuestions more, each timed by the script.
PageTimes RunPage(const std::string& scriptPath)
{
    PageTimes times;
    const double start = Bench::NowUs();
    const TarnTest::ChildResult run = TarnTest::RunChild(
        {BuildFolder() + L"tools\\tarnhost\\tarnhost.exe", L"--url", L"file:///C:/x/page.html", TarnTest::Widen(scriptPath)},
        60000);
    times.wholeMs = (Bench::NowUs() - start) / 1000;
    double sum = 0;
    int lines = 0;
    for (const char* at = run.out.c_str(); *at != '\0'; ++lines) {
        sum += std::atof(at);
        const char* end = std::strchr(at, '\n');
        at = end ? end + 1 : at + std::strlen(at);
    }
    times.ok = run.started && !run.timedOut && run.exitCode == 0 && lines == kLaterQuestions + 1;
    times.laterMs = (sum - std::atof(run.out.c_str())) / kLaterQuestions;
    return times;
}

} // namespace

int main(int argc, char** argv)
{
    const bool shortRun = argc > 1 && std::strcmp(argv[1], "--short") == 0;
    const int rounds = shortRun ? 1 : 7;

    char folder[MAX_PATH] = {};
    ::GetTempPathA(MAX_PATH, folder);
    const std::string scriptPath = std::string(folder) + "ring-stall-bench.js";
    {
        std::ofstream script(scriptPath);
        script << "for (var i = 0; i <= " << kLaterQuestions << "; ++i) {\n"
               << "  var t = new Date().getTime(); TarnSM.IsCurrentContainerTrusted('');\n"
               << "  host.Echo(new Date().getTime() - t);\n}\n";
    }
    TarnBase::UniqueHandle mutex(
        ::CreateMutexA(nullptr, FALSE, TarnBase::MakeKernelObjectName(TarnLog::kRingMutexName, true).c_str()));
    if (!mutex) {
        std::fprintf(stderr, "ring_stall_bench: cannot open the ring mutex\n");
        return 1;
    }

    std::vector<double> heldWhole, freeWhole, heldLater, freeLater;
    bool ok = true;
    for (int round = 0; round < rounds * 2 && ok; ++round) {
        const bool held = (round % 2 == 0) == (round / 2 % 2 == 0);
        if (held && ::WaitForSingleObject(mutex.Get(), 5000) != WAIT_OBJECT_0) {
            ok = false;
            break;
        }
        const PageTimes times = RunPage(scriptPath);
        if (held)
            ::ReleaseMutex(mutex.Get());
        ok = times.ok;
        (held ? heldWhole : freeWhole).push_back(times.wholeMs);
        (held ? heldLater : freeLater).push_back(times.laterMs);
    }
    ::DeleteFileA(scriptPath.c_str());
    if (!ok) {
        std::fprintf(stderr, "ring_stall_bench: a page did not answer\n");
        return 1;
    }
    const double held1 = Bench::Median(heldWhole), free1 = Bench::Median(freeWhole);
    const double heldN = Bench::Median(heldLater), freeN = Bench::Median(freeLater);
    std::printf("| page of %d container questions, ring mutex held by another process (whole host process) | %.0f ms | %.0f ms "
                "| +%.0f ms | at most +%.0f ms |\n",
                kLaterQuestions + 1, held1, free1, held1 - free1, kFirstExtraTargetMs);
    std::printf("| later container questions of that page, ring mutex held | %.2f ms | %.2f ms | %.2f | %.1f |\n", heldN,
                freeN, freeN > 0 ? heldN / freeN : 0.0, kLaterTarget);
    return 0;
}
