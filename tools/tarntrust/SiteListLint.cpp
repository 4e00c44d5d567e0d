#include "tools/tarntrust/SiteListLint.h"

namespace TarnTrust {
namespace {

// The same line and text rules the control's list reader follows (TarnSM/SiteList.cpp).
bool IsLineEnd(char c) { return c == '\r' || c == '\n'; }

size_t TextLength(const std::string& raw)
{
    const size_t nul = raw.find('\0');
    return nul == std::string::npos ? raw.size() : nul;
}

} // namespace

std::vector<SiteListWarning> LintSiteList(const std::string& raw)
{
    std::vector<SiteListWarning> warnings;
    const size_t end = TextLength(raw);
    size_t lineNumber = 1;
    size_t pos = 0;
    while (pos <= end) {
        size_t lineEnd = pos;
        while (lineEnd < end && !IsLineEnd(raw[lineEnd]))
            ++lineEnd;
        const std::string line = raw.substr(pos, lineEnd - pos);
        auto warn = [&](const char* text) { warnings.push_back({lineNumber, text}); };

        if (line.find_first_not_of(" \t") == std::string::npos) {
            // Blank lines are layout, not mistakes.
        } else if (line[0] != '+' && line[0] != '-') {
            if (line[0] != '#' && line[0] != ';')
                warn("line is ignored: it does not start with '+' or '-' (start comments with '#' or ';')");
        } else {
            const std::string entry = line.substr(1);
            const size_t first = entry.find_first_not_of(" \t");
            const size_t last = entry.find_last_not_of(" \t");
            if (entry.empty()) {
                warn("empty entry");
            } else if (first != 0 || last != entry.size() - 1) {
                warn("entry has leading or trailing blanks and can never match");
            }
            if (first != std::string::npos) {
                const std::string core = entry.substr(first, last - first + 1);
                if (core.find_first_of(" \t/:") != std::string::npos)
                    warn("entry contains a blank, '/' or ':', which never appear in a domain");
                if (core == "*." || core == "=")
                    warn("entry names no domain after its '*.' or '='");
            }
        }

        if (lineEnd >= end)
            break;
        // CR LF is one line break, as a publisher's editor shows it.
        pos = lineEnd + ((raw[lineEnd] == '\r' && lineEnd + 1 < end && raw[lineEnd + 1] == '\n') ? 2 : 1);
        ++lineNumber;
    }
    return warnings;
}

} // namespace TarnTrust
