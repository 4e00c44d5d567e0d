#pragma once
// A page for a control created directly in the test process: the site answers
// SID_SWebBrowserApp with a browser whose location is the page URL, and, when asked to,
// offers the platform's own security manager the way a browser offers its zone mapping.
// Only get_LocationURL is needed by the control; the rest of IWebBrowser2 is not served.

#include "TarnSM/win/CTarnSM.h"

#include <exdisp.h>
#include <servprov.h>
#include <shlguid.h>
#include <urlmon.h>
#include <wrl/client.h>

#include <atomic>
#include <string>

namespace DownloadTest {

using Microsoft::WRL::ComPtr;

class TestPageSite final : public IServiceProvider, public IWebBrowser2 {
public:
    static ComPtr<TestPageSite> Create(const std::wstring& locationUrl, bool offerSecurityManager = false)
    {
        ComPtr<TestPageSite> site;
        site.Attach(new TestPageSite(locationUrl));
        if (offerSecurityManager)
            ::CoInternetCreateSecurityManager(nullptr, &site->m_securityManager, 0);
        return site;
    }

    IUnknown* Unknown() { return static_cast<IServiceProvider*>(this); }

    // IUnknown
    STDMETHODIMP QueryInterface(REFIID iid, void** object) override
    {
        if (object == nullptr)
            return E_POINTER;
        *object = nullptr;
        if (iid == IID_IUnknown || iid == IID_IServiceProvider)
            *object = static_cast<IServiceProvider*>(this);
        else if (iid == IID_IDispatch || iid == IID_IWebBrowser || iid == IID_IWebBrowserApp || iid == IID_IWebBrowser2)
            *object = static_cast<IWebBrowser2*>(this);
        else
            return E_NOINTERFACE;
        AddRef();
        return S_OK;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return ++m_references; }
    STDMETHODIMP_(ULONG) Release() override
    {
        const ULONG left = --m_references;
        if (left == 0)
            delete this;
        return left;
    }

    // IServiceProvider
    STDMETHODIMP QueryService(REFGUID service, REFIID iid, void** object) override
    {
        if (object == nullptr)
            return E_POINTER;
        *object = nullptr;
        if (service == SID_SWebBrowserApp)
            return static_cast<IWebBrowser2*>(this)->QueryInterface(iid, object);
        if (service == IID_IInternetSecurityManager && m_securityManager)
            return m_securityManager->QueryInterface(iid, object);
        return E_NOINTERFACE;
    }

