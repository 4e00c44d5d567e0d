#include "TarnBase/KernelObjectName.h"

#include <windows.h>

namespace TarnBase {

bool QueryOsVersion(OsVersion& os)
{
    OSVERSIONINFOA info{};
    info.dwOSVersionInfoSize = sizeof info;
    if (!::GetVersionExA(&info))
        return false;
    os.platformId = info.dwPlatformId;
    os.major = info.dwMajorVersion;
    return true;
}

OsVersion CurrentOsVersion()
{
    OsVersion os;
    QueryOsVersion(os);
    return os;
}

std::string MakeKernelObjectName(const std::string& name, bool global)
{
    return MakeKernelObjectName(name, global, CurrentOsVersion());
}

} // namespace TarnBase
