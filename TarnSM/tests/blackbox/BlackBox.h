#pragma once
// Shared pieces of the tests that drive the registered TarnSMX.dll from outside, as a page
// or a host application would.

#include "TarnSMX_h.h"
#include "TarnSM/win/Guids.h"
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
    const std::string name = TarnBase::MakeKernelObjectName("TarnLogger::Logger::Mapping::3.0", true);
    TarnBase::UniqueHandle mapping(::OpenFileMappingA(FILE_MAP_READ, FALSE, name.c_str()));
    if (!mapping)
        return messages;
    TarnBase::UniqueMappedView view(::MapViewOfFile(mapping.Get(), FILE_MAP_READ, 0, 0, 0));
    MEMORY_BASIC_INFORMATION info{};
    if (!view || !::VirtualQuery(view.Get(), &info, sizeof info))
        return messages;
    TarnLog::RingSnapshot snapshot;
    std::string error;
    if (!TarnLog::SnapshotRing(static_cast<const uint8_t*>(view.Get()), info.RegionSize, snapshot, error))
        return messages;
    for (const auto& record : snapshot.records)
        if (record.processId == ::GetCurrentProcessId())
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
