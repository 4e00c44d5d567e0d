#include "Control.h"

#include "HostError.h"

#include <objsafe.h>

#include <utility>

namespace TarnHost {
namespace {

using Microsoft::WRL::ComPtr;

// A control must declare itself safe for what the page will do with it; a browser with
// default settings refuses it otherwise.
void RequireSafety(IObjectSafety* safety, REFIID riid, const wchar_t* interfaceName, DWORD option,
                   const wchar_t* optionName, const std::wstring& who)
{
    DWORD supported = 0;
    DWORD enabled = 0;
    HRESULT hr = safety->GetInterfaceSafetyOptions(riid, &supported, &enabled);
    if (FAILED(hr))
        throw ComError(who + L": GetInterfaceSafetyOptions(" + interfaceName + L")", hr);
    if ((supported & option) != option)
        throw HostError{ExitComFailure, who + L": refused as unsafe: " + interfaceName + L" does not support " +
                                            optionName + L" (supported " + HexResult(static_cast<HRESULT>(supported)) +
                                            L")"};
    hr = safety->SetInterfaceSafetyOptions(riid, option, option);
    if (FAILED(hr))
        throw ComError(who + L": SetInterfaceSafetyOptions(" + interfaceName + L", " + optionName + L")", hr);
}

} // namespace

std::wstring ControlScriptName(int number)
{
    return number == 1 ? std::wstring(L"TarnSM") : L"TarnSM" + std::to_wstring(number);
}

Control CreateControl(const std::wstring& progId, int number, PropertyBag* params, IUnknown* site)
{
    const std::wstring who = L"control " + std::to_wstring(number) + L" (" + progId + L")";
    CLSID clsid{};
    HRESULT hr = ::CLSIDFromProgID(progId.c_str(), &clsid);
    if (FAILED(hr))
        throw ComError(who + L": CLSIDFromProgID", hr);
    ComPtr<IUnknown> object;
    hr = ::CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_IUnknown,
                            reinterpret_cast<void**>(object.GetAddressOf()));
    if (FAILED(hr))
        throw ComError(who + L": CoCreateInstance", hr);
    return InitializeControl(object, number, who, params, site);
}

Control InitializeControl(ComPtr<IUnknown> object, int number, const std::wstring& who, PropertyBag* params,
                          IUnknown* site)
{
    Control control;
    control.number = number;
    control.scriptName = ControlScriptName(number);
    control.object = std::move(object);

    ComPtr<IObjectSafety> safety;
    HRESULT hr = control.object->QueryInterface(IID_IObjectSafety, reinterpret_cast<void**>(safety.GetAddressOf()));
    if (FAILED(hr))
        throw ComError(who + L": refused as unsafe: QueryInterface(IObjectSafety)", hr);
    RequireSafety(safety.Get(), IID_IDispatch, L"IDispatch", INTERFACESAFE_FOR_UNTRUSTED_CALLER,
                  L"INTERFACESAFE_FOR_UNTRUSTED_CALLER", who);
    RequireSafety(safety.Get(), IID_IPersistPropertyBag, L"IPersistPropertyBag", INTERFACESAFE_FOR_UNTRUSTED_DATA,
                  L"INTERFACESAFE_FOR_UNTRUSTED_DATA", who);

    ComPtr<IPersistPropertyBag> persist;
    hr = control.object.As(&persist);
    if (SUCCEEDED(hr)) {
        hr = params ? persist->Load(params, nullptr) : persist->InitNew();
        if (FAILED(hr))
            throw ComError(who + (params ? L": IPersistPropertyBag::Load" : L": IPersistPropertyBag::InitNew"), hr);
    } else if (params) {
        // Parameters the control cannot take are a broken page, not something to skip.
        throw ComError(who + L": QueryInterface(IPersistPropertyBag)", hr);
    }

    hr = control.object.As(&control.dispatch);
    if (FAILED(hr))
        throw ComError(who + L": QueryInterface(IDispatch)", hr);

    if (site) {
        ComPtr<IObjectWithSite> withSite;
        if (SUCCEEDED(control.object.As(&withSite))) {
            hr = withSite->SetSite(site);
            if (FAILED(hr))
                throw ComError(who + L": IObjectWithSite::SetSite", hr);
            control.sited = withSite;
        }
    }
    return control;
}

void UnsiteControl(Control& control)
{
    if (control.sited) {
        control.sited->SetSite(nullptr);
        control.sited.Reset();
    }
}

} // namespace TarnHost
