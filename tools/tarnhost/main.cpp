// tarnhost: plays the browser for one page so that a control can be scripted the way a
// web page would script it, from tests and demos. Run with --help for the command line.

#include "HostError.h"
#include "Options.h"
#include "Output.h"
#include "Page.h"
#include "ScriptFile.h"

#include <windows.h>
#include <shellapi.h>

#include <exception>
#include <string>
#include <vector>

namespace {

using namespace TarnHost;

class ComApartment {
public:
    ComApartment()
    {
        const HRESULT hr = ::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
        if (FAILED(hr))
            throw ComError(L"CoInitializeEx", hr);
    }
    ~ComApartment() { ::CoUninitialize(); }
    ComApartment(const ComApartment&) = delete;
    ComApartment& operator=(const ComApartment&) = delete;
};

std::vector<std::wstring> CommandLineArguments()
{
    int count = 0;
    wchar_t** argv = ::CommandLineToArgvW(::GetCommandLineW(), &count);
    std::vector<std::wstring> args;
    for (int i = 1; argv && i < count; ++i)
        args.emplace_back(argv[i]);
    ::LocalFree(argv);
    return args;
}

int RunHost()
{
    const Options options = ParseOptions(CommandLineArguments());
    if (options.showHelp) {
        WriteStdout(UsageText());
        return ExitOk;
    }
    const std::wstring script = ReadScriptFile(options.scriptPath);
    ComApartment apartment;
    Page page(options);
    return page.Run(script);
}

} // namespace

int main()
{
    try {
        return RunHost();
    } catch (const HostError& error) {
        WriteStderr(L"tarnhost: " + error.message);
        return error.exitCode;
    } catch (const std::exception& error) {
        WriteStderr(L"tarnhost: internal error: " + FromUtf8(error.what()));
        return ExitComFailure;
    }
}
