#include "TarnBase/win/SharedView.h"

#include <psapi.h>

namespace TarnBase {
namespace {

bool IsReadWrite(const MEMORY_BASIC_INFORMATION& region)
{
    if (region.State != MEM_COMMIT || (region.Protect & (PAGE_GUARD | PAGE_NOACCESS)) != 0)
        return false;
    const DWORD access = region.Protect & 0xFF;
    return access == PAGE_READWRITE || access == PAGE_EXECUTE_READWRITE;
}

} // namespace

size_t UsableViewBytes(const void* view)
{
    if (view == nullptr)
        return 0;
    // A page-file mapping has no file name; any name means a file lies behind the view.
    wchar_t fileName[MAX_PATH];
    if (::GetMappedFileNameW(::GetCurrentProcess(), const_cast<void*>(view), fileName, MAX_PATH) != 0)
        return 0;
    size_t usable = 0;
    const char* at = static_cast<const char*>(view);
    for (;;) {
        MEMORY_BASIC_INFORMATION region{};
        if (::VirtualQuery(at, &region, sizeof region) != sizeof region || region.AllocationBase != view ||
            region.Type != MEM_MAPPED || !IsReadWrite(region) || region.RegionSize == 0)
            return usable;
        usable += region.RegionSize;
        at += region.RegionSize;
    }
}

} // namespace TarnBase
