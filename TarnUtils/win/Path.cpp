#include "TarnUtils/win/Path.h"

#include "TarnUtils/win/StringConvert.h"

#include <shlwapi.h>

namespace TarnUtils {
namespace Path {

bool IsAbsolute(const std::wstring& path)
{
    if (path.empty())
        return false;
    try {
        const std::string narrow = WideToAnsi(path);
        return !::PathIsRelativeA(narrow.c_str()) && ::PathSkipRootA(narrow.c_str()) != nullptr;
    } catch (...) {
        return false;
    }
}

bool IsFile(const std::wstring& path)
{
    try {
        const std::string narrow = WideToAnsi(path);
        return ::PathFileExistsA(narrow.c_str()) && !::PathIsDirectoryA(narrow.c_str());
    } catch (...) {
        return false;
    }
}

} // namespace Path
} // namespace TarnUtils
