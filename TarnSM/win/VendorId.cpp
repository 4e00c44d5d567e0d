#include "TarnSM/win/VendorId.h"

#include "TarnBase/win/Handle.h"

#include <mutex>

namespace TarnSMX {
namespace {
// Read and written without a lock in the original design; a std::string torn by two
// apartments writing at once would crash the host, so a small lock guards it.
std::mutex g_vendorLock;
std::string g_vendorId;
} // namespace

std::string GetVendorId()
{
    std::lock_guard<std::mutex> lock(g_vendorLock);
    return g_vendorId;
}

void SetVendorId(const std::string& vendorId)
{
    std::lock_guard<std::mutex> lock(g_vendorLock);
    g_vendorId = vendorId;
}

bool IsValidVendorID(const std::string& vendorId)
{
    if (vendorId.empty())
        return false;
    const std::string path = "Software\\Ostrum\\Kestrel\\Config\\" + vendorId;
    TarnBase::UniqueRegKey key;
    return ::RegOpenKeyExA(HKEY_LOCAL_MACHINE, path.c_str(), 0, KEY_READ, key.Put()) == ERROR_SUCCESS;
}

bool IsValidVendorID()
{
    return IsValidVendorID(GetVendorId());
}

} // namespace TarnSMX
