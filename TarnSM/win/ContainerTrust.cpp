// Container trust: may the process that hosts the control be trusted? Decided from a
// one-shot grant in the machine-wide trusted-process table, else from the host
// executable's file name against the vendor's or the built-in list and the page's
// alternative list. Never offered to a control sited in a remote page.
#include "TarnSM/win/CTarnSM.h"

#include "TarnBase/ResultLog.h"
#include "TarnBase/win/Handle.h"
#include "TarnMT/win/CriticalSection.h"
#include "TarnSM/AltTrustList.h"
#include "TarnSM/ContainerNames.h"
#include "TarnSM/win/ScriptBoundary.h"
#include "TarnSM/win/VendorId.h"
#include "TarnSys/win/DynamicProcessTrust.h"
#include "TarnUtils/win/StringConvert.h"

#include <shlwapi.h>

#include <map>
#include <string>
#include <vector>

namespace TarnSMX {
namespace {

using NameList = std::vector<std::string>;

constexpr DWORD kModulePathChars = 261;
const char kVendorKeyRoot[] = "Software\\Ostrum\\Kestrel\\Config\\";
const char kContainersSubkey[] = "\\TarnSM\\TrustedContainers";

// Process-wide, shared by every control; every item is guarded by `lock`.
struct ContainerState {
    TarnMT::CriticalSection lock;
    std::string moduleName;       // lower case, without directory; set once
    bool dynamicallyTrusted = false;  // false -> true at most once
    NameList builtIn;             // filled once
    // Per vendor id, the names read from its key; a key not there yet is looked for again.
    std::map<std::string, NameList> vendorCache;
};

ContainerState g_state;

// The host executable's full path as GetModuleFileNameA gives it; false, logged at
// `level` in the caller's name, when the system does not tell it.
bool HostModulePath(const char* caller, unsigned char level, std::string& path)
{
    char buffer[kModulePathChars] = {};
    const DWORD length = ::GetModuleFileNameA(nullptr, buffer, kModulePathChars);
    if (length == 0) {
        TARN_LOG_LAST_ERROR(TarnLog::Log, kControlClass, level,
                            "%s: Internal error. Failed to retrieve hosting process module name.", caller);
        return false;
    }
    // A truncated path (older systems leave it unterminated) is kept cut at the buffer.
    path.assign(buffer, length < kModulePathChars ? length : kModulePathChars - 1);
    return true;
}

bool IsContainerDynamicallyTrustedRightNow()
{
    TarnMT::AutoCriticalSection guard(&g_state.lock);
    if (g_state.dynamicallyTrusted) {
        TarnLog::Log(kControlClass, 3, "IsContainerDynamicallyTrustedRightNow: Current container is dynamically trusted.");
        return true;
    }

    std::string path;
    if (!HostModulePath("IsContainerDynamicallyTrustedRightNow", 0, path))
        return false;
    const std::wstring widePath = TarnUtils::AnsiToWide(path);
    const std::wstring pid = std::to_wstring(static_cast<unsigned long>(::GetCurrentProcessId()));

    // The grant is consumed by the first query that finds it, and honoured only when it
    // was removed; the process keeps its trust.
    TarnSys::DynamicProcessTrust table;
    if (!table.ConsumeTrustedProcess(pid, widePath))
        return false;
    g_state.dynamicallyTrusted = true;
    TarnLog::Log(kControlClass, 3, "IsContainerDynamicallyTrustedRightNow: Current container is dynamically trusted.");
    return true;
}

bool GetCurrentModuleName()
{
    TarnMT::AutoCriticalSection guard(&g_state.lock);
    if (!g_state.moduleName.empty()) {
        TarnLog::Log(kControlClass, 3, "GetCurrentModuleName: Current container: %s,", g_state.moduleName.c_str());
        return true;
    }
    std::string path;
    if (!HostModulePath("GetCurrentModuleName", 1, path))
        return false;
    std::vector<char> buffer(path.begin(), path.end());
    buffer.push_back('\0');
    ::PathStripPathA(buffer.data());
    g_state.moduleName = ContainerName(buffer.data());
    TarnLog::Log(kControlClass, 3, "GetCurrentModuleName: Current container: %s,", g_state.moduleName.c_str());
    return !g_state.moduleName.empty();
}

std::string CurrentModuleName()
{
    TarnMT::AutoCriticalSection guard(&g_state.lock);
    return g_state.moduleName;
}

bool LoadVendorTrustedContainers(const std::string& vendorId, NameList& list)
{
    if (vendorId.empty())
        return false;
    {
        TarnMT::AutoCriticalSection guard(&g_state.lock);
        const auto cached = g_state.vendorCache.find(vendorId);
        if (cached != g_state.vendorCache.end()) {
            list.insert(list.end(), cached->second.begin(), cached->second.end());
            return true;
        }
    }

    const std::string keyPath = kVendorKeyRoot + vendorId + kContainersSubkey;
    TarnBase::UniqueRegKey key;
    const LONG opened = ::RegOpenKeyExA(HKEY_LOCAL_MACHINE, keyPath.c_str(), 0, KEY_READ, key.Put());
    if (opened != ERROR_SUCCESS) {
        // A vendor without the key has an empty list: the built-in list applies.
        TarnLog::Log(kControlClass, 4, "LoadVendorTrustedContainers: Failed to open our vendor config key. lResult = %u.",
                     static_cast<unsigned>(opened));
        return true;
    }
    NameList names;
    for (DWORD index = 0;; ++index) {
        wchar_t name[260] = {};
        DWORD length = 260;
        if (::RegEnumKeyExW(key.Get(), index, name, &length, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS)
            break;
        // The narrow registry call would turn look-alike letters into plain ones (U+FF34
        // into "T"). A name the code page cannot hold exactly stays in the list as an entry
        // that matches no executable: dropping it could empty the vendor's list and bring
        // back the built-in one.
        std::string narrow;
        if (!TarnUtils::TryWideToAnsi(name, length < 260 ? length : 0, narrow)) {
            TarnLog::Log(kControlClass, 2,
                         "LoadVendorTrustedContainers: Trusted container name %u of the vendor has no exact ANSI form; it matches no container.",
                         static_cast<unsigned>(index));
            names.emplace_back();
            continue;
        }
        std::string lower = ContainerName(narrow);
        if (lower != kBrowserExecutable)
            names.push_back(std::move(lower));
    }
    key.Reset();

    {
        TarnMT::AutoCriticalSection guard(&g_state.lock);
        g_state.vendorCache.emplace(vendorId, names);
    }
    list.insert(list.end(), names.begin(), names.end());
    return true;
}

void AppendBuiltInContainers(NameList& list)
{
    TarnMT::AutoCriticalSection guard(&g_state.lock);
    if (g_state.builtIn.empty())
        g_state.builtIn.assign(kBuiltInContainers.begin(), kBuiltInContainers.end());
    list.insert(list.end(), g_state.builtIn.begin(), g_state.builtIn.end());
}

} // namespace

bool CTarnSM::IsCurrentContainerTrustedInternal(const std::string& altTrustList)
{
    bool available = false;
    bool local = false;
    bool unreadable = false;
    GetCurrentSiteAvailableAndLocal(available, local, unreadable);
    if (unreadable) {
        TarnLog::Log(kControlClass, 1,
                     "IsCurrentContainerTrustedInternal: Current site's URL or security zone cannot be read. Container trust cannot be determined.");
        return false;
    }
    if (available && !local) {
        TarnLog::Log(kControlClass, 3,
                     "IsCurrentContainerTrustedInternal: Current site is available and is remote. Container trust is not supported in this scenario.");
        return false;
    }

    if (IsContainerDynamicallyTrustedRightNow()) {
        const std::string name = CurrentModuleName();
        TarnLog::Log(kControlClass, 3,
                     "IsCurrentContainerTrustedInternal: Our current container is granted dynamic trust at this time. Container: %s.",
                     name.c_str());
        return true;
    }

    NameList candidates;
    candidates.reserve(10);
    const VendorId vendor = GetVendor();
    const std::string& vendorId = vendor.name;
    bool vendorValid = false;
    if (!vendorId.empty()) {
        if (IsValidVendorID(vendor)) {
            vendorValid = true;
            if (!LoadVendorTrustedContainers(vendorId, candidates)) {
                TarnLog::Log(kControlClass, 2,
                             "IsCurrentContainerTrustedInternal: Failed to load trusted container list for Vendor: %s.",
                             vendorId.c_str());
                return false;
            }
        } else {
            TarnLog::Log(kControlClass, 2,
                         "IsCurrentContainerTrustedInternal: Invalid VendorID parameter provided. Failling back to defaults. VendorID: %s.",
                         vendorId.c_str());
        }
    }
    // A vendor that lists containers replaces the built-in list rather than extending it.
    if (!vendorValid || candidates.empty())
        AppendBuiltInContainers(candidates);

    if (!altTrustList.empty())
        AddAltTrustList(candidates, altTrustList);

    if (!GetCurrentModuleName()) {
        TarnLog::Log(kControlClass, 1,
                     "IsCurrentContainerTrustedInternal: Failed to determine current module name. Container trust cannot be determined.");
        return false;
    }
    const std::string name = CurrentModuleName();
    for (const std::string& candidate : candidates) {
        if (SameContainer(candidate, name)) {
            TarnLog::Log(kControlClass, 3, "IsCurrentContainerTrustedInternal: Our current container is trusted. Container: %s.",
                         name.c_str());
            return true;
        }
    }
    TarnLog::Log(kControlClass, 2, "IsCurrentContainerTrustedInternal: Our current container is not trusted. Container: %s.",
                 name.c_str());
    return false;
}

} // namespace TarnSMX
