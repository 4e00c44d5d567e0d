#pragma once
// Container names: the built-in list and the name rules every source of names follows.
// No <windows.h>: plain data and string rules that any build can include.

#include <array>
#include <string>

namespace TarnSMX {

// Host executables trusted as containers when no vendor names its own. The browser itself
// ("iexplore.exe") is absent on purpose: it is never a trusted container by name.
constexpr std::array<const char*, 19> kBuiltInContainers = {
    "iehost.exe",        "jsharpde.exe",         "jview.exe",          "ostrumbrowser.exe",
    "ostrumsb.exe",      "tarnbrowser.exe",      "tarntrayapp.exe",    "mshta.exe",
    "quillon.exe",       "regsvr32.exe",         "pallidor.exe",       "wjview.exe",
    "merrow.exe",        "tarncmservice.exe",    "tarncmserviced.exe", "tarncontrolhost.exe",
    "tarncontrolhostd.exe", "tarnservicehost.exe", "tarnservicehostd.exe",
};

// The one name no list may trust.
constexpr const char kBrowserExecutable[] = "iexplore.exe";

// A name as lists hold it: cut at a zero byte (names are C strings), lower case by ASCII
// rules, so that one spelling matches in every code page.
std::string ContainerName(const std::string& name);

// Whether two names are the same container.
bool SameContainer(const std::string& a, const std::string& b);

} // namespace TarnSMX
