#include "TarnSM/ContainerNames.h"

#include "TarnSM/AltTrustList.h"

namespace TarnSMX {

std::string ContainerName(const std::string& name)
{
    const size_t zero = name.find('\0');
    return ToLowerAscii(zero == std::string::npos ? name : name.substr(0, zero));
}

bool SameContainer(const std::string& a, const std::string& b)
{
    return ContainerName(a) == ContainerName(b);
}

} // namespace TarnSMX
