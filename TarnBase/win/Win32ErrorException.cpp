#include "TarnBase/Exceptions.h"

#include <windows.h>

namespace TarnBase {

// Delegation evaluates GetLastError() before any member or base is built.
Win32ErrorException::Win32ErrorException(std::string sourceFile, uint32_t line)
    : Win32ErrorException(std::move(sourceFile), line, ::GetLastError())
{
}

} // namespace TarnBase
