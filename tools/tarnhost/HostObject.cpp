#include "HostObject.h"

#include "VariantText.h"

#include <utility>

namespace TarnHost {
namespace {

struct MemberName {
    const wchar_t* name;
    DISPID id;
};

constexpr MemberName kMembers[] = {
    {L"Echo", kHostEcho}, {L"Quit", kHostQuit}, {L"Arg", kHostArg}, {L"ArgCount", kHostArgCount},
    {L"Control", kHostControl},
};

// Arguments arrive last-first.
const VARIANT& Argument(const DISPPARAMS& params, UINT index)
{
    return params.rgvarg[params.cArgs - 1 - index];
}

HRESULT Raise(EXCEPINFO* excepInfo, HRESULT code, const wchar_t* description)
{
    if (!excepInfo)
        return code;
    *excepInfo = EXCEPINFO{};
    excepInfo->scode = code;
    excepInfo->bstrSource = ::SysAllocString(L"tarnhost");
    excepInfo->bstrDescription = ::SysAllocString(description);
    return DISP_E_EXCEPTION;
}

HRESULT ArgumentAsInt(const DISPPARAMS& params, UINT index, int* value, UINT* argErr)
{
    VARIANT converted;
    ::VariantInit(&converted);
    HRESULT hr = ::VariantChangeTypeEx(&converted, const_cast<VARIANT*>(&Argument(params, index)), kInvariantLcid, 0,
                                       VT_I4);
    if (FAILED(hr)) {
        if (argErr)
            *argErr = params.cArgs - 1 - index;
        return DISP_E_TYPEMISMATCH;
    }
    *value = V_I4(&converted);
    return S_OK;
}

} // namespace

HostObject::HostObject(Language language, std::vector<std::wstring> args, HostCallbacks callbacks)
    : m_language(language), m_args(std::move(args)), m_callbacks(std::move(callbacks))
{
}

void HostObject::SetControls(std::vector<Microsoft::WRL::ComPtr<IDispatch>> controls)
{
    m_controls = std::move(controls);
}

HRESULT STDMETHODCALLTYPE HostObject::QueryInterface(REFIID riid, void** ppv)
{
    if (!ppv)
        return E_POINTER;
    *ppv = nullptr;
    if (riid == IID_IUnknown || riid == IID_IDispatch) {
        *ppv = static_cast<IDispatch*>(this);
        AddRef();
        return S_OK;
    }
    return E_NOINTERFACE;
}

HRESULT STDMETHODCALLTYPE HostObject::GetTypeInfoCount(UINT* pctinfo)
{
    if (!pctinfo)
        return E_POINTER;
    *pctinfo = 0;
    return S_OK;
}

HRESULT STDMETHODCALLTYPE HostObject::GetTypeInfo(UINT, LCID, ITypeInfo** ppTInfo)
{
    if (ppTInfo)
        *ppTInfo = nullptr;
    return DISP_E_BADINDEX;
}

HRESULT STDMETHODCALLTYPE HostObject::GetIDsOfNames(REFIID riid, LPOLESTR* rgszNames, UINT cNames, LCID,
                                                    DISPID* rgDispId)
{
    if (riid != IID_NULL)
        return DISP_E_UNKNOWNINTERFACE;
    if (!rgszNames || !rgDispId)
        return E_POINTER;
    HRESULT hr = S_OK;
    for (UINT i = 0; i < cNames; ++i)
        rgDispId[i] = DISPID_UNKNOWN;
    // Members take no named arguments, so only the first name can be known.
    if (cNames == 0)
        return S_OK;
    for (const MemberName& member : kMembers)
        if (::CompareStringOrdinal(rgszNames[0], -1, member.name, -1, TRUE) == CSTR_EQUAL)
            rgDispId[0] = member.id;
    if (rgDispId[0] == DISPID_UNKNOWN || cNames > 1)
        hr = DISP_E_UNKNOWNNAME;
    return hr;
}

HRESULT STDMETHODCALLTYPE HostObject::Invoke(DISPID dispIdMember, REFIID riid, LCID, WORD wFlags,
                                             DISPPARAMS* pDispParams, VARIANT* pVarResult, EXCEPINFO* pExcepInfo,
                                             UINT* puArgErr)
{
    if (riid != IID_NULL)
        return DISP_E_UNKNOWNINTERFACE;
    if (!pDispParams)
        return E_POINTER;
    if (pDispParams->cNamedArgs != 0)
        return DISP_E_NONAMEDARGS;
    // After Quit the script is only being unwound; it must not get any further.
    if (m_quitting)
        return m_quitResult;

    const DISPPARAMS& params = *pDispParams;
    const bool call = (wFlags & DISPATCH_METHOD) != 0;
    const bool get = (wFlags & DISPATCH_PROPERTYGET) != 0;
    switch (dispIdMember) {
    case kHostEcho:
        return call ? Echo(params, pExcepInfo, puArgErr) : DISP_E_MEMBERNOTFOUND;
    case kHostQuit:
        return call ? Quit(params, pExcepInfo, puArgErr) : DISP_E_MEMBERNOTFOUND;
    case kHostArg:
        return call || get ? Arg(params, pVarResult, pExcepInfo, puArgErr) : DISP_E_MEMBERNOTFOUND;
    case kHostArgCount:
        if (!(call || get))
            return DISP_E_MEMBERNOTFOUND;
        if (params.cArgs != 0)
            return DISP_E_BADPARAMCOUNT;
        if (pVarResult) {
            ::VariantInit(pVarResult);
            V_VT(pVarResult) = VT_I4;
            V_I4(pVarResult) = static_cast<LONG>(m_args.size());
        }
        return S_OK;
    case kHostControl:
        return call || get ? Control(params, pVarResult, pExcepInfo, puArgErr) : DISP_E_MEMBERNOTFOUND;
    default:
        return DISP_E_MEMBERNOTFOUND;
    }
}

HRESULT HostObject::Echo(const DISPPARAMS& params, EXCEPINFO*, UINT* argErr)
{
    const wchar_t* emptyText = m_language == Language::JScript ? L"undefined" : L"";
    std::wstring line;
    for (UINT i = 0; i < params.cArgs; ++i) {
        std::wstring text;
        const HRESULT hr = VariantToText(Argument(params, i), emptyText, &text);
        if (FAILED(hr)) {
            if (argErr)
                *argErr = params.cArgs - 1 - i;
            return DISP_E_TYPEMISMATCH;
        }
        if (i > 0)
            line += L' ';
        line += text;
    }
    if (m_callbacks.echo)
        m_callbacks.echo(line);
    return S_OK;
}

HRESULT HostObject::Quit(const DISPPARAMS& params, EXCEPINFO*, UINT* argErr)
{
    if (params.cArgs > 1)
        return DISP_E_BADPARAMCOUNT;
    int code = 0;
    if (params.cArgs == 1) {
        const HRESULT hr = ArgumentAsInt(params, 0, &code, argErr);
        if (FAILED(hr))
            return hr;
    }
    m_quitting = true;
    m_quitResult = m_callbacks.quit ? m_callbacks.quit(code) : S_OK;
    return m_quitResult;
}

HRESULT HostObject::Arg(const DISPPARAMS& params, VARIANT* result, EXCEPINFO* excepInfo, UINT* argErr)
{
    if (params.cArgs != 1)
        return DISP_E_BADPARAMCOUNT;
    int index = 0;
    HRESULT hr = ArgumentAsInt(params, 0, &index, argErr);
    if (FAILED(hr))
        return hr;
    if (index < 0 || static_cast<size_t>(index) >= m_args.size())
        return Raise(excepInfo, DISP_E_BADINDEX, L"host.Arg: no argument with that index");
    if (result) {
        ::VariantInit(result);
        V_VT(result) = VT_BSTR;
        V_BSTR(result) = ::SysAllocString(m_args[static_cast<size_t>(index)].c_str());
        if (!V_BSTR(result))
            return E_OUTOFMEMORY;
    }
    return S_OK;
}

HRESULT HostObject::Control(const DISPPARAMS& params, VARIANT* result, EXCEPINFO* excepInfo, UINT* argErr)
{
    if (params.cArgs != 1)
        return DISP_E_BADPARAMCOUNT;
    int number = 0;
    HRESULT hr = ArgumentAsInt(params, 0, &number, argErr);
    if (FAILED(hr))
        return hr;
    if (number < 1 || static_cast<size_t>(number) > m_controls.size())
        return Raise(excepInfo, DISP_E_BADINDEX, L"host.Control: no control with that number");
    if (result) {
        ::VariantInit(result);
        V_VT(result) = VT_DISPATCH;
        V_DISPATCH(result) = m_controls[static_cast<size_t>(number) - 1].Get();
        V_DISPATCH(result)->AddRef();
    }
    return S_OK;
}

} // namespace TarnHost
