#include "ScriptHost.h"

#include "HostError.h"

#include "TarnBase/win/Owners.h"

#include <utility>

namespace TarnHost {
namespace {

using Microsoft::WRL::ComPtr;

// What ends a script after host.Quit: a failure the engine unwinds with. The host object
// answers it to every later call too, so a script that catches it cannot carry on through
// the host.
constexpr HRESULT kQuitUnwind = E_ABORT;

std::wstring TakeText(BSTR& text)
{
    const TarnBase::UniqueBstr owned(std::exchange(text, nullptr));
    return owned ? std::wstring(owned.Get(), ::SysStringLen(owned.Get())) : std::wstring();
}

// "<description> (line N)"; the line is left out only when the engine does not know it.
std::wstring DescribeError(EXCEPINFO& info, bool haveLine, ULONG line)
{
    if (info.pfnDeferredFillIn)
        info.pfnDeferredFillIn(&info);
    std::wstring description = TakeText(info.bstrDescription);
    TakeText(info.bstrSource);
    TakeText(info.bstrHelpFile);
    if (description.empty())
        description = L"error " + HexResult(info.scode ? info.scode : static_cast<HRESULT>(info.wCode));
    if (haveLine)
        description += L" (line " + std::to_wstring(line + 1) + L")";
    return description;
}

} // namespace

ScriptHost::ScriptHost(Language language, ComPtr<IServiceProvider> pageServices)
    : m_language(language), m_pageServices(std::move(pageServices))
{
}

void ScriptHost::AddItem(const std::wstring& name, IUnknown* object)
{
    m_items.emplace_back(name, object);
}

ScriptOutcome ScriptHost::Run(const std::wstring& code)
{
    const wchar_t* engineName = m_language == Language::JScript ? L"JScript" : L"VBScript";
    CLSID clsid{};
    HRESULT hr = ::CLSIDFromProgID(engineName, &clsid);
    if (FAILED(hr))
        throw ComError(std::wstring(L"CLSIDFromProgID(") + engineName + L")", hr);
    hr = ::CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&m_engine));
    if (FAILED(hr))
        throw ComError(std::wstring(L"CoCreateInstance(") + engineName + L")", hr);
    ComPtr<IActiveScriptParse> parse;
    hr = m_engine.As(&parse);
    if (FAILED(hr))
        throw ComError(L"QueryInterface(IActiveScriptParse)", hr);
    hr = m_engine->SetScriptSite(static_cast<IActiveScriptSite*>(this));
    if (FAILED(hr))
        throw ComError(L"IActiveScript::SetScriptSite", hr);
    hr = parse->InitNew();
    if (FAILED(hr))
        throw ComError(L"IActiveScriptParse::InitNew", hr);
    for (const auto& item : m_items) {
        hr = m_engine->AddNamedItem(item.first.c_str(), SCRIPTITEM_ISVISIBLE);
        if (FAILED(hr))
            throw ComError(L"IActiveScript::AddNamedItem(" + item.first + L")", hr);
    }
    // Started before parsing, so the text runs inside ParseScriptText, and the host is back
    // in control, with every error reported, when it returns.
    hr = m_engine->SetScriptState(SCRIPTSTATE_STARTED);
    if (FAILED(hr))
        throw ComError(L"IActiveScript::SetScriptState(SCRIPTSTATE_STARTED)", hr);

    EXCEPINFO info{};
    hr = parse->ParseScriptText(code.c_str(), nullptr, nullptr, nullptr, 0, 0, SCRIPTTEXT_ISVISIBLE, nullptr, &info);

    ScriptOutcome outcome;
    if (m_quitRequested) {
        DescribeError(info, false, 0); // frees what the unwinding left behind
        outcome.kind = ScriptOutcome::Kind::Quit;
        outcome.quitCode = m_quitCode;
    } else if (m_failed) {
        DescribeError(info, false, 0);
        outcome.kind = ScriptOutcome::Kind::Failed;
        outcome.error = m_error;
    } else if (FAILED(hr)) {
        // An engine that fails without calling OnScriptError still gets its error reported.
        if (info.scode == 0 && info.wCode == 0 && !info.bstrDescription)
            info.scode = hr;
        outcome.kind = ScriptOutcome::Kind::Failed;
        outcome.error = DescribeError(info, false, 0);
    } else {
        DescribeError(info, false, 0);
    }
    return outcome;
}

