// IsCurrentSiteTrusted against its floors, measured in one run:
//   - cold: a fresh process asks once (download, signature, signer, module read), against
//     a fresh process making the bare platform calls behind that answer. Process start-up
//     is outside both timings; a fresh process is what makes the first WinVerifyTrust and
//     the first WinINet session as expensive as they are for a page's first question.
//   - warm: the answer from the site cache through IDispatch::Invoke, against the site
//     discovery and URL parsing that even a cached answer must repeat.
//   - site lists of 1,000 to 100,000 entries: ParseSiteInfo + GetTrust for a domain that
//     is on no list, so every entry is visited; the growth between sizes shows whether
//     the work stays linear.
// The two sides alternate sample by sample (which goes first alternates too), and the
// medians are compared.
//   site_trust_bench           full run, results as Markdown table rows
//   site_trust_bench --short   a few samples, for the test run (never fails on timing)
// The signed data files come from $TARN_BINARY_DIR/trustfiles/www, else from
// <exe dir>/../trustfiles/www (the "trustfiles" test fixture makes them).

#include "TarnBase/win/Owners.h"
#include "TarnSM/SiteList.h"
#include "BenchPage.h"
#include "TarnBase/win/Handle.h"
#include "testing/support/ChildProcess.h"
#include "testing/support/TestServer.h"

#include <windows.h>
#include <imagehlp.h>
#include <wincrypt.h>
#include <wininet.h>
#include <wintrust.h>
#include <softpub.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "BenchSupport.h"

