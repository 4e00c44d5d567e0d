#include "TarnSM/win/ClassFactory.h"

#include "TarnSM/win/CTarnSM.h"
#include "TarnSM/win/Module.h"

#include <new>

namespace TarnSMX {

// A factory handed out keeps the module loaded just as an object does.
ClassFactory::ClassFactory()
{
    AddObjectReference();
}

ClassFactory::~ClassFactory()
{
    ReleaseObjectReference();
}

STDMETHODIMP ClassFactory::QueryInterface(REFIID iid, void** object)
{
    if (object == nullptr)
        return E_POINTER;
    if (::IsEqualIID(iid, IID_IUnknown) || ::IsEqualIID(iid, IID_IClassFactory)) {
        *object = static_cast<IClassFactory*>(this);
        AddRef();
        return S_OK;
    }
    *object = nullptr;
    return E_NOINTERFACE;
}

STDMETHODIMP ClassFactory::CreateInstance(IUnknown* outer, REFIID iid, void** object)
{
    if (object == nullptr)
        return E_POINTER;
    *object = nullptr;
    if (outer != nullptr)
        return CLASS_E_NOAGGREGATION;
    // The new object's first reference goes to the owner; the caller's comes from the query.
    const auto control = TarnBase::AdoptNew(new (std::nothrow) CTarnSM());
    if (!control)
        return E_OUTOFMEMORY;
    return control->QueryInterface(iid, object);
}

STDMETHODIMP ClassFactory::LockServer(BOOL lock)
{
    TarnSMX::LockServer(lock != FALSE);
    return S_OK;
}

} // namespace TarnSMX
