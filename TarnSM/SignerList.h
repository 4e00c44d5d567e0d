#pragma once
// Splitting a signer list string (the build's default list, a data file's own list) into
// certificate common names.

#include <string>
#include <vector>

namespace TarnSMX {

// Names are the text between separators (any character of `separators`). Runs of separators
// and separators at either end give no empty names; names keep their blanks, since a common
// name is compared whole.
std::vector<std::string> SplitSigners(const std::string& text, const std::string& separators);

} // namespace TarnSMX
