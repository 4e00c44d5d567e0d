#include "WebBrowser.h"

#include <utility>

namespace TarnHost {

WebBrowser::WebBrowser(std::wstring locationUrl, bool locationFails)
    : m_locationUrl(std::move(locationUrl)), m_locationFails(locationFails)
{
}

HRESULT STDMETHODCALLTYPE WebBrowser::QueryInterface(REFIID riid, void** ppv)
{
    if (!ppv)
        return E_POINTER;
    *ppv = nullptr;
    if (riid == IID_IUnknown || riid == IID_IDispatch || riid == IID_IWebBrowser || riid == IID_IWebBrowserApp ||
        riid == IID_IWebBrowser2) {
        *ppv = static_cast<IWebBrowser2*>(this);
        AddRef();
        return S_OK;
    }
    return E_NOINTERFACE;
}

HRESULT STDMETHODCALLTYPE WebBrowser::get_LocationURL(BSTR* LocationURL)
{
    if (!LocationURL)
        return E_POINTER;
    *LocationURL = nullptr;
    if (m_locationFails)
        return E_FAIL;
    *LocationURL = ::SysAllocStringLen(m_locationUrl.data(), static_cast<UINT>(m_locationUrl.size()));
    return *LocationURL ? S_OK : E_OUTOFMEMORY;
}

HRESULT STDMETHODCALLTYPE WebBrowser::GetTypeInfoCount(UINT*) { return E_NOTIMPL; }
HRESULT STDMETHODCALLTYPE WebBrowser::GetTypeInfo(UINT, LCID, ITypeInfo**) { return E_NOTIMPL; }
HRESULT STDMETHODCALLTYPE WebBrowser::GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) { return E_NOTIMPL; }
HRESULT STDMETHODCALLTYPE WebBrowser::Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*, UINT*)
{
    return E_NOTIMPL;
}

