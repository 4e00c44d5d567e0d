#include "TarnSM/SignerList.h"

namespace TarnSMX {

std::vector<std::string> SplitSigners(const std::string& text, const std::string& separators)
{
    std::vector<std::string> names;
    size_t pos = text.find_first_not_of(separators);
    while (pos != std::string::npos) {
        const size_t end = text.find_first_of(separators, pos);
        names.push_back(text.substr(pos, end == std::string::npos ? std::string::npos : end - pos));
        if (end == std::string::npos)
            break;
        pos = text.find_first_not_of(separators, end);
    }
    return names;
}

} // namespace TarnSMX
