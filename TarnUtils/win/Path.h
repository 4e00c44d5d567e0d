#pragma once

#include <string>

namespace TarnUtils {
namespace Path {

// Absolute: not relative, and with a root that can be skipped (C:\..., \\server\share\...).
bool IsAbsolute(const std::wstring& path);
// Names an existing file, not a directory.
bool IsFile(const std::wstring& path);

} // namespace Path
} // namespace TarnUtils
