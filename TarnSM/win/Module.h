#pragma once
// Process-wide facts about this module: its handle and the counts DllCanUnloadNow answers from.

#include <windows.h>

#include <string>

namespace TarnSMX {

HMODULE ModuleHandle();
std::wstring ModulePath();

// Live objects and server locks; the module may unload only when both are zero.
void AddObjectReference();
void ReleaseObjectReference();
void LockServer(bool lock);
bool CanUnload();

} // namespace TarnSMX
