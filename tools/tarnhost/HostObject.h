#pragma once
// The script's `host` object: output, exit, the extra command-line arguments and the
// page's controls. IDispatch is written out by hand with fixed member ids, so the object
// needs no type library.

#include "TarnBase/win/ComObject.h"
#include "Options.h"

#include <oaidl.h>

#include <functional>
#include <string>
#include <vector>

namespace TarnHost {

enum HostMember : DISPID {
    kHostEcho = 1,     // host.Echo(values...)   one line, values separated by blanks
    kHostQuit = 2,     // host.Quit([code])      ends the script, then the process with `code`
    kHostArg = 3,      // host.Arg(i)            0-based extra argument after the script path
    kHostArgCount = 4, // host.ArgCount
    kHostControl = 5,  // host.Control(n)        1-based control on the page
};

struct HostCallbacks {
    std::function<void(const std::wstring&)> echo;
    // Answers what Quit hands back to the engine: S_OK when the engine stops on its own,
    // otherwise a failure that unwinds the script.
    std::function<HRESULT(int)> quit;
};

class HostObject final : public TarnBase::ComObject<IDispatch> {
public:
    HostObject(Language language, std::vector<std::wstring> args, HostCallbacks callbacks);

    void SetControls(std::vector<Microsoft::WRL::ComPtr<IDispatch>> controls);
    void ClearControls() { m_controls.clear(); }

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override;
    HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT* pctinfo) override;
    HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT iTInfo, LCID lcid, ITypeInfo** ppTInfo) override;
    HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID riid, LPOLESTR* rgszNames, UINT cNames, LCID lcid,
                                            DISPID* rgDispId) override;
    HRESULT STDMETHODCALLTYPE Invoke(DISPID dispIdMember, REFIID riid, LCID lcid, WORD wFlags, DISPPARAMS* pDispParams,
                                     VARIANT* pVarResult, EXCEPINFO* pExcepInfo, UINT* puArgErr) override;

private:
    HRESULT Echo(const DISPPARAMS& params, EXCEPINFO* excepInfo, UINT* argErr);
    HRESULT Quit(const DISPPARAMS& params, EXCEPINFO* excepInfo, UINT* argErr);
    HRESULT Arg(const DISPPARAMS& params, VARIANT* result, EXCEPINFO* excepInfo, UINT* argErr);
    HRESULT Control(const DISPPARAMS& params, VARIANT* result, EXCEPINFO* excepInfo, UINT* argErr);

    Language m_language;
    std::vector<std::wstring> m_args;
    HostCallbacks m_callbacks;
    std::vector<Microsoft::WRL::ComPtr<IDispatch>> m_controls;
    bool m_quitting = false;
    HRESULT m_quitResult = S_OK;
};

} // namespace TarnHost
