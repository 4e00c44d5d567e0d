// DownloadFile against the local web server (the status it reads decides), and the connect
// time-out configuration as the download reads it from the registry.
#include "LogCapture.h"
#include "Registry.h"
#include "Scratch.h"
#include "TestServer.h"

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

// The control's failure records (levels 0 and 1).
std::vector<std::string> Failures(const LogCapture& capture)
{
    std::vector<std::string> failures;
    for (const auto& r : capture.Records())
        if (r.className == "TarnSMX::TarnSM" && r.level <= 1)
            failures.push_back(r.message);
    return failures;
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
        const auto failures = Failures(capture);
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
    const std::string base = "Software\\Ostrum\\Kestrel\\Config\\TarnSM";
    const std::string vendor = "TarnDownloadTestVendor";
    enum VendorSetup { NoVendor, VendorKeyOnly, VendorTimeout, VendorTimeoutKeyOnly, TimeoutWithoutVendor };
    struct Row { DWORD type; std::string bytes; VendorSetup setup; unsigned expected; };  // REG_NONE: no machine value
    auto dword = [](DWORD v) { return std::string(reinterpret_cast<const char*>(&v), 4); };
    const Row rows[] = {
        {REG_NONE, "", NoVendor, 10000}, {REG_DWORD, dword(2500), NoVendor, 2500}, {REG_DWORD, dword(0), NoVendor, 0},
        {REG_DWORD, dword(0xFFFFFFFFu), NoVendor, 0xFFFFFFFFu}, {REG_SZ, std::string("12", 3), NoVendor, 10000},
        {REG_SZ, std::string("2500 milliseconds", 18), NoVendor, 10000}, {REG_BINARY, dword(2500), NoVendor, 10000},
        {REG_QWORD, dword(2500) + dword(0), NoVendor, 10000},
        {REG_DWORD, dword(2500), VendorTimeout, 1234},
        {REG_DWORD, dword(2500), VendorKeyOnly, 10000},         // the default, not the machine value
        {REG_DWORD, dword(2500), VendorTimeoutKeyOnly, 10000},
        {REG_DWORD, dword(2500), TimeoutWithoutVendor, 2500},  // an unconfigured vendor's key is ignored
    };
    for (const Row& row : rows) {
        CAPTURE(row.type * 10 + row.setup);
        ScopedVendorId id(row.setup == NoVendor ? "" : vendor);
        ScopedRegistryKey machine(HKEY_LOCAL_MACHINE, base);
        if (row.type != REG_NONE)
            REQUIRE(machine.SetRaw("TrustedSiteDownloadTimeout", row.type, row.bytes.data(), static_cast<DWORD>(row.bytes.size())));
        std::unique_ptr<ScopedRegistryKey> config, own;
        if (row.setup == VendorKeyOnly || row.setup == VendorTimeout || row.setup == VendorTimeoutKeyOnly)
            config.reset(new ScopedRegistryKey(HKEY_LOCAL_MACHINE, "Software\\Ostrum\\Kestrel\\Config\\" + vendor));
        if (row.setup == VendorTimeout || row.setup == VendorTimeoutKeyOnly || row.setup == TimeoutWithoutVendor)
            own.reset(new ScopedRegistryKey(HKEY_LOCAL_MACHINE, base + "\\" + vendor));
        if (row.setup == VendorTimeout || row.setup == TimeoutWithoutVendor)
            REQUIRE(own->SetDword("TrustedSiteDownloadTimeout", 1234));
        LogCapture capture;
        TempDir dir(L"dl");
        TarnSMX::DownloadFile(Refused(), Narrow(dir / L"t.tmp"));  // refused at once: nothing waits on the time-out
        CHECK(capture.Has("DownloadFile: Calling InternetSetOption with a timeout value of: " + std::to_string(row.expected) + ".", 3));
    }
}
