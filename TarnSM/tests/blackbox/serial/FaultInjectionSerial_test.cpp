// Damage to what every process of the machine shares with the DLL: the logger's per-user
// registry values, the log ring's bytes and the critical file. These tests change that
// shared state for a while, so they run alone, and they put it back.
#include "PageHost.h"
#include "Registry.h"
#include "TestServer.h"
#include "TarnLog/CriticalFile.h"

#include <doctest.h>
#include <shlobj.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <optional>
#include <thread>

namespace {

const char kAskFunction[] =
    "function ask(f) { try { return String(f()); } catch (e) {"
    " return 'error ' + (e.number >>> 0).toString(16) + ' ' + e.description; } }\n";

// Raises one error record in the page's process: an alternative trust list that cannot be
// narrowed to the ANSI code page is refused with a thrown, logged exception.
const char kErrorLine[] = "host.Echo(ask(function () { return TarnSM.IsCurrentContainerTrusted('\\u4e2d\\u6587'); }));\n";

struct HostRun {
    TarnTest::ChildResult child;
    std::vector<std::string> lines;
};

HostRun RunHost(const std::vector<std::wstring>& options, const std::string& script)
{
    static TarnTest::PageHost pages(false);  // the first case needs a machine without a ring
    HostRun run{pages.Run(options, kAskFunction + script).result, {}};
    for (size_t at = 0, end; at < run.child.out.size(); at = end + 1) {
        end = run.child.out.find('\n', at);
        run.lines.push_back(run.child.out.substr(at, end - at));
    }
    return run;
}

void CheckSurvived(const HostRun& run)
{
    INFO("stdout: " << run.child.out << "stderr: " << run.child.err);
    CHECK_FALSE(run.child.timedOut);
    CHECK(run.child.exitCode == 0);
}

// One value under the logger's key, raw, for the life of the object.
struct RawLoggerValue : TarnTest::ScopedRegistryKey {
    RawLoggerValue(const char* name, DWORD type, const void* data, DWORD size)
        : ScopedRegistryKey(HKEY_CURRENT_USER, "SOFTWARE\\Ostrum\\Kestrel\\Logger"), written(SetRaw(name, type, data, size))
    {
    }
    bool written;
};

struct RawValue {
    const char* what;
    DWORD type;
    std::vector<uint8_t> bytes;
};

// Values that a careless reader would take for 0: each must leave the default in force.
std::vector<RawValue> ZeroLookalikes()
{
    return {
        {"REG_SZ \"0\"", REG_SZ, {'0', 0}},
        {"empty REG_SZ", REG_SZ, {0}},
        {"REG_BINARY of four zero bytes", REG_BINARY, {0, 0, 0, 0}},
        {"REG_QWORD 0", REG_QWORD, {0, 0, 0, 0, 0, 0, 0, 0}},
        {"REG_DWORD without data", REG_DWORD, {}},
        {"REG_DWORD of two bytes", REG_DWORD, {0, 0}},
        {"REG_DWORD_BIG_ENDIAN 0", REG_DWORD_BIG_ENDIAN, {0, 0, 0, 0}},
    };
}

std::string CriticalPath()
{
    char folder[MAX_PATH] = {};
    ::SHGetFolderPathA(nullptr, CSIDL_COMMON_APPDATA, nullptr, 0, folder);
    return std::string(folder) + "\\Ostrum\\critical.txt";
}

std::optional<std::string> ReadWhole(const std::string& path)
{
    std::string bytes;
    return TarnTest::ReadBytes(TarnTest::Widen(path), bytes) ? std::optional<std::string>(bytes) : std::nullopt;
}

size_t CriticalRecordsOfProcess(DWORD processId, const std::string& part)
{
    const auto bytes = ReadWhole(CriticalPath());
    if (!bytes)
        return 0;
    char pid[32];
    std::snprintf(pid, sizeof pid, "[PID: 0x%lx]", static_cast<unsigned long>(processId));
    size_t n = 0;
    for (const auto& record : TarnLog::ReadCriticalRecords(*bytes).records)
        n += record.find(pid) != std::string::npos && record.find(part) != std::string::npos ? 1 : 0;
    return n;
}

// Puts the critical file back as it was when the object was made.
class CriticalFileRestore {
public:
    CriticalFileRestore() : m_saved(ReadWhole(CriticalPath())) {}
    ~CriticalFileRestore()
    {
        if (m_saved)
            TarnTest::WriteBytes(TarnTest::Widen(CriticalPath()), *m_saved);
        else
            ::DeleteFileA(CriticalPath().c_str());
    }
    CriticalFileRestore(const CriticalFileRestore&) = delete;
    CriticalFileRestore& operator=(const CriticalFileRestore&) = delete;

private:
    std::optional<std::string> m_saved;
};

} // namespace

