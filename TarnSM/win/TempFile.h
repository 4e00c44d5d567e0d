#pragma once

#include <string>

namespace TarnSMX {

// Creates a new, empty, uniquely named file with the given prefix in the user's temporary
// folder (or "temp" under the system folder when there is none) and returns its path.
// Throws CreateDirException / CreateTempDirException when no folder can be had.
std::wstring CreateUniqueTempFile(const wchar_t* prefix);

// The folder CreateUniqueTempFile uses; throws as it does.
std::wstring TemporaryFolder();

} // namespace TarnSMX
