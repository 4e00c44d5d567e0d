#pragma once
// Timing helpers shared by the benchmarks, and the bare download every download floor uses.

#include "TarnBase/win/Handle.h"

#include <windows.h>
#include <wininet.h>

#include <algorithm>
#include <functional>
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

// Times both sides in alternating order, so drift in the machine's load hits both alike.
inline Comparison Alternate(int rounds, const std::function<bool()>& ours, const std::function<bool()>& floor)
{
    Comparison result;
    for (int round = 0; round < rounds && result.ok; ++round) {
        for (int side = 0; side < 2; ++side) {
            const bool oursNow = (side == 0) == (round % 2 == 0);
            const double start = NowUs();
            const bool ok = oursNow ? ours() : floor();
            const double elapsed = NowUs() - start;
            result.ok = result.ok && ok;
            (oursNow ? result.ours : result.floor).push_back(elapsed);
        }
    }
    return result;
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
