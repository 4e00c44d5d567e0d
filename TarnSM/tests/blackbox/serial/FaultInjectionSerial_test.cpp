// Damage to what every process shares with the DLL: the ring's size setting, the ring's
// bytes and the critical file. These tests run alone, and they put that state back.
#include "PageHost.h"
#include "Registry.h"
#include "TestServer.h"

#include <doctest.h>

#include <cstring>

namespace {

const std::string kAskFunction =
    "function ask(f) { try { return String(f()); } catch (e) {"
    " return 'error ' + (e.number >>> 0).toString(16) + ' ' + e.description; } }\n";

// Raises one error record in the page's process: an alternative trust list that cannot be
// narrowed to the ANSI code page is refused with a thrown, logged exception.
const char kErrorLine[] = "host.Echo(ask(function () { return TarnSM.IsCurrentContainerTrusted('\\u4e2d\\u6587'); }));\n";
const char kNotImplemented[] = "host.Echo(ask(function () { return TarnSM.IsSiteTrusted('x'); }));\n";

TarnTest::PageHost& Pages()
{
    static TarnTest::PageHost pages(false);  // the first case needs a machine without a ring
    return pages;
}

TarnTest::ChildResult Survived(TarnTest::Process& page)
{
    const auto run = page.Finish();
    INFO("stdout: " << run.out << "stderr: " << run.err);
    CHECK_FALSE(run.timedOut);
    CHECK(run.exitCode == 0);
    return run;
}

} // namespace

TEST_SUITE("fault injection")
{
    // First in this file: it needs a machine with no log ring, and this process keeps the
    // ring alive from its first record on.
    TEST_CASE("an absurd NumberOfLogEntries at ring creation gives a ring of the default size")
    {
        for (const uint32_t entries : {0u, 0xFFFFFFFFu, 0x80000000u}) {
            CAPTURE(entries);
            TarnTest::RingView probe;
            REQUIRE_FALSE_MESSAGE(probe.Open(false), "another process holds the log ring, so its size is decided");
            TarnTest::ScopedRegistryKey key(HKEY_CURRENT_USER, "SOFTWARE\\Ostrum\\Kestrel\\Logger");
            REQUIRE(key.SetRaw("NumberOfLogEntries", REG_DWORD, &entries, sizeof entries));
            // The page keeps its process, and so the ring, alive while the ring is looked at.
            TarnTest::Process page(Pages().Args({L"--url", L"file:///C:/x/page.html"},
                                                kAskFunction + kNotImplemented +
                                                    "var end = new Date().getTime() + 4000;"
                                                    " while (new Date().getTime() < end) {}\n"));
            REQUIRE(page.WaitForOutput("error 80004001 \n", 20000));
            TarnTest::RingHeaderEditor editor;
            REQUIRE_MESSAGE(editor.IsOpen(), "the page made no ring");
            CHECK(editor.Header().entryCount == TarnLog::kDefaultRingEntries);
            CHECK(editor.View().Size() >=
                  TarnLog::kRingHeaderSize + size_t(TarnLog::kDefaultRingEntries) * TarnLog::kRingEntrySize);
            Survived(page);
        }
    }

    TEST_CASE("random bytes written over the ring while a page runs change none of its answers")
    {
        TarnTest::EnsureRing();
        TarnTest::RingHeaderEditor editor;
        REQUIRE(editor.IsOpen());
        const TarnLog::RingHeader saved = editor.Header();
        TarnTest::TestServer server(std::string(std::getenv("TARN_BINARY_DIR")) + "/trustfiles/www");
        REQUIRE(server.Running());
        std::string script = kAskFunction, expected;
        for (int i = 0; i < 20; ++i) {
            script += "host.Echo(ask(function () { return TarnSM.IsCurrentSiteTrusted(); }));\n";
            script += kNotImplemented;
            expected += "true\nerror 80004001 \n";
        }
        TarnTest::Process page(Pages().Args({L"--url", L"http://example.com/p.html", L"--param",
                                             TarnTest::Widen("TrustedSiteDataFileURL=" + server.Url("/good.dll"))},
                                            script + kErrorLine));
        // Half the damage under the ring mutex, as a broken reader would make it, half
        // straight into a second writable view, as a hostile process would.
        TarnTest::RingView raw;
        REQUIRE(raw.Open(true));
        uint32_t seed = 0xC0FFEE;
        auto next = [&] { return seed = seed * 1664525u + 1013904223u; };
        auto smash = [&](uint8_t* base, size_t size) {
            for (size_t i = 0; i < TarnLog::kRingHeaderSize; i += 4) {
                const uint32_t r = next();
                std::memcpy(base + i, &r, 4);
            }
            for (int i = 0; i < 256; ++i)
                base[next() % size] = static_cast<uint8_t>(next() >> 24);
        };
        for (int rounds = 1; ::WaitForSingleObject(page.Handle(), 5) == WAIT_TIMEOUT; ++rounds)
            rounds % 2 ? (void)editor.Edit(smash) : smash(raw.Base(), raw.Size());
        // A sane header again: the count and counter as they were, no readers, a new generation.
        REQUIRE(editor.Edit([&](uint8_t* base, size_t) {
            TarnLog::RingHeader header{};
            header.generation = saved.generation + 1;
            header.writeCounter = saved.writeCounter;
            header.entryCount = saved.entryCount;
            std::memcpy(base, &header, sizeof header);
        }));
        const auto run = Survived(page);
        CHECK(run.out.substr(0, expected.size()) == expected);
        CHECK(run.out.compare(expected.size(), 15, "error 80004005 ") == 0);
        TarnLog::RingSnapshot snapshot;  // the ring is usable again for everyone
        std::string error;
        CHECK_MESSAGE(TarnTest::RingReader().Snapshot(snapshot, error), error);
    }

    TEST_CASE("a truncated or garbage-filled critical file takes the page's next error and stays readable")
    {
        std::string saved, bytes;
        const std::wstring path = TarnTest::Widen(TarnTest::CriticalFilePath());
        const bool existed = TarnTest::ReadBytes(path, saved);
        // 40 KB of garbage behind a position past the end.
        const std::string damage = std::string("\xFF\xFF\xFF\x7F", 4) + std::string(40 * 1024 - 4, '#');
        TarnTest::WriteBytes(path, damage);
        TarnTest::Process page(Pages().Args({L"--url", L"file:///C:/x/page.html"}, kAskFunction + kErrorLine));
        CHECK(Survived(page).out.compare(0, 15, "error 80004005 ") == 0);
        CHECK(TarnTest::ReadBytes(path, bytes));
        CHECK(bytes.size() <= damage.size());  // circular: never past its wrap point plus one record
        CHECK(TarnTest::CriticalFileHas("Throwing "));  // the garbage held none
        existed ? (void)TarnTest::WriteBytes(path, saved) : (void)::DeleteFileW(path.c_str());
    }
}
