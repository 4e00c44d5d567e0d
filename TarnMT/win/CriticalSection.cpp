#include "TarnMT/win/CriticalSection.h"

#include "TarnBase/Exceptions.h"
#include "TarnMT/DebugLine.h"

namespace TarnMT {
namespace {
const char kClass[] = "TarnMT::CriticalSection";
const char kAutoClass[] = "TarnMT::AutoCriticalSection";
const char kSource[] = "CriticalSection";
} // namespace

CriticalSection::CriticalSection() noexcept
{
    m_initialized = ::InitializeCriticalSectionAndSpinCount(&m_section, 0) != FALSE;
}

CriticalSection::~CriticalSection()
{
    if (m_initialized)
        ::DeleteCriticalSection(&m_section);
}

void CriticalSection::Enter()
{
    if (!m_initialized)
        TARN_MT_THROW(kClass, kSource, TarnBase::OutOfMemoryException);
    // Since Windows XP EnterCriticalSection no longer raises on low memory, so there is no
    // structured exception left to translate here.
    ::EnterCriticalSection(&m_section);
}

void CriticalSection::Leave()
{
    if (!m_initialized)
        TARN_MT_THROW(kClass, kSource, TarnBase::OutOfMemoryException);
    ::LeaveCriticalSection(&m_section);
}

AutoCriticalSection::AutoCriticalSection(CriticalSection* section) : m_section(section)
{
    if (m_section == nullptr)
        TARN_MT_THROW(kAutoClass, kSource, TarnBase::InvalidObjectException);
    try {
        m_section->Enter();
    } catch (...) {
        TARN_MT_THROW(kAutoClass, kSource, TarnBase::InvalidObjectException);
    }
}

AutoCriticalSection::~AutoCriticalSection()
{
    try {
        m_section->Leave();
    } catch (...) {
        TARN_LOG_UNKNOWN_EXCEPTION(DebugLog, kAutoClass, kSource, __LINE__);
    }
}

} // namespace TarnMT
