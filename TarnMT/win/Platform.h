#pragma once

#include "TarnBase/KernelObjectName.h"

#include <windows.h>

namespace TarnMT {

// Security attributes and integrity labels exist only on the NT family. A system that
// does not say which family it is gets none.
inline bool IsNtPlatform()
{
    TarnBase::OsVersion os;
    return TarnBase::QueryOsVersion(os) && os.platformId == VER_PLATFORM_WIN32_NT;
}

} // namespace TarnMT
