// The class's registration: ProgIDs, class key, application id and type library.
#include "TarnSM/win/ControlIdentity.h"
#include "TarnSM/win/Module.h"

#include "TarnBase/win/Handle.h"

#include <oleauto.h>
#include <olectl.h>
#include <windows.h>
#include <wrl/client.h>

#include <string>

namespace TarnSMX {
namespace {

std::wstring GuidText(const GUID& guid)
{
    wchar_t text[64] = {};
    ::StringFromGUID2(guid, text, 64);
    return text;
}

HRESULT SetValue(const std::wstring& keyPath, const wchar_t* valueName, const std::wstring& data)
{
    TarnBase::UniqueRegKey key;
    LONG result = ::RegCreateKeyExW(HKEY_CLASSES_ROOT, keyPath.c_str(), 0, nullptr, 0, KEY_WRITE, nullptr, key.Put(),
                                    nullptr);
    if (result == ERROR_SUCCESS)
        result = ::RegSetValueExW(key.Get(), valueName, 0, REG_SZ, reinterpret_cast<const BYTE*>(data.c_str()),
                                  static_cast<DWORD>((data.size() + 1) * sizeof(wchar_t)));
    return HRESULT_FROM_WIN32(result);
}

HRESULT CreateKey(const std::wstring& keyPath)
{
    TarnBase::UniqueRegKey key;
    return HRESULT_FROM_WIN32(
        ::RegCreateKeyExW(HKEY_CLASSES_ROOT, keyPath.c_str(), 0, nullptr, 0, KEY_WRITE, nullptr, key.Put(), nullptr));
}

void DeleteTree(const std::wstring& keyPath)
{
    ::RegDeleteTreeW(HKEY_CLASSES_ROOT, keyPath.c_str());
    ::RegDeleteKeyW(HKEY_CLASSES_ROOT, keyPath.c_str());
}

HRESULT WriteRegistration()
{
    const std::wstring clsid = GuidText(kClsidTarnSM);
    const std::wstring classKey = L"CLSID\\" + clsid;
    const std::wstring module = ModulePath();
    const std::wstring progId = kProgId;
    const std::wstring independent = kVersionIndependentProgId;

    const HRESULT steps[] = {
        SetValue(progId, nullptr, kClassDescription),
        SetValue(progId + L"\\CLSID", nullptr, clsid),
        SetValue(independent, nullptr, kClassDescription),
        SetValue(independent + L"\\CLSID", nullptr, clsid),
        SetValue(independent + L"\\CurVer", nullptr, progId),
        SetValue(classKey, nullptr, kClassDescription),
        SetValue(classKey, L"AppID", GuidText(kAppidTarnSMX)),
        SetValue(classKey + L"\\ProgID", nullptr, progId),
        SetValue(classKey + L"\\VersionIndependentProgID", nullptr, independent),
        CreateKey(classKey + L"\\Programmable"),
        SetValue(classKey + L"\\InprocServer32", nullptr, module),
        SetValue(classKey + L"\\InprocServer32", L"ThreadingModel", L"Apartment"),
        SetValue(classKey + L"\\TypeLib", nullptr, GuidText(LIBID_TarnSMLib)),
        SetValue(L"AppID\\" + GuidText(kAppidTarnSMX), nullptr, L"TarnSMX"),
    };
    for (HRESULT hr : steps)
        if (FAILED(hr))
            return hr;

    Microsoft::WRL::ComPtr<ITypeLib> library;
    return ::LoadTypeLibEx(module.c_str(), REGKIND_REGISTER, &library);
}

} // namespace
} // namespace TarnSMX

extern "C" HRESULT STDAPICALLTYPE DllRegisterServer()
{
    const HRESULT hr = TarnSMX::WriteRegistration();
    return FAILED(hr) ? SELFREG_E_CLASS : S_OK;
}

extern "C" HRESULT STDAPICALLTYPE DllUnregisterServer()
{
    using namespace TarnSMX;
#ifdef _WIN64
    constexpr SYSKIND kSysKind = SYS_WIN64;
#else
    constexpr SYSKIND kSysKind = SYS_WIN32;
#endif
    ::UnRegisterTypeLib(LIBID_TarnSMLib, TARN_TYPELIB_MAJOR, TARN_TYPELIB_MINOR, LANG_NEUTRAL, kSysKind);
    DeleteTree(L"CLSID\\" + GuidText(kClsidTarnSM));
    DeleteTree(kProgId);
    DeleteTree(kVersionIndependentProgId);
    DeleteTree(L"AppID\\" + GuidText(kAppidTarnSMX));
    return S_OK;
}
