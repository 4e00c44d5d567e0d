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
    // Not narrowed leniently (a look-alike would become a listed name), and no exception:
    // a data file's optional signer list with such a character must not end the check.
    if (!TarnUtils::TryWideToAnsi(resource, static_cast<size_t>(length), text)) {
        TarnLog::Log(kControlClass, 2,
                     "LoadResourceString: String %u has characters outside the ANSI code page. It is not used.", id);
        return false;
    }
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
        wchar_t name[260] = {};
        DWORD length = sizeof name / sizeof name[0];
        if (::RegEnumKeyExW(key.Get(), index, name, &length, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS)
            break;
        // The narrow enumeration would turn look-alikes such as a full-width letter into
        // plain ASCII and so trust a signer the vendor never named. A name that has no exact
        // ANSI form is kept as an entry no signer can match, so that the vendor's list does
        // not become empty and fall back to the defaults.
        std::string narrow;
        if (!TarnUtils::TryWideToAnsi(name, length, narrow))
            TarnLog::Log(kControlClass, 1,
                         "LoadVendorTrustedSigners: Signer name %u of the vendor has no exact ANSI form; it matches no signer.",
                         static_cast<unsigned>(index));
        signers.push_back(std::move(narrow));
    }
    return true;
}

} // namespace TarnSMX