HRESULT ScriptHost::RequestQuit(int code)
{
    m_quitRequested = true;
    m_quitCode = code;
    return kQuitUnwind;
}

void ScriptHost::Close()
{
    if (m_engine) {
        m_engine->Close();
        m_engine.Reset();
    }
    m_items.clear();
    m_pageServices.Reset();
}

HRESULT STDMETHODCALLTYPE ScriptHost::QueryInterface(REFIID riid, void** ppv)
{
    if (!ppv)
        return E_POINTER;
    *ppv = nullptr;
    if (riid == IID_IUnknown || riid == IID_IActiveScriptSite)
        *ppv = static_cast<IActiveScriptSite*>(this);
    else if (riid == IID_IServiceProvider && m_pageServices)
        *ppv = static_cast<IServiceProvider*>(this);
    else
        return E_NOINTERFACE;
    AddRef();
    return S_OK;
}

HRESULT STDMETHODCALLTYPE ScriptHost::GetLCID(LCID*)
{
    return E_NOTIMPL; // the engine's default locale
}

HRESULT STDMETHODCALLTYPE ScriptHost::GetItemInfo(LPCOLESTR pstrName, DWORD dwReturnMask, IUnknown** ppiunkItem,
                                                  ITypeInfo** ppti)
{
    if (dwReturnMask & SCRIPTINFO_IUNKNOWN) {
        if (!ppiunkItem)
            return E_INVALIDARG;
        *ppiunkItem = nullptr;
    }
    if (dwReturnMask & SCRIPTINFO_ITYPEINFO) {
        if (!ppti)
            return E_INVALIDARG;
        *ppti = nullptr;
    }
    if (!pstrName)
        return E_INVALIDARG;
    IUnknown* object = nullptr;
    for (const auto& item : m_items)
        if (::CompareStringOrdinal(item.first.c_str(), -1, pstrName, -1, TRUE) == CSTR_EQUAL)
            object = item.second.Get();
    if (!object)
        return TYPE_E_ELEMENTNOTFOUND;

    if (dwReturnMask & SCRIPTINFO_ITYPEINFO) {
        ComPtr<IDispatch> dispatch;
        HRESULT hr = object->QueryInterface(IID_PPV_ARGS(&dispatch));
        if (SUCCEEDED(hr))
            hr = dispatch->GetTypeInfo(0, LOCALE_USER_DEFAULT, ppti);
        if (FAILED(hr)) {
            *ppti = nullptr;
            return TYPE_E_ELEMENTNOTFOUND;
        }
    }
    if (dwReturnMask & SCRIPTINFO_IUNKNOWN) {
        *ppiunkItem = object;
        object->AddRef();
    }
    return S_OK;
}

HRESULT STDMETHODCALLTYPE ScriptHost::GetDocVersionString(BSTR* pbstrVersion)
{
    if (pbstrVersion)
        *pbstrVersion = nullptr;
    return E_NOTIMPL;
}

HRESULT STDMETHODCALLTYPE ScriptHost::OnScriptTerminate(const VARIANT*, const EXCEPINFO*)
{
    return S_OK;
}

HRESULT STDMETHODCALLTYPE ScriptHost::OnStateChange(SCRIPTSTATE)
{
    return S_OK;
}

HRESULT STDMETHODCALLTYPE ScriptHost::OnScriptError(IActiveScriptError* pscripterror)
{
    // The unwinding after host.Quit is not an error, and only the first error is reported.
    if (!pscripterror || m_quitRequested || m_failed)
        return S_OK;
    EXCEPINFO info{};
    pscripterror->GetExceptionInfo(&info);
    DWORD context = 0;
    ULONG line = 0;
    LONG column = 0;
    const bool haveLine = SUCCEEDED(pscripterror->GetSourcePosition(&context, &line, &column));
    m_failed = true;
    m_error = DescribeError(info, haveLine, line);
    return S_OK;
}

HRESULT STDMETHODCALLTYPE ScriptHost::OnEnterScript()
{
    return S_OK;
}

HRESULT STDMETHODCALLTYPE ScriptHost::OnLeaveScript()
{
    return S_OK;
}

HRESULT STDMETHODCALLTYPE ScriptHost::QueryService(REFGUID guidService, REFIID riid, void** ppv)
{
    if (!ppv)
        return E_POINTER;
    *ppv = nullptr;
    if (!m_pageServices)
        return E_NOINTERFACE;
    return m_pageServices->QueryService(guidService, riid, ppv);
}

} // namespace TarnHost
