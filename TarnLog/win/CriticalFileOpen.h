#pragma once
// Opens the machine-wide critical log file without being redirected. Its folder under the
// all-users data folder is writable by every user, so a user who made the folder, or the
// file, first could have put a link there that sends other users' and elevated hosts'
// writes into a file of their choice.

#include <windows.h>

#include <cstdio>
#include <memory>
#include <string>

namespace TarnLog {

// What the platform says about one folder or file on the way to the critical file.
struct PathEntryFacts {
    DWORD attributesByName = INVALID_FILE_ATTRIBUTES;    // the entry itself, not followed
    DWORD attributesByHandle = INVALID_FILE_ATTRIBUTES;  // opened without following a link
    DWORD links = 0;                                     // hard links to the same file
};

// A folder or file may be used only when it is what its name says: no reparse point
// (junction, symbolic link, mount point) by either account, the right kind, and a file
// that no other name shares.
bool IsPlainEntry(const PathEntryFacts& facts, bool wantDirectory);

struct StdFileCloser {
    void operator()(std::FILE* f) const { std::fclose(f); }
};
using UniqueStdFile = std::unique_ptr<std::FILE, StdFileCloser>;

// `folder`\critical.txt opened for update, created (and labelled for low-integrity
// writers) when missing; null when the folder or the file is not plain.
UniqueStdFile OpenCriticalFile(const std::string& folder);

} // namespace TarnLog
