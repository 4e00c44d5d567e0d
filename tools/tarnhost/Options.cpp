#include "Options.h"

#include "HostError.h"

#include <cwctype>

namespace TarnHost {
namespace {

bool EqualsNoCase(const std::wstring& a, const std::wstring& b)
{
    if (a.size() != b.size())
        return false;
    for (size_t i = 0; i < a.size(); ++i)
        if (std::towlower(a[i]) != std::towlower(b[i]))
            return false;
    return true;
}

bool EndsWithNoCase(const std::wstring& text, const std::wstring& suffix)
{
    return text.size() >= suffix.size() && EqualsNoCase(text.substr(text.size() - suffix.size()), suffix);
}

// Whole-string decimal in [low, high]; nothing else is a number here.
std::optional<int> ParseNumber(const std::wstring& text, int low, int high)
{
    if (text.empty() || text.size() > 4)
        return std::nullopt;
    int value = 0;
    for (wchar_t c : text) {
        if (c < L'0' || c > L'9')
            return std::nullopt;
        value = value * 10 + (c - L'0');
    }
    if (value < low || value > high)
        return std::nullopt;
    return value;
}

// "[N:]Name=Value". A leading run of digits before ':' picks the control; the value may be
// empty and may itself contain '=' or ':'.
PageParam ParseParam(const std::wstring& text)
{
    PageParam param{1, {}, {}};
    std::wstring rest = text;
    const size_t colon = rest.find(L':');
    const size_t equals = rest.find(L'=');
    if (colon != std::wstring::npos && colon < equals) {
        const auto number = ParseNumber(rest.substr(0, colon), 1, kMaxControls);
        if (!number)
            throw UsageError(L"--param: bad control number in '" + text + L"'");
        param.control = *number;
        rest = rest.substr(colon + 1);
    }
    const size_t split = rest.find(L'=');
    if (split == std::wstring::npos || split == 0)
        throw UsageError(L"--param expects [N:]Name=Value, got '" + text + L"'");
    param.name = rest.substr(0, split);
    param.value = rest.substr(split + 1);
    return param;
}

// "<host-or-url>=<zone>", split at the last '=' because URLs may carry '=' in their query.
ZoneRule ParseZone(const std::wstring& text)
{
    const size_t split = text.rfind(L'=');
    if (split == std::wstring::npos || split == 0)
        throw UsageError(L"--zone expects <host-or-url>=<0..4>, got '" + text + L"'");
    const auto zone = ParseNumber(text.substr(split + 1), 0, 4);
    if (!zone)
        throw UsageError(L"--zone: zone must be 0..4 in '" + text + L"'");
    return {text.substr(0, split), static_cast<DWORD>(*zone)};
}

SiteMode ParseSiteMode(const std::wstring& text)
{
    if (text == L"normal")
        return SiteMode::Normal;
    if (text == L"no-service-provider")
        return SiteMode::NoServiceProvider;
    if (text == L"no-browser")
        return SiteMode::NoBrowser;
    if (text == L"location-fails")
        return SiteMode::LocationFails;
    throw UsageError(L"--site-mode must be normal, no-service-provider, no-browser or location-fails, got '" +
                     text + L"'");
}

} // namespace

Options ParseOptions(const std::vector<std::wstring>& args)
{
    Options options;
    std::optional<Language> engine;
    bool siteModeGiven = false;
    size_t i = 0;

    auto value = [&](const std::wstring& option) -> std::wstring {
        if (i + 1 >= args.size())
            throw UsageError(L"option " + option + L" needs a value");
        return args[++i];
    };

    for (; i < args.size(); ++i) {
        const std::wstring& arg = args[i];
        if (arg == L"--") {
            ++i;
            break;
        }
        if (arg == L"--help" || arg == L"-h" || arg == L"-?" || arg == L"/?") {
            options.showHelp = true;
            return options;
        }
        if (arg.size() < 2 || arg[0] != L'-')
            break;
        if (arg == L"--url") {
            options.url = value(arg);
        } else if (arg == L"--param") {
            options.params.push_back(ParseParam(value(arg)));
        } else if (arg == L"--controls") {
            const std::wstring text = value(arg);
            const auto n = ParseNumber(text, 0, kMaxControls);
            if (!n)
                throw UsageError(L"--controls must be 0.." + std::to_wstring(kMaxControls) + L", got '" + text + L"'");
            options.controls = *n;
        } else if (arg == L"--progid") {
            options.progId = value(arg);
            if (options.progId.empty())
                throw UsageError(L"--progid must not be empty");
        } else if (arg == L"--engine") {
            const std::wstring text = value(arg);
            if (EqualsNoCase(text, L"jscript"))
                engine = Language::JScript;
            else if (EqualsNoCase(text, L"vbscript"))
                engine = Language::VBScript;
            else
                throw UsageError(L"--engine must be jscript or vbscript, got '" + text + L"'");
        } else if (arg == L"--zone") {
            options.zones.push_back(ParseZone(value(arg)));
        } else if (arg == L"--no-secmgr") {
            options.noSecurityManager = true;
        } else if (arg == L"--site-mode") {
            options.siteMode = ParseSiteMode(value(arg));
            siteModeGiven = true;
        } else {
            throw UsageError(L"unknown option '" + arg + L"'");
        }
    }

    if (i >= args.size())
        throw UsageError(L"no script file given");
    options.scriptPath = args[i];
    options.scriptArgs.assign(args.begin() + static_cast<std::ptrdiff_t>(i) + 1, args.end());

    if (engine)
        options.language = *engine;
    else if (EndsWithNoCase(options.scriptPath, L".js"))
        options.language = Language::JScript;
    else if (EndsWithNoCase(options.scriptPath, L".vbs"))
        options.language = Language::VBScript;
    else
        throw UsageError(L"cannot tell the engine from '" + options.scriptPath + L"'; use --engine jscript|vbscript");

    // Site options describe a browser page; without --url there is no page to describe,
    // and silently ignoring them would make a test pass for the wrong reason.
    if (!options.url) {
        if (siteModeGiven)
            throw UsageError(L"--site-mode needs --url");
        if (!options.zones.empty())
            throw UsageError(L"--zone needs --url");
        if (options.noSecurityManager)
            throw UsageError(L"--no-secmgr needs --url");
    }
    if (options.noSecurityManager && !options.zones.empty())
        throw UsageError(L"--zone and --no-secmgr exclude each other");
    for (const PageParam& param : options.params)
        if (param.control > options.controls)
            throw UsageError(L"--param " + param.name + L" is for control " + std::to_wstring(param.control) +
                             L" but only " + std::to_wstring(options.controls) + L" control(s) are created");
    return options;
}

std::wstring UsageText()
{
    return L"usage: tarnhost.exe [options] <script.js|script.vbs> [script arguments...]\r\n"
           L"  --engine jscript|vbscript   script language (default: from the file extension)\r\n"
           L"  --url <page URL>            site the controls in a page with this location URL\r\n"
           L"  --param [N:]Name=Value      a <param> of control N (default 1); repeatable\r\n"
           L"  --controls <n>              number of controls, 0..64 (default 1): TarnSM, TarnSM2, ...\r\n"
           L"  --progid <ProgID>           control to create (default TarnSM.TarnSM)\r\n"
           L"  --zone <host-or-url>=<0..4> zone answer of the page's own security manager; repeatable\r\n"
           L"  --no-secmgr                 the page offers no security manager\r\n"
           L"  --site-mode normal|no-service-provider|no-browser|location-fails\r\n"
           L"script objects: host.Echo(...), host.Quit([code]), host.Arg(i), host.ArgCount, host.Control(n)\r\n"
           L"exit codes: 0 done, 2 usage, 3 COM failure or unsafe control, 4 script error, else host.Quit(code)";
}

} // namespace TarnHost
