#pragma once
// tarngrant and the machine-wide trusted-process table, as the tarngrant tests see them.

#include "tools/tarngrant/TrustTableWriter.h"
#include "ChildProcess.h"
#include "PageHost.h"
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

} // namespace ContainerTest
