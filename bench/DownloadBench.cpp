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
#include "BenchSupport.h"
#include "TarnSM/win/TrustDataDownload.h"
#include "testing/support/TestServer.h"

#include <windows.h>

#include <cstdio>
#include <cstring>
#include <string>

namespace {

constexpr double kDownloadTarget = 1.15;
constexpr double kDiscoveryTarget = 1.3;

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

    const Bench::Comparison download = Bench::Alternate(
        downloadRounds, [&] { return TarnSMX::DownloadFile(url, oursTarget); },
        [&] { return Bench::BareDownload(url, floorTarget); });
    std::string check;
    if (!download.ok || !TarnTest::ReadBytes(scratch / L"ours.tmp", check) || check != body) {
        std::fprintf(stderr, "download_bench: a download failed\n");
        return 1;
    }

    auto site = BenchPage::Site(L"http://www.tarn-bench.example/dir/page.html");
    auto control = BenchPage::NewControl();
    control->SetSite(BenchPage::Unknown(site));
    const Bench::Comparison discovery = Bench::Alternate(
        discoveryRounds,
        Bench::Batch(discoveryBatch,
                     [&] {
                         std::string pageUrl;
                         DWORD zone = 0;
                         return control->GetCurrentSiteURLAndZone(pageUrl, zone) && zone == 3;
                     }),
        Bench::Batch(discoveryBatch, [&] {
            std::wstring pageUrl;
            DWORD zone = 0;
            return BenchPage::BareDiscovery(BenchPage::Unknown(site), pageUrl, zone) && zone == 3;
        }));
    control->SetSite(nullptr);
    if (!discovery.ok) {
        std::fprintf(stderr, "download_bench: site discovery failed\n");
        return 1;
    }

    std::printf("download_bench%s: %d downloads of 16 KiB each side, %d x %d site discoveries each side, medians\n",
                shortRun ? " --short" : "", downloadRounds, discoveryRounds, discoveryBatch);
    Bench::PrintHeader();
    Bench::PrintRow("DownloadFile, 16 KiB from 127.0.0.1, cold", "download", Bench::Median(download.ours),
                    Bench::Median(download.floor), kDownloadTarget);
    Bench::PrintRow("GetCurrentSiteURLAndZone, sited control", discovery, discoveryBatch, kDiscoveryTarget);
    return 0;
}
