#include "TarnSM/win/FailedDownloads.h"

#include "TarnBase/ResultLog.h"
#include "TarnBase/win/Owners.h"
#include "TarnSM/win/ScriptBoundary.h"
#include "TarnUtils/win/StringConvert.h"
#include "TarnUtils/win/TempFile.h"

#include <windows.h>

#include <algorithm>
#include <string>
#include <vector>

namespace TarnSMX {
namespace {

struct KeptFile {
    std::wstring path;
    ULONGLONG written;
};

std::vector<KeptFile> KeptFiles(const std::wstring& folder, const wchar_t* prefix)
{
    std::vector<KeptFile> files;
    WIN32_FIND_DATAW found{};
    const TarnBase::UniqueFindHandle search(::FindFirstFileW((folder + prefix + L"*.tmp").c_str(), &found));
    if (!search)
        return files;
    do {
        if ((found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0)
            files.push_back({folder + found.cFileName, (static_cast<ULONGLONG>(found.ftLastWriteTime.dwHighDateTime) << 32) |
                                                           found.ftLastWriteTime.dwLowDateTime});
    } while (::FindNextFileW(search.Get(), &found));
    return files;
}

} // namespace

void PruneFailedDownloads(const wchar_t* prefix) noexcept
{
    try {
        std::wstring folder = TarnUtils::TemporaryFolder();
        if (!folder.empty() && folder.back() != L'\\')
            folder += L'\\';
        std::vector<KeptFile> files = KeptFiles(folder, prefix);
        if (files.size() < kKeptFailedDownloads)
            return;
        std::sort(files.begin(), files.end(), [](const KeptFile& a, const KeptFile& b) { return a.written > b.written; });
        for (size_t i = kKeptFailedDownloads - 1; i < files.size(); ++i) {
            const std::string name = TarnUtils::WideToAnsiForLog(files[i].path.c_str(), files[i].path.size());
            if (::DeleteFileW(files[i].path.c_str()))
                TarnLog::Log(kControlClass, 3, "PruneFailedDownloads: Deleted an old failed download: %s.", name.c_str());
            else
                TARN_LOG_LAST_ERROR(TarnLog::Log, kControlClass, 2,
                                    "PruneFailedDownloads: Failed to delete an old failed download: %s.", name.c_str());
        }
    } catch (...) {
    }
}

} // namespace TarnSMX
