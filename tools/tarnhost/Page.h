#pragma once
// One page as the browser holds it: its site, its controls, the `host` object and the
// script engine, set up in that order and torn down in reverse.

#include "BrowserSite.h"
#include "Control.h"
#include "HostObject.h"
#include "Options.h"
#include "ScriptHost.h"

#include <string>
#include <vector>

namespace TarnHost {

class Page {
public:
    explicit Page(const Options& options);
    ~Page();
    Page(const Page&) = delete;
    Page& operator=(const Page&) = delete;

    // The process exit code for the script's outcome. Throws HostError when the page
    // cannot be set up (exit code 3).
    int Run(const std::wstring& scriptText);

private:
    void Teardown();

    const Options& m_options;
    Microsoft::WRL::ComPtr<BrowserSite> m_site;
    std::vector<Control> m_controls;
    Microsoft::WRL::ComPtr<HostObject> m_host;
    Microsoft::WRL::ComPtr<ScriptHost> m_script;
};

} // namespace TarnHost
