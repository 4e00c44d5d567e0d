#pragma once

#include "TarnSMX_h.h"
#include "TarnBase/win/ComObject.h"
#include "TarnBase/win/Owners.h"

#include <objsafe.h>
#include <ocidl.h>
#include <wrl/client.h>

#include <atomic>
#include <string>

namespace TarnSMX {

// The scriptable trust control. Each scripted operation is a thin wrapper around one
// internal decision member; every failure inside becomes a logged "false" or E_FAIL.
class CTarnSM : public TarnBase::ComObject<ITarnSM, IPersistPropertyBag, IObjectSafety, IObjectWithSite,
                                           ISupportErrorInfo> {
public:
    CTarnSM();
    ~CTarnSM() override;

    // IUnknown (AddRef and Release come from ComObject)
    STDMETHODIMP QueryInterface(REFIID iid, void** object) override;

    // IDispatch, driven by the embedded type library
    STDMETHODIMP GetTypeInfoCount(UINT* count) override;
    STDMETHODIMP GetTypeInfo(UINT index, LCID lcid, ITypeInfo** info) override;
    STDMETHODIMP GetIDsOfNames(REFIID iid, LPOLESTR* names, UINT count, LCID lcid, DISPID* ids) override;
    STDMETHODIMP Invoke(DISPID id, REFIID iid, LCID lcid, WORD flags, DISPPARAMS* params, VARIANT* result,
                        EXCEPINFO* exception, UINT* argError) override;

    // ITarnSM
    STDMETHODIMP put_TrustedSiteDataFileURL(BSTR value) override;
    STDMETHODIMP get_TrustedSiteDataFileURL(BSTR* p_pbstrTrustSiteURL) override;
    STDMETHODIMP put_VendorID(BSTR value) override;
    STDMETHODIMP get_VendorID(BSTR* p_pbstrVendorID) override;
    STDMETHODIMP IsCurrentSiteAvailable(VARIANT_BOOL* p_pfResult) override;
    STDMETHODIMP IsCurrentSiteLocal(VARIANT_BOOL* p_pfResult) override;
    STDMETHODIMP IsCurrentSiteTrusted(VARIANT_BOOL* p_pfResult) override;
    STDMETHODIMP IsCurrentContainerTrusted(BSTR AltTrustList, VARIANT_BOOL* p_pfResult) override;
    STDMETHODIMP IsSiteTrusted(BSTR Site, VARIANT_BOOL* p_pfResult) override;
    STDMETHODIMP IsContainerTrusted(BSTR AltTrustList, BSTR Container, VARIANT_BOOL* p_pfResult) override;

    // IPersist / IPersistPropertyBag
    STDMETHODIMP GetClassID(CLSID* clsid) override;
    STDMETHODIMP InitNew() override;
    STDMETHODIMP Load(IPropertyBag* bag, IErrorLog* errorLog) override;
    STDMETHODIMP Save(IPropertyBag* bag, BOOL clearDirty, BOOL saveAll) override;

    // IObjectSafety
    STDMETHODIMP GetInterfaceSafetyOptions(REFIID iid, DWORD* supported, DWORD* enabled) override;
    STDMETHODIMP SetInterfaceSafetyOptions(REFIID iid, DWORD mask, DWORD enabled) override;

    // IObjectWithSite
    STDMETHODIMP SetSite(IUnknown* site) override;
    STDMETHODIMP GetSite(REFIID iid, void** site) override;

    // ISupportErrorInfo
    STDMETHODIMP InterfaceSupportsErrorInfo(REFIID iid) override;

    // Decision members behind the scripted methods.
    bool IsCurrentSiteAvailableInternal();
    bool IsCurrentSiteLocalInternal();
    bool IsCurrentSiteTrustedInternal();
    bool IsCurrentContainerTrustedInternal(const std::string& altTrustList);

    // Site discovery: what the hosting browser says about the page.
    // `unreadable` (when given) is set when the browser told the page's location but the
    // URL or its zone cannot be read: there is a page, only not one the control can judge.
    bool GetCurrentSiteURLAndZone(std::string& url, DWORD& zone, bool* unreadable = nullptr);
    bool GetCurrentSiteAvailableAndLocal(bool& available, bool& local, bool& unreadable);
    bool GetCurrentSiteDomainAndScheme(std::string& domain, std::string& scheme);

    // The TrustedSiteDataFileURL property as stored (may be null).
    BSTR TrustDataFileURL() const { return m_trustDataFileUrl.Get(); }
    void SetTrustDataFileURL(const wchar_t* value);

private:
    template <typename Fn>
    HRESULT AnswerBoolean(const char* operation, VARIANT_BOOL* output, Fn decide);

    Microsoft::WRL::ComPtr<IUnknown> m_site;  // the container's site: the way to the browser and its page
    // What the container enabled, only reported back: the control behaves the same either way.
    DWORD m_safetyOptions = 0;
    TarnBase::UniqueBstr m_trustDataFileUrl;
};

} // namespace TarnSMX
