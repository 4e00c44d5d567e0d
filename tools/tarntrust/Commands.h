#pragma once
// tarntrust's commands. Each prints its result on standard output, problems on standard
// error, and returns the exit code: 0 done (or trusted), 1 refused, 2 usage.

#include <string>

namespace TarnTrust {

// Makes the (unsigned) module from a site file.
int Build(const std::string& sitePath, const std::string& outPath);
// What the control would read from a data file, and who signed it.
int Show(const std::string& path);
// The control's answer for `domain` on `scheme` pages, and the entry that decided it.
int Check(const std::string& path, const std::string& domain, const std::string& scheme);

} // namespace TarnTrust
