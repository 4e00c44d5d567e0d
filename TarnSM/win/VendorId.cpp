#include "TarnSM/win/VendorId.h"

#include "TarnBase/win/Handle.h"
#include "TarnUtils/win/StringConvert.h"

#include <mutex>

namespace TarnSMX {
namespace {
// Read and written without a lock in the original design; a std::string torn by two
// apartments writing at once would crash the host, so a small lock guards it.
std::mutex g_vendorLock;
VendorId g_vendor;
std::wstring g_text;
} // namespace

VendorId GetVendor()
{
    std::lock_guard<std::mutex> lock(g_vendorLock);
    return g_vendor;
}

std::string GetVendorId()
{
    return GetVendor().name;
}

std::wstring GetVendorIdText()
{
    std::lock_guard<std::mutex> lock(g_vendorLock);
    return g_text;
}

void SetVendorId(const std::string& vendorId)
{
    SetVendorIdText(TarnUtils::AnsiToWide(vendorId));
}

void SetVendorIdText(const std::wstring& text)
{
    VendorId vendor;
    vendor.exact = TarnUtils::TryWideToAnsi(text.c_str(), text.size(), vendor.name);
    if (!vendor.exact)
        vendor.name = TarnUtils::WideToAnsiForLog(text.c_str(), text.size());
    std::lock_guard<std::mutex> lock(g_vendorLock);
    g_vendor = std::move(vendor);
    g_text = text;
}

bool IsVendorKeyName(const std::string& vendorId)
{
    return !vendorId.empty() && vendorId.find_first_of(std::string("\0\\", 2)) == std::string::npos;
}

bool IsValidVendorID(const std::string& vendorId)
{
    if (!IsVendorKeyName(vendorId))
        return false;
    const std::string path = "Software\\Ostrum\\Kestrel\\Config\\" + vendorId;
    TarnBase::UniqueRegKey key;
    return ::RegOpenKeyExA(HKEY_LOCAL_MACHINE, path.c_str(), 0, KEY_READ, key.Put()) == ERROR_SUCCESS;
}

bool IsValidVendorID(const VendorId& vendor)
{
    return vendor.exact && IsValidVendorID(vendor.name);
}

bool IsValidVendorID()
{
    return IsValidVendorID(GetVendor());
}

} // namespace TarnSMX
