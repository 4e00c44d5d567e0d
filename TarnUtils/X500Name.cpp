#include "TarnUtils/X500Name.h"

#include "TarnBase/Throw.h"
#include "TarnLog/Log.h"

#include <cstring>
#include <new>

namespace TarnUtils {

namespace {

const char kClassName[] = "TarnUtilsLib::Authenticode";
const char kSourceName[] = "Authenticode";

bool IsBlank(char c) { return c == ' ' || c == '\t'; }

struct Attribute {
    const char* typeBegin;
    const char* typeEnd;
    const char* valueBegin;  // after the opening quote of a quoted value
    const char* valueEnd;    // at the closing quote, or the end of the text if there is none
    bool quoted;
    const char* next;        // where the following attribute starts, or the terminator
};

// Reads the attribute starting at `p`. False when no '=' follows: there is no attribute left.
bool ReadAttribute(const char* p, Attribute& a)
{
    const char* equals = std::strchr(p, '=');
    if (equals == nullptr)
        return false;

    a.typeBegin = p;
    a.typeEnd = equals;
    while (a.typeBegin < a.typeEnd && IsBlank(*a.typeBegin))
        ++a.typeBegin;
    while (a.typeEnd > a.typeBegin && IsBlank(a.typeEnd[-1]))
        --a.typeEnd;

    const char* v = equals + 1;
    while (IsBlank(*v))
        ++v;

    const char* rest;
    a.quoted = *v == '"';
    if (a.quoted) {
        a.valueBegin = v + 1;
        const char* q = a.valueBegin;
        while (*q != '\0') {
            if (*q == '"') {
                if (q[1] != '"')
                    break;
                q += 2;
            } else {
                ++q;
            }
        }
        a.valueEnd = q;
        rest = *q == '"' ? q + 1 : q;
    } else {
        // An unquoted value ends at "," between components and at "+" between the
        // attributes of one component: read past a "+", a quoted value of the next
        // attribute could pass its own text off as an attribute of its own.
        a.valueBegin = v;
        const char* end = std::strpbrk(v, ",+");
        a.valueEnd = end != nullptr ? end : v + std::strlen(v);
        while (a.valueEnd > a.valueBegin && IsBlank(a.valueEnd[-1]))
            --a.valueEnd;
        rest = end != nullptr ? end : a.valueEnd;
    }

    const char* separator = std::strpbrk(rest, ",+");
    a.next = separator != nullptr ? separator + 1 : rest + std::strlen(rest);
    return true;
}

// Copies the value, doubled quotes of a quoted value made single, into at most `capacity`
// characters of `out` (when given); returns the full length of the value.
size_t CopyValue(const Attribute& a, char* out, size_t capacity)
{
    size_t length = 0;
    for (const char* c = a.valueBegin; c < a.valueEnd; ++c) {
        if (a.quoted && *c == '"')
            ++c;  // first of a doubled pair: ReadAttribute stopped before any lone quote
        if (out != nullptr && length < capacity)
            out[length] = *c;
        ++length;
    }
    return length;
}

} // namespace

size_t ExtractX500Name(const char* name, const char* attributeType, char* buffer, size_t bufferSize)
{
    if (name == nullptr || *name == '\0' || attributeType == nullptr || *attributeType == '\0') {
        TarnLog::Log(kClassName, 1, "%s - Invalid argument detected for parameter %s.", "ExtractX500Name", "pszName");
        TARN_THROW(kClassName, kSourceName, TarnBase::InvalidParameterException);
    }

    const size_t typeLength = std::strlen(attributeType);
    Attribute a{};
    for (const char* p = name; *p != '\0' && ReadAttribute(p, a); p = a.next) {
        const size_t length = static_cast<size_t>(a.typeEnd - a.typeBegin);
        if (length != typeLength || std::memcmp(a.typeBegin, attributeType, length) != 0)
            continue;
        if (buffer == nullptr || bufferSize == 0)
            return CopyValue(a, nullptr, 0) + 1;
        const size_t valueLength = CopyValue(a, buffer, bufferSize - 1);
        buffer[valueLength < bufferSize - 1 ? valueLength : bufferSize - 1] = '\0';
        return valueLength + 1;
    }
    return 0;
}

std::string ExtractX500NameString(const std::string& name, const std::string& attributeType)
{
    const size_t needed = ExtractX500Name(name.c_str(), attributeType.c_str(), nullptr, 0);
    if (needed == 0)
        return std::string();
    std::string value;
    try {
        value.resize(needed);
    } catch (const std::bad_alloc&) {
        TarnLog::Log(kClassName, 1, "%s - Allocation failed for %s.", "ExtractX500Name", "pTempBuf");
        TARN_THROW(kClassName, kSourceName, TarnBase::OutOfMemoryException);
    }
    ExtractX500Name(name.c_str(), attributeType.c_str(), &value[0], value.size());
    value.resize(needed - 1);
    return value;
}

} // namespace TarnUtils
