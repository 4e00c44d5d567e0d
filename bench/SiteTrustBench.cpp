// IsCurrentSiteTrusted against its floors, measured in one run:
//   - cold: a fresh process asks once (download, signature, signer, module read), against
//     a fresh process making the bare platform calls behind that answer. Process start-up
//     is outside both timings; a fresh process is what makes the first WinVerifyTrust and
//     the first WinINet session as expensive as they are for a page's first question.
//   - warm: the answer from the site cache through IDispatch::Invoke, against the site
//     discovery and URL parsing that even a cached answer must repeat;
//   - warm through the vtable, against every platform call the cached answer makes plus
//     the log records it writes (the floor is described at WarmFloor);
//   - the largest site list one data file can hold (a string resource holds at most
//     65,535 characters) and a tenth of it: ParseSiteInfo + GetTrust for a domain that is
//     on no list, so every entry is visited; the growth between the two shows whether the
//     work stays linear.
// The two sides alternate sample by sample (which goes first alternates too), and the
// medians are compared.
//   site_trust_bench           full run, results as Markdown table rows
//   site_trust_bench --short   a few samples, for the test run (never fails on timing)
// The signed data files come from $TARN_BINARY_DIR/trustfiles/www, else from
// <exe dir>/../trustfiles/www (the "trustfiles" test fixture makes them).

#include "BenchPage.h"
#include "BenchSupport.h"
#include "TarnBase/win/Handle.h"
#include "TarnBase/win/Owners.h"
#include "TarnSM/SiteList.h"
#include "testing/support/ChildProcess.h"
#include "testing/support/TestServer.h"

#include <windows.h>
#include <imagehlp.h>
#include <wincrypt.h>
#include <wininet.h>
#include <wintrust.h>
#include <softpub.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

namespace {

using Bench::BareDownload;
using Bench::Median;
using Bench::NowUs;
using TarnTest::Widen;

using Microsoft::WRL::ComPtr;

constexpr double kColdTarget = 1.15;
constexpr double kWarmTarget = 1.3;
constexpr double kColdOverWarmTarget = 50;
constexpr double kGrowthTarget = 12;
// The most characters one string resource, and so one site list of a data file, can hold.
constexpr size_t kMostListCharacters = 65535;
const wchar_t kPageUrl[] = L"http://shop.example.com/p.html";
const char kOursChild[] = "--child-ours";
const char kFloorChild[] = "--child-floor";

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
    ::CertFreeCertificateContext(signer);  // a floor frees by hand: it is the bare calls, without our owners
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

// ---- the warm floors: what a cached answer still makes --------------------------------

// The page's canonical form, scheme and domain.
bool BareParse(const std::wstring& url)
{
    wchar_t buffer[2086];
    DWORD length = 0;
    for (PARSEACTION action : {PARSE_CANONICALIZE, PARSE_SCHEMA, PARSE_DOMAIN})
        if (::CoInternetParseUrl(url.c_str(), action, 0x10000000, buffer, 2086, &length, 0) != S_OK)
            return false;
    return true;
}

// The ANSI code page conversions the control makes around each URL: the length, then the text.
std::string BareToAnsi(const std::wstring& text)
{
    const int length = static_cast<int>(text.size());
    const int needed = ::WideCharToMultiByte(::GetACP(), WC_NO_BEST_FIT_CHARS, text.data(), length, nullptr, 0, nullptr, nullptr);
    std::string narrow(static_cast<size_t>(needed > 0 ? needed : 0), '\0');
    ::WideCharToMultiByte(::GetACP(), WC_NO_BEST_FIT_CHARS, text.data(), length, &narrow[0], needed, nullptr, nullptr);
    return narrow;
}

std::wstring BareToWide(const std::string& text)
{
    const int length = static_cast<int>(text.size());
    const int needed = ::MultiByteToWideChar(CP_ACP, 0, text.data(), length, nullptr, 0);
    std::wstring wide(static_cast<size_t>(needed > 0 ? needed : 0), L'\0');
    ::MultiByteToWideChar(CP_ACP, 0, text.data(), length, &wide[0], needed);
    return wide;
}

// The data file's URL resolved against the page: two URL monikers and the display name.
bool BareDataFileUrl(const std::string& page, const std::wstring& dataFile)
{
    ComPtr<IMoniker> base, file;
    if (FAILED(::CreateURLMonikerEx(nullptr, BareToWide(page).c_str(), &base, URL_MK_UNIFORM)) ||
        FAILED(::CreateURLMoniker(base.Get(), dataFile.c_str(), &file)))
        return false;
    wchar_t* name = nullptr;
    const bool ok = SUCCEEDED(file->GetDisplayName(nullptr, nullptr, &name)) && name != nullptr &&
                    !BareToAnsi(name).empty();
    ::CoTaskMemFree(name);  // a floor frees by hand: it is the bare calls, without our owners
    return ok;
}

// Every platform call a cached IsCurrentSiteTrusted makes, in its order, and the records it
// writes: the output pointer check; the site discovery, its URL made ANSI; the data file's
// URL; the site discovery again (the domain is read from a fresh look at the page); the
// canonical form, scheme and domain, each parsed from the ANSI URL made wide again, and the
// scheme and domain made ANSI; then the records, captured from one cached answer of the
// control before timing. Left out, as ours: the cache look-up, list matching and locks.
class WarmFloor {
public:
    WarmFloor(IUnknown* site, std::wstring dataFile, std::vector<Bench::Record> records)
        : m_site(site), m_dataFile(std::move(dataFile)), m_records(std::move(records))
    {
    }

