#include "TarnLog/win/CriticalFileOpen.h"

#include "TarnBase/win/Handle.h"
#include "TarnLog/win/LowIntegrity.h"

#include <fcntl.h>
#include <io.h>

namespace TarnLog {
namespace {

constexpr DWORD kNoFollow = FILE_FLAG_OPEN_REPARSE_POINT;

PathEntryFacts FactsOf(const std::string& path, HANDLE handle)
{
    PathEntryFacts facts;
    facts.attributesByName = ::GetFileAttributesA(path.c_str());
    BY_HANDLE_FILE_INFORMATION info{};
    if (::GetFileInformationByHandle(handle, &info)) {
        facts.attributesByHandle = info.dwFileAttributes;
        facts.links = info.nNumberOfLinks;
    }
    return facts;
}

} // namespace

bool IsPlainEntry(const PathEntryFacts& facts, bool wantDirectory)
{
    for (const DWORD attributes : {facts.attributesByName, facts.attributesByHandle}) {
        if (attributes == INVALID_FILE_ATTRIBUTES || (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0)
            return false;
        if (((attributes & FILE_ATTRIBUTE_DIRECTORY) != 0) != wantDirectory)
            return false;
    }
    return wantDirectory || facts.links == 1;
}

UniqueStdFile OpenCriticalFile(const std::string& folder)
{
    ::CreateDirectoryA(folder.c_str(), nullptr);
    // Held without delete sharing while the file is opened, so the checked folder cannot be
    // renamed away and replaced by a link in between.
    TarnBase::UniqueFile folderHandle(::CreateFileA(folder.c_str(), FILE_READ_ATTRIBUTES, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                                    nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS | kNoFollow,
                                                    nullptr));
    if (!folderHandle || !IsPlainEntry(FactsOf(folder, folderHandle.Get()), true))
        return nullptr;

    const std::string path = folder + "\\critical.txt";
    constexpr DWORD kShare = FILE_SHARE_READ | FILE_SHARE_WRITE;
    bool created = false;
    TarnBase::UniqueFile file;
    for (int attempt = 0; attempt < 2 && !file; ++attempt) {
        file.Reset(::CreateFileA(path.c_str(), GENERIC_READ | GENERIC_WRITE, kShare, nullptr, OPEN_EXISTING, kNoFollow,
                                 nullptr));
        if (file || ::GetLastError() != ERROR_FILE_NOT_FOUND)
            break;
        // Created here: this process owns it, and only then labels it.
        file.Reset(::CreateFileA(path.c_str(), GENERIC_READ | GENERIC_WRITE | WRITE_OWNER, kShare, nullptr, CREATE_NEW,
                                 FILE_ATTRIBUTE_NORMAL | kNoFollow, nullptr));
        created = static_cast<bool>(file);
    }
    if (!file || !IsPlainEntry(FactsOf(path, file.Get()), false))
        return nullptr;
    if (created)
        ApplyLowIntegrityLabel(file.Get(), SE_FILE_OBJECT);

    const int descriptor = ::_open_osfhandle(reinterpret_cast<intptr_t>(file.Get()), _O_RDWR | _O_BINARY);
    if (descriptor == -1)
        return nullptr;
    file.Release();  // the descriptor owns the handle now
    UniqueStdFile stream(::_fdopen(descriptor, "rb+"));
    if (!stream)
        ::_close(descriptor);
    return stream;
}

} // namespace TarnLog
