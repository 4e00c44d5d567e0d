#include "PropertyBag.h"

#include "VariantText.h"

#include "TarnBase/win/Owners.h"

namespace TarnHost {
namespace {

bool SameName(const std::wstring& a, const wchar_t* b)
{
    return ::CompareStringOrdinal(a.c_str(), static_cast<int>(a.size()), b, -1, TRUE) == CSTR_EQUAL;
}

} // namespace

void PropertyBag::Set(const std::wstring& name, const std::wstring& value)
{
    for (auto& entry : m_values)
        if (SameName(entry.first, name.c_str())) {
            entry.second = value;
            return;
        }
    m_values.emplace_back(name, value);
}

const std::wstring* PropertyBag::Find(const std::wstring& name) const
{
    for (const auto& entry : m_values)
        if (SameName(entry.first, name.c_str()))
            return &entry.second;
    return nullptr;
}

HRESULT STDMETHODCALLTYPE PropertyBag::QueryInterface(REFIID riid, void** ppv)
{
    if (!ppv)
        return E_POINTER;
    *ppv = nullptr;
    if (riid == IID_IUnknown || riid == IID_IPropertyBag) {
        *ppv = static_cast<IPropertyBag*>(this);
        AddRef();
        return S_OK;
    }
    return E_NOINTERFACE;
}

HRESULT STDMETHODCALLTYPE PropertyBag::Read(LPCOLESTR pszPropName, VARIANT* pVar, IErrorLog* pErrorLog)
{
    if (!pszPropName || !pVar)
        return E_POINTER;
    const std::wstring* value = Find(pszPropName);
    if (!value)
        return E_INVALIDARG;

    const VARTYPE wanted = V_VT(pVar);
    // The caller's VARIANT is cleared and overwritten only once the answer is ready: its
    // old contents belong to the caller until then.
    TarnBase::UniqueBstr text(::SysAllocStringLen(value->data(), static_cast<UINT>(value->size())));
    if (!text)
        return E_OUTOFMEMORY;
    if (wanted == VT_EMPTY || wanted == VT_BSTR) {
        ::VariantClear(pVar);
        V_VT(pVar) = VT_BSTR;
        V_BSTR(pVar) = text.Release(); // ownership moves to the caller
        return S_OK;
    }

    VARIANT source;
    V_VT(&source) = VT_BSTR;
    V_BSTR(&source) = text.Get();  // borrowed: `text` frees it
    VARIANT converted;
    ::VariantInit(&converted);
    const HRESULT hr = ::VariantChangeTypeEx(&converted, &source, kInvariantLcid, 0, wanted);
    if (FAILED(hr)) {
        // Tell the caller's error log which parameter was malformed, as a browser does.
        if (pErrorLog) {
            const TarnBase::UniqueBstr sourceName(::SysAllocString(L"tarnhost"));
            const TarnBase::UniqueBstr description(::SysAllocString(L"parameter value has the wrong type"));
            EXCEPINFO info{};
            info.scode = hr;
            info.bstrSource = sourceName.Get();
            info.bstrDescription = description.Get();
            pErrorLog->AddError(pszPropName, &info);
        }
        return hr;
    }
    ::VariantClear(pVar);
    *pVar = converted; // ownership moves to the caller
    return S_OK;
}

HRESULT STDMETHODCALLTYPE PropertyBag::Write(LPCOLESTR pszPropName, VARIANT* pVar)
{
    if (!pszPropName || !pVar)
        return E_POINTER;
    std::wstring text;
    const HRESULT hr = VariantToText(*pVar, L"", &text);
    if (FAILED(hr))
        return hr;
    Set(pszPropName, text);
    return S_OK;
}

} // namespace TarnHost
