#pragma once
// Bringing a control onto the page the way a browser does: create it in-process, make
// sure it is safe for scripting and for the page's data, initialise it from the page's
// parameters, and hand it its site.

#include "PropertyBag.h"

#include <oaidl.h>
#include <ocidl.h>

#include <string>

namespace TarnHost {

struct Control {
    int number = 0;         // 1-based, in page order
    std::wstring scriptName; // TarnSM, TarnSM2, TarnSM3, ...
    Microsoft::WRL::ComPtr<IUnknown> object;
    Microsoft::WRL::ComPtr<IDispatch> dispatch;
    Microsoft::WRL::ComPtr<IObjectWithSite> sited; // set only once SetSite succeeded
};

std::wstring ControlScriptName(int number);

// `params` null: the page has no <param> for it (InitNew). `site` null: the control is
// never sited, as when an application rather than a page hosts it.
// Throws HostError (exit code 3) naming the step that failed or refused.
Control CreateControl(const std::wstring& progId, int number, PropertyBag* params, IUnknown* site);

// The steps after creation, for an object already made; `who` names it in messages.
Control InitializeControl(Microsoft::WRL::ComPtr<IUnknown> object, int number, const std::wstring& who,
                          PropertyBag* params, IUnknown* site);

// A page being torn down takes the site back from each control it sited.
void UnsiteControl(Control& control);

} // namespace TarnHost
