// A page's questions while another process or a web server misbehaves: a kept log ring
// mutex, a squatted trusted-process table, a data file that trickles, one that never
// ends, and a page that fails over and over. The host must answer, in bounded time and
// disk, with the fail-closed answer.
#include "PageHost.h"
#include "Registry.h"
#include "TestServer.h"

#include <doctest.h>

#include <chrono>

using namespace TarnTest;

namespace {

constexpr DWORD kPageLimitMs = 25000;  // far beyond any answer here; a hang ends as a failure

struct Page {
    ChildResult child;
    double seconds = 0;
    std::vector<std::string> answers;
};

// tarnhost.exe on a page at `url` whose script echoes one answer per line.
Page RunPage(PageHost& pages, const std::wstring& url, const std::vector<std::wstring>& params, const std::string& script)
{
    std::vector<std::wstring> options = {L"--url", url};
    for (const auto& param : params)
        options.insert(options.end(), {L"--param", param});
    Page page;
    const auto start = std::chrono::steady_clock::now();
    page.child = Process(pages.Args(options, script)).Finish(kPageLimitMs);
    page.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    for (size_t at = 0; at < page.child.out.size();) {
        const size_t end = page.child.out.find('\n', at);
        page.answers.push_back(page.child.out.substr(at, end == std::string::npos ? std::string::npos : end - at));
        at = end == std::string::npos ? page.child.out.size() : end + 1;
    }
    INFO("stderr: " << page.child.err);
    CHECK_FALSE(page.child.timedOut);
    CHECK(page.child.exitCode == 0);
    return page;
}

std::string Asks(const char* question, int times)
{
    std::string script;
    for (int i = 0; i < times; ++i)
        script += std::string("host.Echo(TarnSM.") + question + ");\n";
    return script;
}

std::vector<std::string> Repeated(const std::string& answer, int times)
{
    return std::vector<std::string>(static_cast<size_t>(times), answer);
}

uint64_t SizeOf(const std::wstring& path)
{
    WIN32_FILE_ATTRIBUTE_DATA data{};
    if (!::GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &data))
        return 0;
    return (static_cast<uint64_t>(data.nFileSizeHigh) << 32) | data.nFileSizeLow;
}

void DeleteKeptDownloads()
{
    for (const auto& file : PageHost::Downloads())
        ::DeleteFileW(file.c_str());
}

std::string BinaryDir()
{
    const char* dir = std::getenv("TARN_BINARY_DIR");
    return dir ? dir : ".";
}

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
        CHECK(free.answers == Repeated("false", 4));
        CHECK(held.answers == Repeated("false", 4));
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
        CHECK(page.answers == Repeated("false", 1));
        bool refused = false;
        for (const auto& message : MessagesOf(page.child.processId))
            refused = refused || message.find("not committed") != std::string::npos;
        CHECK(refused);
    }

    TEST_CASE("data files that trickle, never end or keep failing cost bounded time and disk")
    {
        TestServer server(BinaryDir() + "/trustfiles/www");
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
            CHECK(trickle.answers == Repeated("false", 1));
            CHECK(trickle.seconds < 10);
        }
        SUBCASE("3 MB without a length: cut at the size cap")
        {
            const Page huge = page("oversize=3000000", 1);
            CHECK(huge.answers == Repeated("false", 1));
            for (const auto& file : PageHost::Downloads())
                CHECK(SizeOf(file) <= 1024 * 1024 + 1024);
        }
        SUBCASE("20 failures in a row keep at most 8 downloads, and the 21st question still works")
        {
            const Page failing = page("failfirst=20", 21);
            std::vector<std::string> expected = Repeated("false", 20);
            expected.push_back("true");
            CHECK_MESSAGE(failing.answers == expected, failing.child.out);
            CHECK(PageHost::Downloads().size() <= 8);
        }
        DeleteKeptDownloads();
    }
}
