#pragma once
// Where exceptions stop: every scripted operation runs through RunGuarded, which turns any
// exception into E_FAIL with error information, so nothing escapes into the host.

#include "TarnBase/Exceptions.h"
#include "TarnLog/Log.h"

#include <windows.h>

namespace TarnSMX {

extern const char kControlClass[];   // "TarnSMX::TarnSM"
extern const char kControlSource[];  // ".\TarnSM"

// A platform status code raised as an exception (out of memory while copying a string).
class ComError {
public:
    explicit ComError(HRESULT result) : m_result(result) {}
    HRESULT Result() const { return m_result; }

private:
    HRESULT m_result;
};

// Sets the thread's error information: source "TarnSM.TarnSM.1", the given description.
void SetScriptError(const wchar_t* description, HRESULT result);

// Rejects a null or unreadable output pointer with the "Invalid Return Parameter." record
// and a NullPointerException.
void CheckOutputPointer(const char* operation, const void* output);

void LogBaseException(const char* operation, const TarnBase::BaseException& e);
void LogUnknownException(const char* operation, int line);

template <typename Body>
HRESULT RunGuarded(const char* operation, Body&& body) noexcept
{
    try {
        return body();
    } catch (const ComError& e) {
        TarnLog::Log(kControlClass, 1, "%s():  Exception - Unknown.", operation);
        SetScriptError(L"ATL_ERROR", e.Result());
    } catch (const TarnBase::BaseException& e) {
        LogBaseException(operation, e);
    } catch (...) {
        LogUnknownException(operation, __LINE__);
    }
    return E_FAIL;
}

} // namespace TarnSMX