HRESULT STDMETHODCALLTYPE WebBrowser::GoBack() { return E_NOTIMPL; }
HRESULT STDMETHODCALLTYPE WebBrowser::GoForward() { return E_NOTIMPL; }
HRESULT STDMETHODCALLTYPE WebBrowser::GoHome() { return E_NOTIMPL; }
HRESULT STDMETHODCALLTYPE WebBrowser::GoSearch() { return E_NOTIMPL; }
HRESULT STDMETHODCALLTYPE WebBrowser::Navigate(BSTR, VARIANT*, VARIANT*, VARIANT*, VARIANT*) { return E_NOTIMPL; }
HRESULT STDMETHODCALLTYPE WebBrowser::Refresh() { return E_NOTIMPL; }
HRESULT STDMETHODCALLTYPE WebBrowser::Refresh2(VARIANT*) { return E_NOTIMPL; }
HRESULT STDMETHODCALLTYPE WebBrowser::Stop() { return E_NOTIMPL; }
HRESULT STDMETHODCALLTYPE WebBrowser::get_Application(IDispatch**) { return E_NOTIMPL; }
HRESULT STDMETHODCALLTYPE WebBrowser::get_Parent(IDispatch**) { return E_NOTIMPL; }
HRESULT STDMETHODCALLTYPE WebBrowser::get_Container(IDispatch**) { return E_NOTIMPL; }
HRESULT STDMETHODCALLTYPE WebBrowser::get_Document(IDispatch**) { return E_NOTIMPL; }
HRESULT STDMETHODCALLTYPE WebBrowser::get_TopLevelContainer(VARIANT_BOOL*) { return E_NOTIMPL; }
HRESULT STDMETHODCALLTYPE WebBrowser::get_Type(BSTR*) { return E_NOTIMPL; }
HRESULT STDMETHODCALLTYPE WebBrowser::get_Left(LONG*) { return E_NOTIMPL; }
HRESULT STDMETHODCALLTYPE WebBrowser::put_Left(LONG) { return E_NOTIMPL; }
HRESULT STDMETHODCALLTYPE WebBrowser::get_Top(LONG*) { return E_NOTIMPL; }
HRESULT STDMETHODCALLTYPE WebBrowser::put_Top(LONG) { return E_NOTIMPL; }
HRESULT STDMETHODCALLTYPE WebBrowser::get_Width(LONG*) { return E_NOTIMPL; }
HRESULT STDMETHODCALLTYPE WebBrowser::put_Width(LONG) { return E_NOTIMPL; }
HRESULT STDMETHODCALLTYPE WebBrowser::get_Height(LONG*) { return E_NOTIMPL; }
HRESULT STDMETHODCALLTYPE WebBrowser::put_Height(LONG) { return E_NOTIMPL; }
HRESULT STDMETHODCALLTYPE WebBrowser::get_LocationName(BSTR*) { return E_NOTIMPL; }
HRESULT STDMETHODCALLTYPE WebBrowser::get_Busy(VARIANT_BOOL*) { return E_NOTIMPL; }
HRESULT STDMETHODCALLTYPE WebBrowser::Quit() { return E_NOTIMPL; }
HRESULT STDMETHODCALLTYPE WebBrowser::ClientToWindow(int*, int*) { return E_NOTIMPL; }
HRESULT STDMETHODCALLTYPE WebBrowser::PutProperty(BSTR, VARIANT) { return E_NOTIMPL; }
HRESULT STDMETHODCALLTYPE WebBrowser::GetProperty(BSTR, VARIANT*) { return E_NOTIMPL; }
HRESULT STDMETHODCALLTYPE WebBrowser::get_Name(BSTR*) { return E_NOTIMPL; }
HRESULT STDMETHODCALLTYPE WebBrowser::get_HWND(SHANDLE_PTR*) { return E_NOTIMPL; }
HRESULT STDMETHODCALLTYPE WebBrowser::get_FullName(BSTR*) { return E_NOTIMPL; }
HRESULT STDMETHODCALLTYPE WebBrowser::get_Path(BSTR*) { return E_NOTIMPL; }
HRESULT STDMETHODCALLTYPE WebBrowser::get_Visible(VARIANT_BOOL*) { return E_NOTIMPL; }
HRESULT STDMETHODCALLTYPE WebBrowser::put_Visible(VARIANT_BOOL) { return E_NOTIMPL; }
HRESULT STDMETHODCALLTYPE WebBrowser::get_StatusBar(VARIANT_BOOL*) { return E_NOTIMPL; }
HRESULT STDMETHODCALLTYPE WebBrowser::put_StatusBar(VARIANT_BOOL) { return E_NOTIMPL; }
HRESULT STDMETHODCALLTYPE WebBrowser::get_StatusText(BSTR*) { return E_NOTIMPL; }
HRESULT STDMETHODCALLTYPE WebBrowser::put_StatusText(BSTR) { return E_NOTIMPL; }
HRESULT STDMETHODCALLTYPE WebBrowser::get_ToolBar(int*) { return E_NOTIMPL; }
HRESULT STDMETHODCALLTYPE WebBrowser::put_ToolBar(int) { return E_NOTIMPL; }
HRESULT STDMETHODCALLTYPE WebBrowser::get_MenuBar(VARIANT_BOOL*) { return E_NOTIMPL; }
HRESULT STDMETHODCALLTYPE WebBrowser::put_MenuBar(VARIANT_BOOL) { return E_NOTIMPL; }
HRESULT STDMETHODCALLTYPE WebBrowser::get_FullScreen(VARIANT_BOOL*) { return E_NOTIMPL; }
HRESULT STDMETHODCALLTYPE WebBrowser::put_FullScreen(VARIANT_BOOL) { return E_NOTIMPL; }
HRESULT STDMETHODCALLTYPE WebBrowser::Navigate2(VARIANT*, VARIANT*, VARIANT*, VARIANT*, VARIANT*) { return E_NOTIMPL; }
HRESULT STDMETHODCALLTYPE WebBrowser::QueryStatusWB(OLECMDID, OLECMDF*) { return E_NOTIMPL; }
HRESULT STDMETHODCALLTYPE WebBrowser::ExecWB(OLECMDID, OLECMDEXECOPT, VARIANT*, VARIANT*) { return E_NOTIMPL; }
HRESULT STDMETHODCALLTYPE WebBrowser::ShowBrowserBar(VARIANT*, VARIANT*, VARIANT*) { return E_NOTIMPL; }
HRESULT STDMETHODCALLTYPE WebBrowser::get_ReadyState(READYSTATE*) { return E_NOTIMPL; }
HRESULT STDMETHODCALLTYPE WebBrowser::get_Offline(VARIANT_BOOL*) { return E_NOTIMPL; }
HRESULT STDMETHODCALLTYPE WebBrowser::put_Offline(VARIANT_BOOL) { return E_NOTIMPL; }
HRESULT STDMETHODCALLTYPE WebBrowser::get_Silent(VARIANT_BOOL*) { return E_NOTIMPL; }
HRESULT STDMETHODCALLTYPE WebBrowser::put_Silent(VARIANT_BOOL) { return E_NOTIMPL; }
HRESULT STDMETHODCALLTYPE WebBrowser::get_RegisterAsBrowser(VARIANT_BOOL*) { return E_NOTIMPL; }
HRESULT STDMETHODCALLTYPE WebBrowser::put_RegisterAsBrowser(VARIANT_BOOL) { return E_NOTIMPL; }
HRESULT STDMETHODCALLTYPE WebBrowser::get_RegisterAsDropTarget(VARIANT_BOOL*) { return E_NOTIMPL; }
HRESULT STDMETHODCALLTYPE WebBrowser::put_RegisterAsDropTarget(VARIANT_BOOL) { return E_NOTIMPL; }
HRESULT STDMETHODCALLTYPE WebBrowser::get_TheaterMode(VARIANT_BOOL*) { return E_NOTIMPL; }
HRESULT STDMETHODCALLTYPE WebBrowser::put_TheaterMode(VARIANT_BOOL) { return E_NOTIMPL; }
HRESULT STDMETHODCALLTYPE WebBrowser::get_AddressBar(VARIANT_BOOL*) { return E_NOTIMPL; }
HRESULT STDMETHODCALLTYPE WebBrowser::put_AddressBar(VARIANT_BOOL) { return E_NOTIMPL; }
HRESULT STDMETHODCALLTYPE WebBrowser::get_Resizable(VARIANT_BOOL*) { return E_NOTIMPL; }
HRESULT STDMETHODCALLTYPE WebBrowser::put_Resizable(VARIANT_BOOL) { return E_NOTIMPL; }

} // namespace TarnHost
