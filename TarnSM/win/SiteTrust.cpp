// Site trust: answers "not trusted" until the evaluation is wired in.
#include "TarnSM/win/CTarnSM.h"

namespace TarnSMX {

bool CTarnSM::IsCurrentSiteTrustedInternal()
{
    return false;
}

} // namespace TarnSMX
