// A page's questions while another process or a web server misbehaves: a kept log ring
// mutex, a squatted trusted-process table, a data file that trickles, one that never
// ends, and a page that fails over and over. The host must answer, in bounded time and
// disk, with the fail-closed answer.
#include "BlackBox.h"
#include "ChildProcess.h"
#include "RingReader.h"
#include "TestServer.h"
#include "TarnLog/Log.h"

#include <doctest.h>

#include <chrono>
#include <fstream>
#include <optional>

namespace {

constexpr DWORD kPageLimitMs = 25000;  // far beyond any answer here; a hang ends as a failure

struct Page {
    TarnTest::ChildResult child;
    double seconds = 0;
    std::vector<std::string> answers;
};

// Runs tarnhost.exe on a page at `url` whose script is `script` (JScript, host.Echo per answer).
Page RunPage(const std::wstring& url, const std::vector<std::wstring>& params, const std::string& script)
{
    char folder[MAX_PATH] = {};
    ::GetTempPathA(MAX_PATH, folder);
    const std::string path = std::string(folder) + "hoststall-" + std::to_string(::GetCurrentProcessId()) + ".js";
    std::ofstream(path) << script;
    std::vector<std::wstring> args = {TarnTest::BuildPath("tools/tarnhost/tarnhost.exe"), L"--url", url};
    for (const auto& param : params)
        args.insert(args.end(), {L"--param", param});
    args.push_back(TarnTest::Widen(path));
    Page page;
    const auto start = std::chrono::steady_clock::now();
    page.child = TarnTest::RunChild(args, kPageLimitMs);
    page.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    ::DeleteFileA(path.c_str());
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

// Files PTI*.tmp of the temporary folder (the evaluation's downloads) and their sizes.
std::vector<std::pair<std::string, uint64_t>> KeptDownloads()
{
    char folder[MAX_PATH] = {};
    ::GetTempPathA(MAX_PATH, folder);
    std::vector<std::pair<std::string, uint64_t>> files;
    WIN32_FIND_DATAA found{};
    const HANDLE search = ::FindFirstFileA((std::string(folder) + "PTI*.tmp").c_str(), &found);
    if (search == INVALID_HANDLE_VALUE)
        return files;
    do
        files.emplace_back(std::string(folder) + found.cFileName,
                           (static_cast<uint64_t>(found.nFileSizeHigh) << 32) | found.nFileSizeLow);
    while (::FindNextFileA(search, &found));
    ::FindClose(search);
    return files;
}

void DeleteKeptDownloads()
{
    for (const auto& file : KeptDownloads())
        ::DeleteFileA(file.first.c_str());
}

// The download time-out, set for one test and put back afterwards.
class DownloadTimeout {
public:
    explicit DownloadTimeout(DWORD milliseconds)
    {
        ::RegCreateKeyExA(HKEY_LOCAL_MACHINE, kKey, 0, nullptr, 0, KEY_READ | KEY_WRITE, nullptr, m_key.Put(), nullptr);
        DWORD old = 0, size = sizeof old, type = 0;
        if (::RegQueryValueExA(m_key.Get(), kValue, nullptr, &type, reinterpret_cast<BYTE*>(&old), &size) == ERROR_SUCCESS &&
            type == REG_DWORD)
            m_old = old;
        ::RegSetValueExA(m_key.Get(), kValue, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&milliseconds), sizeof milliseconds);
    }
    ~DownloadTimeout()
    {
        if (m_old)
            ::RegSetValueExA(m_key.Get(), kValue, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&*m_old), sizeof *m_old);
        else
            ::RegDeleteValueA(m_key.Get(), kValue);
    }
    DownloadTimeout(const DownloadTimeout&) = delete;
    DownloadTimeout& operator=(const DownloadTimeout&) = delete;

private:
    static constexpr const char* kKey = "Software\\Ostrum\\Kestrel\\Config\\TarnSM";
    static constexpr const char* kValue = "TrustedSiteDownloadTimeout";
    TarnBase::UniqueRegKey m_key;
    std::optional<DWORD> m_old;
};

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
        const std::string script = Asks("IsCurrentContainerTrusted('')", 4);
        const Page free = RunPage(L"file:///C:/x/page.html", {}, script);
        TarnBase::UniqueHandle mutex(::CreateMutexA(nullptr, FALSE, TarnTest::RingMutexName().c_str()));
        REQUIRE(mutex);
        TarnTest::RingMutexHold hold(mutex.Get(), 5000);
        REQUIRE(hold.Held());
        const Page held = RunPage(L"file:///C:/x/page.html", {}, script);
        CHECK(free.answers == Repeated("false", 4));
        CHECK(held.answers == Repeated("false", 4));
        MESSAGE("free " << free.seconds << " s, held " << held.seconds << " s");
        CHECK(held.seconds < free.seconds + 2.5);
    }

    TEST_CASE("a trusted-process table squatted as reserved memory is refused with a record (Wine reads such pages where Windows faults)")
    {
        TarnLog::Log("TarnSMX::HostStallTest", 3, "HostStallTest: keeping the ring alive.");
        const std::string name = TarnBase::MakeKernelObjectName("TarnSys::DynamicProcessTrust::MemMap::2.0", false);
        TarnBase::UniqueHandle squat(
            ::CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE | SEC_RESERVE, 0, 38524, name.c_str()));
        REQUIRE(squat);
        REQUIRE_MESSAGE(::GetLastError() != ERROR_ALREADY_EXISTS, "another process holds the table");
        const Page page = RunPage(L"file:///C:/x/page.html", {}, Asks("IsCurrentContainerTrusted('')", 1));
        CHECK(page.answers == Repeated("false", 1));
        bool refused = false;
        for (const auto& record : TarnTest::RingReader().RecordsOfProcess(page.child.processId))
            refused = refused || TarnLog::ReadField(record.message, sizeof record.message).find("not committed") !=
                                     std::string::npos;
        CHECK(refused);
    }

    TEST_CASE("data files that trickle, never end or keep failing cost bounded time and disk")
    {
        TarnTest::TestServer server(BinaryDir() + "/trustfiles/www");
        REQUIRE(server.Running());
        DownloadTimeout timeout(1000);  // the whole download may then take 3 s
        DeleteKeptDownloads();
        auto page = [&](const std::string& directive, int asks) {
            return RunPage(L"http://example.com/p.html",
                           {TarnTest::Widen("TrustedSiteDataFileURL=" + server.Url("/__" + directive + "/good.dll"))},
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
            for (const auto& file : KeptDownloads())
                CHECK(file.second <= 1024 * 1024 + 1024);
        }
        SUBCASE("20 failures in a row keep at most 8 downloads, and the 21st question still works")
        {
            const Page failing = page("failfirst=20", 21);
            std::vector<std::string> expected = Repeated("false", 20);
            expected.push_back("true");
            CHECK_MESSAGE(failing.answers == expected, failing.child.out);
            CHECK(KeptDownloads().size() <= 8);
        }
        DeleteKeptDownloads();
    }
}
