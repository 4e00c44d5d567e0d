#pragma once
// Registry state for the length of a test: keys it had to create are deleted with everything
// below them; values it set in a key that was already there get their old contents back.

#include "TarnBase/win/Handle.h"

#include <windows.h>

#include <string>
#include <vector>

namespace TarnTest {

class ScopedRegistryKey {
public:
    ScopedRegistryKey(HKEY root, const std::string& path) : m_root(root)
    {
        for (size_t end = 0; end != std::string::npos;) {
            end = path.find('\\', end + 1);
            const std::string sofar = path.substr(0, end);
            TarnBase::UniqueRegKey key;
            DWORD disposition = 0;
            if (::RegCreateKeyExA(root, sofar.c_str(), 0, nullptr, 0, KEY_READ | KEY_WRITE, nullptr, key.Put(),
                                  &disposition) != ERROR_SUCCESS)
                return;
            if (disposition == REG_CREATED_NEW_KEY && m_created.empty())
                m_created = sofar;
        }
        m_ok = ::RegOpenKeyExA(root, path.c_str(), 0, KEY_ALL_ACCESS, m_key.Put()) == ERROR_SUCCESS;
    }
    ~ScopedRegistryKey()
    {
        for (auto saved = m_saved.rbegin(); m_key && saved != m_saved.rend(); ++saved)
            if (saved->existed)
                ::RegSetValueExA(m_key.Get(), saved->name.c_str(), 0, saved->type, saved->data.data(),
                                 static_cast<DWORD>(saved->data.size()));
            else
                ::RegDeleteValueA(m_key.Get(), saved->name.c_str());
        m_key.Reset();
        if (!m_created.empty())
            ::RegDeleteTreeA(m_root, m_created.c_str());
    }
    ScopedRegistryKey(const ScopedRegistryKey&) = delete;
    ScopedRegistryKey& operator=(const ScopedRegistryKey&) = delete;

    bool SetRaw(const std::string& name, DWORD type, const void* data, DWORD size)
    {
        if (!m_ok)
            return false;
        Saved saved{name, false, REG_NONE, {}};
        DWORD oldSize = 0;
        saved.existed = ::RegQueryValueExA(m_key.Get(), name.c_str(), nullptr, &saved.type, nullptr, &oldSize) == ERROR_SUCCESS;
        saved.data.resize(oldSize);
        ::RegQueryValueExA(m_key.Get(), name.c_str(), nullptr, &saved.type, saved.data.data(), &oldSize);
        m_saved.push_back(saved);
        return ::RegSetValueExA(m_key.Get(), name.c_str(), 0, type, static_cast<const BYTE*>(data), size) ==
               ERROR_SUCCESS;
    }
    bool SetDword(const std::string& name, DWORD value) { return SetRaw(name, REG_DWORD, &value, sizeof value); }

protected:
    HKEY Get() const { return m_key.Get(); }

    // Empty subkeys below `sub` (itself created when missing); names as UTF-16, so letters
    // outside the ANSI code page stay exact.
    void AddSubkeys(const std::wstring& sub, const std::vector<std::wstring>& names = {})
    {
        TarnBase::UniqueRegKey key;
        ::RegCreateKeyExW(m_key.Get(), sub.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, key.Put(), nullptr);
        for (const auto& name : names) {
            TarnBase::UniqueRegKey child;
            ::RegCreateKeyExW(key.Get(), name.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, child.Put(), nullptr);
        }
    }

private:
    struct Saved {
        std::string name;
        bool existed;
        DWORD type;
        std::vector<BYTE> data;
    };
    HKEY m_root;
    TarnBase::UniqueRegKey m_key;
    std::string m_created;
    std::vector<Saved> m_saved;
    bool m_ok = false;
};

// A vendor's configuration key, HKLM "Software\Ostrum\Kestrel\Config\<vendor>", with its
// signer and container lists.
class VendorKey : public ScopedRegistryKey {
public:
    explicit VendorKey(const std::string& vendor) : ScopedRegistryKey(HKEY_LOCAL_MACHINE, Parent() + vendor), m_vendor(vendor) {}
    void AddSigners(const std::vector<std::wstring>& names) { AddSubkeys(L"TarnSM\\TrustedSigners", names); }
    void AddContainers(const std::vector<std::wstring>& names = {}) { AddSubkeys(L"TarnSM\\TrustedContainers", names); }
    void RemoveContainer(const std::wstring& name)
    {
        ::RegDeleteKeyW(Get(), (L"TarnSM\\TrustedContainers\\" + name).c_str());
    }
    const std::string& Name() const { return m_vendor; }

private:
    // The parent stays: removing it would take other tests' vendor keys with it.
    static std::string Parent()
    {
        TarnBase::UniqueRegKey key;
        ::RegCreateKeyExA(HKEY_LOCAL_MACHINE, "Software\\Ostrum\\Kestrel\\Config", 0, nullptr, 0, KEY_READ, nullptr,
                          key.Put(), nullptr);
        return "Software\\Ostrum\\Kestrel\\Config\\";
    }
    std::string m_vendor;
};

} // namespace TarnTest
