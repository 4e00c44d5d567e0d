#pragma once
// Scratch folders and files of the Windows tests, removed with everything in them.

#include "TarnBase/win/Handle.h"
#include "TarnBase/win/Owners.h"

#include <windows.h>

#include <string>

namespace TarnTest {

// A name no other test process of the run uses at the same time.
inline std::string Unique(const std::string& base)
{
    static LONG counter = 0;
    return base + "-" + std::to_string(::GetCurrentProcessId()) + "-" + std::to_string(::InterlockedIncrement(&counter));
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
    char buffer[4096];
    DWORD read = 0;
    while (file && ::ReadFile(file.Get(), buffer, sizeof buffer, &read, nullptr) && read > 0)
        bytes.append(buffer, read);
    return static_cast<bool>(file);
}

inline bool FileExists(const std::wstring& path)
{
    return ::GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

inline void DeleteTree(const std::wstring& dir)
{
    WIN32_FIND_DATAW found{};
    const TarnBase::UniqueFindHandle search(::FindFirstFileW((dir + L"\\*").c_str(), &found));
    if (search) {
        do {
            const std::wstring name = found.cFileName, path = dir + L"\\" + name;
            if (name != L"." && name != L"..")
                (found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) ? DeleteTree(path) : void(::DeleteFileW(path.c_str()));
        } while (::FindNextFileW(search.Get(), &found));
    }
    ::RemoveDirectoryW(dir.c_str());
}

// A fresh directory under the temporary folder.
class TempDir {
public:
    explicit TempDir(const std::wstring& tag = L"test")
    {
        wchar_t temp[MAX_PATH];
        ::GetTempPathW(MAX_PATH, temp);
        const std::string unique = Unique("");
        m_path = std::wstring(temp) + L"tarn-" + tag + std::wstring(unique.begin(), unique.end());
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

} // namespace TarnTest
