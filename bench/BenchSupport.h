#pragma once
// The one timing harness of the benchmarks, the rows they print, the records a floor
// writes again, and the bare download every download floor uses.

#include "TarnBase/win/Handle.h"
#include "TarnLog/Log.h"
#include "TarnMT/DebugLine.h"

#include <windows.h>
#include <wininet.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace Bench {

inline double NowUs()
{
    static const double frequency = [] {
        LARGE_INTEGER f;
        ::QueryPerformanceFrequency(&f);
        return static_cast<double>(f.QuadPart);
    }();
    LARGE_INTEGER now;
    ::QueryPerformanceCounter(&now);
    return static_cast<double>(now.QuadPart) * 1e6 / frequency;
}

inline double Median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    const size_t n = values.size();
    return n == 0 ? 0 : (n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2);
}

struct Comparison {
    std::vector<double> ours;
    std::vector<double> floor;
    bool ok = true;
};

// A side that adds its own sample (a child process reports its own time) and says whether
// it answered as expected.
using Side = std::function<bool(std::vector<double>& samples)>;

// One sample of each side per round; which side goes first alternates, so drift in the
// machine's load hits both alike. Stops at the first wrong answer.
inline Comparison AlternateSamples(int rounds, const Side& ours, const Side& floor)
{
    Comparison result;
    for (int round = 0; round < rounds && result.ok; ++round)
        for (int side = 0; side < 2 && result.ok; ++side) {
            const bool oursNow = (side == 0) == (round % 2 == 0);
            result.ok = oursNow ? ours(result.ours) : floor(result.floor);
        }
    return result;
}

inline Side Timed(const std::function<bool()>& call)
{
    return [call](std::vector<double>& samples) {
        const double start = NowUs();
        const bool ok = call();
        samples.push_back(NowUs() - start);
        return ok;
    };
}

// Both sides timed around the call.
inline Comparison Alternate(int rounds, const std::function<bool()>& ours, const std::function<bool()>& floor)
{
    return AlternateSamples(rounds, Timed(ours), Timed(floor));
}

// `count` calls of `call` as one sample; true when every one answered as expected.
inline std::function<bool()> Batch(int count, const std::function<bool()>& call)
{
    return [count, call] {
        bool ok = true;
        for (int i = 0; i < count; ++i)
            ok = call() && ok;
        return ok;
    };
}

// One result row: "| operation | ours | floor | ratio | target |", medians per unit.
inline void PrintRow(const char* operation, const char* unit, double ours, double floor, double target)
{
    const double ratio = ours / floor;
    std::printf("| %s | %.1f us/%s | %.1f us/%s | %.2fx | <= %.2fx%s |\n", operation, ours, unit, floor, unit, ratio,
                target, ratio <= target ? "" : " (missed)");
}

inline void PrintRow(const char* operation, const Comparison& c, int batch, double target)
{
    PrintRow(operation, "call", Median(c.ours) / batch, Median(c.floor) / batch, target);
}

inline void PrintHeader()
{
    std::printf("| operation | ours | floor | ratio | target |\n");
    std::printf("|---|---|---|---|---|\n");
}

// ---- the records a floor writes, so that it pays for the same logging as ours ----------

struct Record {
    std::string className;
    unsigned char level;
    std::string message;
    // The threading library's line to the debugger output, not a log record. The observer
    // sees both alike; that library's classes, and only its, are named "TarnMT::...".
    bool debugLine;

    bool operator==(const Record& other) const
    {
        return className == other.className && level == other.level && message == other.message &&
               debugLine == other.debugLine;
    }
};

// Every record `call` hands to the logger in this process, before any level filter, with
// the threading library's debug lines among them. Only a control built into this program
// is seen: a registered DLL has its own logger.
inline std::vector<Record> RecordsOf(const std::function<void()>& call)
{
    struct Capture {
        std::mutex lock;
        std::vector<Record> records;
    } capture;
    TarnLog::Log("Bench", 3, "Bench: the logger is up before records are captured.");
    TarnLog::SetObserver(
        [](void* context, const char* className, unsigned char level, const char* message) {
            auto* self = static_cast<Capture*>(context);
            const std::string name = className ? className : "";
            std::lock_guard<std::mutex> guard(self->lock);
            self->records.push_back({name, level, message ? message : "", name.rfind("TarnMT::", 0) == 0});
        },
        &capture);
    call();
    TarnLog::SetObserver(nullptr, nullptr);
    std::lock_guard<std::mutex> guard(capture.lock);
    return capture.records;
}

// Writes the same records again through the same two calls, each message passed as "%s".
inline void Replay(const std::vector<Record>& records)
{
    for (const Record& record : records)
        if (record.debugLine)
            TarnMT::DebugLog(record.className.c_str(), record.level, "%s", record.message.c_str());
        else
            TarnLog::Log(record.className.c_str(), record.level, "%s", record.message.c_str());
}

// A floor is checked once before timing: `floor` must write exactly `expected`.
inline bool WritesSame(const std::vector<Record>& expected, const std::function<void()>& floor)
{
    const std::vector<Record> written = RecordsOf(floor);
    if (written == expected)
        return true;
    std::fprintf(stderr, "the floor writes %zu records, ours %zu:\n", written.size(), expected.size());
    for (const Record& record : written)
        std::fprintf(stderr, "  floor: %s %u %s\n", record.className.c_str(), record.level, record.message.c_str());
    for (const Record& record : expected)
        std::fprintf(stderr, "  ours:  %s %u %s\n", record.className.c_str(), record.level, record.message.c_str());
    return false;
}

inline size_t DebugLines(const std::vector<Record>& records)
{
    return static_cast<size_t>(std::count_if(records.begin(), records.end(), [](const Record& r) { return r.debugLine; }));
}

// The WinINet calls a trust data file download makes, and nothing else.
inline bool BareDownload(const std::string& url, const std::string& target)
{
    TarnBase::UniqueInternetHandle session(::InternetOpenA("TarnSM", INTERNET_OPEN_TYPE_PRECONFIG, nullptr, nullptr, 0));
    if (!session)
        return false;
    DWORD timeout = 10000;
    ::InternetSetOptionA(session.Get(), INTERNET_OPTION_CONNECT_TIMEOUT, &timeout, sizeof timeout);
    TarnBase::UniqueInternetHandle request(::InternetOpenUrlA(session.Get(), url.c_str(), nullptr, 0,
                                                              INTERNET_FLAG_RESYNCHRONIZE | INTERNET_FLAG_NO_UI, 0));
    if (!request)
        return false;
    DWORD status = 0, size = sizeof status;
    if (!::HttpQueryInfoA(request.Get(), HTTP_QUERY_STATUS_CODE | HTTP_QUERY_FLAG_NUMBER, &status, &size, nullptr) ||
        status != 200)
        return false;
    TarnBase::UniqueFile file(
        ::CreateFileA(target.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file)
        return false;
    char buffer[1024];
    for (;;) {
        DWORD read = 0;
        if (!::InternetReadFile(request.Get(), buffer, sizeof buffer, &read))
            return false;
        if (read == 0)
            return true;
        DWORD written = 0;
        if (!::WriteFile(file.Get(), buffer, read, &written, nullptr))
            return false;
    }
}

} // namespace Bench
