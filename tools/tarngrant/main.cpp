// tarngrant: grants a running process one-time container trust through the machine-wide
// trusted-process table, and lists, revokes and shows the table's stored forms. It writes
// the table exactly as the product's launchers do, with the control's own table and
// encryption code. Run with --help for the command line.

#include "Commands.h"
#include "Options.h"
#include "Output.h"

#include "TarnBase/Exceptions.h"
#include "tools/common/CommandLine.h"

#include <exception>
#include <string>
#include <vector>

namespace {

using namespace TarnGrant;

std::wstring Widen(const std::string& text)
{
    return std::wstring(text.begin(), text.end());
}

int Run()
{
    std::vector<std::wstring> args = TarnTools::CommandLineArguments();
    if (args.empty())
        return Refuse(std::wstring(L"no command\r\n") + kUsage, ExitUsage);
    const std::wstring command = args[0];
    args.erase(args.begin());
    if (command == L"--help" || command == L"-h" || command == L"/?" || command == L"help") {
        Out(kUsage);
        return ExitOk;
    }
    if (command == L"grant")
        return Grant(args);
    if (command == L"revoke")
        return Revoke(args);
    if (command == L"list")
        return List(args);
    if (command == L"encrypt")
        return Encrypt(args);
    return Refuse(L"unknown command '" + command + L"'\r\n" + kUsage, ExitUsage);
}

} // namespace

int main()
{
    try {
        return Run();
    } catch (const TarnMT::AutoLockTimeoutException&) {
        return Refuse(L"another process holds the trusted-process table's mutex; try again");
    } catch (const TarnBase::BaseException& e) {
        return Refuse(L"failed: " + e.GetErrorId());
    } catch (const std::exception& e) {
        return Refuse(L"internal error: " + Widen(e.what()));
    }
}
