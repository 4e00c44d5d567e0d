// Prints the running system's version as the control sees it and what the kernel-object
// name rule makes of a name there, so tests can check version-dependent naming for real.
#include "TarnBase/KernelObjectName.h"

#include <cstdio>

int main(int argc, char** argv)
{
    const TarnBase::OsVersion os = TarnBase::CurrentOsVersion();
    const std::string name = argc > 1 ? argv[1] : "TarnLogger::Logger::Mapping::3.0";
    std::printf("platform=%u major=%u name=%s\n", os.platformId, os.major,
                TarnBase::MakeKernelObjectName(name, true).c_str());
    return 0;
}
