#pragma once

#include <oleauto.h>
#include <windows.h>

#include <utility>

namespace TarnUtils {

// Owns one BSTR.
class UniqueBstr {
public:
    UniqueBstr() = default;
    explicit UniqueBstr(BSTR value) : m_value(value) {}
    ~UniqueBstr() { Reset(); }
    UniqueBstr(const UniqueBstr&) = delete;
    UniqueBstr& operator=(const UniqueBstr&) = delete;
    UniqueBstr(UniqueBstr&& other) noexcept : m_value(other.Release()) {}
    UniqueBstr& operator=(UniqueBstr&& other) noexcept
    {
        if (this != &other)
            Reset(other.Release());
        return *this;
    }

    BSTR Get() const { return m_value; }
    BSTR* Put()
    {
        Reset();
        return &m_value;
    }
    void Reset(BSTR value = nullptr)
    {
        if (m_value != nullptr)
            ::SysFreeString(m_value);
        m_value = value;
    }
    BSTR Release() { return std::exchange(m_value, nullptr); }

private:
    BSTR m_value = nullptr;
};

} // namespace TarnUtils
