#include "Commands.h"
#include "LineOutput.h"

#include "TarnBase/win/Handle.h"
#include "TarnLog/CriticalFile.h"

#include <windows.h>
#include <shlobj.h>

namespace TarnLogTool {
namespace {

// The writers keep the file a little above 32500 bytes; anything far bigger is not theirs.
constexpr DWORD kMaxCriticalBytes = 16u << 20;

std::string DefaultCriticalPath()
{
    char folder[MAX_PATH] = {};
    if (FAILED(::SHGetFolderPathA(nullptr, CSIDL_COMMON_APPDATA, nullptr, 0, folder)))
        return std::string();
    return std::string(folder) + "\\Ostrum\\critical.txt";
}

// False with a message; the writers keep the file open only briefly and share it.
bool ReadWholeFile(const std::string& path, std::string& bytes, bool& cut, std::string& error)
{
    TarnBase::UniqueFile file(::CreateFileA(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                            nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file) {
        const DWORD code = ::GetLastError();
        if (code == ERROR_FILE_NOT_FOUND || code == ERROR_PATH_NOT_FOUND)
            error = "tarnlog: no critical log file at " + path;
        else
            error = "tarnlog: cannot open " + path + " (GetLastError: " + std::to_string(code) + ")";
        return false;
    }
    cut = false;
    bytes.clear();
    char buffer[65536];
    DWORD read = 0;
    while (::ReadFile(file.Get(), buffer, sizeof buffer, &read, nullptr) && read > 0) {
        if (bytes.size() + read > kMaxCriticalBytes) {
            cut = true;
            break;
        }
        bytes.append(buffer, read);
    }
    return true;
}

} // namespace

int RunCritical(const Options& options, std::FILE* out, std::FILE* err)
{
    const std::string path = options.criticalPath.empty() ? DefaultCriticalPath() : options.criticalPath;
    if (path.empty()) {
        std::fprintf(err, "tarnlog: cannot find the all-users application data folder\n");
        return kExitUnreadable;
    }
    std::string bytes;
    std::string error;
    bool cut = false;
    if (!ReadWholeFile(path, bytes, cut, error)) {
        std::fprintf(err, "%s\n", error.c_str());
        return kExitUnreadable;
    }
    if (cut)
        std::fprintf(err, "tarnlog: %s is over %lu bytes; only its start is read\n", path.c_str(),
                     static_cast<unsigned long>(kMaxCriticalBytes));

    const TarnLog::CriticalFileContents contents = TarnLog::ReadCriticalRecords(bytes);
    if (!contents.positionValid)
        std::fprintf(err, "tarnlog: the critical file's position (%lu) is damaged; records are shown in file order\n",
                     static_cast<unsigned long>(contents.position));
    for (const auto& record : contents.records)
        WriteLine(out, record);
    std::fflush(out);
    return kExitOk;
}

} // namespace TarnLogTool
