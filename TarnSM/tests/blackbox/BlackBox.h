#pragma once
// Shared pieces of the tests that drive the registered TarnSMX.dll from outside, as a page
// or a host application would.

#include "TarnSMX_h.h"
#include "TarnSM/win/Guids.h"
#include "RingReader.h"
#include "TarnLog/RingLayout.h"
#include "TarnBase/KernelObjectName.h"
#include "TarnBase/win/Handle.h"

#include <wrl/client.h>

#include <string>
#include <vector>

namespace BlackBox {

using Microsoft::WRL::ComPtr;

struct ComApartment {
    ComApartment() { ::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED); }
    ~ComApartment() { ::CoUninitialize(); }
};

inline ComPtr<ITarnSM> CreateControl(const wchar_t* progId = L"TarnSM.TarnSM")
{
    CLSID clsid{};
    ComPtr<ITarnSM> control;
    if (SUCCEEDED(::CLSIDFromProgID(progId, &clsid)))
        ::CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, TarnSMX::kIidITarnSM,
                           reinterpret_cast<void**>(control.GetAddressOf()));
    return control;
}

// Messages this process has put into the machine-wide log ring, oldest first.
inline std::vector<std::string> RingMessagesOfThisProcess()
{
    std::vector<std::string> messages;
    TarnTest::RingReader ring;
    for (const auto& record : ring.RecordsOfProcess(::GetCurrentProcessId()))
        messages.push_back(TarnLog::ReadField(record.message, sizeof record.message));
    return messages;
}

inline size_t CountRingMessages(const std::string& message)
{
    size_t n = 0;
    for (const auto& m : RingMessagesOfThisProcess())
        n += m == message ? 1 : 0;
    return n;
}

} // namespace BlackBox
