#pragma once
// The control's identity. The class and interface ids come from the header that widl
// generates from TarnSMX.idl.in (the library id from its TarnSMX_i.c), so the IDL is their
// only source. The AppID and the names exist only in the registry, so they live here.
// Fixed for the life of the product: pages, hosts and registrations depend on them.

#include "TarnSMX_h.h"

#include <windows.h>

namespace TarnSMX {

inline const GUID& kClsidTarnSM = __uuidof(TarnSM);
inline const GUID& kIidITarnSM = __uuidof(ITarnSM);
constexpr GUID kAppidTarnSMX = {0xb96603ac, 0x39c0, 0x4e74, {0xa1, 0x21, 0x88, 0x9b, 0x2c, 0x8b, 0x41, 0xc5}};

constexpr wchar_t kProgId[] = L"TarnSM.TarnSM.1";
constexpr wchar_t kVersionIndependentProgId[] = L"TarnSM.TarnSM";
constexpr wchar_t kClassDescription[] = L"TarnSM Class";

} // namespace TarnSMX
