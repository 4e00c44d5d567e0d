#pragma once
// What the black-box suites share: the signed data files' server beside a page host, a
// page's tarnhost options, and the check that a host came back by itself.
#include "PageHost.h"
#include "Registry.h"
#include "TestServer.h"

#include <doctest.h>

namespace TarnTest {

// Every call a page makes through ask() answers a line: its value, or "error <hex> <text>".
constexpr char kAskFunction[] = "function ask(f) { try { return String(f()); } catch (e) {"
                                " return 'error ' + (e.number >>> 0).toString(16) + ' ' + e.description; } }\n";

struct Pages {
    TestServer server{std::string(std::getenv("TARN_BINARY_DIR")) + "/trustfiles/www"};
    PageHost pages;
    explicit Pages(bool keepRing = true) : pages(keepRing) { REQUIRE(server.Running()); }
};

// tarnhost options: the page's URL (none when empty) and its parameters, "[N:]Name=Value".
inline std::vector<std::wstring> PageAt(const std::wstring& url, const std::vector<std::string>& params = {})
{
    std::vector<std::wstring> options;
    if (!url.empty())
        options = {L"--url", url};
    for (const auto& p : params)
        options.insert(options.end(), {L"--param", Widen(p)});
    return options;
}

// The host ended by itself with exit code 0; the page's output lines.
inline std::vector<std::string> Survived(const ChildResult& run)
{
    INFO("stdout: " << run.out << "stderr: " << run.err);
    CHECK_FALSE(run.timedOut);
    CHECK(run.exitCode == 0);
    return Lines(run.out);
}

} // namespace TarnTest
