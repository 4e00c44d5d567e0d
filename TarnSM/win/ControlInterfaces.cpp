// The interfaces a browser uses to site the control, initialise it from the page's
// parameters and ask whether it is safe for scripting.
#include "TarnSM/win/CTarnSM.h"

#include "TarnBase/win/Owners.h"
#include "TarnSM/win/ControlIdentity.h"
#include "TarnSM/win/ScriptBoundary.h"
#include "TarnSM/win/SiteCache.h"
#include "TarnSM/win/VendorId.h"

namespace TarnSMX {
namespace {

constexpr DWORD kSupportedSafety = INTERFACESAFE_FOR_UNTRUSTED_CALLER | INTERFACESAFE_FOR_UNTRUSTED_DATA;

struct Property {
    const wchar_t* name;
    HRESULT (STDMETHODCALLTYPE CTarnSM::*put)(BSTR);
};

// The page parameters the control reads, in the order it applies them.
const Property kPropertyMap[] = {
    {L"TrustedSiteDataFileURL", &CTarnSM::put_TrustedSiteDataFileURL},
    {L"VendorID", &CTarnSM::put_VendorID},
};

} // namespace

STDMETHODIMP CTarnSM::GetClassID(CLSID* clsid)
{
    if (clsid == nullptr)
        return E_POINTER;
    *clsid = kClsidTarnSM;
    return S_OK;
}

STDMETHODIMP CTarnSM::InitNew()
{
    return S_OK;
}

STDMETHODIMP CTarnSM::Load(IPropertyBag* bag, IErrorLog* errorLog)
{
    if (bag == nullptr)
        return E_POINTER;
    for (const Property& property : kPropertyMap) {
        TarnBase::UniqueVariant variant;
        V_VT(variant.Get()) = VT_BSTR;
        V_BSTR(variant.Get()) = nullptr;
        if (FAILED(bag->Read(property.name, variant.Get(), errorLog)))
            continue;  // the page did not give this parameter
        if (V_VT(variant.Get()) != VT_BSTR &&
            FAILED(::VariantChangeType(variant.Get(), variant.Get(), 0, VT_BSTR)))
            continue;
        const HRESULT hr = (this->*property.put)(V_BSTR(variant.Get()));
        if (FAILED(hr))
            return hr;
    }
    return S_OK;
}

// IPersistPropertyBag asks nobody whether the control is dirty, so no dirty flag is kept.
STDMETHODIMP CTarnSM::Save(IPropertyBag* bag, BOOL, BOOL)
{
    if (bag == nullptr)
        return E_POINTER;
    return RunGuarded("Save", [&] {
        TarnBase::UniqueVariant url;
        V_VT(url.Get()) = VT_BSTR;
        V_BSTR(url.Get()) = m_trustDataFileUrl.Get() ? ::SysAllocString(m_trustDataFileUrl.Get()) : nullptr;
        HRESULT hr = bag->Write(kPropertyMap[0].name, url.Get());
        if (FAILED(hr))
            return hr;
        TarnBase::UniqueVariant vendor;
        V_VT(vendor.Get()) = VT_BSTR;
        V_BSTR(vendor.Get()) = ::SysAllocString(GetVendorIdText().c_str());
        return bag->Write(kPropertyMap[1].name, vendor.Get());
    });
}

STDMETHODIMP CTarnSM::GetInterfaceSafetyOptions(REFIID iid, DWORD* supported, DWORD* enabled)
{
    if (supported == nullptr || enabled == nullptr)
        return E_POINTER;
    Microsoft::WRL::ComPtr<IUnknown> probe;
    const HRESULT hr = QueryInterface(iid, &probe);
    if (FAILED(hr)) {
        *supported = 0;
        *enabled = 0;
        return hr;
    }
    *supported = kSupportedSafety;
    *enabled = m_safetyOptions;
    return S_OK;
}

STDMETHODIMP CTarnSM::SetInterfaceSafetyOptions(REFIID iid, DWORD mask, DWORD enabled)
{
    Microsoft::WRL::ComPtr<IUnknown> probe;
    if (FAILED(QueryInterface(iid, &probe)))
        return E_NOINTERFACE;
    if ((mask & ~kSupportedSafety) != 0)
        return E_FAIL;
    m_safetyOptions = (m_safetyOptions & ~mask) | (enabled & mask);
    return S_OK;
}

STDMETHODIMP CTarnSM::SetSite(IUnknown* site)
{
    return RunGuarded("SetSite", [&] {
        m_site = site;
        std::string pageUrl;
        DWORD zone = 0;
        // The first control sited on a page with its property set claims the page's data file.
        if (GetCurrentSiteURLAndZone(pageUrl, zone))
            CacheTrustDataFileURL(*this, pageUrl, false);
        return S_OK;
    });
}

STDMETHODIMP CTarnSM::GetSite(REFIID iid, void** site)
{
    if (site == nullptr)
        return E_POINTER;
    *site = nullptr;
    if (!m_site)
        return E_FAIL;
    return m_site->QueryInterface(iid, site);
}

STDMETHODIMP CTarnSM::InterfaceSupportsErrorInfo(REFIID iid)
{
    return ::IsEqualIID(iid, kIidITarnSM) ? S_OK : S_FALSE;
}

} // namespace TarnSMX
