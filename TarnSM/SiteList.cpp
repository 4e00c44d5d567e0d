#include "TarnSM/SiteList.h"

#include "TarnBase/AsciiCase.h"
#include "TarnLog/Log.h"

#include <new>

namespace TarnSMX {

namespace {

const char kClassName[] = "TarnSMX::TarnSM";

bool IsLineEnd(char c) { return c == '\r' || c == '\n'; }

bool EqualsIgnoringCase(const std::string& text, const char* lowerWord)
{
    size_t i = 0;
    for (; i < text.size() && lowerWord[i] != '\0'; ++i)
        if (TarnBase::ToLowerAscii(text[i]) != lowerWord[i])
            return false;
    return i == text.size() && lowerWord[i] == '\0';
}

// The list reaches us as a C string from the resource loader, so a zero byte ends it.
size_t TextLength(const std::string& raw)
{
    const size_t nul = raw.find('\0');
    return nul == std::string::npos ? raw.size() : nul;
}

} // namespace

bool ParseSiteInfo(const std::string& raw, std::vector<std::string>& trusted, std::vector<std::string>& denied)
{
    const size_t trustedBefore = trusted.size();
    const size_t deniedBefore = denied.size();
    try {
        const size_t end = TextLength(raw);
        size_t pos = 0;
        while (pos < end) {
            size_t lineEnd = pos;
            while (lineEnd < end && !IsLineEnd(raw[lineEnd]))
                ++lineEnd;
            if (lineEnd > pos) {
                if (raw[pos] == '+')
                    trusted.push_back(raw.substr(pos + 1, lineEnd - pos - 1));
                else if (raw[pos] == '-')
                    denied.push_back(raw.substr(pos + 1, lineEnd - pos - 1));
            }
            // Every CR and LF ends a (possibly empty) line; empty lines carry nothing.
            pos = lineEnd + 1;
        }
        return true;
    } catch (const std::bad_alloc&) {
        // Shrinking never allocates, so a half-read list cannot be mistaken for the whole.
        trusted.resize(trustedBefore);
        denied.resize(deniedBefore);
        TarnLog::Log(kClassName, 0, "ParseSiteInfo: Memory allocation failure. Can't parse trust data.");
        return false;
    }
}

bool MatchSite(const std::string& entry, const std::string& domain)
{
    const bool wildcard = entry.size() >= 3 && entry[0] == '*' && entry[1] == '.';
    const bool exact = !wildcard && entry.size() >= 2 && entry[0] == '=';
    const size_t skip = wildcard ? 2 : (exact ? 1 : 0);
    const size_t patternLength = entry.size() - skip;

    if (patternLength > domain.size())
        return false;
    const size_t offset = domain.size() - patternLength;
    if (domain.compare(offset, patternLength, entry, skip, patternLength) != 0)
        return false;
    if (!wildcard && offset == 0)
        return true;
    if (exact)
        return false;
    // Only a whole label may precede the pattern: example.com must not admit badexample.com.
    return offset > 0 && domain[offset - 1] == '.';
}

bool GetTrust(const std::vector<std::string>& trusted, const std::vector<std::string>& denied, const std::string& domain)
{
    for (const auto& entry : denied) {
        if (!entry.empty() && MatchSite(entry, domain)) {
            TarnLog::Log(kClassName, 2, "GetTrust: Current site found on denied list. Current site is not trusted.");
            return false;
        }
    }
    for (const auto& entry : trusted) {
        if (!entry.empty() && MatchSite(entry, domain)) {
            TarnLog::Log(kClassName, 3, "GetTrust: Current site found on trust list. Current site is trusted.");
            return true;
        }
    }
    TarnLog::Log(kClassName, 3, "GetTrust: Current site not found on trust list. Current site is not trusted.");
    return false;
}

uint32_t SchemeCode(const std::string& scheme)
{
    if (EqualsIgnoringCase(scheme, "http"))
        return kSchemeHttp;
    if (EqualsIgnoringCase(scheme, "https"))
        return kSchemeHttps;
    if (EqualsIgnoringCase(scheme, "file"))
        return kSchemeFile;
    return kSchemeOther;
}

bool HasDllExtension(const std::string& downloadUrl)
{
    if (downloadUrl.size() < 3)
        return false;
    return EqualsIgnoringCase(downloadUrl.substr(downloadUrl.size() - 3), "dll");
}

int SiteListStringId(uint32_t schemeCode)
{
    switch (schemeCode) {
    case kSchemeHttp:
    case kSchemeFile:
        return 102;
    case kSchemeHttps:
        return 101;
    default:
        return 0;
    }
}

} // namespace TarnSMX
