#include "TarnLog/win/LowIntegrity.h"

#include "TarnBase/KernelObjectName.h"
#include "TarnBase/win/Handle.h"

#include <aclapi.h>

namespace TarnLog {
namespace {

using InitializeAclFn = BOOL(WINAPI*)(PACL, DWORD, DWORD);
using AddMandatoryAceFn = BOOL(WINAPI*)(PACL, DWORD, DWORD, DWORD, PSID);
using SetSecurityInfoFn = DWORD(WINAPI*)(HANDLE, SE_OBJECT_TYPE, SECURITY_INFORMATION, PSID, PSID, PACL, PACL);
using SetNamedSecurityInfoFn = DWORD(WINAPI*)(LPSTR, SE_OBJECT_TYPE, SECURITY_INFORMATION, PSID, PSID, PACL, PACL);

bool HasIntegrityLevels()
{
    TarnBase::OsVersion os;
    return TarnBase::QueryOsVersion(os) && os.platformId == VER_PLATFORM_WIN32_NT && os.major >= 6;
}

template <typename Apply>
void WithLowLabel(Apply apply)
{
    if (!HasIntegrityLevels())
        return;
    TarnBase::UniqueModule advapi(::LoadLibraryA("AdvApi32.dll"));
    if (!advapi)
        return;
    auto initializeAcl = reinterpret_cast<InitializeAclFn>(::GetProcAddress(advapi.Get(), "InitializeAcl"));
    auto addMandatoryAce = reinterpret_cast<AddMandatoryAceFn>(::GetProcAddress(advapi.Get(), "AddMandatoryAce"));
    auto setSecurityInfo = reinterpret_cast<SetSecurityInfoFn>(::GetProcAddress(advapi.Get(), "SetSecurityInfo"));
    auto setNamed = reinterpret_cast<SetNamedSecurityInfoFn>(::GetProcAddress(advapi.Get(), "SetNamedSecurityInfoA"));
    if (!initializeAcl || !addMandatoryAce || !setSecurityInfo || !setNamed)
        return;

    // S-1-16-4096: the low mandatory level.
    SID_IDENTIFIER_AUTHORITY authority = {{0, 0, 0, 0, 0, 16}};
    BYTE sidBuffer[SECURITY_MAX_SID_SIZE] = {};
    PSID sid = sidBuffer;
    if (!::InitializeSid(sid, &authority, 1))
        return;
    *::GetSidSubAuthority(sid, 0) = 4096;

    alignas(DWORD) BYTE aclBuffer[64] = {};
    PACL acl = reinterpret_cast<PACL>(aclBuffer);
    if (!initializeAcl(acl, sizeof aclBuffer, ACL_REVISION) || !addMandatoryAce(acl, ACL_REVISION, 0, 0, sid))
        return;
    apply(setSecurityInfo, setNamed, acl);
}

} // namespace

void ApplyLowIntegrityLabel(HANDLE object, SE_OBJECT_TYPE type)
{
    if (object == nullptr || object == INVALID_HANDLE_VALUE)
        return;
    WithLowLabel([object, type](SetSecurityInfoFn setSecurityInfo, SetNamedSecurityInfoFn, PACL acl) {
        setSecurityInfo(object, type, LABEL_SECURITY_INFORMATION, nullptr, nullptr, nullptr, acl);
    });
}

} // namespace TarnLog
