// IsCurrentContainerTrusted, warm, through the vtable of a sited control in this process,
// against the bare platform calls behind it, measured in one run:
//   - site discovery: QueryService(SID_SWebBrowserApp), get_LocationURL, the security
//     manager (the page offers none, so it is created) and MapUrlToZone;
//   - GetModuleFileNameA of the host;
//   - the trusted-process table: open its named mutex and mapping, map the view, take the
//     mutex, look the process up in all 15 entries, release, unmap, close. The control
//     opens the table per question (it keeps nothing of it between questions), so the
//     floor does too. A launcher keeps the table alive meanwhile; so does this program.
// Batches of calls alternate between the two sides (which goes first alternates too), and
// the medians are compared.
// The question also leaves nine log records (each one takes the machine-wide log ring's
// named mutex) and one debug line (the table mutex already exists). A second row compares
// against the floor plus exactly those records, which is the part this code controls.
//   container_bench           full run, results as Markdown table rows
//   container_bench --short   a few samples, for the test run (never fails on timing)

#include "TarnBase/win/Owners.h"
#include "BrowserSite.h"
#include "TarnBase/KernelObjectName.h"
#include "TarnBase/win/Handle.h"
#include "TarnLog/Log.h"
#include "TarnMT/DebugLine.h"
#include "TarnSMX_h.h"
#include "TarnSM/win/Guids.h"
#include "TarnSys/TrustTable.h"
#include "TarnSys/win/DynamicProcessTrust.h"

#include <windows.h>
#include <exdisp.h>
#include <servprov.h>
#include <shlguid.h>
#include <urlmon.h>

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
using Bench::Alternate;
using Bench::Comparison;

using Microsoft::WRL::ComPtr;

constexpr double kTarget = 1.3;
const wchar_t kPageUrl[] = L"file:///C:/x/page.html";



using TarnBase::ComApartment;

// The platform calls one container question makes, with no records and no lists.
class BareQuestion {
public:
    BareQuestion()
        : m_mutexName(TarnBase::MakeKernelObjectName(TarnSys::kTableMutexName, true)),
          m_mappingName(TarnBase::MakeKernelObjectName(TarnSys::kTableMappingName, false)),
          m_pid(TarnSys::PidText(::GetCurrentProcessId()))
    {
    }

    bool Ask(IUnknown* site)
    {
        ComPtr<IServiceProvider> provider;
        site->QueryInterface(IID_PPV_ARGS(&provider));
        if (!provider)
            return false;
        ComPtr<IWebBrowser2> browser;
        if (FAILED(provider->QueryService(SID_SWebBrowserApp, IID_PPV_ARGS(&browser))) || !browser)
            return false;
        BSTR location = nullptr;
        if (FAILED(browser->get_LocationURL(&location)))
            return false;
        ComPtr<IInternetSecurityManager> manager;
        HRESULT hr = provider->QueryService(IID_IInternetSecurityManager, IID_PPV_ARGS(&manager));
        if (FAILED(hr))
            hr = ::CoCreateInstance(CLSID_InternetSecurityManager, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&manager));
        DWORD zone = 0;
        if (SUCCEEDED(hr))
            hr = manager->MapUrlToZone(location, &zone, 0);
        ::SysFreeString(location);  // the floor frees by hand, as bare platform code does
        if (FAILED(hr) || zone != 0)
            return false;

        char path[261] = {};
        if (::GetModuleFileNameA(nullptr, path, 261) == 0)
            return false;

        TarnBase::UniqueHandle mutex(::CreateMutexA(nullptr, FALSE, m_mutexName.c_str()));
        TarnBase::UniqueHandle mapping(::CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0,
                                                            static_cast<DWORD>(TarnSys::kTableBytes),
                                                            m_mappingName.c_str()));
        if (!mutex || !mapping)
            return false;
        TarnBase::UniqueMappedView view(::MapViewOfFile(mapping.Get(), FILE_MAP_ALL_ACCESS, 0, 0, TarnSys::kTableBytes));
        if (!view || ::WaitForSingleObject(mutex.Get(), INFINITE) != WAIT_OBJECT_0)
            return false;
        const bool found =
            TarnSys::FindEntry(static_cast<const uint8_t*>(view.Get()), TarnSys::kTableBytes, m_pid).has_value();
        ::ReleaseMutex(mutex.Get());
        return !found;
    }

private:
    std::string m_mutexName;
    std::string m_mappingName;
    std::u16string m_pid;
};

