#include "TarnSM/win/ScriptBoundary.h"

#include "TarnBase/ResultLog.h"
#include "TarnBase/Throw.h"
#include "TarnBase/win/Owners.h"
#include "TarnSM/win/ControlIdentity.h"

#include <wrl/client.h>

#include <oleauto.h>

namespace TarnSMX {

const char kControlClass[] = "TarnSMX::TarnSM";
const char kControlSource[] = ".\\TarnSM";

void SetScriptError(const wchar_t* description, HRESULT result)
{
    (void)result;  // the caller always sees E_FAIL; the description tells the cases apart
    Microsoft::WRL::ComPtr<ICreateErrorInfo> create;
    if (FAILED(::CreateErrorInfo(&create)))
        return;
    create->SetGUID(GUID_NULL);
    TarnBase::UniqueCoTaskMem<OLECHAR> progId;
    if (SUCCEEDED(::ProgIDFromCLSID(kClsidTarnSM, progId.Put()))) {
        create->SetSource(progId.Get());
    } else {
        create->SetSource(const_cast<LPOLESTR>(kProgId));
    }
    create->SetDescription(const_cast<LPOLESTR>(description));
    Microsoft::WRL::ComPtr<IErrorInfo> info;
    if (SUCCEEDED(create.As(&info)))
        ::SetErrorInfo(0, info.Get());
}

void CheckOutputPointer(const char* operation, const void* output)
{
    if (output != nullptr && !::IsBadCodePtr(reinterpret_cast<FARPROC>(const_cast<void*>(output))))
        return;
    TarnLog::Log(kControlClass, 1, "%s():  Error - Invalid Return Parameter.", operation);
    TARN_THROW(kControlClass, kControlSource, TarnBase::NullPointerException);
}

void LogBaseException(const char* operation, const TarnBase::BaseException& e)
{
    const std::wstring id = e.GetErrorId();
    const std::string extended = e.GetExtendedData();
    TarnLog::Log(kControlClass, 1, "%s():  Exception - %S.  Extended Data = <%s>", operation, id.c_str(),
                 extended.c_str());
    SetScriptError(id.c_str(), E_FAIL);
}

void LogUnknownException(const char* operation, int line)
{
    TarnLog::Log(kControlClass, 4, "%s():  Exception - Unknown.", operation);
    TARN_LOG_UNKNOWN_EXCEPTION(TarnLog::Log, kControlClass, kControlSource, line);
    SetScriptError(L"UNKNOWN_EXCEPTION_ERROR", E_FAIL);
}

} // namespace TarnSMX
