// Container trust: answers "not trusted" until the evaluation is wired in.
#include "TarnSM/win/CTarnSM.h"

namespace TarnSMX {

bool CTarnSM::IsCurrentContainerTrustedInternal(const std::string&)
{
    return false;
}

} // namespace TarnSMX
