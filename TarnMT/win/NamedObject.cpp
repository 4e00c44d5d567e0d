#include "TarnMT/win/NamedObject.h"

#include "TarnMT/DebugLine.h"
#include "TarnMT/win/Platform.h"

namespace TarnMT {

void NamedObject::ConfigName(const std::string& name, const SECURITY_ATTRIBUTES* securityAttributes)
{
    AutoCriticalSection guard(&m_createLock);
    if (m_handle) {
        DebugLog(m_class, 2, "%s object Config operation failed because the object is already configured.", m_kind);
        return;
    }
    m_name = name;
    m_securityAttributes = SecurityAttributes(securityAttributes);
}

bool NamedObject::EnsureCreated(HANDLE (*create)(SECURITY_ATTRIBUTES* attributes, const char* name))
{
    if (m_handle)
        return true;
    AutoCriticalSection guard(&m_createLock);
    if (m_handle)
        return true;
    m_handle.Reset(create(IsNtPlatform() ? m_securityAttributes.Get() : nullptr, m_name.empty() ? nullptr : m_name.c_str()));
    const DWORD error = ::GetLastError();
    if (m_handle && error == ERROR_ALREADY_EXISTS) {
        m_alreadyExisted = true;
        DebugLog(m_class, 2,
                 "Internel Create%s call was successful, but indicated that a handle to an already existing named object was returned.",
                 m_kind);
    }
    if (!m_handle)
        TARN_MT_LOG_WIN32_ERROR(m_class, 0, error, "Internel Create%s call failed.", m_kind);
    return static_cast<bool>(m_handle);
}

} // namespace TarnMT
