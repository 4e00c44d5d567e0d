#pragma once

#include "TarnBase/win/Handle.h"

#include <string>

namespace TarnUtils {

// Creates a new, empty, uniquely named file with the given prefix in the user's temporary
// folder (or "temp" under the system folder when there is none) and returns its path.
// Throws CreateDirException / CreateTempDirException when no folder can be had.
std::wstring CreateUniqueTempFile(const wchar_t* prefix);

// Opens `path` for reading with read sharing only: while the handle lives no process can
// write, replace, rename or delete the file, so the bytes that were checked are the bytes
// that are read. Invalid (with the last error set) when the file cannot be held.
TarnBase::UniqueFile HoldForReading(const std::wstring& path);

// The folder CreateUniqueTempFile uses; throws as it does.
std::wstring TemporaryFolder();

} // namespace TarnUtils
