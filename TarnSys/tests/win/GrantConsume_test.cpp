// A grant is honoured at most once: found and removed under one hold of the table's mutex,
// and not honoured at all when it could not be removed.
#include "TarnSys/win/DynamicProcessTrust.h"
#include "tools/tarngrant/TrustTableWriter.h"

#include <doctest.h>

#include <atomic>
#include <thread>
#include <vector>

TEST_CASE("a grant is consumed exactly once, or not honoured while the table is held elsewhere")
{
    const std::wstring pid = L"3999999911";  // far above any real process's identifier
    const std::wstring path = L"C:\\Program Files\\Ostrum\\TarnBrowser.exe";
    TarnSys::DynamicProcessTrust writer;  // keeps the table alive for the whole case
    REQUIRE(TarnGrant::GrantProcess(writer, pid, path) != TarnGrant::GrantResult::Unavailable);

    {
        std::atomic<bool> held{false};
        std::atomic<bool> done{false};
        std::thread holder([&] {
            TarnSys::DynamicProcessTrust other;
            other.TableMutex().Acquire(INFINITE);
            held = true;
            while (!done)
                ::Sleep(5);
            other.TableMutex().Release();
        });
        while (!held)
            ::Sleep(5);
        TarnSys::DynamicProcessTrust blocked;
        CHECK_FALSE(blocked.ConsumeTrustedProcess(pid, path));
        done = true;
        holder.join();
    }
    CHECK(writer.IsTrustedProcess(pid, path));  // still there for a later question

    std::atomic<int> honoured{0};
    std::atomic<int> ready{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t)
        threads.emplace_back([&] {
            TarnSys::DynamicProcessTrust table;
            table.Initialize();
            ++ready;
            while (ready < 8)
                ::Sleep(0);
            if (table.ConsumeTrustedProcess(pid, path))
                ++honoured;
        });
    for (auto& t : threads)
        t.join();
    CHECK(honoured == 1);
    CHECK_FALSE(writer.IsTrustedProcess(pid, path));
    TarnGrant::RevokeProcess(writer, pid);
}
