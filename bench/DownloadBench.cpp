// The data file download and site discovery against their floors, measured in one run:
//   - DownloadFile of a 16 KiB file from the local web server on 127.0.0.1, a new session
//     each time, against the bare WinINet calls it makes (open, set option, open URL,
//     query status, read loop writing the file, close);
//   - GetCurrentSiteURLAndZone of a sited control against the bare QueryService,
//     get_LocationURL, QueryService and MapUrlToZone calls behind it.
// The two sides alternate sample by sample (which goes first alternates too), and the
// medians are compared.
//   download_bench           full run, results as Markdown table rows
//   download_bench --short   a few samples, for the test run (never fails on timing)

#include "BenchPage.h"
#include "TarnSM/win/TrustDataDownload.h"
#include "TarnBase/win/Handle.h"
#include "testing/support/TestServer.h"

#include <windows.h>
#include <wininet.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "BenchSupport.h"

namespace {

using Bench::NowUs;
using Bench::Median;
using Bench::BareDownload;
using Bench::Alternate;
using Bench::Comparison;

using Microsoft::WRL::ComPtr;

constexpr double kDownloadTarget = 1.15;
constexpr double kDiscoveryTarget = 1.3;



// The download as the bare platform calls, with no configuration read and no records.

// What GetCurrentSiteURLAndZone asks the site, as bare calls.
bool BareDiscovery(IServiceProvider* provider, DWORD& zone)
{
    ComPtr<IWebBrowser2> browser;
    if (FAILED(provider->QueryService(SID_SWebBrowserApp, IID_PPV_ARGS(&browser))))
        return false;
    BSTR location = nullptr;
    if (FAILED(browser->get_LocationURL(&location)))
        return false;
    ComPtr<IInternetSecurityManager> manager;
    HRESULT hr = provider->QueryService(IID_IInternetSecurityManager, IID_PPV_ARGS(&manager));
    if (FAILED(hr))
        hr = ::CoCreateInstance(CLSID_InternetSecurityManager, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&manager));
    if (SUCCEEDED(hr))
        hr = manager->MapUrlToZone(location, &zone, 0);
    ::SysFreeString(location);  // the floor frees by hand, as bare platform code does
    return SUCCEEDED(hr);
}


// One sample of each side per round; the side that goes first alternates.

void PrintRow(const char* operation, const char* unit, double ours, double floor, double target)
{
    const double ratio = ours / floor;
    std::printf("| %s | %.1f us/%s | %.1f us/%s | %.2fx | <= %.2fx%s |\n", operation, ours, unit, floor, unit, ratio,
                target, ratio <= target ? "" : " (missed)");
}

} // namespace

int main(int argc, char** argv)
{
    const bool shortRun = argc > 1 && std::strcmp(argv[1], "--short") == 0;
    const int downloadRounds = shortRun ? 10 : 300;
    const int discoveryRounds = shortRun ? 10 : 200;
    const int discoveryBatch = shortRun ? 10 : 100;

    TarnTest::ComApartment apartment;
    TarnTest::TempDir root(L"bench-www");
    TarnTest::TempDir scratch(L"bench-out");
    const std::string body = [] {
        std::string bytes(16 * 1024, '\0');
        for (size_t i = 0; i < bytes.size(); ++i)
            bytes[i] = static_cast<char>((i * 131 + 7) & 0xFF);
        return bytes;
    }();
    if (!root.Put(L"trust.dll", body)) {
        std::fprintf(stderr, "download_bench: cannot write the served file\n");
        return 1;
    }
    TarnTest::TestServer server(TarnTest::UnixPathOf(root.Path()));
    if (!server.Running()) {
        std::fprintf(stderr, "download_bench: local web server: %s\n", server.Error().c_str());
        return 1;
    }
    const std::string url = server.Url("/trust.dll");
    const std::string oursTarget = TarnTest::Narrow(scratch / L"ours.tmp");
    const std::string floorTarget = TarnTest::Narrow(scratch / L"floor.tmp");

    const Comparison download = Alternate(
        downloadRounds, [&] { return TarnSMX::DownloadFile(url, oursTarget); },
        [&] { return BareDownload(url, floorTarget); });
    std::string check;
    if (!download.ok || !TarnTest::ReadBytes(scratch / L"ours.tmp", check) || check != body) {
        std::fprintf(stderr, "download_bench: a download failed\n");
        return 1;
    }

    auto site = BenchPage::Site(L"http://www.tarn-bench.example/dir/page.html");
    auto control = BenchPage::NewControl();
    control->SetSite(BenchPage::Unknown(site));
    ComPtr<IServiceProvider> provider;
    site.As(&provider);
    const Comparison discovery = Alternate(
        discoveryRounds,
        [&] {
            bool ok = true;
            for (int i = 0; i < discoveryBatch; ++i) {
                std::string pageUrl;
                DWORD zone = 0;
                ok = control->GetCurrentSiteURLAndZone(pageUrl, zone) && zone == 3 && ok;
            }
            return ok;
        },
        [&] {
            bool ok = true;
            for (int i = 0; i < discoveryBatch; ++i) {
                DWORD zone = 0;
                ok = BareDiscovery(provider.Get(), zone) && zone == 3 && ok;
            }
            return ok;
        });
    control->SetSite(nullptr);
    if (!discovery.ok) {
        std::fprintf(stderr, "download_bench: site discovery failed\n");
        return 1;
    }

    std::printf("download_bench%s: %d downloads of 16 KiB each side, %d x %d site discoveries each side, medians\n",
                shortRun ? " --short" : "", downloadRounds, discoveryRounds, discoveryBatch);
    std::printf("| operation | ours | floor | ratio | target |\n");
    std::printf("|---|---|---|---|---|\n");
    PrintRow("DownloadFile, 16 KiB from 127.0.0.1, cold", "download", Median(download.ours), Median(download.floor),
             kDownloadTarget);
    PrintRow("GetCurrentSiteURLAndZone, sited control", "call", Median(discovery.ours) / discoveryBatch,
             Median(discovery.floor) / discoveryBatch, kDiscoveryTarget);
    return 0;
}
