#include "TarnSM/win/Module.h"

#include "TarnSM/win/ClassFactory.h"
#include "TarnSM/win/ControlIdentity.h"

#include <atomic>

namespace TarnSMX {
namespace {
HMODULE g_module = nullptr;
std::atomic<long> g_objects{0};
std::atomic<long> g_locks{0};
} // namespace

HMODULE ModuleHandle()
{
    return g_module;
}

std::wstring ModulePath()
{
    wchar_t path[MAX_PATH + 1] = {};
    const DWORD length = ::GetModuleFileNameW(g_module, path, MAX_PATH);
    return std::wstring(path, length);
}

void AddObjectReference()
{
    ++g_objects;
}

void ReleaseObjectReference()
{
    --g_objects;
}

void LockServer(bool lock)
{
    if (lock)
        ++g_locks;
    else
        --g_locks;
}

bool CanUnload()
{
    return g_objects.load() == 0 && g_locks.load() == 0;
}

} // namespace TarnSMX

extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID)
{
    if (reason == DLL_PROCESS_ATTACH) {
        TarnSMX::g_module = instance;
        ::DisableThreadLibraryCalls(instance);
    }
    return TRUE;
}

extern "C" HRESULT STDAPICALLTYPE DllCanUnloadNow()
{
    return TarnSMX::CanUnload() ? S_OK : S_FALSE;
}

extern "C" HRESULT STDAPICALLTYPE DllGetClassObject(REFCLSID clsid, REFIID iid, void** object)
{
    if (object == nullptr)
        return E_POINTER;
    *object = nullptr;
    if (!::IsEqualCLSID(clsid, TarnSMX::kClsidTarnSM))
        return CLASS_E_CLASSNOTAVAILABLE;
    const auto factory = TarnBase::AdoptNew(new (std::nothrow) TarnSMX::ClassFactory());
    if (!factory)
        return E_OUTOFMEMORY;
    return factory->QueryInterface(iid, object);
}
