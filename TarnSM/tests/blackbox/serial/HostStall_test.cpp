// A page's questions while another process or a web server misbehaves: a kept log ring
// mutex, a squatted trusted-process table, a data file that trickles, one that never
// ends, and a page that fails over and over. The host must answer, in bounded time and
// disk, with the fail-closed answer.
#include "PageHost.h"
#include "Registry.h"
#include "TestServer.h"

#include <doctest.h>

#include <algorithm>
#include <chrono>

using namespace TarnTest;

namespace {

constexpr DWORD kPageLimitMs = 25000;  // far beyond any answer here; a hang ends as a failure

struct Page { ChildResult child; double seconds = 0; };

// tarnhost.exe on a page at `url` whose script echoes one answer per line.
Page RunPage(PageHost& pages, const std::wstring& url, const std::vector<std::wstring>& params, const std::string& script)
{
    std::vector<std::wstring> options = {L"--url", url};
    for (const auto& param : params)
        options.insert(options.end(), {L"--param", param});
    const auto start = std::chrono::steady_clock::now();
    Page page{Process(pages.Args(options, script)).Finish(kPageLimitMs)};
    page.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    INFO("stderr: " << page.child.err);
    CHECK_FALSE(page.child.timedOut);
    CHECK(page.child.exitCode == 0);
    return page;
}

// `text` and a line end, `times` times.
std::string Lines(const std::string& text, int times) { return times > 0 ? text + "\n" + Lines(text, times - 1) : ""; }

std::string Asks(const std::string& question, int times) { return Lines("host.Echo(TarnSM." + question + ");", times); }

void DeleteKeptDownloads() { for (const auto& file : PageHost::Downloads()) ::DeleteFileW(file.c_str()); }

} // namespace

TEST_SUITE("host stall")
{
    TEST_CASE("a ring mutex another process keeps adds about a second to a page's questions, not their whole hold")
    {
        PageHost pages(false);
        const std::string script = Asks("IsCurrentContainerTrusted('')", 4);
        const Page free = RunPage(pages, L"file:///C:/x/page.html", {}, script);
        TarnBase::UniqueHandle mutex(::CreateMutexA(nullptr, FALSE, RingMutexName().c_str()));
        REQUIRE(mutex);
        RingMutexHold hold(mutex.Get(), 5000);
        REQUIRE(hold.Held());
        const Page held = RunPage(pages, L"file:///C:/x/page.html", {}, script);
        CHECK(free.child.out == Lines("false", 4));
        CHECK(held.child.out == Lines("false", 4));
        MESSAGE("free " << free.seconds << " s, held " << held.seconds << " s");
        CHECK(held.seconds < free.seconds + 2.5);
    }

    TEST_CASE("a trusted-process table squatted as reserved memory is refused with a record (Wine reads such pages where Windows faults)")
    {
        PageHost pages;  // keeps the ring, and so the host's records, alive
        const std::string name = TarnBase::MakeKernelObjectName("TarnSys::DynamicProcessTrust::MemMap::2.0", false);
        TarnBase::UniqueHandle squat(
            ::CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE | SEC_RESERVE, 0, 38524, name.c_str()));
        REQUIRE(squat);
        REQUIRE_MESSAGE(::GetLastError() != ERROR_ALREADY_EXISTS, "another process holds the table");
        const Page page = RunPage(pages, L"file:///C:/x/page.html", {}, Asks("IsCurrentContainerTrusted('')", 1));
        CHECK(page.child.out == "false\n");
        const auto messages = MessagesOf(page.child.processId);
        CHECK(std::any_of(messages.begin(), messages.end(),
                          [](const std::string& m) { return m.find("not committed") != std::string::npos; }));
    }

    TEST_CASE("data files that trickle, never end or keep failing cost bounded time and disk")
    {
        TestServer server(std::string(std::getenv("TARN_BINARY_DIR")) + "/trustfiles/www");
        REQUIRE(server.Running());
        PageHost pages;
        ScopedRegistryKey config(HKEY_LOCAL_MACHINE, "Software\\Ostrum\\Kestrel\\Config\\TarnSM");
        REQUIRE(config.SetDword("TrustedSiteDownloadTimeout", 1000));  // the whole download may then take 3 s
        DeleteKeptDownloads();
        auto page = [&](const std::string& directive, int asks) {
            return RunPage(pages, L"http://example.com/p.html",
                           {Widen("TrustedSiteDataFileURL=" + server.Url("/__" + directive + "/good.dll"))},
                           Asks("IsCurrentSiteTrusted()", asks));
        };

        SUBCASE("a byte every 50 ms: ended at the deadline")
        {
            const Page trickle = page("trickle=50", 1);
            CHECK(trickle.child.out == "false\n");
            CHECK(trickle.seconds < 10);
        }
        SUBCASE("3 MB without a length: cut at the size cap")
        {
            CHECK(page("oversize=3000000", 1).child.out == "false\n");
            for (const auto& file : PageHost::Downloads()) {
                std::string bytes;
                CHECK((ReadBytes(file, bytes) && bytes.size() <= 1024 * 1024 + 1024));
            }
        }
        SUBCASE("20 failures in a row keep at most 8 downloads, and the 21st question still works")
        {
            CHECK(page("failfirst=20", 21).child.out == Lines("false", 20) + "true\n");
            CHECK(PageHost::Downloads().size() <= 8);
        }
        DeleteKeptDownloads();
    }
}
