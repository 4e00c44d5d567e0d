// Site trust end to end: a page served from 127.0.0.1, tarnhost playing the browser, the
// registered DLL deciding, and the log ring telling why.
#include "BlackBox.h"
#include "ChildProcess.h"
#include "RingReader.h"
#include "TestServer.h"
#include "TarnLog/Log.h"

#include <doctest.h>

#include <fstream>
#include <set>

namespace {

const char kVerifyFailed[] =
    "IsCurrentSiteTrustedInternal: Failed to verify signature on Trusted Site Data File, or failed to verify is signed by a trusted entity. Cannot trust site.";
const char kReadFailed[] = "IsCurrentSiteTrustedInternal: Failed to read trust data file. Cannot determine trust.";
const char kDownloadFailed[] = "IsCurrentSiteTrustedInternal: Failed to download Trusted Site Data File.";

std::string BinaryDir()
{
    const char* dir = std::getenv("TARN_BINARY_DIR");
    return dir ? dir : ".";
}

// Files PTI*.tmp in the temporary folder: the evaluation's downloads.
std::set<std::string> TempDownloads()
{
    char folder[MAX_PATH] = {};
    ::GetTempPathA(MAX_PATH, folder);
    std::set<std::string> names;
    WIN32_FIND_DATAA found{};
    HANDLE search = ::FindFirstFileA((std::string(folder) + "PTI*.tmp").c_str(), &found);
    if (search == INVALID_HANDLE_VALUE)
        return names;
    do
        names.insert(std::string(folder) + found.cFileName);
    while (::FindNextFileA(search, &found));
    ::FindClose(search);
    return names;
}

struct PageRun {
    std::vector<std::string> answers;   // what the page printed, one per line
    std::vector<std::string> messages;  // the host process's log records
    std::vector<std::string> leftDownloads;

    bool Logged(const std::string& message) const
    {
        for (const auto& m : messages)
            if (m == message)
                return true;
        return false;
    }
    bool LoggedStart(const std::string& prefix) const
    {
        for (const auto& m : messages)
            if (m.compare(0, prefix.size(), prefix) == 0)
                return true;
        return false;
    }
};

// Runs a page whose script asks IsCurrentSiteTrusted `asks` times on each control.
PageRun RunPage(const std::string& url, const std::vector<std::string>& params, int asks = 2, int controls = 1)
{
    std::string script;
    for (int c = 1; c <= controls; ++c) {
        const std::string name = c == 1 ? "TarnSM" : "TarnSM" + std::to_string(c);
        for (int i = 0; i < asks; ++i)
            script += "host.Echo(" + name + ".IsCurrentSiteTrusted());\n";
    }
    char folder[MAX_PATH] = {};
    ::GetTempPathA(MAX_PATH, folder);
    const std::string scriptPath = std::string(folder) + "sitetrust-" + std::to_string(::GetCurrentProcessId()) + ".js";
    std::ofstream(scriptPath) << script;

    std::vector<std::wstring> args = {TarnTest::BuildPath("tools/tarnhost/tarnhost.exe"), L"--url",
                                      TarnTest::Widen(url), L"--controls", std::to_wstring(controls)};
    for (const auto& p : params) {
        args.push_back(L"--param");
        args.push_back(TarnTest::Widen(p));
    }
    args.push_back(TarnTest::Widen(scriptPath));

    // The ring lives only while some process maps it: logging here keeps it, and so the
    // page's records, alive after the page's process has exited.
    TarnLog::Log("TarnSMX::SiteTrustTest", 3, "Running page %s", url.c_str());
    const std::set<std::string> before = TempDownloads();
    const TarnTest::ChildResult result = TarnTest::RunChild(args);
    ::DeleteFileA(scriptPath.c_str());

    PageRun run;
    size_t at = 0;
    while (at < result.out.size()) {
        const size_t end = result.out.find('\n', at);
        run.answers.push_back(result.out.substr(at, end == std::string::npos ? std::string::npos : end - at));
        if (end == std::string::npos)
            break;
        at = end + 1;
    }
    TarnTest::RingReader ring;
    for (const auto& record : ring.RecordsOfProcess(result.processId))
        run.messages.push_back(TarnLog::ReadField(record.message, sizeof record.message));
    // Failed evaluations keep their download for inspection; the test removes them.
    for (const auto& name : TempDownloads())
        if (!before.count(name)) {
            run.leftDownloads.push_back(name);
            ::DeleteFileA(name.c_str());
        }
    INFO("stderr: " << result.err);
    CHECK(result.exitCode == 0);
    return run;
}

// A vendor configuration key under HKLM, removed again at the end of the test.
class VendorKey {
public:
    VendorKey(const std::string& vendor, const std::vector<std::string>& signers, bool withSignersKey = true)
        : m_path("Software\\Ostrum\\Kestrel\\Config\\" + vendor)
    {
        TarnBase::UniqueRegKey key;
        ::RegCreateKeyExA(HKEY_LOCAL_MACHINE, m_path.c_str(), 0, nullptr, 0, KEY_WRITE, nullptr, key.Put(), nullptr);
        if (withSignersKey)
            for (const auto& signer : signers.empty() ? std::vector<std::string>{""} : signers) {
                const std::string sub = m_path + "\\TarnSM\\TrustedSigners" + (signer.empty() ? "" : "\\" + signer);
                TarnBase::UniqueRegKey subKey;
                ::RegCreateKeyExA(HKEY_LOCAL_MACHINE, sub.c_str(), 0, nullptr, 0, KEY_WRITE, nullptr, subKey.Put(),
                                  nullptr);
            }
    }
    ~VendorKey() { ::RegDeleteTreeA(HKEY_LOCAL_MACHINE, m_path.c_str()), ::RegDeleteKeyA(HKEY_LOCAL_MACHINE, m_path.c_str()); }
    VendorKey(const VendorKey&) = delete;
    VendorKey& operator=(const VendorKey&) = delete;

private:
    std::string m_path;
};

std::string Unique(const char* base)
{
    return std::string(base) + "-" + std::to_string(::GetCurrentProcessId());
}

} // namespace

