#pragma once
// One small owner per kind of resource: non-copyable, movable, closed in the destructor.
// Add a Traits struct for a new kind rather than writing another close path.

#include <windows.h>
#include <wininet.h>

#include <utility>

namespace TarnBase {

template <typename Traits>
class UniqueResource {
public:
    using Type = typename Traits::Type;

    UniqueResource() noexcept = default;
    explicit UniqueResource(Type value) noexcept : m_value(value) {}
    ~UniqueResource() { Reset(); }

    UniqueResource(const UniqueResource&) = delete;
    UniqueResource& operator=(const UniqueResource&) = delete;
    UniqueResource(UniqueResource&& other) noexcept : m_value(other.Release()) {}
    UniqueResource& operator=(UniqueResource&& other) noexcept
    {
        if (this != &other)
            Reset(other.Release());
        return *this;
    }

    Type Get() const noexcept { return m_value; }
    bool IsValid() const noexcept { return Traits::IsValid(m_value); }
    explicit operator bool() const noexcept { return IsValid(); }

    // For out-parameters of creating calls; the previous value is closed first.
    Type* Put() noexcept
    {
        Reset();
        return &m_value;
    }

    void Reset(Type value = Traits::Invalid()) noexcept
    {
        if (Traits::IsValid(m_value))
            Traits::Close(m_value);
        m_value = value;
    }

    Type Release() noexcept { return std::exchange(m_value, Traits::Invalid()); }

private:
    Type m_value = Traits::Invalid();
};

// Resources whose "none" is a zero value (a null pointer or handle, a zero CryptoAPI
// handle), freed by one call that takes the value: only the type and that call differ.
template <typename T, auto CloseFn>
struct ZeroIsNoneTraits {
    using Type = T;
    static Type Invalid() { return Type{}; }
    static bool IsValid(Type v) { return v != Type{}; }
    static void Close(Type v) { CloseFn(v); }
};

// CreateMutex, CreateEvent, CreateFileMapping, threads: null means "none".
struct KernelHandleTraits {
    using Type = HANDLE;
    static Type Invalid() { return nullptr; }
    static bool IsValid(Type h) { return h != nullptr && h != INVALID_HANDLE_VALUE; }
    static void Close(Type h) { ::CloseHandle(h); }
};
using UniqueHandle = UniqueResource<KernelHandleTraits>;

// CreateFile and FindFirstFile: INVALID_HANDLE_VALUE means "none"; they differ in the call
// that ends them.
template <auto CloseFn>
struct InvalidValueIsNoneTraits {
    using Type = HANDLE;
    static Type Invalid() { return INVALID_HANDLE_VALUE; }
    static bool IsValid(Type h) { return h != nullptr && h != INVALID_HANDLE_VALUE; }
    static void Close(Type h) { CloseFn(h); }
};
using UniqueFile = UniqueResource<InvalidValueIsNoneTraits<&::CloseHandle>>;

using UniqueRegKey = UniqueResource<ZeroIsNoneTraits<HKEY, &::RegCloseKey>>;
using UniqueMappedView = UniqueResource<ZeroIsNoneTraits<void*, &::UnmapViewOfFile>>;
using UniqueModule = UniqueResource<ZeroIsNoneTraits<HMODULE, &::FreeLibrary>>;
using UniqueLocal = UniqueResource<ZeroIsNoneTraits<HLOCAL, &::LocalFree>>;
using UniqueInternetHandle = UniqueResource<ZeroIsNoneTraits<HINTERNET, &::InternetCloseHandle>>;

} // namespace TarnBase
