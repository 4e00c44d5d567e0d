#pragma once
// Reference counting for the host's own COM objects. Each object lives on the script
// thread only, so a plain counter is enough; QueryInterface stays with the class because
// which interfaces it answers is the interesting part.

#include <windows.h>
#include <wrl/client.h>

#include <utility>

namespace TarnHost {

template <typename... Interfaces>
class ComObject : public Interfaces... {
public:
    ComObject() = default;
    ComObject(const ComObject&) = delete;
    ComObject& operator=(const ComObject&) = delete;

    ULONG STDMETHODCALLTYPE AddRef() override { return ++m_refs; }

    ULONG STDMETHODCALLTYPE Release() override
    {
        const ULONG left = --m_refs;
        if (left == 0)
            delete this;
        return left;
    }

protected:
    virtual ~ComObject() = default;

private:
    ULONG m_refs = 1;
};

// The new object starts with one reference, which the returned pointer takes over.
template <typename T, typename... Args>
Microsoft::WRL::ComPtr<T> MakeCom(Args&&... args)
{
    Microsoft::WRL::ComPtr<T> p;
    p.Attach(new T(std::forward<Args>(args)...));
    return p;
}

} // namespace TarnHost
