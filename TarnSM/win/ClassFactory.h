#pragma once

#include <unknwn.h>

#include <atomic>

namespace TarnSMX {

class ClassFactory : public IClassFactory {
public:
    ClassFactory();
    virtual ~ClassFactory();

    STDMETHODIMP QueryInterface(REFIID iid, void** object) override;
    STDMETHODIMP_(ULONG) AddRef() override;
    STDMETHODIMP_(ULONG) Release() override;
    STDMETHODIMP CreateInstance(IUnknown* outer, REFIID iid, void** object) override;
    STDMETHODIMP LockServer(BOOL lock) override;

private:
    std::atomic<ULONG> m_references{1};
};

} // namespace TarnSMX
