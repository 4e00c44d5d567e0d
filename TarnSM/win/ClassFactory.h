#pragma once

#include "TarnBase/win/ComObject.h"

#include <unknwn.h>

namespace TarnSMX {

class ClassFactory : public TarnBase::ComObject<IClassFactory> {
public:
    ClassFactory();
    ~ClassFactory() override;

    STDMETHODIMP QueryInterface(REFIID iid, void** object) override;
    STDMETHODIMP CreateInstance(IUnknown* outer, REFIID iid, void** object) override;
    STDMETHODIMP LockServer(BOOL lock) override;
};

} // namespace TarnSMX
