#pragma once

#include <windows.h>

namespace TarnMT {

// Security attributes and integrity labels exist only on the NT family.
inline bool IsNtPlatform()
{
    OSVERSIONINFOA info{};
    info.dwOSVersionInfoSize = sizeof info;
    return ::GetVersionExA(&info) && info.dwPlatformId == VER_PLATFORM_WIN32_NT;
}

} // namespace TarnMT
