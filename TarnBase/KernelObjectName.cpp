#include "TarnBase/KernelObjectName.h"

#include "TarnBase/AsciiCase.h"
#include "TarnBase/Throw.h"

namespace TarnBase {
namespace {

const char kClass[] = "TarnBase::KernelObject";
const char kSource[] = "KernelObject";

bool StartsWithNoCase(const std::string& text, const char* prefix)
{
    size_t i = 0;
    for (; prefix[i] != '\0'; ++i) {
        if (i >= text.size())
            return false;
        if (ToLowerAscii(text[i]) != ToLowerAscii(prefix[i]))
            return false;
    }
    return true;
}

[[noreturn]] void Refuse(int line)
{
    ::TarnBase::Log(kClass, 0, "Throwing %s exception type. File: %s Line: %d.",
                    "TarnBase::KernelObjectNameInvalidException", kSource, line);
    throw KernelObjectNameInvalidException();
}

} // namespace

std::string MakeKernelObjectName(const std::string& name, bool global, const OsVersion& os)
{
    constexpr size_t kMaxName = 260;
    if (name.empty() || name.size() > kMaxName)
        Refuse(__LINE__);

    const bool namespaces = os.platformId == 2 && os.major >= 5;
    const bool hasGlobal = StartsWithNoCase(name, "Global\\");
    const bool hasLocal = StartsWithNoCase(name, "Local\\");

    if (hasGlobal || hasLocal) {
        if (namespaces)
            return name;
        // Older systems know no namespaces: the bare name must stand on its own.
        std::string rest = name.substr(hasGlobal ? 7 : 6);
        if (rest.find('\\') != std::string::npos)
            Refuse(__LINE__);
        return rest;
    }

    if (name.find('\\') != std::string::npos)
        Refuse(__LINE__);
    if (!namespaces)
        return name;
    return (global ? "Global\\" : "Local\\") + name;
}

} // namespace TarnBase
