#include "TargetProcess.h"

#include <psapi.h>

namespace TarnGrant {
namespace {

std::wstring FromAnsi(const char* text, DWORD length)
{
    if (length == 0)
        return std::wstring();
    const int size = ::MultiByteToWideChar(CP_ACP, 0, text, static_cast<int>(length), nullptr, 0);
    std::wstring wide(static_cast<size_t>(size > 0 ? size : 0), L'\0');
    if (size > 0)
        ::MultiByteToWideChar(CP_ACP, 0, text, static_cast<int>(length), &wide[0], size);
    return wide;
}

} // namespace

TargetProcess::TargetProcess(DWORD pid) : m_pid(pid)
{
    if (pid == 0)
        return;  // the idle process: never a host
    m_handle.Reset(::OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION | PROCESS_VM_READ | SYNCHRONIZE, FALSE, pid));
    if (!m_handle)
        m_handle.Reset(::OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION | SYNCHRONIZE, FALSE, pid));
    if (!m_handle) {
        m_state = ::GetLastError() == ERROR_ACCESS_DENIED ? State::AccessDenied : State::NotFound;
        return;
    }
    m_state = HasEnded() ? State::Ended : State::Running;
}

bool TargetProcess::HasEnded() const
{
    if (!m_handle)
        return true;
    DWORD code = 0;
    return ::WaitForSingleObject(m_handle.Get(), 0) == WAIT_OBJECT_0 ||
           (::GetExitCodeProcess(m_handle.Get(), &code) && code != STILL_ACTIVE);
}

std::wstring TargetProcess::ModulePath() const
{
    if (!m_handle)
        return std::wstring();
    // The loader's own record of the main module is what GetModuleFileNameA answers inside
    // the process, letter case and drive letter included (Wine keeps the drive letter as
    // the process was started with, "z:\..." or "Z:\...").
    char path[MAX_PATH + 1] = {};
    DWORD length = ::GetModuleFileNameExA(m_handle.Get(), nullptr, path, MAX_PATH + 1);
    if (length > 0 && length <= MAX_PATH)
        return FromAnsi(path, length);
    // A process created suspended has no loader record yet; the image name is the same
    // path, possibly differing in the drive letter's case, which matching ignores.
    char image[1100] = {};
    DWORD size = sizeof image;
    if (::QueryFullProcessImageNameA(m_handle.Get(), 0, image, &size) && size > 0)
        return FromAnsi(image, size);
    return std::wstring();
}

} // namespace TarnGrant
