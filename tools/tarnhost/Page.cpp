#include "Page.h"

#include "HostError.h"
#include "tools/common/Console.h"

namespace TarnHost {

using Microsoft::WRL::ComPtr;

Page::Page(const Options& options) : m_options(options) {}

Page::~Page()
{
    Teardown();
}

int Page::Run(const std::wstring& scriptText)
{
    if (m_options.url) {
        ComPtr<SecurityManager> securityManager;
        if (!m_options.zones.empty())
            securityManager = TarnBase::MakeCom<SecurityManager>(m_options.zones);
        m_site = TarnBase::MakeCom<BrowserSite>(m_options.siteMode, *m_options.url, securityManager);
    }

    std::vector<ComPtr<IDispatch>> dispatches;
    for (int number = 1; number <= m_options.controls; ++number) {
        ComPtr<PropertyBag> params;
        for (const PageParam& param : m_options.params)
            if (param.control == number) {
                if (!params)
                    params = TarnBase::MakeCom<PropertyBag>();
                params->Set(param.name, param.value);
            }
        m_controls.push_back(CreateControl(m_options.progId, number, params.Get(), m_site.Get()));
        dispatches.push_back(m_controls.back().dispatch);
    }

    ComPtr<IServiceProvider> pageServices;
    if (m_site)
        m_site.As(&pageServices); // fails, as intended, for a site without a service provider
    m_script = TarnBase::MakeCom<ScriptHost>(m_options.language, pageServices);

    HostCallbacks callbacks;
    callbacks.echo = [](const std::wstring& line) { TarnTools::WriteStdout(line); };
    ScriptHost* script = m_script.Get();
    callbacks.quit = [script](int code) { return script->RequestQuit(code); };
    m_host = TarnBase::MakeCom<HostObject>(m_options.language, m_options.scriptArgs, callbacks);
    m_host->SetControls(dispatches);

    m_script->AddItem(L"host", m_host.Get());
    for (const Control& control : m_controls)
        m_script->AddItem(control.scriptName, control.object.Get());

    const ScriptOutcome outcome = m_script->Run(scriptText);
    switch (outcome.kind) {
    case ScriptOutcome::Kind::Quit:
        return outcome.quitCode;
    case ScriptOutcome::Kind::Failed:
        TarnTools::WriteStderr(L"tarnhost: script error: " + outcome.error);
        return ExitScriptError;
    case ScriptOutcome::Kind::Completed:
        break;
    }
    return ExitOk;
}

void Page::Teardown()
{
    for (Control& control : m_controls)
        UnsiteControl(control);
    if (m_script)
        m_script->Close();
    if (m_host)
        m_host->ClearControls();
    m_script.Reset();
    m_host.Reset();
    m_controls.clear();
    m_site.Reset();
}

} // namespace TarnHost
