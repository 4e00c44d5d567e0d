// DownloadFile against the local web server (the status it reads decides), the connect
// time-out configuration as the download reads it from the registry, and the deadline watch.
// Wine does not unblock a WinINet call whose session another thread closes (Windows does), so
// the watch is shown on a real session, not through a server that sends its headers a byte
// at a time.
#include "LogCapture.h"
#include "Registry.h"
#include "Scratch.h"
#include "TestServer.h"

#include "TarnSM/win/DownloadWatch.h"
#include "TarnSM/win/TrustDataDownload.h"
#include "TarnSM/win/VendorId.h"

#include <doctest.h>

using namespace TarnTest;

namespace {

// Every byte value, in an order that no off-by-one copy reproduces by accident.
std::string PatternBytes(size_t size, unsigned state)
{
    std::string bytes(size, '\0');
    for (auto& b : bytes)
        b = static_cast<char>(((state = state * 1103515245u + 12345u) >> 16) & 0xFF);
    return bytes;
}

const std::string kTrustDll = PatternBytes(5000, 1);
const std::string kThreeBuffers = PatternBytes(3 * 1024, 2);

// Files of known bytes in a scratch folder, served by the local web server.
TestServer& Web()
{
    static TempDir root{L"www"};
    static const bool put = root.Put(L"dir\\trust.dll", kTrustDll) &&
                            root.Put(L"dir\\three-buffers.bin", kThreeBuffers) && root.Put(L"dir\\empty.bin", "");
    static TestServer server(UnixPathOf(root.Path()));
    REQUIRE((put && server.Running()));
    return server;
}

std::string StatusRecord(unsigned status)
{
    return "DownloadFile: Failed to download file. HTTP Status Code: " + std::to_string(status) + ".";
}

// The process-wide VendorID for one test.
struct ScopedVendorId {
    explicit ScopedVendorId(const std::string& id) : previous(TarnSMX::GetVendorId()) { TarnSMX::SetVendorId(id); }
    ~ScopedVendorId() { TarnSMX::SetVendorId(previous); }
    std::string previous;
};

std::string Url(const std::string& path) { return Web().Url(path); }

std::string Refused()
{
    return "http://127.0.0.1:" + std::to_string(UnusedLocalPort()) + "/trust.dll";
}

} // namespace

TEST_CASE("DownloadFile table: a 200 body is written whole over the target; anything else fails before touching it")
{
    const std::string connectFailed = "DownloadFile: Failure calling InternetOpenUrl. GetLastError: ";
    const std::string createFailed = "DownloadFile: Failed to create our temporary file to receive the download data. GetLastError: ";
    const std::string longPath = "/dir/" + std::string(3000, 'a') + ".dll";
    // {url, target below the scratch folder -> result, what the target holds afterwards ("-"
    // for no file), the one failure record by prefix ("" for none)}
    struct Row { std::string url; const char* target; bool result; std::string body, failure; };
    std::vector<Row> rows = {
        {Url("/dir/trust.dll"), "stale.tmp", true, kTrustDll, ""},
        {Url("/dir/three-buffers.bin"), "t.tmp", true, kThreeBuffers, ""},
        {Url("/dir/empty.bin"), "stale.tmp", true, "", ""},
        // The platform reports a closed connection as the end of the data: the partial file is
        // left for the signature check to reject.
        {Url("/dir/trust.dll?truncate=1500"), "t.tmp", true, kTrustDll.substr(0, 1500), ""},
        {Url("/dir/missing.dll"), "t.tmp", false, "-", StatusRecord(404)},
        {Url(longPath), "t.tmp", false, "-", StatusRecord(404)},  // reaches the server whole
        {Url("/dir/trust.dll?close=1"), "t.tmp", false, "-", "DownloadFile: "},
        {Refused(), "t.tmp", false, "-", connectFailed + "12029."},
        {Url("/dir/trust.dll"), "no-such-folder\\t.tmp", false, "-", createFailed + "3."},
        {Url("/dir/trust.dll"), "locked.tmp", false, "keep", createFailed + "32."},
    };
    for (unsigned status : {304u, 206u, 500u, 201u})
        rows.push_back({Url("/dir/trust.dll?status=" + std::to_string(status)), "t.tmp", false, "-", StatusRecord(status)});
    for (const char* odd : {"file:///C:/windows/win.ini", "", "trust.dll", "tarn://127.0.0.1/trust.dll"})
        rows.push_back({odd, "t.tmp", false, "-", "DownloadFile: F"});
    for (const Row& row : rows) {
        CAPTURE(row.url.substr(0, 120));
        TempDir dir(L"dl");
        const std::wstring target = dir / Widen(row.target);
        WriteBytes(target, std::string(row.target) == "locked.tmp" ? "keep" : std::string(20000, 'x'));
        if (std::string(row.target) == "t.tmp")
            ::DeleteFileW(target.c_str());
        TarnBase::UniqueFile holder(std::string(row.target) == "locked.tmp"
                                        ? ::CreateFileW(target.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr)
                                        : INVALID_HANDLE_VALUE);
        LogCapture capture;
        const ULONGLONG start = ::GetTickCount64();
        CHECK(TarnSMX::DownloadFile(row.url, Narrow(target)) == row.result);
        CHECK(::GetTickCount64() - start < 5000);
        holder.Reset();
        std::string got;
        CHECK((ReadBytes(target, got) ? got : "-") == row.body);
        std::vector<std::string> failures;  // the control's records of levels 0 and 1
        for (const auto& r : capture.Records())
            if (r.className == "TarnSMX::TarnSM" && r.level <= 1)
                failures.push_back(r.message);
        if (row.failure.empty()) {
            CHECK(failures.empty());
            CHECK(capture.Has("DownloadFile: Calling InternetSetOption with a timeout value of: 10000.", 3));
        } else {
            REQUIRE(failures.size() >= 1);
            CHECK(failures.back().compare(0, row.failure.size(), row.failure) == 0);
        }
    }
    CHECK(Web().RequestCount(longPath) == 1);
}

