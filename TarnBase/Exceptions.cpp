#include "TarnBase/Exceptions.h"

#include <cstdio>

namespace TarnBase {

Win32ErrorException::Win32ErrorException(std::string sourceFile, uint32_t line, uint32_t lastError)
    : m_lastError(lastError), m_sourceFile(std::move(sourceFile)), m_line(line)
{
    constexpr uint32_t kAccessDenied = 5;
    m_errorId = (lastError == kAccessDenied) ? L"SECURITY_ERROR" : L"WIN32_ERROR";
    char text[512];
    std::snprintf(text, sizeof text, "File - %s, Line - %lu, GetLastError = %lu", m_sourceFile.c_str(),
                  static_cast<unsigned long>(line), static_cast<unsigned long>(lastError));
    SetExtendedData(text);
}

} // namespace TarnBase