TEST_SUITE("fault injection")
{
    // First in this file: it needs a machine with no log ring, and this process keeps the
    // ring alive from its first record on.
    TEST_CASE("an absurd NumberOfLogEntries at ring creation gives a ring of the default size")
    {
        for (const uint32_t entries : {0u, 0xFFFFFFFFu, 0x80000000u}) {
            CAPTURE(entries);
            // This test program runs alone and this case first, so no process holds the ring.
            TarnTest::RingView probe;
            REQUIRE_FALSE_MESSAGE(probe.Open(false), "another process holds the log ring, so its size is decided");
            RawLoggerValue value("NumberOfLogEntries", REG_DWORD, &entries, sizeof entries);
            REQUIRE(value.written);

            // The page keeps its process alive long enough for the ring to be looked at.
            std::atomic<bool> done{false};
            HostRun run;
            std::thread page([&] {
                run = RunHost({L"--url", L"file:///C:/x/page.html"},
                              "host.Echo(ask(function () { return TarnSM.IsSiteTrusted('x'); }));\n"
                              "var until = new Date().getTime() + 4000; while (new Date().getTime() < until) {}\n"
                              "host.Echo(ask(function () { return TarnSM.IsCurrentContainerTrusted(''); }));\n");
                done = true;
            });
            std::optional<TarnLog::RingHeader> header;
            size_t mapped = 0;
            while (!done && !header) {
                TarnTest::RingHeaderEditor editor;
                if (editor.IsOpen() && editor.Header().writeCounter > 0) {
                    header = editor.Header();
                    mapped = editor.View().Size();
                }
                ::Sleep(20);
            }
            page.join();
            CheckSurvived(run);
            CHECK(run.lines.size() == 2);
            REQUIRE_MESSAGE(header, "the page never made a ring with records in it");
            CHECK(header->entryCount == TarnLog::kDefaultRingEntries);
            CHECK(mapped >= TarnLog::kRingHeaderSize + size_t(TarnLog::kDefaultRingEntries) * TarnLog::kRingEntrySize);
        }
    }

    TEST_CASE("logger values of the wrong type or size leave the defaults in force")
    {
        TarnLog::Log("TarnSMX::FaultInjectionTest", 3, "FaultInjectionTest: keeping the ring alive.");
        const std::vector<RawValue> values = ZeroLookalikes();
        // FilterLogLevel: the page's debug records still reach the ring; EnableCriticalLogger:
        // its errors still reach the critical file.
        for (const char* name : {"FilterLogLevel", "EnableCriticalLogger"})
            for (const RawValue& raw : values) {
                CAPTURE(name);
                CAPTURE(std::string(raw.what));
                RawLoggerValue value(name, raw.type, raw.bytes.data(), static_cast<DWORD>(raw.bytes.size()));
                REQUIRE(value.written);
                const bool filter = std::string(name) == "FilterLogLevel";
                const HostRun run = RunHost({L"--url", L"file:///C:/x/page.html"},
                                            filter ? "host.Echo(ask(function () { return TarnSM.IsSiteTrusted('x'); }));\n"
                                                   : kErrorLine);
                CheckSurvived(run);
                REQUIRE(run.lines.size() == 1);
                const auto messages = TarnTest::MessagesOf(run.child.processId);
                if (filter)
                    CHECK(std::count(messages.begin(), messages.end(), "IsSiteTrusted: Not implemented.") == 1);
                else
                    CHECK(CriticalRecordsOfProcess(run.child.processId, "Throwing ") >= 1);
            }
    }

    TEST_CASE("random bytes written over the ring while a page runs change none of its answers")
    {
        TarnLog::Log("TarnSMX::FaultInjectionTest", 3, "FaultInjectionTest: keeping the ring alive.");
        TarnTest::RingHeaderEditor editor;
        REQUIRE(editor.IsOpen());
        const TarnLog::RingHeader saved = editor.Header();
        TarnTest::TestServer server(std::string(std::getenv("TARN_BINARY_DIR")) + "/trustfiles/www");
        REQUIRE(server.Running());

        std::string script;
        for (int i = 0; i < 20; ++i)
            script += "host.Echo(ask(function () { return TarnSM.IsCurrentSiteTrusted(); }));\n"
                      "host.Echo(ask(function () { return TarnSM.IsSiteTrusted('x'); }));\n";
        script += kErrorLine;
        std::vector<std::string> expected;
        for (int i = 0; i < 20; ++i)
            expected.insert(expected.end(), {"true", "error 80004001 "});

        std::atomic<bool> done{false};
        HostRun run;
        std::thread page([&] {
            run = RunHost({L"--url", L"http://example.com/p.html", L"--param",
                           TarnTest::Widen("TrustedSiteDataFileURL=" + server.Url("/good.dll"))},
                          script);
            done = true;
        });
        // Half the damage under the ring mutex, as a broken reader would make it, half
        // straight into a second writable view, as a hostile process would.
        TarnTest::RingView raw;
        REQUIRE(raw.Open(true));
        uint32_t seed = 0xC0FFEE;
        auto next = [&] { return seed = seed * 1664525u + 1013904223u; };
        int rounds = 0;
        while (!done) {
            auto smash = [&](uint8_t* base, size_t size) {
                for (size_t i = 0; i < TarnLog::kRingHeaderSize; i += 4) {
                    const uint32_t r = next();
                    std::memcpy(base + i, &r, 4);
                }
                for (int i = 0; i < 256; ++i)
                    base[next() % size] = static_cast<uint8_t>(next() >> 24);
            };
            if (++rounds % 2)
                editor.Edit(smash);
            else
                smash(raw.Base(), raw.Size());
            ::Sleep(5);
        }
        page.join();

        // A sane header again: the count and counter as they were, no readers, a new generation.
        REQUIRE(editor.Edit([&](uint8_t* base, size_t) {
            TarnLog::RingHeader header{};
            header.generation = saved.generation + 1;
            header.writeCounter = saved.writeCounter;
            header.entryCount = saved.entryCount;
            std::memcpy(base, &header, sizeof header);
        }));
        MESSAGE("ring damaged " << rounds << " times while the page ran");
        CheckSurvived(run);
        REQUIRE(run.lines.size() == expected.size() + 1);
        CHECK(std::vector<std::string>(run.lines.begin(), run.lines.end() - 1) == expected);
        CHECK(run.lines.back().compare(0, 15, "error 80004005 ") == 0);

        // The ring is usable again for everyone.
        TarnLog::RingSnapshot snapshot;
        std::string error;
        CHECK_MESSAGE(TarnTest::RingReader().Snapshot(snapshot, error), error);
    }

    TEST_CASE("a truncated or garbage-filled critical file takes the page's next error and stays readable")
    {
        CriticalFileRestore restore;
        // 40 KB of garbage behind a position past the end.
        const std::string damage = std::string("\xFF\xFF\xFF\x7F", 4) + std::string(40 * 1024 - 4, '#');
        TarnTest::WriteBytes(TarnTest::Widen(CriticalPath()), damage);

        const HostRun run = RunHost({L"--url", L"file:///C:/x/page.html"}, kErrorLine);
        CheckSurvived(run);
        REQUIRE(run.lines.size() == 1);
        CHECK(run.lines[0].compare(0, 15, "error 80004005 ") == 0);
        const auto bytes = ReadWhole(CriticalPath());
        REQUIRE(bytes);
        // The circular file never grows past its wrap point plus one record.
        CHECK(bytes->size() <= std::max<size_t>(damage.size(), 32500 + 4096));
        CHECK(CriticalRecordsOfProcess(run.child.processId, "Throwing ") >= 1);
    }
}