    bool Ask()
    {
        VARIANT_BOOL answer = VARIANT_FALSE;
        std::wstring location;
        DWORD zone = 0;
        bool ok = !::IsBadCodePtr(reinterpret_cast<FARPROC>(&answer)) &&
                  BenchPage::BareDiscovery(m_site, location, zone) &&
                  BareDataFileUrl(BareToAnsi(location), m_dataFile) &&
                  BenchPage::BareDiscovery(m_site, location, zone);
        const std::string page = BareToAnsi(location);
        wchar_t buffer[2086];
        for (PARSEACTION action : {PARSE_CANONICALIZE, PARSE_SCHEMA, PARSE_DOMAIN}) {
            DWORD length = 0;
            ok = ok && ::CoInternetParseUrl(BareToWide(page).c_str(), action, 0x10000000, buffer, 2086, &length, 0) == S_OK;
            if (action != PARSE_CANONICALIZE)
                ok = ok && !BareToAnsi(buffer).empty();
        }
        Bench::Replay(m_records);
        return ok;
    }

private:
    IUnknown* m_site;
    std::wstring m_dataFile;
    std::vector<Bench::Record> m_records;
};

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
        char folder[MAX_PATH + 1] = {};
        ::GetTempPathA(MAX_PATH, folder);
        const std::string target = std::string(folder) + "stb-" + std::to_string(::GetCurrentProcessId()) + ".tmp";
        std::wstring location;
        std::string subject;
        DWORD zone = 0;
        const double start = NowUs();
        ok = BenchPage::BareDiscovery(BenchPage::Unknown(site), location, zone) && BareDownload(dataUrl, target) &&
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

// A site list of `entries` lines, one in ten denied, none matching the asked domain.
// Every line has the same length, kListLine characters.
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

constexpr size_t kListLine = 25;

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
        if (!parsed || answer || trusted.size() + denied.size() != static_cast<size_t>(entries) ||
            text.size() != entries * kListLine || text.size() > kMostListCharacters)
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
    const int warmRounds = shortRun ? 5 : 100;
    const int warmBatch = shortRun ? 10 : 50;
    const int listSamples = shortRun ? 3 : 51;

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

    const Bench::Comparison cold = Bench::AlternateSamples(
        coldRounds, [&](std::vector<double>& s) { return TimeChild(kOursChild, dataUrl, s); },
        [&](std::vector<double>& s) { return TimeChild(kFloorChild, dataUrl, s); });
    if (!cold.ok)
        return 1;

    TarnTest::ComApartment apartment;
    auto site = BenchPage::Site(kPageUrl);
    IUnknown* siteUnknown = BenchPage::Unknown(site);
    auto control = BenchPage::NewControl();
    control->put_TrustedSiteDataFileURL(TarnBase::UniqueBstr(::SysAllocString(Widen(dataUrl).c_str())).Get());
    control->SetSite(siteUnknown);
    ComPtr<IDispatch> dispatch;
    control.As(&dispatch);
    DISPID isCurrentSiteTrusted = DISPID_UNKNOWN;
    wchar_t name[] = L"IsCurrentSiteTrusted";
    LPOLESTR names[] = {name};
    dispatch->GetIDsOfNames(IID_NULL, names, 1, LOCALE_USER_DEFAULT, &isCurrentSiteTrusted);

