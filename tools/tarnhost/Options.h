#pragma once
// The tarnhost command line.
//
//   tarnhost.exe [options] <script.js|script.vbs> [script arguments...]
//
// Options end at the first argument that does not start with "--" (or after "--").
// Everything after the script path belongs to the script (host.Arg / host.ArgCount).

#include <windows.h>

#include <optional>
#include <string>
#include <vector>

namespace TarnHost {

enum class Language { JScript, VBScript };

enum class SiteMode {
    Normal,            // the site serves SID_SWebBrowserApp with a browser that knows --url
    NoServiceProvider, // the site object is a bare IUnknown
    NoBrowser,         // QueryService(SID_SWebBrowserApp) answers E_NOINTERFACE
    LocationFails,     // the browser's get_LocationURL answers E_FAIL
};

struct PageParam {
    int control; // 1-based
    std::wstring name;
    std::wstring value;
};

struct ZoneRule {
    std::wstring pattern; // a host name or a whole URL
    DWORD zone;           // 0..4
};

struct Options {
    bool showHelp = false;
    std::wstring scriptPath;
    std::vector<std::wstring> scriptArgs;
    Language language = Language::JScript;
    std::optional<std::wstring> url; // no URL: the controls are never sited
    std::vector<PageParam> params;
    int controls = 1;
    std::wstring progId = L"TarnSM.TarnSM";
    std::vector<ZoneRule> zones;
    bool noSecurityManager = false;
    SiteMode siteMode = SiteMode::Normal;
};

constexpr int kMaxControls = 64;

// `args` excludes the program name. Throws HostError (exit code 2) on any mistake.
Options ParseOptions(const std::vector<std::wstring>& args);

std::wstring UsageText();

} // namespace TarnHost
