#pragma once
// tarngrant and the machine-wide trusted-process table, as the tarngrant tests see them.

#include "tools/tarngrant/TrustTableWriter.h"
#include "ChildProcess.h"
#include "PageHost.h"
#include "TarnBase/KernelObjectName.h"
#include "TarnSys/TrustTable.h"
#include "TarnSys/win/DynamicProcessTrust.h"

#include <doctest.h>

namespace ContainerTest {

using TarnTest::Narrow;
using TarnTest::Process;

inline std::wstring TarnGrantPath() { return TarnTest::BuildPath("tools/tarngrant/tarngrant.exe"); }

inline TarnTest::ChildResult RunGrant(std::vector<std::wstring> args, DWORD timeoutMs = 60000)
{
    args.insert(args.begin(), TarnGrantPath());
    return Process(args).Finish(timeoutMs);
}

// Keeps the table open, as a running launcher does, and removes the test's grants at the end.
struct Table {
    TarnSys::DynamicProcessTrust table;
    std::vector<std::wstring> pids;
    Table() { REQUIRE(table.Initialize()); }
    ~Table()
    {
        for (const auto& pid : pids)
            TarnGrant::RevokeProcess(table, pid);
    }
    bool Holds(DWORD pid)
    {
        for (const auto& entry : TarnGrant::ListProcesses(table))
            if (entry.pid == std::to_wstring(pid))
                return true;
        return false;
    }
};

// The table's bytes, writable, as another process (or an attacker) could write them.
class TableBytes {
public:
    TableBytes()
        : m_mapping(::OpenFileMappingA(FILE_MAP_ALL_ACCESS, FALSE,
                                       TarnBase::MakeKernelObjectName(TarnSys::kTableMappingName, false).c_str())),
          m_view(m_mapping ? ::MapViewOfFile(m_mapping.Get(), FILE_MAP_ALL_ACCESS, 0, 0, TarnSys::kTableBytes) : nullptr)
    {
        REQUIRE(m_view);
    }
    uint8_t* Get() const { return static_cast<uint8_t*>(m_view.Get()); }

private:
    TarnBase::UniqueHandle m_mapping;
    TarnBase::UniqueMappedView m_view;
};

} // namespace ContainerTest