    auto invoke = [&] {
        DISPPARAMS none{};
        TarnBase::UniqueVariant result;
        const HRESULT hr = dispatch->Invoke(isCurrentSiteTrusted, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_METHOD, &none,
                                            result.Put(), nullptr, nullptr);
        return hr == S_OK && result.Get()->vt == VT_BOOL && result.Get()->boolVal == VARIANT_TRUE;
    };
    auto vtable = [&] {
        VARIANT_BOOL answer = VARIANT_FALSE;
        return control->IsCurrentSiteTrusted(&answer) == S_OK && answer == VARIANT_TRUE;
    };
    if (!invoke()) {  // fills the cache
        std::fprintf(stderr, "site_trust_bench: the first IsCurrentSiteTrusted through IDispatch failed\n");
        return 1;
    }
    const Bench::Comparison warm = Bench::Alternate(warmRounds, Bench::Batch(warmBatch, invoke), Bench::Batch(warmBatch, [&] {
        std::wstring location;
        DWORD zone = 0;
        return BenchPage::BareDiscovery(siteUnknown, location, zone) && BareParse(location);
    }));

    bool cachedOk = true;
    const std::vector<Bench::Record> records = Bench::RecordsOf([&] { cachedOk = vtable(); });
    WarmFloor floor(siteUnknown, Widen(dataUrl), records);
    if (!Bench::WritesSame(records, [&] { floor.Ask(); })) {
        std::fprintf(stderr, "site_trust_bench: the floor does not write the records of a cached answer\n");
        return 1;
    }
    const Bench::Comparison warmSame =
        Bench::Alternate(warmRounds, Bench::Batch(warmBatch, vtable), Bench::Batch(warmBatch, [&] { return floor.Ask(); }));
    control->SetSite(nullptr);
    if (!warm.ok || !warmSame.ok || !cachedOk || records.empty()) {
        std::fprintf(stderr, "site_trust_bench: a cached IsCurrentSiteTrusted failed\n");
        return 1;
    }

    const int most = static_cast<int>(kMostListCharacters / kListLine);
    const double listSmall = TimeSiteList(most / 10, listSamples);
    const double listMost = TimeSiteList(most, listSamples);
    if (listSmall < 0 || listMost < 0) {
        std::fprintf(stderr, "site_trust_bench: a site list was parsed or matched wrongly\n");
        return 1;
    }

    const double coldOurs = Median(cold.ours), coldFloor = Median(cold.floor);
    const double warmOurs = Median(warm.ours) / warmBatch;
    std::printf("site_trust_bench%s: %d cold processes each side, %d x %d warm calls each side, medians\n",
                shortRun ? " --short" : "", coldRounds, warmRounds, warmBatch);
    Bench::PrintHeader();
    Bench::PrintRow("IsCurrentSiteTrusted, cold (new process, good.dll from 127.0.0.1)", "call", coldOurs, coldFloor,
                    kColdTarget);
    Bench::PrintRow("IsCurrentSiteTrusted, warm (cached, IDispatch::Invoke)", warm, warmBatch, kWarmTarget);
    char operation[200];
    std::snprintf(operation, sizeof operation,
                  "IsCurrentSiteTrusted, warm (cached, vtable), floor with its platform calls, %zu log records "
                  "and %zu debug lines",
                  records.size() - Bench::DebugLines(records), Bench::DebugLines(records));
    Bench::PrintRow(operation, warmSame, warmBatch, kWarmTarget);
    const double coldOverWarm = coldOurs / warmOurs;
    std::printf("| IsCurrentSiteTrusted, cold / warm | %.1f us/call | %.1f us/call | %.0fx | >= %.0fx%s |\n", coldOurs,
                warmOurs, coldOverWarm, kColdOverWarmTarget, coldOverWarm >= kColdOverWarmTarget ? "" : " (missed)");
    std::printf("| ParseSiteInfo + GetTrust, %d entries (a tenth of the largest list) | %.1f us/list | - | - | - |\n",
                most / 10, listSmall);
    std::printf("| ParseSiteInfo + GetTrust, %d entries (the largest list of one data file, %zu characters) | %.1f "
                "us/list | - | - | - |\n",
                most, most * kListLine, listMost);
    std::snprintf(operation, sizeof operation, "ParseSiteInfo + GetTrust growth, %d / %d entries", most, most / 10);
    Bench::PrintRow(operation, "list", listMost, listSmall, kGrowthTarget);
    return 0;
}
