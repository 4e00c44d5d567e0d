#pragma once

namespace TarnSMX {

// Failed evaluations keep their downloaded data file for a support engineer to look at.
// A page that fails in a loop would otherwise fill the disk, or use up the 65,535 names
// the system gives temporary files, after which no site check could run at all.
constexpr unsigned kKeptFailedDownloads = 8;

// Deletes the oldest files "<prefix>*.tmp" of the temporary folder so that, with the one
// the caller is about to create, at most kKeptFailedDownloads remain (the newest). Files
// another evaluation still has open stay. Never throws.
void PruneFailedDownloads(const wchar_t* prefix) noexcept;

} // namespace TarnSMX
