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

// CreateMutex, CreateEvent, CreateFileMapping, threads: null means "none".
struct KernelHandleTraits {
    using Type = HANDLE;
    static Type Invalid() { return nullptr; }
    static bool IsValid(Type h) { return h != nullptr && h != INVALID_HANDLE_VALUE; }
    static void Close(Type h) { ::CloseHandle(h); }
};
using UniqueHandle = UniqueResource<KernelHandleTraits>;

// CreateFile: INVALID_HANDLE_VALUE means "none".
struct FileHandleTraits {
    using Type = HANDLE;
    static Type Invalid() { return INVALID_HANDLE_VALUE; }
    static bool IsValid(Type h) { return h != nullptr && h != INVALID_HANDLE_VALUE; }
    static void Close(Type h) { ::CloseHandle(h); }
};
using UniqueFile = UniqueResource<FileHandleTraits>;

struct RegKeyTraits {
    using Type = HKEY;
    static Type Invalid() { return nullptr; }
    static bool IsValid(Type h) { return h != nullptr; }
    static void Close(Type h) { ::RegCloseKey(h); }
};
using UniqueRegKey = UniqueResource<RegKeyTraits>;

struct MappedViewTraits {
    using Type = void*;
    static Type Invalid() { return nullptr; }
    static bool IsValid(Type p) { return p != nullptr; }
    static void Close(Type p) { ::UnmapViewOfFile(p); }
};
using UniqueMappedView = UniqueResource<MappedViewTraits>;

struct ModuleTraits {
    using Type = HMODULE;
    static Type Invalid() { return nullptr; }
    static bool IsValid(Type h) { return h != nullptr; }
    static void Close(Type h) { ::FreeLibrary(h); }
};
using UniqueModule = UniqueResource<ModuleTraits>;

struct LocalMemoryTraits {
    using Type = HLOCAL;
    static Type Invalid() { return nullptr; }
    static bool IsValid(Type h) { return h != nullptr; }
    static void Close(Type h) { ::LocalFree(h); }
};
using UniqueLocal = UniqueResource<LocalMemoryTraits>;

// InternetOpen, InternetOpenUrl: null means "none".
struct InternetHandleTraits {
    using Type = HINTERNET;
    static Type Invalid() { return nullptr; }
    static bool IsValid(Type h) { return h != nullptr; }
    static void Close(Type h) { ::InternetCloseHandle(h); }
};
using UniqueInternetHandle = UniqueResource<InternetHandleTraits>;

} // namespace TarnBase
