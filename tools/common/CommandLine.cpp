#include "tools/common/CommandLine.h"

#include "TarnBase/win/Handle.h"

#include <windows.h>
#include <shellapi.h>

namespace TarnTools {

std::vector<std::wstring> CommandLineArguments()
{
    int count = 0;
    wchar_t** argv = ::CommandLineToArgvW(::GetCommandLineW(), &count);
    const TarnBase::UniqueLocal owner(argv);
    std::vector<std::wstring> args;
    for (int i = 1; argv && i < count; ++i)
        args.emplace_back(argv[i]);
    return args;
}

} // namespace TarnTools