TEST_CASE("time-out table: the machine value as a REG_DWORD only; a configured vendor reads its own key only")
{
    const std::string base = "Software\\Ostrum\\Kestrel\\Config\\TarnSM", vendor = "TarnDownloadTestVendor";
    auto dword = [](DWORD v) { return std::string(reinterpret_cast<const char*>(&v), 4); };
    // {machine value (REG_NONE: none); VendorID set, the vendor's config key, a time-out key of
    // the vendor's own below the machine's key, 1234 in it -> the time-out used}
    struct Row { DWORD type; std::string bytes; bool vendorSet, configKey, ownKey, ownValue; unsigned expected; };
    const Row rows[] = {
        {REG_NONE, "", 0, 0, 0, 0, 10000}, {REG_DWORD, dword(2500), 0, 0, 0, 0, 2500}, {REG_DWORD, dword(0), 0, 0, 0, 0, 0},
        {REG_DWORD, dword(0xFFFFFFFFu), 0, 0, 0, 0, 0xFFFFFFFFu}, {REG_SZ, std::string("12", 3), 0, 0, 0, 0, 10000},
        {REG_SZ, std::string("2500 milliseconds", 18), 0, 0, 0, 0, 10000}, {REG_BINARY, dword(2500), 0, 0, 0, 0, 10000},
        {REG_QWORD, dword(2500) + dword(0), 0, 0, 0, 0, 10000},
        {REG_DWORD, dword(2500), 1, 1, 1, 1, 1234},
        {REG_DWORD, dword(2500), 1, 1, 0, 0, 10000},  // the default, not the machine value
        {REG_DWORD, dword(2500), 1, 1, 1, 0, 10000},
        {REG_DWORD, dword(2500), 1, 0, 1, 1, 2500},  // an unconfigured vendor's key is ignored
    };
    for (const Row& row : rows) {
        CAPTURE(row.type * 10000 + row.vendorSet * 1000 + row.configKey * 100 + row.ownKey * 10 + row.ownValue);
        ScopedVendorId id(row.vendorSet ? vendor : "");
        ScopedRegistryKey machine(HKEY_LOCAL_MACHINE, base);
        if (row.type != REG_NONE)
            REQUIRE(machine.SetRaw("TrustedSiteDownloadTimeout", row.type, row.bytes.data(), static_cast<DWORD>(row.bytes.size())));
        const std::unique_ptr<ScopedRegistryKey> config(
            row.configKey ? new ScopedRegistryKey(HKEY_LOCAL_MACHINE, "Software\\Ostrum\\Kestrel\\Config\\" + vendor) : nullptr);
        const std::unique_ptr<ScopedRegistryKey> own(row.ownKey ? new ScopedRegistryKey(HKEY_LOCAL_MACHINE, base + "\\" + vendor) : nullptr);
        if (row.ownValue)
            REQUIRE(own->SetDword("TrustedSiteDownloadTimeout", 1234));
        LogCapture capture;
        TempDir dir(L"dl");
        TarnSMX::DownloadFile(Refused(), Narrow(dir / L"t.tmp"));  // refused at once: nothing waits on the time-out
        CHECK(capture.Has("DownloadFile: Calling InternetSetOption with a timeout value of: " + std::to_string(row.expected) + ".", 3));
    }
}

TEST_CASE("the download watch closes the session at its deadline, and never after Stop (a blocked call's unblocking is the platform's part)")
{
    for (const bool late : {true, false}) {
        CAPTURE(late);
        TarnBase::UniqueInternetHandle session(::InternetOpenA("TarnSM", INTERNET_OPEN_TYPE_PRECONFIG, nullptr, nullptr, 0));
        REQUIRE(session);
        TarnSMX::DownloadWatch watch(session, 100);
        if (late)
            ::Sleep(600);
        CHECK(watch.Stop() == late);
        ::Sleep(late ? 0 : 300);  // a stopped watch never fires
        CHECK(static_cast<bool>(session) == !late);
    }
}