TEST_SUITE("site trust")
{
    TEST_CASE("every fault answers not trusted, names its step, and is never cached")
    {
        TarnTest::TestServer server(BinaryDir() + "/trustfiles/www");
        REQUIRE(server.Running());
        const std::string page = "http://shop.example.com/page.html";
        struct Row {
            const char* what;
            std::string path;  // as requested from the server
            std::string query;
            std::string pageUrl;
            std::string vendor;
            std::vector<std::string> messages;
        };
        const std::string vendor = Unique("OrgOnlyVendor");
        VendorKey orgOnly(vendor, {"Org, Inc."});
        const std::vector<Row> rows = {
            {"unsigned", "/unsigned.dll", "", page, "", {kVerifyFailed}},
            {"tampered after signing", "/tampered.dll", "", page, "", {kVerifyFailed}},
            {"untrusted root", "/rogue.dll", "", page, "", {kVerifyFailed}},
            {"expired leaf", "/expired.dll", "", page, "", {kVerifyFailed}},
            {"signer not on the list", "/wrongusage.dll", "", page, "", {kVerifyFailed}},
            {"signer differing only in case", "/lowercase.dll", "", page, "", {kVerifyFailed}},
            {"second certificate entry never examined", "/twocerts.dll", "", page, "", {kVerifyFailed}},
            {"vendor list excludes the signer", "/good.dll", "", page, vendor, {kVerifyFailed}},
            {"not a PE file", "/notpe.dll", "", page, "", {kVerifyFailed}},
            {"404", "/__status=404/good.dll", "", page, "",
             {"DownloadFile: Failed to download file. HTTP Status Code: 404.", kDownloadFailed}},
            {"truncated body", "/__truncate=1500/good.dll", "", page, "", {kVerifyFailed}},
            {"URL not ending in dll", "/good.dll", "?v=1", page, "",
             {"ReadTrustDataFile: Unsupported file type. File: ", kReadFailed}},
            {"unsupported scheme", "/good.dll", "", "ftp://ftp.example.com/page.html", "",
             {"ReadTrustDataDLL: Current site's scheme is unsupported. Scheme: 3.", kReadFailed}},
            {"missing string for the page's scheme", "/nohttps.dll", "", "https://secure.example.com/page.html", "",
             {"ReadTrustDataDLL: Failed to load HTTPS URL Trusted Site list from data file.", kReadFailed}},
        };
        for (const Row& row : rows) {
            CAPTURE(std::string(row.what));
            REQUIRE(server.ResetCounts());
            std::vector<std::string> params = {"TrustedSiteDataFileURL=" + server.Url(row.path + row.query)};
            if (!row.vendor.empty())
                params.push_back("VendorID=" + row.vendor);
            const PageRun run = RunPage(row.pageUrl, params);
            CHECK(run.answers == std::vector<std::string>{"false", "false"});
            for (const auto& message : row.messages)
                CHECK_MESSAGE(run.LoggedStart(message), message);
            // Nothing cached: the second question fetched the file again.
            CHECK(server.RequestCount(row.path) == 2);
            // The failed download is kept where it was, for inspection.
            CHECK(run.leftDownloads.size() == 2);
        }
    }

    TEST_CASE("signature faults are reported with the platform's verdict")
    {
        TarnTest::TestServer server(BinaryDir() + "/trustfiles/www");
        REQUIRE(server.Running());
        const PageRun unsigned_ = RunPage("http://example.com/p.html", {"TrustedSiteDataFileURL=" + server.Url("/unsigned.dll")}, 1);
        CHECK(unsigned_.LoggedStart("VerifyAuthenticodeSignature - Authenticode signature for "));
        CHECK(unsigned_.LoggedStart("VerifyAuthenticodeSignatureAndTrustedSigner (list) - Authenticode signature for "));
        bool found = false;
        for (const auto& m : unsigned_.messages)
            found = found || m.find("is not valid with error 0x800b0100") != std::string::npos;
        CHECK(found);
        const PageRun rogue = RunPage("http://example.com/p.html", {"TrustedSiteDataFileURL=" + server.Url("/rogue.dll")}, 1);
        found = false;
        for (const auto& m : rogue.messages)
            found = found || m.find("is not valid with error 0x800b0109") != std::string::npos;
        CHECK(found);
    }

    TEST_CASE("trusted, denied and unlisted domains under the default signers")
    {
        TarnTest::TestServer server(BinaryDir() + "/trustfiles/www");
        REQUIRE(server.Running());
        const std::string file = "TrustedSiteDataFileURL=" + server.Url("/good.dll");
        struct Case {
            const char* page;
            const char* answer;
        };
        const Case cases[] = {
            {"http://example.com/p.html", "true"},               // bare entry: the domain itself
            {"http://shop.example.com/p.html", "true"},          // ... and its subdomains
            {"http://badexample.com/p.html", "false"},           // but not a mere suffix
            {"http://bad.example.com/p.html", "false"},          // denied wins
            {"https://secure.example.com/p.html", "true"},       // https pages read their own list
            {"https://example.com/p.html", "false"},
            {"https://admin.secure.example.com/p.html", "false"},
            {"https://exact.example.org/p.html", "true"},        // "=": only that domain
            {"https://www.exact.example.org/p.html", "false"},
            {"https://x.wild.example.net/p.html", "true"},       // "*.": only subdomains
            {"https://wild.example.net/p.html", "false"},
            {"HTTPS://secure.example.com/p.html", "true"},       // scheme in capitals
            {"http://Example.com/p.html", "false"},              // case matters in domains
        };
        for (const Case& c : cases) {
            CAPTURE(std::string(c.page));
            const PageRun run = RunPage(c.page, {file}, 1);
            CHECK(run.answers == std::vector<std::string>{c.answer});
            CHECK(run.Logged("IsCurrentSiteTrustedInternal: Verified Trusted Site Data File itself can be trusted."));
            CHECK(run.leftDownloads.empty());  // a file that was read is removed
        }
        const PageRun trusted = RunPage("http://shop.example.com/p.html", {file}, 1);
        CHECK(trusted.Logged("IsCurrentSiteTrustedInternal: Our site's current domain is TRUSTED. Domain: shop.example.com"));
        CHECK(trusted.Logged("GetTrust: Current site found on trust list. Current site is trusted."));
        const PageRun denied = RunPage("http://bad.example.com/p.html", {file}, 1);
        CHECK(denied.Logged("GetTrust: Current site found on denied list. Current site is not trusted."));
        CHECK(denied.Logged("IsCurrentSiteTrustedInternal: Our site's current domain is NOT TRUSTED. Domain: bad.example.com"));
    }

    TEST_CASE("signer choice: defaults, a vendor's own list, and the fallbacks")
    {
        TarnTest::TestServer server(BinaryDir() + "/trustfiles/www");
        REQUIRE(server.Running());
        const std::string page = "http://shop.example.com/p.html";
        // "Org, Inc." is a default signer whose name holds a comma inside quotes.
        CHECK(RunPage(page, {"TrustedSiteDataFileURL=" + server.Url("/org.dll")}, 1).answers ==
              std::vector<std::string>{"true"});

        const std::string vendor = Unique("WrongUsageVendor");
        VendorKey key(vendor, {"WrongUsage"});
        CHECK(RunPage(page, {"TrustedSiteDataFileURL=" + server.Url("/wrongusage.dll"), "VendorID=" + vendor}, 1)
                  .answers == std::vector<std::string>{"true"});
        // The vendor's list replaces the defaults.
        CHECK(RunPage(page, {"TrustedSiteDataFileURL=" + server.Url("/good.dll"), "VendorID=" + vendor}, 1).answers ==
              std::vector<std::string>{"false"});

        const std::string bare = Unique("NoSignersVendor");
        VendorKey bareKey(bare, {}, false);
        const PageRun fallback = RunPage(page, {"TrustedSiteDataFileURL=" + server.Url("/good.dll"), "VendorID=" + bare}, 1);
        CHECK(fallback.answers == std::vector<std::string>{"true"});
        CHECK(fallback.LoggedStart("LoadVendorTrustedSigners: Failed to open our vendor specific config key. lResult = "));

        const PageRun unknown = RunPage(page, {"TrustedSiteDataFileURL=" + server.Url("/good.dll"), "VendorID=NoSuchVendor"}, 1);
        CHECK(unknown.answers == std::vector<std::string>{"true"});
        CHECK(unknown.Logged(
            "IsCurrentSiteTrustedInternal: Invalid VendorID parameter provided. Failling back to defaults. VendorID: NoSuchVendor."));
    }

    TEST_CASE("file pages are judged by the http list")
    {
        TarnTest::TestServer server(BinaryDir() + "/trustfiles/www");
        REQUIRE(server.Running());
        const PageRun run = RunPage("file:///C:/site/page.html", {"TrustedSiteDataFileURL=" + server.Url("/good.dll")}, 1);
        CHECK(run.answers == std::vector<std::string>{"false"});  // a file page has no domain
        CHECK(run.LoggedStart("ReadTrustDataDLL: List of trusted sites from data file: +example.com"));
    }

    TEST_CASE("the cache: one download per data file, shared by the page's controls")
    {
        TarnTest::TestServer server(BinaryDir() + "/trustfiles/www");
        REQUIRE(server.Running());

        // The default file name beside the page, asked twice: fetched once.
        const PageRun beside = RunPage(server.Url("/shop/page.html"), {}, 2);
        CHECK(beside.answers == std::vector<std::string>{"true", "true"});
        CHECK(server.RequestCount("/shop/trust.dll") == 1);
        CHECK(beside.leftDownloads.empty());

        // A relative name resolves against the page's directory.
        const PageRun relative = RunPage(server.Url("/shop/page.html"), {"TrustedSiteDataFileURL=../data/sites.dll"}, 1);
        CHECK(relative.answers == std::vector<std::string>{"true"});
        CHECK(server.RequestCount("/data/sites.dll") == 1);

        // Two controls, only the first with the property: one file, one download, one answer.
        REQUIRE(server.ResetCounts());
        const PageRun two = RunPage("http://shop.example.com/p.html",
                                    {"1:TrustedSiteDataFileURL=" + server.Url("/good.dll")}, 1, 2);
        CHECK(two.answers == std::vector<std::string>{"true", "true"});
        CHECK(server.RequestCount("/good.dll") == 1);

        // A file whose list trusts nobody is not worth keeping: asked again, fetched again.
        const PageRun empty = RunPage("http://shop.example.com/p.html", {"TrustedSiteDataFileURL=" + server.Url("/emptytrust.dll")}, 2);
        CHECK(empty.answers == std::vector<std::string>{"false", "false"});
        CHECK(empty.Logged("IsCurrentSiteTrustedInternal: No sites are trusted. Current site is NOT TRUSTED."));
        CHECK(server.RequestCount("/emptytrust.dll") == 2);

        // Data file URLs differing only in letter case share one cache entry.
        REQUIRE(server.ResetCounts());
        const PageRun cased = RunPage("http://shop.example.com/p.html",
                                      {"1:TrustedSiteDataFileURL=" + server.Url("/good.dll"),
                                       "2:TrustedSiteDataFileURL=" + server.Url("/GOOD.DLL")}, 1, 2);
        CHECK(cased.answers == std::vector<std::string>{"true", "true"});
        CHECK(server.RequestCount("/good.dll") == 1);
        CHECK(server.RequestCount("/GOOD.DLL") == 0);
    }
}
