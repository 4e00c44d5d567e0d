#pragma once
// Scratch folders and files of the Windows tests, removed with everything in them.

#include <windows.h>

#include <filesystem>
#include <fstream>
#include <iterator>
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
    std::ofstream out(std::filesystem::path(path), std::ios::binary | std::ios::trunc);
    return out.write(bytes.data(), static_cast<std::streamsize>(bytes.size())).flush().good();
}

inline bool ReadBytes(const std::wstring& path, std::string& bytes)
{
    std::ifstream in(std::filesystem::path(path), std::ios::binary);
    bytes.assign(std::istreambuf_iterator<char>(in), {});
    return in.is_open();
}

inline bool FileExists(const std::wstring& path)
{
    return ::GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

inline void DeleteTree(const std::wstring& dir)
{
    std::error_code ignored;  // what cannot go now (a file still open) is left to the temporary folder
    std::filesystem::remove_all(dir, ignored);
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
        std::error_code ignored;
        std::filesystem::create_directories(std::filesystem::path(*this / relative).parent_path(), ignored);
        return WriteBytes(*this / relative, bytes);
    }

private:
    std::wstring m_path;
};

} // namespace TarnTest