// The records one question leaves, as the floor's own calls of the same logger.
void SameRecords()
{
    const char* cls = "TarnSMX::TarnSM";
    TarnLog::Log(cls, 4, "GetCurrentSiteURLAndZone: Found current IE site URL: %s.", "file:///C:/x/page.html");
    TarnLog::Log(cls, 4, "GetCurrentSiteURLAndZone: Failed to retrieve security manager from container. Will attempt CoCreate directly. HRESULT = <0x%08.8X>", 0x80004002u);
    TarnLog::Log(cls, 3, "GetCurrentSiteAvailableAndLocal: Found current site: %s.", "file:///C:/x/page.html");
    TarnLog::Log(cls, 3, "GetCurrentSiteAvailableAndLocal: Found current site's security zone: %u.", 0u);
    TarnMT::DebugLog("TarnMT::Mutex", 2, "Internel CreateMutex call was successful, but indicated that a handle to an already existing named object was returned.");
    TarnLog::Log("DynamicProcessTrust", 3, "InitMemoryMap():  Successfully opened shared memory with size = %u.", 38524u);
    TarnLog::Log("DynamicProcessTrust", 3, "FindProcess():  Failed to find specified process in list , PID = %s.", "1");
    TarnLog::Log("DynamicProcessTrust", 3, "IsTrustedProcess():  Specified process is not currently trusted, PID = %s.", "1");
    TarnLog::Log(cls, 3, "GetCurrentModuleName: Current container: %s,", "container_bench.exe");
    TarnLog::Log(cls, 2, "IsCurrentContainerTrustedInternal: Our current container is not trusted. Container: %s.", "container_bench.exe");
}



} // namespace

int main(int argc, char** argv)
{
    const bool shortRun = argc > 1 && std::strcmp(argv[1], "--short") == 0;
    const int rounds = shortRun ? 6 : 101;
    const int batch = shortRun ? 5 : 20;

    ComApartment apartment;
    CLSID clsid{};
    ComPtr<ITarnSM> control;
    if (FAILED(::CLSIDFromProgID(TarnSMX::kVersionIndependentProgId, &clsid)) ||
        FAILED(::CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, TarnSMX::kIidITarnSM,
                                  reinterpret_cast<void**>(control.GetAddressOf())))) {
        std::fprintf(stderr, "container_bench: cannot create TarnSM.TarnSM (is TarnSMX.dll registered?)\n");
        return 1;
    }
    // The table as a launcher keeps it: open for the whole run.
    TarnSys::DynamicProcessTrust keeper;
    if (!keeper.Initialize()) {
        std::fprintf(stderr, "container_bench: cannot open the trusted-process table\n");
        return 1;
    }

    auto site = TarnBase::MakeCom<TarnHost::BrowserSite>(TarnHost::SiteMode::Normal, kPageUrl, nullptr);
    ComPtr<IObjectWithSite> withSite;
    control.As(&withSite);
    if (!withSite || FAILED(withSite->SetSite(static_cast<IServiceProvider*>(site.Get())))) {
        std::fprintf(stderr, "container_bench: cannot site the control\n");
        return 1;
    }
    IUnknown* siteUnknown = static_cast<IServiceProvider*>(site.Get());

    BareQuestion bare;
    ITarnSM* ours = control.Get();
    auto askOurs = [&] {
        bool ok = true;
        for (int i = 0; i < batch; ++i) {
            VARIANT_BOOL answer = VARIANT_TRUE;
            // This program is no trusted container: the whole question runs every time.
            ok = ours->IsCurrentContainerTrusted(nullptr, &answer) == S_OK && answer == VARIANT_FALSE && ok;
        }
        return ok;
    };
    auto askBare = [&] {
        bool ok = true;
        for (int i = 0; i < batch; ++i)
            ok = bare.Ask(siteUnknown) && ok;
        return ok;
    };
    auto askBareWithRecords = [&] {
        bool ok = true;
        for (int i = 0; i < batch; ++i) {
            ok = bare.Ask(siteUnknown) && ok;
            SameRecords();
        }
        return ok;
    };
    askOurs();  // warm: module name, built-in list, urlmon, the logger's ring
    askBare();
    askBareWithRecords();
    const Comparison result = Alternate(rounds, askOurs, askBare);
    const Comparison withRecords = Alternate(rounds, askOurs, askBareWithRecords);
    withSite->SetSite(nullptr);
    if (!result.ok || !withRecords.ok) {
        std::fprintf(stderr, "container_bench: a question failed\n");
        return 1;
    }

    std::printf("container_bench%s: %d x %d questions each side, medians\n", shortRun ? " --short" : "", rounds, batch);
    std::printf("| operation | ours | floor | ratio | target |\n");
    std::printf("|---|---|---|---|---|\n");
    auto row = [&](const char* operation, const Comparison& c) {
        const double oursUs = Median(c.ours) / batch;
        const double floorUs = Median(c.floor) / batch;
        const double ratio = oursUs / floorUs;
        std::printf("| %s | %.1f us/call | %.1f us/call | %.2fx | <= %.2fx%s |\n", operation, oursUs, floorUs, ratio,
                    kTarget, ratio <= kTarget ? "" : " (missed)");
    };
    row("IsCurrentContainerTrusted, warm, sited in a local page", result);
    row("IsCurrentContainerTrusted, same, floor plus its 9 log records and 1 debug line", withRecords);
    return 0;
}
