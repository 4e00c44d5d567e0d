#pragma once
// The page's browser as a control sees it through SID_SWebBrowserApp. Only the location
// URL is real; every other member answers E_NOTIMPL, since nothing on a test page needs it.

#include "TarnBase/win/ComObject.h"

#include <exdisp.h>

#include <string>

namespace TarnHost {

class WebBrowser final : public TarnBase::ComObject<IWebBrowser2> {
public:
    // With `locationFails`, get_LocationURL answers E_FAIL: a browser that has no page yet.
    WebBrowser(std::wstring locationUrl, bool locationFails);

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override;

    HRESULT STDMETHODCALLTYPE get_LocationURL(BSTR* LocationURL) override;

    HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT* pctinfo) override;
    HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT iTInfo, LCID lcid, ITypeInfo** ppTInfo) override;
    HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID riid, LPOLESTR* rgszNames, UINT cNames, LCID lcid,
                                            DISPID* rgDispId) override;
    HRESULT STDMETHODCALLTYPE Invoke(DISPID dispIdMember, REFIID riid, LCID lcid, WORD wFlags, DISPPARAMS* pDispParams,
                                     VARIANT* pVarResult, EXCEPINFO* pExcepInfo, UINT* puArgErr) override;

    HRESULT STDMETHODCALLTYPE GoBack() override;
    HRESULT STDMETHODCALLTYPE GoForward() override;
    HRESULT STDMETHODCALLTYPE GoHome() override;
    HRESULT STDMETHODCALLTYPE GoSearch() override;
    HRESULT STDMETHODCALLTYPE Navigate(BSTR, VARIANT*, VARIANT*, VARIANT*, VARIANT*) override;
    HRESULT STDMETHODCALLTYPE Refresh() override;
    HRESULT STDMETHODCALLTYPE Refresh2(VARIANT*) override;
    HRESULT STDMETHODCALLTYPE Stop() override;
    HRESULT STDMETHODCALLTYPE get_Application(IDispatch**) override;
    HRESULT STDMETHODCALLTYPE get_Parent(IDispatch**) override;
    HRESULT STDMETHODCALLTYPE get_Container(IDispatch**) override;
    HRESULT STDMETHODCALLTYPE get_Document(IDispatch**) override;
    HRESULT STDMETHODCALLTYPE get_TopLevelContainer(VARIANT_BOOL*) override;
    HRESULT STDMETHODCALLTYPE get_Type(BSTR*) override;
    HRESULT STDMETHODCALLTYPE get_Left(LONG*) override;
    HRESULT STDMETHODCALLTYPE put_Left(LONG) override;
    HRESULT STDMETHODCALLTYPE get_Top(LONG*) override;
    HRESULT STDMETHODCALLTYPE put_Top(LONG) override;
    HRESULT STDMETHODCALLTYPE get_Width(LONG*) override;
    HRESULT STDMETHODCALLTYPE put_Width(LONG) override;
    HRESULT STDMETHODCALLTYPE get_Height(LONG*) override;
    HRESULT STDMETHODCALLTYPE put_Height(LONG) override;
    HRESULT STDMETHODCALLTYPE get_LocationName(BSTR*) override;
    HRESULT STDMETHODCALLTYPE get_Busy(VARIANT_BOOL*) override;
    HRESULT STDMETHODCALLTYPE Quit() override;
    HRESULT STDMETHODCALLTYPE ClientToWindow(int*, int*) override;
    HRESULT STDMETHODCALLTYPE PutProperty(BSTR, VARIANT) override;
    HRESULT STDMETHODCALLTYPE GetProperty(BSTR, VARIANT*) override;
    HRESULT STDMETHODCALLTYPE get_Name(BSTR*) override;
    HRESULT STDMETHODCALLTYPE get_HWND(SHANDLE_PTR*) override;
    HRESULT STDMETHODCALLTYPE get_FullName(BSTR*) override;
    HRESULT STDMETHODCALLTYPE get_Path(BSTR*) override;
    HRESULT STDMETHODCALLTYPE get_Visible(VARIANT_BOOL*) override;
    HRESULT STDMETHODCALLTYPE put_Visible(VARIANT_BOOL) override;
    HRESULT STDMETHODCALLTYPE get_StatusBar(VARIANT_BOOL*) override;
    HRESULT STDMETHODCALLTYPE put_StatusBar(VARIANT_BOOL) override;
    HRESULT STDMETHODCALLTYPE get_StatusText(BSTR*) override;
    HRESULT STDMETHODCALLTYPE put_StatusText(BSTR) override;
    HRESULT STDMETHODCALLTYPE get_ToolBar(int*) override;
    HRESULT STDMETHODCALLTYPE put_ToolBar(int) override;
    HRESULT STDMETHODCALLTYPE get_MenuBar(VARIANT_BOOL*) override;
    HRESULT STDMETHODCALLTYPE put_MenuBar(VARIANT_BOOL) override;
    HRESULT STDMETHODCALLTYPE get_FullScreen(VARIANT_BOOL*) override;
    HRESULT STDMETHODCALLTYPE put_FullScreen(VARIANT_BOOL) override;
    HRESULT STDMETHODCALLTYPE Navigate2(VARIANT*, VARIANT*, VARIANT*, VARIANT*, VARIANT*) override;
    HRESULT STDMETHODCALLTYPE QueryStatusWB(OLECMDID, OLECMDF*) override;
    HRESULT STDMETHODCALLTYPE ExecWB(OLECMDID, OLECMDEXECOPT, VARIANT*, VARIANT*) override;
    HRESULT STDMETHODCALLTYPE ShowBrowserBar(VARIANT*, VARIANT*, VARIANT*) override;
    HRESULT STDMETHODCALLTYPE get_ReadyState(READYSTATE*) override;
    HRESULT STDMETHODCALLTYPE get_Offline(VARIANT_BOOL*) override;
    HRESULT STDMETHODCALLTYPE put_Offline(VARIANT_BOOL) override;
    HRESULT STDMETHODCALLTYPE get_Silent(VARIANT_BOOL*) override;
    HRESULT STDMETHODCALLTYPE put_Silent(VARIANT_BOOL) override;
    HRESULT STDMETHODCALLTYPE get_RegisterAsBrowser(VARIANT_BOOL*) override;
    HRESULT STDMETHODCALLTYPE put_RegisterAsBrowser(VARIANT_BOOL) override;
    HRESULT STDMETHODCALLTYPE get_RegisterAsDropTarget(VARIANT_BOOL*) override;
    HRESULT STDMETHODCALLTYPE put_RegisterAsDropTarget(VARIANT_BOOL) override;
    HRESULT STDMETHODCALLTYPE get_TheaterMode(VARIANT_BOOL*) override;
    HRESULT STDMETHODCALLTYPE put_TheaterMode(VARIANT_BOOL) override;
    HRESULT STDMETHODCALLTYPE get_AddressBar(VARIANT_BOOL*) override;
    HRESULT STDMETHODCALLTYPE put_AddressBar(VARIANT_BOOL) override;
    HRESULT STDMETHODCALLTYPE get_Resizable(VARIANT_BOOL*) override;
    HRESULT STDMETHODCALLTYPE put_Resizable(VARIANT_BOOL) override;

private:
    std::wstring m_locationUrl;
    bool m_locationFails;
};

} // namespace TarnHost
