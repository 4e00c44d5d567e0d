#include "TarnSM/win/CTarnSM.h"

#include "TarnSM/win/ControlIdentity.h"
#include "TarnSM/win/Module.h"
#include "TarnSM/win/ScriptBoundary.h"
#include "TarnSM/win/SiteCache.h"
#include "TarnSM/win/VendorId.h"
#include "TarnMT/win/CriticalSection.h"
#include "TarnUtils/win/StringConvert.h"

#include <new>

namespace TarnSMX {
namespace {

// The type information of ITarnSM, loaded once from this module's own resources.
HRESULT InterfaceTypeInfo(ITypeInfo** info)
{
    static TarnMT::CriticalSection lock;
    static ITypeInfo* cached = nullptr;
    TarnMT::AutoCriticalSection guard(&lock);
    if (cached == nullptr) {
        Microsoft::WRL::ComPtr<ITypeLib> library;
        HRESULT hr = ::LoadTypeLibEx(ModulePath().c_str(), REGKIND_NONE, &library);
        if (FAILED(hr))
            return hr;
        hr = library->GetTypeInfoOfGuid(kIidITarnSM, &cached);
        if (FAILED(hr))
            return hr;
    }
    cached->AddRef();
    *info = cached;
    return S_OK;
}

BSTR CopyBstrOrThrow(const wchar_t* text, UINT length)
{
    BSTR copy = ::SysAllocStringLen(text, length);
    if (copy == nullptr)
        throw ComError(E_OUTOFMEMORY);
    return copy;
}

} // namespace

CTarnSM::CTarnSM()
{
    AddObjectReference();
}

CTarnSM::~CTarnSM()
{
    ReleaseObjectReference();
}

STDMETHODIMP CTarnSM::QueryInterface(REFIID iid, void** object)
{
    if (object == nullptr)
        return E_POINTER;
    *object = nullptr;
    if (::IsEqualIID(iid, IID_IUnknown) || ::IsEqualIID(iid, IID_IDispatch) || ::IsEqualIID(iid, kIidITarnSM))
        *object = static_cast<ITarnSM*>(this);
    else if (::IsEqualIID(iid, IID_IPersistPropertyBag) || ::IsEqualIID(iid, IID_IPersist))
        *object = static_cast<IPersistPropertyBag*>(this);
    else if (::IsEqualIID(iid, IID_IObjectSafety))
        *object = static_cast<IObjectSafety*>(this);
    else if (::IsEqualIID(iid, IID_IObjectWithSite))
        *object = static_cast<IObjectWithSite*>(this);
    else if (::IsEqualIID(iid, IID_ISupportErrorInfo))
        *object = static_cast<ISupportErrorInfo*>(this);
    else
        return E_NOINTERFACE;
    AddRef();
    return S_OK;
}

STDMETHODIMP CTarnSM::GetTypeInfoCount(UINT* count)
{
    if (count == nullptr)
        return E_POINTER;
    *count = 1;
    return S_OK;
}

STDMETHODIMP CTarnSM::GetTypeInfo(UINT index, LCID, ITypeInfo** info)
{
    if (info == nullptr)
        return E_POINTER;
    *info = nullptr;
    if (index != 0)
        return DISP_E_BADINDEX;
    return InterfaceTypeInfo(info);
}

STDMETHODIMP CTarnSM::GetIDsOfNames(REFIID iid, LPOLESTR* names, UINT count, LCID, DISPID* ids)
{
    if (!::IsEqualIID(iid, IID_NULL))
        return DISP_E_UNKNOWNINTERFACE;
    Microsoft::WRL::ComPtr<ITypeInfo> info;
    const HRESULT hr = InterfaceTypeInfo(&info);
    return FAILED(hr) ? hr : info->GetIDsOfNames(names, count, ids);
}

STDMETHODIMP CTarnSM::Invoke(DISPID id, REFIID iid, LCID, WORD flags, DISPPARAMS* params, VARIANT* result,
                             EXCEPINFO* exception, UINT* argError)
{
    if (!::IsEqualIID(iid, IID_NULL))
        return DISP_E_UNKNOWNINTERFACE;
    // Script engines pass null as VT_NULL, which no BSTR parameter accepts; a page clearing
    // a property with null means "no value", so it is stored as a null string.
    if ((flags & DISPATCH_PROPERTYPUT) != 0 && params != nullptr && params->cArgs == 1 &&
        (V_VT(&params->rgvarg[0]) == VT_NULL || V_VT(&params->rgvarg[0]) == VT_EMPTY)) {
        if (id == 1)
            return put_TrustedSiteDataFileURL(nullptr);
        if (id == 2)
            return put_VendorID(nullptr);
    }
    Microsoft::WRL::ComPtr<ITypeInfo> info;
    const HRESULT hr = InterfaceTypeInfo(&info);
    if (FAILED(hr))
        return hr;
    return info->Invoke(static_cast<ITarnSM*>(this), id, flags, params, result, exception, argError);
}

void CTarnSM::SetTrustDataFileURL(const wchar_t* value)
{
    m_trustDataFileUrl.Reset(value == nullptr ? nullptr : CopyBstrOrThrow(value, static_cast<UINT>(wcslen(value))));
}

STDMETHODIMP CTarnSM::put_TrustedSiteDataFileURL(BSTR value)
{
    return RunGuarded("put_TrustedSiteDataFileURL", [&] {
        if (value != m_trustDataFileUrl.Get())
            m_trustDataFileUrl.Reset(value == nullptr ? nullptr : CopyBstrOrThrow(value, ::SysStringLen(value)));
        std::string pageUrl;
        DWORD zone = 0;
        if (GetCurrentSiteURLAndZone(pageUrl, zone))
            CacheTrustDataFileURL(*this, pageUrl, true);
        return S_OK;
    });
}

STDMETHODIMP CTarnSM::get_TrustedSiteDataFileURL(BSTR* p_pbstrTrustSiteURL)
{
    return RunGuarded("get_TrustedSiteDataFileURL", [&] {
        CheckOutputPointer("get_TrustedSiteDataFileURL", p_pbstrTrustSiteURL);
        BSTR stored = m_trustDataFileUrl.Get();
        *p_pbstrTrustSiteURL = stored == nullptr ? nullptr : CopyBstrOrThrow(stored, ::SysStringLen(stored));
        return S_OK;
    });
}

STDMETHODIMP CTarnSM::put_VendorID(BSTR value)
{
    return RunGuarded("put_VendorID", [&] {
        // Text outside the ANSI code page is kept as a vendor that names no key: the page
        // gets the unknown-vendor fallback, not an error.
        SetVendorIdText(value == nullptr ? std::wstring() : std::wstring(value, ::SysStringLen(value)));
        return S_OK;
    });
}

STDMETHODIMP CTarnSM::get_VendorID(BSTR* p_pbstrVendorID)
{
    return RunGuarded("get_VendorID", [&] {
        CheckOutputPointer("get_VendorID", p_pbstrVendorID);
        const std::wstring wide = GetVendorIdText();
        *p_pbstrVendorID = CopyBstrOrThrow(wide.c_str(), static_cast<UINT>(wide.size()));
        return S_OK;
    });
}

template <typename Fn>
HRESULT CTarnSM::AnswerBoolean(const char* operation, VARIANT_BOOL* output, Fn decide)
{
    return RunGuarded(operation, [&] {
        CheckOutputPointer(operation, output);
        *output = VARIANT_FALSE;
        if (decide())
            *output = VARIANT_TRUE;
        return S_OK;
    });
}

STDMETHODIMP CTarnSM::IsCurrentSiteAvailable(VARIANT_BOOL* p_pfResult)
{
    return AnswerBoolean("IsCurrentSiteAvailable", p_pfResult, [&] { return IsCurrentSiteAvailableInternal(); });
}

STDMETHODIMP CTarnSM::IsCurrentSiteLocal(VARIANT_BOOL* p_pfResult)
{
    return AnswerBoolean("IsCurrentSiteLocal", p_pfResult, [&] { return IsCurrentSiteLocalInternal(); });
}

STDMETHODIMP CTarnSM::IsCurrentSiteTrusted(VARIANT_BOOL* p_pfResult)
{
    return AnswerBoolean("IsCurrentSiteTrusted", p_pfResult, [&] { return IsCurrentSiteTrustedInternal(); });
}

STDMETHODIMP CTarnSM::IsCurrentContainerTrusted(BSTR AltTrustList, VARIANT_BOOL* p_pfResult)
{
    return RunGuarded("IsCurrentContainerTrusted", [&] {
        CheckOutputPointer("IsCurrentContainerTrusted", p_pfResult);
        const std::string altTrustList = TarnUtils::BstrToAnsi(AltTrustList);
        *p_pfResult = VARIANT_FALSE;
        if (IsCurrentContainerTrustedInternal(altTrustList))
            *p_pfResult = VARIANT_TRUE;
        return S_OK;
    });
}

STDMETHODIMP CTarnSM::IsSiteTrusted(BSTR, VARIANT_BOOL* p_pfResult)
{
    return RunGuarded("IsSiteTrusted", [&] {
        CheckOutputPointer("IsSiteTrusted", p_pfResult);
        *p_pfResult = VARIANT_FALSE;
        TarnLog::Log(kControlClass, 1, "IsSiteTrusted: Not implemented.");
        return E_NOTIMPL;
    });
}

STDMETHODIMP CTarnSM::IsContainerTrusted(BSTR, BSTR, VARIANT_BOOL* p_pfResult)
{
    return RunGuarded("IsContainerTrusted", [&] {
        CheckOutputPointer("IsContainerTrusted", p_pfResult);
        *p_pfResult = VARIANT_FALSE;
        // The same text as IsSiteTrusted on purpose: log readers search for this one line.
        TarnLog::Log(kControlClass, 1, "IsSiteTrusted: Not implemented.");
        return E_NOTIMPL;
    });
}

} // namespace TarnSMX
