// tarnhost: plays the browser for one page so that a control can be scripted the way a
// web page would script it, from tests and demos. Run with --help for the command line.

#include "HostError.h"
#include "Options.h"
#include "Page.h"
#include "ScriptFile.h"

#include "TarnBase/win/Owners.h"
#include "tools/common/CommandLine.h"
#include "tools/common/Console.h"

#include <windows.h>

#include <exception>
#include <string>
#include <vector>

namespace {

using namespace TarnHost;

int RunHost()
{
    const Options options = ParseOptions(TarnTools::CommandLineArguments());
    if (options.showHelp) {
        TarnTools::WriteStdout(UsageText());
        return ExitOk;
    }
    const std::wstring script = ReadScriptFile(options.scriptPath);
    const TarnBase::ComApartment apartment;
    if (FAILED(apartment.Result()))
        throw ComError(L"CoInitializeEx", apartment.Result());
    Page page(options);
    return page.Run(script);
}

} // namespace

int main()
{
    try {
        return RunHost();
    } catch (const HostError& error) {
        TarnTools::WriteStderr(L"tarnhost: " + error.message);
        return error.exitCode;
    } catch (const std::exception& error) {
        TarnTools::WriteStderr(L"tarnhost: internal error: " + TarnTools::FromUtf8(error.what()));
        return ExitComFailure;
    }
}
