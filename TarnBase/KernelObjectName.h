#pragma once
// The one rule every name shared between processes passes through. The operating-system
// version is an input so that the pre-NT-5 branch can be exercised anywhere.

#include <cstdint>
#include <string>

namespace TarnBase {

struct OsVersion {
    uint32_t platformId = 2;  // VER_PLATFORM_WIN32_NT
    uint32_t major = 6;
};

// Throws KernelObjectNameInvalidException for an empty name, one of 261 characters or
// more, or a backslash outside a recognised "Global\" / "Local\" prefix.
std::string MakeKernelObjectName(const std::string& name, bool global, const OsVersion& os);

// The same with the running system's version (Windows build only).
std::string MakeKernelObjectName(const std::string& name, bool global);

// The running system's platform and major version (Windows build only). The one place
// that asks the system: false, with `os` untouched, when it does not answer.
bool QueryOsVersion(OsVersion& os);

// The same, with the defaults above (NT 6) when the system does not answer.
OsVersion CurrentOsVersion();

} // namespace TarnBase
