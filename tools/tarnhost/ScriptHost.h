#pragma once
// Runs the page's script in a Windows Script engine, with the controls and the `host`
// object as named items. Also the engine's way back to the page's services, so objects
// the script creates itself find the same browser as the page's controls.

#include "TarnBase/win/ComObject.h"
#include "Options.h"

#include <activscp.h>
#include <servprov.h>

#include <string>
#include <utility>
#include <vector>

namespace TarnHost {

struct ScriptOutcome {
    enum class Kind { Completed, Quit, Failed };
    Kind kind = Kind::Completed;
    int quitCode = 0;
    std::wstring error; // for Failed: "<description> (line N)"
};

class ScriptHost final : public TarnBase::ComObject<IActiveScriptSite, IServiceProvider> {
public:
    // `pageServices` null: the page offers the engine no services (no site, or one without).
    ScriptHost(Language language, Microsoft::WRL::ComPtr<IServiceProvider> pageServices);

    // Visible to the script under `name`; must be added before Run.
    void AddItem(const std::wstring& name, IUnknown* object);

    // Throws HostError (exit code 3) when the engine cannot be set up; what the script
    // itself does comes back as the outcome.
    ScriptOutcome Run(const std::wstring& code);

    // Called from host.Quit while the script runs; the answer goes back to the engine.
    HRESULT RequestQuit(int code);

    // Closes the engine and lets go of every named item.
    void Close();

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override;

    HRESULT STDMETHODCALLTYPE GetLCID(LCID* plcid) override;
    HRESULT STDMETHODCALLTYPE GetItemInfo(LPCOLESTR pstrName, DWORD dwReturnMask, IUnknown** ppiunkItem,
                                          ITypeInfo** ppti) override;
    HRESULT STDMETHODCALLTYPE GetDocVersionString(BSTR* pbstrVersion) override;
    HRESULT STDMETHODCALLTYPE OnScriptTerminate(const VARIANT* pvarResult, const EXCEPINFO* pexcepinfo) override;
    HRESULT STDMETHODCALLTYPE OnStateChange(SCRIPTSTATE ssScriptState) override;
    HRESULT STDMETHODCALLTYPE OnScriptError(IActiveScriptError* pscripterror) override;
    HRESULT STDMETHODCALLTYPE OnEnterScript() override;
    HRESULT STDMETHODCALLTYPE OnLeaveScript() override;

    HRESULT STDMETHODCALLTYPE QueryService(REFGUID guidService, REFIID riid, void** ppv) override;

private:
    Language m_language;
    Microsoft::WRL::ComPtr<IServiceProvider> m_pageServices;
    std::vector<std::pair<std::wstring, Microsoft::WRL::ComPtr<IUnknown>>> m_items;
    Microsoft::WRL::ComPtr<IActiveScript> m_engine;
    bool m_failed = false;
    std::wstring m_error;
    bool m_quitRequested = false;
    int m_quitCode = 0;
};

} // namespace TarnHost
