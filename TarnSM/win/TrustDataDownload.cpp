#include "TarnSM/win/TrustDataDownload.h"

#include "TarnBase/ResultLog.h"
#include "TarnBase/win/Owners.h"
#include "TarnMT/win/CriticalSection.h"
#include "TarnSM/win/CTarnSM.h"
#include "TarnSM/win/DownloadWatch.h"
#include "TarnSM/win/ScriptBoundary.h"
#include "TarnSM/win/SiteCache.h"
#include "TarnSM/win/VendorId.h"
#include "TarnUtils/win/StringConvert.h"

#include <objbase.h>
#include <urlmon.h>

#include <memory>

namespace TarnSMX {
namespace {

using Microsoft::WRL::ComPtr;

constexpr wchar_t kDefaultDataFileName[] = L"trust.dll";
constexpr char kTimeoutKey[] = "Software\\Ostrum\\Kestrel\\Config\\TarnSM";
constexpr char kTimeoutValue[] = "TrustedSiteDownloadTimeout";
constexpr DWORD kDefaultTimeoutMs = 10000;
constexpr DWORD kReadBufferSize = 1024;
// A real data file is well under this: three string tables of at most 65,535 characters
// and a signature. Anything larger is refused before it can fill the disk.
constexpr DWORD kMaxDataFileBytes = 1024 * 1024;
// The whole download may take three times the configured connect time-out, but never less
// than a few seconds nor more than a few minutes, whatever the registry says.
constexpr DWORD kMinTotalDeadlineMs = 3000;
constexpr DWORD kMaxTotalDeadlineMs = 300000;
constexpr DWORD kUnknownStatus = 999;
constexpr char kStatusSource[] = "TarnSM";

using CoTaskString = TarnBase::UniqueCoTaskMem<wchar_t>;

std::string ForLog(const std::wstring& text)
{
    return TarnUtils::WideToAnsiForLog(text.c_str(), text.size());
}

// The page's data file map keeps the first control's name: a later control's property
// does not displace it (only a scripted assignment does).
void PublishWithoutOverwrite(const CTarnSM& control, const std::string& pageUrl)
{
    CacheTrustDataFileURL(control, pageUrl, false);
}

// The configured connect time-out. A vendor with its own configuration reads its own
// value (and only that one); anything but a REG_DWORD means the default.
DWORD DownloadTimeout()
{
    std::string keyPath = kTimeoutKey;
    const VendorId vendor = GetVendor();
    if (IsValidVendorID(vendor))
        keyPath += "\\" + vendor.name;

    DWORD timeout = kDefaultTimeoutMs;
    TarnBase::UniqueRegKey key;
    if (::RegOpenKeyExA(HKEY_LOCAL_MACHINE, keyPath.c_str(), 0, KEY_READ, key.Put()) != ERROR_SUCCESS)
        return timeout;
    DWORD type = REG_NONE;
    DWORD size = sizeof timeout;
    const LONG status =
        ::RegQueryValueExA(key.Get(), kTimeoutValue, nullptr, &type, reinterpret_cast<BYTE*>(&timeout), &size);
    // After a failed read (a longer value) the buffer's contents are undefined.
    if (status != ERROR_SUCCESS || type != REG_DWORD)
        timeout = kDefaultTimeoutMs;
    return timeout;
}

DWORD TotalDeadline(DWORD connectTimeoutMs)
{
    const uint64_t total = 3ull * connectTimeoutMs;
    return static_cast<DWORD>(total < kMinTotalDeadlineMs ? kMinTotalDeadlineMs
                                                          : total > kMaxTotalDeadlineMs ? kMaxTotalDeadlineMs : total);
}

// Copies the body into the file until its end, the size cap or the deadline. Each read
// asks only for what has arrived, so a server that trickles bytes cannot hold one read
// (and the page's thread) past the deadline.
bool ReceiveBody(HINTERNET request, HANDLE file, ULONGLONG deadline)
{
    char buffer[kReadBufferSize];
    DWORD total = 0;
    for (;;) {
        if (::GetTickCount64() > deadline)
            return false;  // reported once, by DownloadFile
        DWORD available = 0;
        // A failed read ends the download without a record of its own; the caller sees false.
        if (!::InternetQueryDataAvailable(request, &available, 0, 0))
            return false;
        DWORD read = 0;
        const DWORD wanted = available == 0 || available > sizeof buffer ? sizeof buffer : available;
        if (!::InternetReadFile(request, buffer, wanted, &read))
            return false;
        if (read == 0)
            return true;
        total += read;
        if (total > kMaxDataFileBytes) {
            TarnLog::Log(kControlClass, 1, "DownloadFile: Data file is larger than %u bytes; stopped.",
                         static_cast<unsigned>(kMaxDataFileBytes));
            return false;
        }
        DWORD written = 0;
        if (!::WriteFile(file, buffer, read, &written, nullptr)) {
            TARN_LOG_LAST_ERROR(TarnLog::Log, kControlClass, 1,
                                "DownloadFile: Failure occurred while writing downloaded data to temporary file.");
            return false;
        }
    }
}

// The request and the body, on a session the deadline may close under it.
bool Fetch(HINTERNET session, const std::string& downloadUrl, const std::string& targetPath, ULONGLONG deadline)
{
    TarnBase::UniqueInternetHandle request(::InternetOpenUrlA(
        session, downloadUrl.c_str(), nullptr, 0, INTERNET_FLAG_RESYNCHRONIZE | INTERNET_FLAG_NO_UI, 0));
    if (!request) {
        TARN_LOG_LAST_ERROR(TarnLog::Log, kControlClass, 1, "DownloadFile: Failure calling InternetOpenUrl.");
        return false;
    }
    // Only a later status failure reports it, but it has to be taken before any other call.
    const DWORD openUrlError = ::GetLastError();

    DWORD status = kUnknownStatus;
    if (!GetHttpStatusCode(status, request.Get())) {
        TARN_LOG_WIN32_ERROR(TarnLog::Log, kControlClass, 1, openUrlError,
                             "DownloadFile: Failed to retrieve HTTP status code from download operation, assuming failure. InternetOpenUrl");
        return false;
    }
    if (status != HTTP_STATUS_OK) {
        TarnLog::Log(kControlClass, 1, "DownloadFile: Failed to download file. HTTP Status Code: %u.",
                     static_cast<unsigned>(status));
        return false;
    }

    TarnBase::UniqueFile file(::CreateFileA(targetPath.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                            FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file) {
        TARN_LOG_LAST_ERROR(TarnLog::Log, kControlClass, 1,
                            "DownloadFile: Failed to create our temporary file to receive the download data.");
        return false;
    }

    return ReceiveBody(request.Get(), file.Get(), deadline);
}

} // namespace

std::wstring GetTrustDataFileURL(CTarnSM& control, const std::string& pageUrl)
{
    // One lock for the choice and the publication, so two controls on a page agree.
    TarnMT::AutoCriticalSection guard(&CacheLock());
    if (BSTR property = control.TrustDataFileURL()) {
        PublishWithoutOverwrite(control, pageUrl);
        return std::wstring(property, ::SysStringLen(property));
    }
    std::wstring cached;
    if (LookupTrustDataFileURL(pageUrl, cached)) {
        TarnLog::Log(kControlClass, 3,
                     "GetTrustDataFileURL: A control on our page has cached a value. Resorting to cached value: %s.",
                     ForLog(cached).c_str());
        return cached;
    }
    // Written into the property so that every later call publishes it for the page.
    control.SetTrustDataFileURL(kDefaultDataFileName);
    TarnLog::Log(kControlClass, 3,
                 "GetTrustDataFileURL: TrustedSiteDataFileURL property not set. Resorting to default value: %s.",
                 ForLog(kDefaultDataFileName).c_str());
    BSTR property = control.TrustDataFileURL();
    return std::wstring(property, ::SysStringLen(property));
}

std::string GetTrustedSiteDownloadURL(CTarnSM& control, const std::string& pageUrl)
{
    std::string downloadUrl;
    ComPtr<IMoniker> base;
    HRESULT hr = ::CreateURLMonikerEx(nullptr, TarnUtils::AnsiToWide(pageUrl).c_str(), &base, URL_MK_UNIFORM);
    if (FAILED(hr) || !base) {
        TARN_LOG_HRESULT(TarnLog::Log, kControlClass, 2, hr,
                         "GetTrustedSiteDownloadURL: Failed to create base URL moniker.");
        return downloadUrl;
    }

    const std::wstring fileName = GetTrustDataFileURL(control, pageUrl);

    ComPtr<IMoniker> file;
    hr = ::CreateURLMoniker(base.Get(), fileName.c_str(), &file);
    if (FAILED(hr) || !file) {
        TARN_LOG_HRESULT(TarnLog::Log, kControlClass, 2, hr,
                         "GetTrustedSiteDownloadURL: Failed to create URL moniker from base moniker.");
        return downloadUrl;
    }

    wchar_t* rawName = nullptr;
    hr = file->GetDisplayName(nullptr, nullptr, &rawName);
    const CoTaskString name(rawName);
    if (FAILED(hr) || !name) {
        TARN_LOG_HRESULT(TarnLog::Log, kControlClass, 2, hr,
                         "GetTrustedSiteDownloadURL: Failed to get string version of URL from moniker.");
        return downloadUrl;
    }

    // A URL that only survives the ANSI code page with '?' in place of a character would
    // name another resource ('?' starts a query), so such a URL is refused, not narrowed.
    if (!TarnUtils::TryWideToAnsi(name.Get(), wcslen(name.Get()), downloadUrl)) {
        TarnLog::Log(kControlClass, 2,
                     "GetTrustedSiteDownloadURL: URL has characters outside the ANSI code page; not downloading: %s.",
                     ForLog(name.Get()).c_str());
        downloadUrl.clear();
        return downloadUrl;
    }
    TarnLog::Log(kControlClass, 3, "GetTrustedSiteDownloadURL: Successfully built URL: %s.", downloadUrl.c_str());
    return downloadUrl;
}

bool GetHttpStatusCode(DWORD& status, HINTERNET request)
{
    status = kUnknownStatus;
    try {
        DWORD code = 0;
        DWORD size = sizeof code;
        if (::HttpQueryInfoA(request, HTTP_QUERY_STATUS_CODE | HTTP_QUERY_FLAG_NUMBER, &code, &size, nullptr)) {
            status = code;
            return true;
        }
        TARN_LOG_LAST_ERROR(TarnLog::Log, kControlClass, 1, "GetHttpStatusCode: Failed to call HttpQueryInfo,");
    } catch (...) {
        TARN_LOG_UNKNOWN_EXCEPTION(TarnLog::Log, kControlClass, kStatusSource, __LINE__);
    }
    return false;
}

bool DownloadFile(const std::string& downloadUrl, const std::string& targetPath)
{
    DWORD timeout = DownloadTimeout();
    DWORD deadlineMs = TotalDeadline(timeout);
    const ULONGLONG deadline = ::GetTickCount64() + deadlineMs;

    // Declared in this order so that they close file first, then request, then session.
    TarnBase::UniqueInternetHandle session(
        ::InternetOpenA("TarnSM", INTERNET_OPEN_TYPE_PRECONFIG, nullptr, nullptr, 0));
    if (!session) {
        TARN_LOG_LAST_ERROR(TarnLog::Log, kControlClass, 1, "DownloadFile: Failure calling InternetOpen.");
        return false;
    }

    TarnLog::Log(kControlClass, 3, "DownloadFile: Calling InternetSetOption with a timeout value of: %u.",
                 static_cast<unsigned>(timeout));
    if (!::InternetSetOptionA(session.Get(), INTERNET_OPTION_CONNECT_TIMEOUT, &timeout, sizeof timeout))
        TARN_LOG_LAST_ERROR(TarnLog::Log, kControlClass, 1, "DownloadFile: Failure calling InternetSetOption.");
    // A server that answers nothing at all is bounded by these (where the platform honours
    // them); one that trickles is bounded by the deadline between reads.
    ::InternetSetOptionA(session.Get(), INTERNET_OPTION_RECEIVE_TIMEOUT, &deadlineMs, sizeof deadlineMs);
    ::InternetSetOptionA(session.Get(), INTERNET_OPTION_SEND_TIMEOUT, &deadlineMs, sizeof deadlineMs);

    const HINTERNET sessionHandle = session.Get();
    DownloadWatch watch(session, deadlineMs);
    const bool done = Fetch(sessionHandle, downloadUrl, targetPath, deadline);
    if (watch.Stop() || ::GetTickCount64() > deadline) {
        TarnLog::Log(kControlClass, 1, "DownloadFile: Download took longer than %u milliseconds; stopped.",
                     static_cast<unsigned>(deadlineMs));
        return false;
    }
    return done;
}

} // namespace TarnSMX
