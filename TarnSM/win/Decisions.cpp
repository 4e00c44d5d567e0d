// Trust decisions not yet wired to their evaluators answer "not trusted".
#include "TarnSM/win/CTarnSM.h"

namespace TarnSMX {

bool CTarnSM::IsCurrentSiteTrustedInternal()
{
    return false;
}

bool CTarnSM::IsCurrentContainerTrustedInternal(const std::string&)
{
    return false;
}

} // namespace TarnSMX
