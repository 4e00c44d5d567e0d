#pragma once
// The page's <param> values for one control, as a browser hands them to
// IPersistPropertyBag::Load. Names compare without regard to case, as HTML attribute
// names do; values are kept as strings.

#include "TarnBase/win/ComObject.h"

#include <ocidl.h>

#include <string>
#include <utility>
#include <vector>

namespace TarnHost {

class PropertyBag final : public TarnBase::ComObject<IPropertyBag> {
public:
    PropertyBag() = default;

    // Replaces an existing value of the same name.
    void Set(const std::wstring& name, const std::wstring& value);
    const std::wstring* Find(const std::wstring& name) const;
    const std::vector<std::pair<std::wstring, std::wstring>>& Values() const { return m_values; }

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override;

    // A missing name answers E_INVALIDARG and leaves *pVar alone. VT_EMPTY or VT_BSTR in
    // *pVar asks for the string; any other type asks for a conversion to that type.
    HRESULT STDMETHODCALLTYPE Read(LPCOLESTR pszPropName, VARIANT* pVar, IErrorLog* pErrorLog) override;
    // Stores the value's text (numbers in invariant form, booleans as "true"/"false").
    HRESULT STDMETHODCALLTYPE Write(LPCOLESTR pszPropName, VARIANT* pVar) override;

private:
    std::vector<std::pair<std::wstring, std::wstring>> m_values;
};

} // namespace TarnHost
