// DownloadFile and GetHttpStatusCode against a real local web server, and the connect
// time-out configuration as the download reads it from the registry.

#include "DownloadTestSupport.h"
#include "DownloadWeb.h"
#include "LogCapture.h"
#include "TestServer.h"

#include "TarnSM/win/TrustDataDownload.h"

#include <doctest.h>

#include <string>

using namespace DownloadTest;

namespace {

const char kControlClass[] = "TarnSMX::TarnSM";

std::string TimeoutRecord(unsigned timeout)
{
    return "DownloadFile: Calling InternetSetOption with a timeout value of: " + std::to_string(timeout) + ".";
}

std::string StatusRecord(unsigned status)
{
    return "DownloadFile: Failed to download file. HTTP Status Code: " + std::to_string(status) + ".";
}

// Every record of the control's class at level 0 or 1 (the failures).
std::vector<std::string> FailureRecords(const TarnTest::LogCapture& capture)
{
    std::vector<std::string> failures;
    for (const auto& r : capture.Records())
        if (r.className == kControlClass && r.level <= 1)
            failures.push_back(r.message);
    return failures;
}

std::string Target(const TempDir& dir, const char* name)
{
    return Narrow(dir / Wide(name));
}

#define REQUIRE_WEB()                                                                                    \
    do {                                                                                                 \
        INFO("local web server: " << Web::Instance().Error());                                           \
        REQUIRE(Web::Instance().Running());                                                              \
    } while (0)

} // namespace

