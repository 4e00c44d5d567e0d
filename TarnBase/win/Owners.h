#pragma once
// Owners of COM, automation and crypto allocations, built on the same UniqueResource as the
// kernel-handle owners in Handle.h, so every free in the product goes through one place.

#include "TarnBase/NoCopySemantics.h"
#include "TarnBase/win/Handle.h"

#include <objbase.h>
#include <oleauto.h>
#include <wincrypt.h>

namespace TarnBase {

// SysAllocString and every BSTR a COM call hands over.
using UniqueBstr = UniqueResource<ZeroIsNoneTraits<BSTR, &::SysFreeString>>;

// Memory a COM call allocated with CoTaskMemAlloc (ProgIDFromCLSID, GetDisplayName, ...).
template <typename T>
using UniqueCoTaskMem = UniqueResource<ZeroIsNoneTraits<T*, &::CoTaskMemFree>>;

// Certificate contexts (CryptVerifyMessageSignature's signer, CertCreateCertificateContext).
using UniqueCertContext = UniqueResource<ZeroIsNoneTraits<PCCERT_CONTEXT, &::CertFreeCertificateContext>>;

// FindFirstFile: INVALID_HANDLE_VALUE means "none", and FindClose, not CloseHandle, ends it.
using UniqueFindHandle = UniqueResource<InvalidValueIsNoneTraits<&::FindClose>>;

// A VARIANT that is initialised on creation and cleared (freeing what it holds) on exit.
class UniqueVariant : public NoCopySemantics {
public:
    UniqueVariant() noexcept { ::VariantInit(&m_value); }
    ~UniqueVariant() { ::VariantClear(&m_value); }

    VARIANT* Get() noexcept { return &m_value; }
    const VARIANT* Get() const noexcept { return &m_value; }

    // Clears what is held and returns the empty variant, for out-parameters.
    VARIANT* Put() noexcept
    {
        ::VariantClear(&m_value);
        return &m_value;
    }

private:
    VARIANT m_value;
};

// The calling thread's COM apartment for as long as the object lives. Uninitialises only
// when its own CoInitializeEx succeeded (S_FALSE included: that call still counts).
class ComApartment : public NoCopySemantics {
public:
    explicit ComApartment(DWORD model = COINIT_APARTMENTTHREADED) noexcept
        : m_result(::CoInitializeEx(nullptr, model)) {}
    ~ComApartment()
    {
        if (SUCCEEDED(m_result))
            ::CoUninitialize();
    }

    HRESULT Result() const noexcept { return m_result; }

private:
    HRESULT m_result;
};

} // namespace TarnBase