namespace {

using Bench::NowUs;
using Bench::Median;
using Bench::BareDownload;

using Microsoft::WRL::ComPtr;

constexpr double kColdTarget = 1.15;
constexpr double kWarmTarget = 1.3;
constexpr double kColdOverWarmTarget = 50;
constexpr double kGrowthTarget = 12;
constexpr DISPID kDispIsCurrentSiteTrusted = 12;
const wchar_t kPageUrl[] = L"http://shop.example.com/p.html";
const char kOursChild[] = "--child-ours";
const char kFloorChild[] = "--child-floor";



std::wstring Widen(const std::string& ascii)
{
    return std::wstring(ascii.begin(), ascii.end());
}

bool FileExists(const std::wstring& path)
{
    const DWORD attributes = ::GetFileAttributesW(path.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && !(attributes & FILE_ATTRIBUTE_DIRECTORY);
}

std::wstring ExePath()
{
    wchar_t path[MAX_PATH + 1] = {};
    const DWORD length = ::GetModuleFileNameW(nullptr, path, MAX_PATH);
    return std::wstring(path, length);
}

// run-benchmarks.sh does not export TARN_BINARY_DIR, so the build tree is also found
// from where this program lives (<build>/bench).
std::wstring DataFileFolder()
{
    if (const char* root = std::getenv("TARN_BINARY_DIR"); root != nullptr && *root != '\0')
        return TarnTest::UnixToWinePath(std::string(root) + "/trustfiles/www");
    std::wstring exe = ExePath();
    exe.resize(exe.find_last_of(L'\\') + 1);
    return exe + L"..\\trustfiles\\www";
}

// ---- the floor: the bare platform calls one cold answer makes ------------------------

bool BareDiscovery(IServiceProvider* provider, std::wstring& location, DWORD& zone)
{
    ComPtr<IWebBrowser2> browser;
    if (FAILED(provider->QueryService(SID_SWebBrowserApp, IID_PPV_ARGS(&browser))))
        return false;
    BSTR url = nullptr;
    if (FAILED(browser->get_LocationURL(&url)))
        return false;
    ComPtr<IInternetSecurityManager> manager;
    HRESULT hr = provider->QueryService(IID_IInternetSecurityManager, IID_PPV_ARGS(&manager));
    if (FAILED(hr))
        hr = ::CoCreateInstance(CLSID_InternetSecurityManager, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&manager));
    if (SUCCEEDED(hr))
        hr = manager->MapUrlToZone(url, &zone, 0);
    location.assign(url, ::SysStringLen(url));
    ::SysFreeString(url);  // the floor frees by hand, as bare platform code does
    return SUCCEEDED(hr);
}

bool BareParse(const std::wstring& url)
{
    wchar_t buffer[2086];
    DWORD length = 0;
    for (PARSEACTION action : {PARSE_CANONICALIZE, PARSE_SCHEMA, PARSE_DOMAIN})
        if (::CoInternetParseUrl(url.c_str(), action, 0x10000000, buffer, 2086, &length, 0) != S_OK)
            return false;
    return true;
}


bool BareVerify(const std::wstring& path)
{
    WINTRUST_FILE_INFO file{};
    file.cbStruct = sizeof file;
    file.pcwszFilePath = path.c_str();
    WINTRUST_DATA data{};
    data.cbStruct = sizeof data;
    data.dwUIChoice = WTD_UI_NONE;
    data.fdwRevocationChecks = WTD_REVOKE_NONE;
    data.dwUnionChoice = WTD_CHOICE_FILE;
    data.pFile = &file;
    GUID action = WINTRUST_ACTION_GENERIC_VERIFY_V2;
    return ::WinVerifyTrust(static_cast<HWND>(INVALID_HANDLE_VALUE), &action, &data) == 0;
}

bool BareSignerSubject(const std::string& path, std::string& subject)
{
    constexpr DWORD kEncoding = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;
    TarnBase::UniqueFile file(::CreateFileA(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                            FILE_ATTRIBUTE_NORMAL | FILE_FLAG_RANDOM_ACCESS, nullptr));
    DWORD count = 0;
    if (!file || !::ImageEnumerateCertificates(file.Get(), CERT_SECTION_TYPE_ANY, &count, nullptr, 0) || count == 0)
        return false;
    WIN_CERTIFICATE header{};
    if (!::ImageGetCertificateHeader(file.Get(), 0, &header))
        return false;
    std::vector<char> buffer(header.dwLength + 12);
    auto* certificate = reinterpret_cast<WIN_CERTIFICATE*>(buffer.data());
    DWORD length = static_cast<DWORD>(buffer.size());
    if (!::ImageGetCertificateData(file.Get(), 0, certificate, &length))
        return false;
    CRYPT_VERIFY_MESSAGE_PARA parameters{};
    parameters.cbSize = sizeof parameters;
    parameters.dwMsgAndCertEncodingType = kEncoding;
    PCCERT_CONTEXT signer = nullptr;
    if (!::CryptVerifyMessageSignature(&parameters, 0, certificate->bCertificate,
                                       certificate->dwLength - offsetof(WIN_CERTIFICATE, bCertificate), nullptr, nullptr,
                                       &signer) ||
        signer == nullptr)
        return false;
    const DWORD size = ::CertNameToStrA(kEncoding, &signer->pCertInfo->Subject, CERT_OID_NAME_STR, nullptr, 0);
    subject.assign(size, '\0');
    ::CertNameToStrA(kEncoding, &signer->pCertInfo->Subject, CERT_OID_NAME_STR, &subject[0], size);
    ::CertFreeCertificateContext(signer);
    return size > 1;
}

bool BareReadModule(const std::string& path)
{
    TarnBase::UniqueModule module(::LoadLibraryExA(path.c_str(), nullptr, LOAD_LIBRARY_AS_DATAFILE));
    if (!module)
        return false;
    const wchar_t* text = nullptr;
    ::LoadStringW(module.Get(), 103, reinterpret_cast<LPWSTR>(&text), 0);  // the file's own signers
    text = nullptr;
    return ::LoadStringW(module.Get(), static_cast<UINT>(TarnSMX::SiteListStringId(TarnSMX::kSchemeHttp)),
                         reinterpret_cast<LPWSTR>(&text), 0) > 0;
}

// ---- children: one timed cold answer each ---------------------------------------------

int RunChild(bool ours, const std::string& dataUrl)
{
    TarnTest::ComApartment apartment;
    auto site = BenchPage::Site(kPageUrl);
    double elapsed = 0;
    bool ok = false;
    if (ours) {
        auto control = BenchPage::NewControl();
        control->put_TrustedSiteDataFileURL(TarnBase::UniqueBstr(::SysAllocString(Widen(dataUrl).c_str())).Get());
        control->SetSite(BenchPage::Unknown(site));
        VARIANT_BOOL answer = VARIANT_FALSE;
        const double start = NowUs();
        const HRESULT hr = control->IsCurrentSiteTrusted(&answer);
        elapsed = NowUs() - start;
        ok = hr == S_OK && answer == VARIANT_TRUE;
        control->SetSite(nullptr);
    } else {
        ComPtr<IServiceProvider> provider;
        site.As(&provider);
        char folder[MAX_PATH + 1] = {};
        ::GetTempPathA(MAX_PATH, folder);
        const std::string target = std::string(folder) + "stb-" + std::to_string(::GetCurrentProcessId()) + ".tmp";
        std::wstring location;
        std::string subject;
        DWORD zone = 0;
        const double start = NowUs();
        ok = BareDiscovery(provider.Get(), location, zone) && BareDownload(dataUrl, target) &&
             BareVerify(Widen(target)) && BareSignerSubject(target, subject) && BareReadModule(target);
        elapsed = NowUs() - start;
        ::DeleteFileA(target.c_str());
    }
    std::printf("US %.1f\n", elapsed);
    return ok ? 0 : 1;
}

bool TimeChild(const char* mode, const std::string& dataUrl, std::vector<double>& samples)
{
    const TarnTest::ChildResult child = TarnTest::RunChild({ExePath(), Widen(mode), Widen(dataUrl)});
    const size_t at = child.out.find("US ");
    if (!child.started || child.timedOut || child.exitCode != 0 || at == std::string::npos) {
        std::fprintf(stderr, "site_trust_bench: child %s failed (exit %lu): %s%s\n", mode,
                     static_cast<unsigned long>(child.exitCode), child.out.c_str(), child.err.c_str());
        return false;
    }
    samples.push_back(std::atof(child.out.c_str() + at + 3));
    return true;
}

// ---- helpers of the parent ------------------------------------------------------------

struct Comparison {
    std::vector<double> ours;
    std::vector<double> floor;
    bool ok = true;
};

// One sample of each side per round; the side that goes first alternates. A side may
// report its own sample (a child's timing); otherwise the call itself is timed.
Comparison Alternate(int rounds, const std::function<bool(std::vector<double>&)>& ours,
                     const std::function<bool(std::vector<double>&)>& floor)
{
    Comparison result;
    for (int round = 0; round < rounds && result.ok; ++round)
        for (int side = 0; side < 2 && result.ok; ++side) {
            const bool oursNow = (side == 0) == (round % 2 == 0);
            result.ok = oursNow ? ours(result.ours) : floor(result.floor);
        }
    return result;
}

std::function<bool(std::vector<double>&)> Timed(const std::function<bool()>& call)
{
    return [call](std::vector<double>& samples) {
        const double start = NowUs();
        const bool ok = call();
        samples.push_back(NowUs() - start);
        return ok;
    };
}

void PrintRow(const char* operation, const char* unit, double ours, double floor, double target)
{
    const double ratio = ours / floor;
    std::printf("| %s | %.1f us/%s | %.1f us/%s | %.2fx | <= %.2fx%s |\n", operation, ours, unit, floor, unit, ratio,
                target, ratio <= target ? "" : " (missed)");
}

// A site list of `entries` lines, one in ten denied, none matching the asked domain.
std::string SiteListText(int entries)
{
    std::string text;
    text.reserve(static_cast<size_t>(entries) * 28);
    char line[64];
    for (int i = 0; i < entries; ++i) {
        std::snprintf(line, sizeof line, "%csite%06d.example.com\r\n", i % 10 == 9 ? '-' : '+', i);
        text += line;
    }
    return text;
}

double TimeSiteList(int entries, int samples)
{
    const std::string text = SiteListText(entries);
    std::vector<double> times;
    for (int i = 0; i < samples; ++i) {
        std::vector<std::string> trusted, denied;
        const double start = NowUs();
        const bool parsed = TarnSMX::ParseSiteInfo(text, trusted, denied);
        const bool answer = TarnSMX::GetTrust(trusted, denied, "unlisted.example.org");
        times.push_back(NowUs() - start);
        if (!parsed || answer || trusted.size() + denied.size() != static_cast<size_t>(entries))
            return -1;
    }
    return Median(times);
}

} // namespace