TEST_SUITE("DownloadFile")
{
    TEST_CASE("a 200 answer is written byte for byte, replacing what the target held")
    {
        REQUIRE_WEB();
        TempDir dir(L"dl");
        TarnTest::LogCapture capture;
        const std::string target = Target(dir, "trust.tmp");

        SUBCASE("a body that ends inside the read buffer")
        {
            REQUIRE(WriteBytes(Wide(target), std::string(20000, 'x')));
            CHECK(TarnSMX::DownloadFile(Web::Instance().Url("/dir/trust.dll"), target));
            std::string got;
            REQUIRE(ReadBytes(Wide(target), got));
            CHECK(got.size() == WebFiles::TrustDll().size());
            CHECK(got == WebFiles::TrustDll());
        }
        SUBCASE("a body of exactly three read buffers")
        {
            CHECK(TarnSMX::DownloadFile(Web::Instance().Url("/dir/three-buffers.bin"), target));
            std::string got;
            REQUIRE(ReadBytes(Wide(target), got));
            CHECK(got == WebFiles::ThreeBuffers());
        }
        SUBCASE("a body that arrives in pauses is read to its end")
        {
            CHECK(TarnSMX::DownloadFile(Web::Instance().Url("/dir/three-buffers.bin?slow=40"), target));
            std::string got;
            REQUIRE(ReadBytes(Wide(target), got));
            CHECK(got == WebFiles::ThreeBuffers());
        }
        CHECK(capture.Has(TimeoutRecord(10000), 3));
        CHECK(FailureRecords(capture).empty());
    }

    TEST_CASE("an empty 200 body is a success and leaves an empty file")
    {
        REQUIRE_WEB();
        TempDir dir(L"dl");
        const std::string target = Target(dir, "empty.tmp");
        REQUIRE(WriteBytes(Wide(target), "stale contents"));
        TarnTest::LogCapture capture;
        CHECK(TarnSMX::DownloadFile(Web::Instance().Url("/dir/empty.bin"), target));
        std::string got = "unread";
        REQUIRE(ReadBytes(Wide(target), got));
        CHECK(got.empty());
        CHECK(FailureRecords(capture).empty());
    }

    TEST_CASE("any status but 200 fails with its record, before the target is touched")
    {
        REQUIRE_WEB();
        TempDir dir(L"dl");
        const std::string target = Target(dir, "status.tmp");
        TarnTest::LogCapture capture;
        unsigned status = 0;
        std::string path;
        SUBCASE("404 for a missing file")
        {
            status = 404;
            path = "/dir/missing.dll";
        }
        SUBCASE("304 not modified")
        {
            status = 304;
            path = "/dir/trust.dll?status=304";
        }
        SUBCASE("206 partial content")
        {
            status = 206;
            path = "/dir/trust.dll?status=206";
        }
        SUBCASE("500 server error")
        {
            status = 500;
            path = "/dir/trust.dll?status=500";
        }
        SUBCASE("201 is a success code, but not the one the download accepts")
        {
            status = 201;
            path = "/dir/trust.dll?status=201";
        }
        const long before = Web::Instance().Count(path.substr(0, path.find('?')));
        CHECK_FALSE(TarnSMX::DownloadFile(Web::Instance().Url(path), target));
        CHECK(capture.Has(StatusRecord(status), 1));
        CHECK(FailureRecords(capture).size() == 1);
        CHECK_FALSE(FileExists(Wide(target)));
        CHECK(Web::Instance().Count(path.substr(0, path.find('?'))) == before + 1);
    }

    TEST_CASE("a body cut short by the server ends like a complete one")
    {
        // The platform reports the closed connection as the end of the data, not as a read
        // error, so the download counts as complete and the partial file is left for the
        // signature check to reject.
        REQUIRE_WEB();
        TempDir dir(L"dl");
        const std::string target = Target(dir, "truncated.tmp");
        TarnTest::LogCapture capture;
        const bool result = TarnSMX::DownloadFile(Web::Instance().Url("/dir/trust.dll?truncate=1500"), target);
        std::string got;
        REQUIRE(ReadBytes(Wide(target), got));
        CHECK(got == WebFiles::TrustDll().substr(0, 1500));
        CHECK(result);
        CHECK(FailureRecords(capture).empty());
    }

    TEST_CASE("a server that hangs up without an answer fails before the target is touched")
    {
        // Wine opens the request and reports status 0; a platform that fails InternetOpenUrl
        // instead is just as acceptable.
        REQUIRE_WEB();
        TempDir dir(L"dl");
        const std::string target = Target(dir, "closed.tmp");
        TarnTest::LogCapture capture;
        CHECK_FALSE(TarnSMX::DownloadFile(Web::Instance().Url("/dir/trust.dll?close=1"), target));
        const auto failures = FailureRecords(capture);
        REQUIRE(failures.size() == 1);
        const bool expected = failures[0] == StatusRecord(0) ||
                              failures[0].rfind("DownloadFile: Failure calling InternetOpenUrl. GetLastError: ", 0) == 0;
        CHECK_MESSAGE(expected, failures[0]);
        CHECK_FALSE(FileExists(Wide(target)));
    }

    TEST_CASE("a refused connection fails at InternetOpenUrl with the platform's error")
    {
        const unsigned short port = TarnTest::UnusedLocalPort();
        REQUIRE(port != 0);
        TempDir dir(L"dl");
        const std::string target = Target(dir, "refused.tmp");
        TarnTest::LogCapture capture;
        const DWORD start = ::GetTickCount();
        CHECK_FALSE(TarnSMX::DownloadFile("http://127.0.0.1:" + std::to_string(port) + "/trust.dll", target));
        CHECK(::GetTickCount() - start < 5000);
        CHECK(capture.Has("DownloadFile: Failure calling InternetOpenUrl. GetLastError: 12029.", 1));
        CHECK_FALSE(FileExists(Wide(target)));
    }

    TEST_CASE("a target that cannot be created fails after the 200 with its record")
    {
        REQUIRE_WEB();
        TempDir dir(L"dl");
        const std::string target = Target(dir, "no-such-folder\\trust.tmp");
        TarnTest::LogCapture capture;
        CHECK_FALSE(TarnSMX::DownloadFile(Web::Instance().Url("/dir/trust.dll"), target));
        CHECK(capture.Has("DownloadFile: Failed to create our temporary file to receive the download data. GetLastError: 3.",
                          1));
    }

    TEST_CASE("a target held open by someone else is not written")
    {
        REQUIRE_WEB();
        TempDir dir(L"dl");
        const std::string target = Target(dir, "locked.tmp");
        REQUIRE(WriteBytes(Wide(target), "keep"));
        TarnBase::UniqueFile holder(
            ::CreateFileW(Wide(target).c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
        REQUIRE(holder);
        TarnTest::LogCapture capture;
        CHECK_FALSE(TarnSMX::DownloadFile(Web::Instance().Url("/dir/trust.dll"), target));
        CHECK(capture.Has("DownloadFile: Failed to create our temporary file to receive the download data. GetLastError: 32.",
                          1));
        holder.Reset();
        std::string got;
        REQUIRE(ReadBytes(Wide(target), got));
        CHECK(got == "keep");
    }

    TEST_CASE("URLs the platform will not fetch fail with a record and no file")
    {
        TempDir dir(L"dl");
        const std::string target = Target(dir, "odd.tmp");
        TarnTest::LogCapture capture;
        std::string url;
        SUBCASE("a file URL") { url = "file:///C:/windows/win.ini"; }
        SUBCASE("no URL at all") { url = ""; }
        SUBCASE("not a URL") { url = "trust.dll"; }
        SUBCASE("an unknown scheme") { url = "tarn://127.0.0.1/trust.dll"; }
        CHECK_FALSE(TarnSMX::DownloadFile(url, target));
        const auto failures = FailureRecords(capture);
        REQUIRE(failures.size() >= 1);
        const std::string last = failures.back();
        const bool expected =
            last.rfind("DownloadFile: Failure calling InternetOpenUrl. GetLastError: ", 0) == 0 ||
            last.rfind("DownloadFile: Failed to retrieve HTTP status code from download operation, assuming failure. "
                       "InternetOpenUrl GetLastError: ",
                       0) == 0;
        CHECK_MESSAGE(expected, last);
        CHECK_FALSE(FileExists(Wide(target)));
    }

    TEST_CASE("a URL longer than the 2086-character parse buffers reaches the server whole")
    {
        REQUIRE_WEB();
        TempDir dir(L"dl");
        const std::string target = Target(dir, "long.tmp");
        TarnTest::LogCapture capture;
        const std::string path = "/dir/" + std::string(3000, 'a') + ".dll";
        CHECK_FALSE(TarnSMX::DownloadFile(Web::Instance().Url(path), target));
        CHECK(capture.Has(StatusRecord(404), 1));
        CHECK(FailureRecords(capture).size() == 1);
        CHECK(Web::Instance().Count(path) == 1);
        CHECK_FALSE(FileExists(Wide(target)));
    }
}

TEST_SUITE("GetHttpStatusCode")
{
    TEST_CASE("reads the status of a request and refuses other handles with 999")
    {
        TarnTest::LogCapture capture;
        DWORD status = 0;
        SUBCASE("no handle")
        {
            CHECK_FALSE(TarnSMX::GetHttpStatusCode(status, nullptr));
            CHECK(status == 999);
            // The code is the platform's (Wine: 12018); it has to be a real one.
            const auto records = capture.Records();
            REQUIRE(records.size() == 1);
            CHECK(records[0].level == 1);
            CHECK(records[0].message.rfind("GetHttpStatusCode: Failed to call HttpQueryInfo, GetLastError: ", 0) == 0);
            CHECK(records[0].message != "GetHttpStatusCode: Failed to call HttpQueryInfo, GetLastError: 0.");
        }
        SUBCASE("a session handle, which has no status")
        {
            TarnBase::UniqueInternetHandle session(
                ::InternetOpenA("TarnSM", INTERNET_OPEN_TYPE_PRECONFIG, nullptr, nullptr, 0));
            REQUIRE(session);
            CHECK_FALSE(TarnSMX::GetHttpStatusCode(status, session.Get()));
            CHECK(status == 999);
            CHECK(capture.HasSubstring("GetHttpStatusCode: Failed to call HttpQueryInfo, GetLastError: "));
        }
        SUBCASE("a request")
        {
            REQUIRE_WEB();
            TarnBase::UniqueInternetHandle session(
                ::InternetOpenA("TarnSM", INTERNET_OPEN_TYPE_PRECONFIG, nullptr, nullptr, 0));
            REQUIRE(session);
            TarnBase::UniqueInternetHandle request(::InternetOpenUrlA(
                session.Get(), Web::Instance().Url("/dir/trust.dll?status=206").c_str(), nullptr, 0, 0xA00, 0));
            REQUIRE(request);
            CHECK(TarnSMX::GetHttpStatusCode(status, request.Get()));
            CHECK(status == 206);
            CHECK(FailureRecords(capture).empty());
        }
    }
}

TEST_SUITE("download time-out configuration")
{
    const char kBaseKey[] = "Software\\Ostrum\\Kestrel\\Config\\TarnSM";
    const char kValue[] = "TrustedSiteDownloadTimeout";
    const char kVendor[] = "TarnDownloadTestVendor";

    // The time-out a download uses, as its record reports it (the connection is refused at
    // once, so nothing waits on the time-out itself).
    unsigned ConfiguredTimeout()
    {
        TarnTest::LogCapture capture;
        TempDir dir(L"dl");
        const unsigned short port = TarnTest::UnusedLocalPort();
        TarnSMX::DownloadFile("http://127.0.0.1:" + std::to_string(port) + "/t.dll", Narrow(dir / L"t.tmp"));
        const std::string prefix = "DownloadFile: Calling InternetSetOption with a timeout value of: ";
        unsigned found = 0xFFFFFFFFu;
        size_t seen = 0;
        for (const auto& r : capture.Records())
            if (r.className == kControlClass && r.message.rfind(prefix, 0) == 0) {
                CHECK(r.level == 3);
                found = static_cast<unsigned>(std::stoul(r.message.substr(prefix.size())));
                ++seen;
            }
        CHECK(seen == 1);
        return found;
    }

    TEST_CASE("the machine-wide value: a REG_DWORD as it is, anything else the default")
    {
        ScopedVendorId noVendor("");
        ScopedRegistryKey base(HKEY_LOCAL_MACHINE, kBaseKey);
        REQUIRE(base.Ok());
        SUBCASE("no value") { CHECK(ConfiguredTimeout() == 10000); }
        SUBCASE("REG_DWORD")
        {
            REQUIRE(base.SetDword(kValue, 2500));
            CHECK(ConfiguredTimeout() == 2500);
        }
        SUBCASE("REG_DWORD 0 is passed on, not replaced")
        {
            REQUIRE(base.SetDword(kValue, 0));
            CHECK(ConfiguredTimeout() == 0);
        }
        SUBCASE("REG_DWORD at its largest")
        {
            REQUIRE(base.SetDword(kValue, 0xFFFFFFFFu));
            CHECK(ConfiguredTimeout() == 0xFFFFFFFFu);
        }
        SUBCASE("REG_SZ that fits the 4-byte buffer")
        {
            REQUIRE(base.SetString(kValue, "12"));
            CHECK(ConfiguredTimeout() == 10000);
        }
        SUBCASE("REG_SZ longer than the buffer")
        {
            REQUIRE(base.SetString(kValue, "2500 milliseconds"));
            CHECK(ConfiguredTimeout() == 10000);
        }
        SUBCASE("REG_BINARY of four bytes")
        {
            const DWORD raw = 2500;
            REQUIRE(base.SetRaw(kValue, REG_BINARY, &raw, sizeof raw));
            CHECK(ConfiguredTimeout() == 10000);
        }
        SUBCASE("REG_QWORD")
        {
            const unsigned long long raw = 2500;
            REQUIRE(base.SetRaw(kValue, REG_QWORD, &raw, sizeof raw));
            CHECK(ConfiguredTimeout() == 10000);
        }
    }

    TEST_CASE("a valid vendor reads its own key below TarnSM, and only that")
    {
        ScopedRegistryKey base(HKEY_LOCAL_MACHINE, kBaseKey);
        REQUIRE(base.Ok());
        REQUIRE(base.SetDword(kValue, 2500));
        ScopedVendorId vendor(kVendor);
        SUBCASE("vendor configured, with its own time-out")
        {
            ScopedRegistryKey vendorConfig(HKEY_LOCAL_MACHINE, std::string("Software\\Ostrum\\Kestrel\\Config\\") + kVendor);
            ScopedRegistryKey vendorTimeout(HKEY_LOCAL_MACHINE, std::string(kBaseKey) + "\\" + kVendor);
            REQUIRE(vendorTimeout.SetDword(kValue, 1234));
            CHECK(ConfiguredTimeout() == 1234);
        }
        SUBCASE("vendor configured, its time-out key missing: the default, not the machine value")
        {
            ScopedRegistryKey vendorConfig(HKEY_LOCAL_MACHINE, std::string("Software\\Ostrum\\Kestrel\\Config\\") + kVendor);
            REQUIRE(vendorConfig.Ok());
            CHECK(ConfiguredTimeout() == 10000);
        }
        SUBCASE("vendor configured, its time-out key without the value")
        {
            ScopedRegistryKey vendorConfig(HKEY_LOCAL_MACHINE, std::string("Software\\Ostrum\\Kestrel\\Config\\") + kVendor);
            ScopedRegistryKey vendorTimeout(HKEY_LOCAL_MACHINE, std::string(kBaseKey) + "\\" + kVendor);
            REQUIRE(vendorTimeout.Ok());
            CHECK(ConfiguredTimeout() == 10000);
        }
        SUBCASE("vendor not configured: its key below TarnSM is ignored")
        {
            ScopedRegistryKey vendorTimeout(HKEY_LOCAL_MACHINE, std::string(kBaseKey) + "\\" + kVendor);
            REQUIRE(vendorTimeout.SetDword(kValue, 1234));
            CHECK(ConfiguredTimeout() == 2500);
        }
    }

    TEST_CASE("the keys a test creates are gone afterwards")
    {
        {
            ScopedRegistryKey vendorTimeout(HKEY_LOCAL_MACHINE, std::string(kBaseKey) + "\\" + kVendor);
            REQUIRE(vendorTimeout.SetDword(kValue, 1));
        }
        TarnBase::UniqueRegKey key;
        CHECK(::RegOpenKeyExA(HKEY_LOCAL_MACHINE, (std::string(kBaseKey) + "\\" + kVendor).c_str(), 0, KEY_READ,
                              key.Put()) == ERROR_FILE_NOT_FOUND);
    }
}
