#pragma once
// Reference counting for the COM objects this code base implements: the control, its class
// factory and the page host's objects. QueryInterface stays with each class because which
// interfaces it answers is the interesting part. The count is atomic: a host may release
// an object on another thread than the one that created it.

#include <windows.h>
#include <wrl/client.h>

#include <atomic>
#include <new>
#include <utility>

namespace TarnBase {

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
    std::atomic<ULONG> m_refs{1};  // the creator's reference
};

// Takes over the creator's reference of a newly made object (null stays null).
// mingw-w64's ComPtr::Attach adds a reference of its own, unlike the Windows SDK's, so
// attaching a new object would leave it one reference that nobody releases.
template <typename T>
Microsoft::WRL::ComPtr<T> AdoptNew(T* object) noexcept
{
    Microsoft::WRL::ComPtr<T> p(object);
    if (object != nullptr)
        object->Release();
    return p;
}

// A new object, owned by the returned pointer alone.
template <typename T, typename... Args>
Microsoft::WRL::ComPtr<T> MakeCom(Args&&... args)
{
    return AdoptNew(new T(std::forward<Args>(args)...));
}

} // namespace TarnBase
