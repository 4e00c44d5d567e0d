#include "TarnMT/win/SecurityAttributes.h"

namespace TarnMT {

SecurityAttributes::SecurityAttributes(const SECURITY_ATTRIBUTES* source)
{
    if (source == nullptr)
        return;
    m_present = true;
    m_inherit = source->bInheritHandle;
    auto* descriptor = static_cast<PSECURITY_DESCRIPTOR>(source->lpSecurityDescriptor);
    if (descriptor != nullptr && ::IsValidSecurityDescriptor(descriptor)) {
        SECURITY_DESCRIPTOR_CONTROL control = 0;
        DWORD revision = 0;
        ::GetSecurityDescriptorControl(descriptor, &control, &revision);
        if (control & SE_SELF_RELATIVE) {
            const DWORD length = ::GetSecurityDescriptorLength(descriptor);
            const auto* bytes = static_cast<const unsigned char*>(descriptor);
            m_descriptor.assign(bytes, bytes + length);
        } else {
            DWORD length = 0;
            ::MakeSelfRelativeSD(descriptor, nullptr, &length);
            m_descriptor.resize(length);
            if (length == 0 || !::MakeSelfRelativeSD(descriptor, m_descriptor.data(), &length))
                m_descriptor.clear();
        }
    }
    Point();
}

SecurityAttributes::SecurityAttributes(const SecurityAttributes& other)
    : m_present(other.m_present), m_inherit(other.m_inherit), m_descriptor(other.m_descriptor)
{
    Point();
}

SecurityAttributes& SecurityAttributes::operator=(const SecurityAttributes& other)
{
    m_present = other.m_present;
    m_inherit = other.m_inherit;
    m_descriptor = other.m_descriptor;
    Point();
    return *this;
}

SecurityAttributes SecurityAttributes::Everyone()
{
    SECURITY_DESCRIPTOR absolute{};
    SecurityAttributes result;
    if (::InitializeSecurityDescriptor(&absolute, SECURITY_DESCRIPTOR_REVISION) &&
        ::SetSecurityDescriptorDacl(&absolute, TRUE, nullptr, FALSE)) {
        SECURITY_ATTRIBUTES source{sizeof(SECURITY_ATTRIBUTES), &absolute, FALSE};
        result = SecurityAttributes(&source);
    }
    return result;
}

SECURITY_ATTRIBUTES* SecurityAttributes::Get()
{
    return m_present ? &m_attributes : nullptr;
}

void SecurityAttributes::Point()
{
    m_attributes.nLength = sizeof(SECURITY_ATTRIBUTES);
    m_attributes.bInheritHandle = m_inherit;
    m_attributes.lpSecurityDescriptor = m_descriptor.empty() ? nullptr : m_descriptor.data();
}

} // namespace TarnMT
