#pragma once
// Scratch files, registry keys and the process-wide vendor identifier for the download and
// site discovery tests, each put back the way it was when its owner goes out of scope.

#include "TarnBase/win/Handle.h"
#include "TarnSM/win/VendorId.h"

#include <windows.h>

#include <string>
#include <vector>

namespace DownloadTest {

inline std::wstring Wide(const std::string& ascii)
{
    return std::wstring(ascii.begin(), ascii.end());
}

inline std::string Narrow(const std::wstring& ascii)
{
    std::string narrow;
    for (wchar_t c : ascii)
        narrow += static_cast<char>(c);
    return narrow;
}

inline bool WriteBytes(const std::wstring& path, const std::string& bytes)
{
    TarnBase::UniqueFile file(
        ::CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    DWORD written = 0;
    return file && ::WriteFile(file.Get(), bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr) &&
           written == bytes.size();
}

inline bool ReadBytes(const std::wstring& path, std::string& bytes)
{
    bytes.clear();
    TarnBase::UniqueFile file(::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                            FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file)
        return false;
    char buffer[4096];
    DWORD read = 0;
    while (::ReadFile(file.Get(), buffer, sizeof buffer, &read, nullptr) && read > 0)
        bytes.append(buffer, read);
    return true;
}

inline bool FileExists(const std::wstring& path)
{
    return ::GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

inline void DeleteTree(const std::wstring& dir)
{
    WIN32_FIND_DATAW found{};
    const HANDLE search = ::FindFirstFileW((dir + L"\\*").c_str(), &found);
    if (search != INVALID_HANDLE_VALUE) {
        do {
            const std::wstring name = found.cFileName;
            if (name == L"." || name == L"..")
                continue;
            const std::wstring path = dir + L"\\" + name;
            if (found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)
                DeleteTree(path);
            else
                ::DeleteFileW(path.c_str());
        } while (::FindNextFileW(search, &found));
        ::FindClose(search);
    }
    ::RemoveDirectoryW(dir.c_str());
}

// A fresh directory under the temporary folder, removed with everything in it.
class TempDir {
public:
    explicit TempDir(const std::wstring& tag)
    {
        wchar_t temp[MAX_PATH];
        ::GetTempPathW(MAX_PATH, temp);
        static LONG counter = 0;
        m_path = std::wstring(temp) + L"tarn-" + tag + L"-" + std::to_wstring(::GetCurrentProcessId()) + L"-" +
                 std::to_wstring(::InterlockedIncrement(&counter));
        ::CreateDirectoryW(m_path.c_str(), nullptr);
    }
    ~TempDir() { DeleteTree(m_path); }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::wstring& Path() const { return m_path; }
    std::wstring operator/(const std::wstring& relative) const { return m_path + L"\\" + relative; }

    // Writes a file below the directory, creating the folders on the way.
    bool Put(const std::wstring& relative, const std::string& bytes) const
    {
        for (size_t slash = relative.find(L'\\'); slash != std::wstring::npos; slash = relative.find(L'\\', slash + 1))
            ::CreateDirectoryW((m_path + L"\\" + relative.substr(0, slash)).c_str(), nullptr);
        return WriteBytes(*this / relative, bytes);
    }

private:
    std::wstring m_path;
};

// A registry key for the length of a test. Keys it had to create are deleted with
// everything below them; values it set in a key that was already there get their old
// contents back (or are deleted when they did not exist).
class ScopedRegistryKey {
public:
    ScopedRegistryKey(HKEY root, const std::string& path) : m_root(root)
    {
        std::string sofar;
        size_t start = 0;
        while (start <= path.size()) {
            const size_t end = path.find('\\', start);
            const std::string part = path.substr(start, end == std::string::npos ? std::string::npos : end - start);
            sofar += (sofar.empty() ? "" : "\\") + part;
            TarnBase::UniqueRegKey key;
            DWORD disposition = 0;
            if (::RegCreateKeyExA(root, sofar.c_str(), 0, nullptr, 0, KEY_READ | KEY_WRITE, nullptr, key.Put(),
                                  &disposition) != ERROR_SUCCESS)
                return;
            if (disposition == REG_CREATED_NEW_KEY && m_created.empty())
                m_created = sofar;
            if (end == std::string::npos)
                break;
            start = end + 1;
        }
        m_key.Reset();
        m_ok = ::RegOpenKeyExA(root, path.c_str(), 0, KEY_READ | KEY_WRITE, m_key.Put()) == ERROR_SUCCESS;
    }

    ~ScopedRegistryKey()
    {
        if (m_key)
            for (auto saved = m_saved.rbegin(); saved != m_saved.rend(); ++saved) {
                if (saved->existed)
                    ::RegSetValueExA(m_key.Get(), saved->name.c_str(), 0, saved->type, saved->data.data(),
                                     static_cast<DWORD>(saved->data.size()));
                else
                    ::RegDeleteValueA(m_key.Get(), saved->name.c_str());
            }
        m_key.Reset();
        if (!m_created.empty())
            ::RegDeleteTreeA(m_root, m_created.c_str());
    }
    ScopedRegistryKey(const ScopedRegistryKey&) = delete;
    ScopedRegistryKey& operator=(const ScopedRegistryKey&) = delete;

    bool Ok() const { return m_ok; }

    bool SetRaw(const std::string& name, DWORD type, const void* data, DWORD size)
    {
        if (!m_ok)
            return false;
        Saved saved{name, false, REG_NONE, {}};
        DWORD oldSize = 0;
        if (::RegQueryValueExA(m_key.Get(), name.c_str(), nullptr, &saved.type, nullptr, &oldSize) == ERROR_SUCCESS) {
            saved.existed = true;
            saved.data.resize(oldSize);
            ::RegQueryValueExA(m_key.Get(), name.c_str(), nullptr, &saved.type, saved.data.data(), &oldSize);
        }
        m_saved.push_back(saved);
        return ::RegSetValueExA(m_key.Get(), name.c_str(), 0, type, static_cast<const BYTE*>(data), size) ==
               ERROR_SUCCESS;
    }

    bool SetDword(const std::string& name, DWORD value) { return SetRaw(name, REG_DWORD, &value, sizeof value); }

    bool SetString(const std::string& name, const std::string& value)
    {
        return SetRaw(name, REG_SZ, value.c_str(), static_cast<DWORD>(value.size() + 1));
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

// The process-wide VendorID for one test.
class ScopedVendorId {
public:
    explicit ScopedVendorId(const std::string& vendorId) : m_previous(TarnSMX::GetVendorId())
    {
        TarnSMX::SetVendorId(vendorId);
    }
    ~ScopedVendorId() { TarnSMX::SetVendorId(m_previous); }
    ScopedVendorId(const ScopedVendorId&) = delete;
    ScopedVendorId& operator=(const ScopedVendorId&) = delete;

private:
    std::string m_previous;
};

} // namespace DownloadTest
