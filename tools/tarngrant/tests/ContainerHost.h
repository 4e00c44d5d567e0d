#pragma once
// Dynamic-trust tests drive page hosts and tarngrant through the shared test support: host
// copies under chosen names, processes that can start suspended, and the ring read under its
// mutex.

#include "ChildProcess.h"
#include "PageHost.h"
#include "Registry.h"
#include "Scratch.h"
#include "TarnBase/KernelObjectName.h"
#include "TarnSys/TrustTable.h"
#include "TarnSys/win/DynamicProcessTrust.h"

#include <doctest.h>

#include <atomic>
#include <string>
#include <vector>

namespace ContainerTest {

using TarnTest::Narrow;
using TarnTest::Process;

inline std::wstring TarnGrantPath()
{
    return TarnTest::BuildPath("tools/tarngrant/tarngrant.exe");
}

// Copies of the page host and the query script.
class HostDirectory {
public:
    HostDirectory() : m_script(m_pages.Args({}, TarnTest::kAskContainerScript).back()) {}
    std::wstring Host(const std::wstring& name) { return m_pages.Host(name); }
    const std::wstring& Script() const { return m_script; }
    std::wstring Directory() const { return m_script.substr(0, m_script.find_last_of(L'\\')); }

private:
    TarnTest::PageHost m_pages;
    std::wstring m_script;
};

// Arguments of a page host run: host path, options, the script and its arguments.
inline std::vector<std::wstring> HostArgs(const HostDirectory& dir, const std::wstring& host,
                                          const std::vector<std::wstring>& options, const std::wstring& altList = L"",
                                          int queries = 1)
{
    std::vector<std::wstring> args{host};
    args.insert(args.end(), options.begin(), options.end());
    args.push_back(dir.Script());
    args.insert(args.end(), static_cast<size_t>(queries), altList);  // one question per argument
    return args;
}

inline TarnTest::ChildResult RunHost(const HostDirectory& dir, const std::wstring& host,
                                     const std::vector<std::wstring>& options, const std::wstring& altList = L"",
                                     int queries = 1)
{
    return Process(HostArgs(dir, host, options, altList, queries)).Finish();
}

inline std::vector<std::wstring> GrantArgs(const std::vector<std::wstring>& args)
{
    std::vector<std::wstring> all{TarnGrantPath()};
    all.insert(all.end(), args.begin(), args.end());
    return all;
}

inline TarnTest::ChildResult RunGrant(const std::vector<std::wstring>& args, DWORD timeoutMs = 60000)
{
    return Process(GrantArgs(args)).Finish(timeoutMs);
}

// Keeps the table open for a test, the way a running launcher does, and removes every grant
// the test made when it ends.
struct Table {
    TarnSys::DynamicProcessTrust table;
    std::vector<std::wstring> pids;
    Table() { REQUIRE(table.Initialize()); }
    ~Table()
    {
        for (const auto& pid : pids)
            table.RevokeProcess(pid);
    }
    bool Holds(DWORD pid)
    {
        for (const auto& entry : table.ListProcesses())
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

inline std::vector<std::string> RingMessagesOf(DWORD pid)
{
    return TarnTest::MessagesOf(pid);
}

inline size_t CountMessages(const std::vector<std::string>& messages, const std::string& text)
{
    size_t n = 0;
    for (const auto& m : messages)
        n += m == text ? 1 : 0;
    return n;
}

inline bool HasMessage(const std::vector<std::string>& messages, const std::string& text)
{
    return CountMessages(messages, text) > 0;
}

} // namespace ContainerTest
