#include "TarnUtils/win/TempFile.h"

#include "TarnBase/Throw.h"

#include <windows.h>

namespace TarnUtils {
namespace {

const char kFileManagerClass[] = "TarnUtilsLib::FileManager";
const char kSource[] = "FileManager";

} // namespace

std::wstring TemporaryFolder()
{
    wchar_t path[MAX_PATH + 1] = {};
    const DWORD length = ::GetTempPathW(MAX_PATH, path);
    if (length > 0 && length <= MAX_PATH)
        return path;
    wchar_t windows[MAX_PATH] = {};
    const UINT windowsLength = ::GetWindowsDirectoryW(windows, MAX_PATH);
    if (windowsLength == 0 || windowsLength >= MAX_PATH)
        TARN_THROW(kFileManagerClass, kSource, CreateTempDirException);
    std::wstring fallback = std::wstring(windows) + L"\\temp";
    if (!::CreateDirectoryW(fallback.c_str(), nullptr) && ::GetLastError() != ERROR_ALREADY_EXISTS)
        TARN_THROW(kFileManagerClass, kSource, CreateDirException);
    return fallback;
}

std::wstring CreateUniqueTempFile(const wchar_t* prefix)
{
    const std::wstring folder = TemporaryFolder();
    if (folder.empty())
        TARN_THROW(kFileManagerClass, kSource, CreateTempDirException);
    wchar_t path[MAX_PATH + 1] = {};
    // Unique number 0: the system picks the name and creates the file, so no other
    // process can take it between choosing and opening.
    if (::GetTempFileNameW(folder.c_str(), prefix, 0, path) == 0)
        return std::wstring();
    return path;
}

TarnBase::UniqueFile HoldForReading(const std::wstring& path)
{
    return TarnBase::UniqueFile(::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                              FILE_ATTRIBUTE_NORMAL, nullptr));
}

} // namespace TarnUtils
