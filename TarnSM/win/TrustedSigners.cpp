#include "TarnSM/win/TrustedSigners.h"

#include "TarnBase/win/Handle.h"
#include "TarnSM/SignerList.h"
#include "TarnSM/win/Module.h"
#include "TarnSM/win/ScriptBoundary.h"
#include "TarnSM/win/SiteCache.h"
#include "TarnUtils/win/StringConvert.h"

namespace TarnSMX {
namespace {

NameList& DefaultList()
{
    static auto* list = new NameList();
    return *list;
}

} // namespace

bool LoadResourceString(HMODULE module, UINT id, std::string& text)
{
    text.clear();
    // With a zero buffer size the loader hands back a pointer into the resource itself,
    // so strings of any length are read whole.
    const wchar_t* resource = nullptr;
    const int length = ::LoadStringW(module, id, reinterpret_cast<LPWSTR>(&resource), 0);
    if (length <= 0 || resource == nullptr)
        return false;
    text = TarnUtils::WideToAnsi(resource, static_cast<size_t>(length));
    return !text.empty();
}

bool LoadTrustedSigners(HMODULE module, UINT id, const char* separators, NameList& signers)
{
    signers.clear();
    std::string text;
    if (!LoadResourceString(module, id, text)) {
        TarnLog::Log(kControlClass, 2,
                     "LoadTrustedSigners: Failed to load trusted signers from our resource. Cannot determine who to trust.");
        return false;
    }
    TarnLog::Log(kControlClass, 3, "LoadTrustedSigners: List of trusted signers for the Trusted Site data file: %s",
                 text.c_str());
    signers = SplitSigners(text, separators);
    return true;
}

bool LoadDefaultTrustedSigners()
{
    TarnMT::AutoCriticalSection guard(&CacheLock());
    if (!DefaultList().empty())
        return true;
    return LoadTrustedSigners(ModuleHandle(), 101, "|", DefaultList());
}

NameList DefaultTrustedSigners()
{
    TarnMT::AutoCriticalSection guard(&CacheLock());
    return DefaultList();
}

bool LoadVendorTrustedSigners(const std::string& vendorId, NameList& signers)
{
    if (vendorId.empty())
        return false;
    const std::string path = "Software\\Ostrum\\Kestrel\\Config\\" + vendorId + "\\TarnSM\\TrustedSigners";
    TarnBase::UniqueRegKey key;
    const LONG opened = ::RegOpenKeyExA(HKEY_LOCAL_MACHINE, path.c_str(), 0, KEY_READ, key.Put());
    if (opened != ERROR_SUCCESS) {
        // A vendor without its own signers is not an error: the defaults apply.
        TarnLog::Log(kControlClass, 4, "LoadVendorTrustedSigners: Failed to open our vendor specific config key. lResult = %u.",
                     static_cast<unsigned>(opened));
        return true;
    }
    for (DWORD index = 0;; ++index) {
        char name[260] = {};
        DWORD length = sizeof name;
        if (::RegEnumKeyExA(key.Get(), index, name, &length, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS)
            break;
        signers.emplace_back(name, length);
    }
    return true;
}

} // namespace TarnSMX
