#include "TarnBase/KernelObjectName.h"

#include <windows.h>

namespace TarnBase {

OsVersion CurrentOsVersion()
{
    OSVERSIONINFOA info{};
    info.dwOSVersionInfoSize = sizeof info;
    OsVersion os;
    if (::GetVersionExA(&info)) {
        os.platformId = info.dwPlatformId;
        os.major = info.dwMajorVersion;
    }
    return os;
}

std::string MakeKernelObjectName(const std::string& name, bool global)
{
    return MakeKernelObjectName(name, global, CurrentOsVersion());
}

} // namespace TarnBase