int main(int argc, char** argv)
{
    if (argc == 3 && (std::strcmp(argv[1], kOursChild) == 0 || std::strcmp(argv[1], kFloorChild) == 0))
        return RunChild(std::strcmp(argv[1], kOursChild) == 0, argv[2]);

    const bool shortRun = argc > 1 && std::strcmp(argv[1], "--short") == 0;
    const int coldRounds = shortRun ? 2 : 25;
    const int warmRounds = shortRun ? 5 : 200;
    const int warmBatch = shortRun ? 10 : 50;
    const int listSamples = shortRun ? 3 : 15;

    const std::wstring folder = DataFileFolder();
    if (!FileExists(folder + L"\\good.dll")) {
        std::printf("site_trust_bench: no signed data files in %ls (the \"trustfiles\" test fixture makes them); "
                    "nothing measured\n",
                    folder.c_str());
        return shortRun ? 0 : 1;
    }
    TarnTest::TestServer server(TarnTest::UnixPathOf(folder));
    if (!server.Running()) {
        std::fprintf(stderr, "site_trust_bench: local web server: %s\n", server.Error().c_str());
        return 1;
    }
    const std::string dataUrl = server.Url("/good.dll");

    const Comparison cold = Alternate(
        coldRounds, [&](std::vector<double>& s) { return TimeChild(kOursChild, dataUrl, s); },
        [&](std::vector<double>& s) { return TimeChild(kFloorChild, dataUrl, s); });
    if (!cold.ok)
        return 1;

    TarnTest::ComApartment apartment;
    auto site = BenchPage::Site(kPageUrl);
    auto control = BenchPage::NewControl();
    control->put_TrustedSiteDataFileURL(TarnBase::UniqueBstr(::SysAllocString(Widen(dataUrl).c_str())).Get());
    control->SetSite(BenchPage::Unknown(site));
    ComPtr<IDispatch> dispatch;
    control.As(&dispatch);
    ComPtr<IServiceProvider> provider;
    site.As(&provider);

    auto invoke = [&] {
        DISPPARAMS none{};
        TarnBase::UniqueVariant result;
        const HRESULT hr = dispatch->Invoke(kDispIsCurrentSiteTrusted, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_METHOD,
                                            &none, result.Put(), nullptr, nullptr);
        return hr == S_OK && result.Get()->vt == VT_BOOL && result.Get()->boolVal == VARIANT_TRUE;
    };
    if (!invoke()) {  // fills the cache
        std::fprintf(stderr, "site_trust_bench: the first IsCurrentSiteTrusted through IDispatch failed\n");
        return 1;
    }
    const Comparison warm = Alternate(
        warmRounds,
        Timed([&] {
            bool ok = true;
            for (int i = 0; i < warmBatch; ++i)
                ok = invoke() && ok;
            return ok;
        }),
        Timed([&] {
            bool ok = true;
            for (int i = 0; i < warmBatch; ++i) {
                std::wstring location;
                DWORD zone = 0;
                ok = BareDiscovery(provider.Get(), location, zone) && BareParse(location) && ok;
            }
            return ok;
        }));
    control->SetSite(nullptr);
    if (!warm.ok) {
        std::fprintf(stderr, "site_trust_bench: a cached IsCurrentSiteTrusted failed\n");
        return 1;
    }

    const double list1k = TimeSiteList(1000, listSamples);
    const double list10k = TimeSiteList(10000, listSamples);
    const double list100k = TimeSiteList(100000, shortRun ? 1 : 5);
    if (list1k < 0 || list10k < 0 || list100k < 0) {
        std::fprintf(stderr, "site_trust_bench: a site list was parsed or matched wrongly\n");
        return 1;
    }

    const double coldOurs = Median(cold.ours), coldFloor = Median(cold.floor);
    const double warmOurs = Median(warm.ours) / warmBatch, warmFloor = Median(warm.floor) / warmBatch;
    std::printf("site_trust_bench%s: %d cold processes each side, %d x %d warm calls each side, medians\n",
                shortRun ? " --short" : "", coldRounds, warmRounds, warmBatch);
    std::printf("| operation | ours | floor | ratio | target |\n");
    std::printf("|---|---|---|---|---|\n");
    PrintRow("IsCurrentSiteTrusted, cold (new process, good.dll from 127.0.0.1)", "call", coldOurs, coldFloor,
             kColdTarget);
    PrintRow("IsCurrentSiteTrusted, warm (cached, IDispatch::Invoke)", "call", warmOurs, warmFloor, kWarmTarget);
    const double coldOverWarm = coldOurs / warmOurs;
    std::printf("| IsCurrentSiteTrusted, cold / warm | %.1f us/call | %.1f us/call | %.0fx | >= %.0fx%s |\n", coldOurs,
                warmOurs, coldOverWarm, kColdOverWarmTarget, coldOverWarm >= kColdOverWarmTarget ? "" : " (missed)");
    std::printf("| ParseSiteInfo + GetTrust, 1,000 entries | %.1f us/list | - | - | - |\n", list1k);
    std::printf("| ParseSiteInfo + GetTrust, 10,000 entries | %.1f us/list | - | - | - |\n", list10k);
    std::printf("| ParseSiteInfo + GetTrust, 100,000 entries | %.1f us/list | - | - | - |\n", list100k);
    PrintRow("ParseSiteInfo + GetTrust growth, 10,000 / 1,000 entries", "list", list10k, list1k, kGrowthTarget);
    PrintRow("ParseSiteInfo + GetTrust growth, 100,000 / 10,000 entries", "list", list100k, list10k, kGrowthTarget);
    return 0;
}