    // The one browser property the control reads.
    STDMETHODIMP get_LocationURL(BSTR* url) override
    {
        if (url == nullptr)
            return E_POINTER;
        *url = ::SysAllocStringLen(m_location.data(), static_cast<UINT>(m_location.size()));
        return *url ? S_OK : E_OUTOFMEMORY;
    }

#define TARN_NOT_SERVED(name, ...) \
    STDMETHODIMP name(__VA_ARGS__) override { return E_NOTIMPL; }
    TARN_NOT_SERVED(GetTypeInfoCount, UINT*)
    TARN_NOT_SERVED(GetTypeInfo, UINT, LCID, ITypeInfo**)
    TARN_NOT_SERVED(GetIDsOfNames, REFIID, LPOLESTR*, UINT, LCID, DISPID*)
    TARN_NOT_SERVED(Invoke, DISPID, REFIID, LCID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*, UINT*)
    TARN_NOT_SERVED(GoBack)
    TARN_NOT_SERVED(GoForward)
    TARN_NOT_SERVED(GoHome)
    TARN_NOT_SERVED(GoSearch)
    TARN_NOT_SERVED(Navigate, BSTR, VARIANT*, VARIANT*, VARIANT*, VARIANT*)
    TARN_NOT_SERVED(Refresh)
    TARN_NOT_SERVED(Refresh2, VARIANT*)
    TARN_NOT_SERVED(Stop)
    TARN_NOT_SERVED(get_Application, IDispatch**)
    TARN_NOT_SERVED(get_Parent, IDispatch**)
    TARN_NOT_SERVED(get_Container, IDispatch**)
    TARN_NOT_SERVED(get_Document, IDispatch**)
    TARN_NOT_SERVED(get_TopLevelContainer, VARIANT_BOOL*)
    TARN_NOT_SERVED(get_Type, BSTR*)
    TARN_NOT_SERVED(get_Left, LONG*)
    TARN_NOT_SERVED(put_Left, LONG)
    TARN_NOT_SERVED(get_Top, LONG*)
    TARN_NOT_SERVED(put_Top, LONG)
    TARN_NOT_SERVED(get_Width, LONG*)
    TARN_NOT_SERVED(put_Width, LONG)
    TARN_NOT_SERVED(get_Height, LONG*)
    TARN_NOT_SERVED(put_Height, LONG)
    TARN_NOT_SERVED(get_LocationName, BSTR*)
    TARN_NOT_SERVED(get_Busy, VARIANT_BOOL*)
    TARN_NOT_SERVED(Quit)
    TARN_NOT_SERVED(ClientToWindow, int*, int*)
    TARN_NOT_SERVED(PutProperty, BSTR, VARIANT)
    TARN_NOT_SERVED(GetProperty, BSTR, VARIANT*)
    TARN_NOT_SERVED(get_Name, BSTR*)
    TARN_NOT_SERVED(get_HWND, SHANDLE_PTR*)
    TARN_NOT_SERVED(get_FullName, BSTR*)
    TARN_NOT_SERVED(get_Path, BSTR*)
    TARN_NOT_SERVED(get_Visible, VARIANT_BOOL*)
    TARN_NOT_SERVED(put_Visible, VARIANT_BOOL)
    TARN_NOT_SERVED(get_StatusBar, VARIANT_BOOL*)
    TARN_NOT_SERVED(put_StatusBar, VARIANT_BOOL)
    TARN_NOT_SERVED(get_StatusText, BSTR*)
    TARN_NOT_SERVED(put_StatusText, BSTR)
    TARN_NOT_SERVED(get_ToolBar, int*)
    TARN_NOT_SERVED(put_ToolBar, int)
    TARN_NOT_SERVED(get_MenuBar, VARIANT_BOOL*)
    TARN_NOT_SERVED(put_MenuBar, VARIANT_BOOL)
    TARN_NOT_SERVED(get_FullScreen, VARIANT_BOOL*)
    TARN_NOT_SERVED(put_FullScreen, VARIANT_BOOL)
    TARN_NOT_SERVED(Navigate2, VARIANT*, VARIANT*, VARIANT*, VARIANT*, VARIANT*)
    TARN_NOT_SERVED(QueryStatusWB, OLECMDID, OLECMDF*)
    TARN_NOT_SERVED(ExecWB, OLECMDID, OLECMDEXECOPT, VARIANT*, VARIANT*)
    TARN_NOT_SERVED(ShowBrowserBar, VARIANT*, VARIANT*, VARIANT*)
    TARN_NOT_SERVED(get_ReadyState, READYSTATE*)
    TARN_NOT_SERVED(get_Offline, VARIANT_BOOL*)
    TARN_NOT_SERVED(put_Offline, VARIANT_BOOL)
    TARN_NOT_SERVED(get_Silent, VARIANT_BOOL*)
    TARN_NOT_SERVED(put_Silent, VARIANT_BOOL)
    TARN_NOT_SERVED(get_RegisterAsBrowser, VARIANT_BOOL*)
    TARN_NOT_SERVED(put_RegisterAsBrowser, VARIANT_BOOL)
    TARN_NOT_SERVED(get_RegisterAsDropTarget, VARIANT_BOOL*)
    TARN_NOT_SERVED(put_RegisterAsDropTarget, VARIANT_BOOL)
    TARN_NOT_SERVED(get_TheaterMode, VARIANT_BOOL*)
    TARN_NOT_SERVED(put_TheaterMode, VARIANT_BOOL)
    TARN_NOT_SERVED(get_AddressBar, VARIANT_BOOL*)
    TARN_NOT_SERVED(put_AddressBar, VARIANT_BOOL)
    TARN_NOT_SERVED(get_Resizable, VARIANT_BOOL*)
    TARN_NOT_SERVED(put_Resizable, VARIANT_BOOL)
#undef TARN_NOT_SERVED

private:
    explicit TestPageSite(std::wstring location) : m_location(std::move(location)) {}
    ~TestPageSite() = default;

    std::atomic<ULONG> m_references{1};
    std::wstring m_location;
    ComPtr<IInternetSecurityManager> m_securityManager;
};

// A control made the way the class factory makes it, owned by the test.
inline ComPtr<TarnSMX::CTarnSM> NewControl()
{
    ComPtr<TarnSMX::CTarnSM> control;
    control.Attach(new TarnSMX::CTarnSM());
    return control;
}

struct ComApartment {
    ComApartment() { m_result = ::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED); }
    ~ComApartment()
    {
        if (SUCCEEDED(m_result))
            ::CoUninitialize();
    }
    ComApartment(const ComApartment&) = delete;
    ComApartment& operator=(const ComApartment&) = delete;
    HRESULT m_result;
};

} // namespace DownloadTest
