// IsCurrentContainerTrusted, warm, through the vtable of a sited control in this process,
// against the bare platform calls behind it, measured in one run:
//   - site discovery (BenchPage::BareDiscovery): QueryService(SID_SWebBrowserApp),
//     get_LocationURL, the security manager (the page offers none, so it is created) and
//     MapUrlToZone;
//   - GetModuleFileNameA of the host;
//   - the trusted-process table: open its named mutex and mapping, map the view, take the
//     mutex, look the process up in all 15 entries, release, unmap, close. The control
//     opens the table per question (it keeps nothing of it between questions), so the
//     floor does too. A launcher keeps the table alive meanwhile; so does this program.
// Batches of calls alternate between the two sides (which goes first alternates too), and
// the medians are compared.
// The question also leaves log records (each one takes the machine-wide log ring's named
// mutex) and a debug line (the table mutex already exists). A second row compares against
// the floor plus exactly those records, captured from one question of the control before
// timing, which is the part this code controls.
//   container_bench           full run, results as Markdown table rows
//   container_bench --short   a few samples, for the test run (never fails on timing)

#include "BenchPage.h"
#include "BenchSupport.h"
#include "TarnBase/KernelObjectName.h"
#include "TarnBase/win/Handle.h"
#include "TarnSys/TrustTable.h"
#include "TarnSys/win/DynamicProcessTrust.h"

#include <windows.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr double kTarget = 1.3;
const wchar_t kPageUrl[] = L"file:///C:/x/page.html";

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
        std::wstring location;
        DWORD zone = 0;
        if (!BenchPage::BareDiscovery(site, location, zone) || zone != 0)
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

} // namespace

int main(int argc, char** argv)
{
    const bool shortRun = argc > 1 && std::strcmp(argv[1], "--short") == 0;
    const int rounds = shortRun ? 6 : 101;
    const int batch = shortRun ? 5 : 20;

    TarnBase::ComApartment apartment;
    // The table as a launcher keeps it: open for the whole run.
    TarnSys::DynamicProcessTrust keeper;
    if (!keeper.Initialize()) {
        std::fprintf(stderr, "container_bench: cannot open the trusted-process table\n");
        return 1;
    }

    auto site = BenchPage::Site(kPageUrl);
    IUnknown* siteUnknown = BenchPage::Unknown(site);
    auto control = BenchPage::NewControl();
    if (FAILED(control->SetSite(siteUnknown))) {
        std::fprintf(stderr, "container_bench: cannot site the control\n");
        return 1;
    }

    BareQuestion bare;
    auto askOurs = [&] {
        VARIANT_BOOL answer = VARIANT_TRUE;
        // This program is no trusted container: the whole question runs every time.
        return control->IsCurrentContainerTrusted(nullptr, &answer) == S_OK && answer == VARIANT_FALSE;
    };
    askOurs();  // warm: module name, built-in list, urlmon, the logger's ring
    bool capturedOk = true;
    const std::vector<Bench::Record> records = Bench::RecordsOf([&] { capturedOk = askOurs(); });
    auto askBare = [&] { return bare.Ask(siteUnknown); };
    auto askBareWithRecords = [&] {
        const bool ok = bare.Ask(siteUnknown);
        Bench::Replay(records);
        return ok;
    };
    if (!Bench::WritesSame(records, [&] { askBareWithRecords(); })) {
        std::fprintf(stderr, "container_bench: the floor does not write the records of a question\n");
        return 1;
    }
    askBare();
    const Bench::Comparison result =
        Bench::Alternate(rounds, Bench::Batch(batch, askOurs), Bench::Batch(batch, askBare));
    const Bench::Comparison withRecords =
        Bench::Alternate(rounds, Bench::Batch(batch, askOurs), Bench::Batch(batch, askBareWithRecords));
    control->SetSite(nullptr);
    if (!capturedOk || records.empty() || !result.ok || !withRecords.ok) {
        std::fprintf(stderr, "container_bench: a question failed\n");
        return 1;
    }

    std::printf("container_bench%s: %d x %d questions each side, medians\n", shortRun ? " --short" : "", rounds, batch);
    Bench::PrintHeader();
    Bench::PrintRow("IsCurrentContainerTrusted, warm, sited in a local page", result, batch, kTarget);
    char operation[160];
    std::snprintf(operation, sizeof operation, "IsCurrentContainerTrusted, same, floor plus its %zu log records and %zu debug line",
                  records.size() - Bench::DebugLines(records), Bench::DebugLines(records));
    Bench::PrintRow(operation, withRecords, batch, kTarget);
    return 0;
}
