// What every process shares with the DLL, damaged or held by another process, and web
// servers that misbehave: the ring's size setting, its bytes and its mutex, a squatted
// trusted-process table, data files that trickle, never end or keep failing. The host must
// answer, in bounded time and disk, with the fail-closed answer. These tests run alone, and
// they put the shared state back.
#include "BlackBoxPages.h"

#include <algorithm>
#include <chrono>
#include <cstring>

using namespace TarnTest;

namespace {

constexpr DWORD kPageLimitMs = 25000;  // far beyond any answer here; a hang ends as a failure

const std::string kNotImplemented = "host.Echo(ask(function () { return TarnSM.IsSiteTrusted('x'); }));\n";
// One error record in the page's process: an alternative trust list that cannot be narrowed
// to the ANSI code page is refused with a thrown, logged exception.
const char kErrorLine[] = "host.Echo(ask(function () { return TarnSM.IsCurrentContainerTrusted('\\u4e2d\\u6587'); }));\n";

struct Page { ChildResult child; double seconds = 0; };

// tarnhost.exe on a page at `url` whose script echoes one answer per line.
Page RunPage(PageHost& pages, const std::wstring& url, const std::vector<std::string>& params, const std::string& script)
{
    const auto start = std::chrono::steady_clock::now();
    Page page{Process(pages.Args(PageAt(url, params), script)).Finish(kPageLimitMs)};
    page.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    Survived(page.child);
    return page;
}

// `text` and a line end, `times` times.
std::string Repeat(const std::string& text, int times) { return times > 0 ? text + "\n" + Repeat(text, times - 1) : ""; }

std::string Asks(const std::string& question, int times) { return Repeat("host.Echo(TarnSM." + question + ");", times); }

void DeleteKeptDownloads() { for (const auto& file : PageHost::Downloads()) ::DeleteFileW(file.c_str()); }

} // namespace

TEST_SUITE("host stall")
{
    // First in this file: it needs a machine with no log ring, and this process keeps the
    // ring alive from its first record on.
    TEST_CASE("an absurd NumberOfLogEntries at ring creation gives a ring of the default size")
    {
        PageHost pages(false);  // this process must not keep a ring
        for (const uint32_t entries : {0u, 0xFFFFFFFFu, 0x80000000u}) {
            CAPTURE(entries);
            RingView probe;
            REQUIRE_FALSE_MESSAGE(probe.Open(false), "another process holds the log ring, so its size is decided");
            ScopedRegistryKey key(HKEY_CURRENT_USER, "SOFTWARE\\Ostrum\\Kestrel\\Logger");
            REQUIRE(key.SetRaw("NumberOfLogEntries", REG_DWORD, &entries, sizeof entries));
            // The page keeps its process, and so the ring, alive while the ring is looked at.
            Process page(pages.Args(PageAt(L"file:///C:/x/page.html"), kAskFunction + kNotImplemented +
                                    "var end = new Date().getTime() + 4000; while (new Date().getTime() < end) {}\n"));
            REQUIRE(page.WaitForOutput("error 80004001 \n", 20000));
            RingHeaderEditor editor;
            REQUIRE_MESSAGE(editor.IsOpen(), "the page made no ring");
            CHECK(editor.Header().entryCount == TarnLog::kDefaultRingEntries);
            CHECK(editor.View().Size() >=
                  TarnLog::kRingHeaderSize + size_t(TarnLog::kDefaultRingEntries) * TarnLog::kRingEntrySize);
            Survived(page.Finish());
        }
    }

    TEST_CASE("a ring mutex another process keeps adds about a second to a page's questions, not their whole hold")
    {
        PageHost pages(false);
        const std::string script = Asks("IsCurrentContainerTrusted('')", 4);
        const Page free = RunPage(pages, L"file:///C:/x/page.html", {}, script);
        TarnBase::UniqueHandle mutex(::CreateMutexA(nullptr, FALSE, RingMutexName().c_str()));
        REQUIRE(mutex);
        RingMutexHold hold(mutex.Get(), 5000);
        REQUIRE(hold.Held());
        const Page held = RunPage(pages, L"file:///C:/x/page.html", {}, script);
        CHECK(free.child.out == Repeat("false", 4));
        CHECK(held.child.out == Repeat("false", 4));
        MESSAGE("free " << free.seconds << " s, held " << held.seconds << " s");
        CHECK(held.seconds < free.seconds + 2.5);
    }

    TEST_CASE("a trusted-process table squatted as reserved memory is refused with a record (Wine reads such pages where Windows faults)")
    {
        PageHost pages;  // keeps the ring, and so the host's records, alive
        const std::string name = TarnBase::MakeKernelObjectName("TarnSys::DynamicProcessTrust::MemMap::2.0", false);
        TarnBase::UniqueHandle squat(
            ::CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE | SEC_RESERVE, 0, 38524, name.c_str()));
        REQUIRE(squat);
        REQUIRE_MESSAGE(::GetLastError() != ERROR_ALREADY_EXISTS, "another process holds the table");
        const Page page = RunPage(pages, L"file:///C:/x/page.html", {}, Asks("IsCurrentContainerTrusted('')", 1));
        CHECK(page.child.out == "false\n");
        const auto messages = MessagesOf(page.child.processId);
        CHECK(std::count(messages.begin(), messages.end(),
                         "InitMemoryMap():  Shared memory is smaller than the table, not committed, not readable or backed by a file. Not using it.") == 1);
    }

    TEST_CASE_FIXTURE(Pages, "data files that trickle, never end or keep failing cost bounded time and disk")
    {
        ScopedRegistryKey config(HKEY_LOCAL_MACHINE, "Software\\Ostrum\\Kestrel\\Config\\TarnSM");
        REQUIRE(config.SetDword("TrustedSiteDownloadTimeout", 1000));  // the whole download may then take 3 s
        DeleteKeptDownloads();
        auto page = [&](const std::string& directive, int asks) {
            return RunPage(pages, L"http://example.com/p.html",
                           {"TrustedSiteDataFileURL=" + server.Url("/__" + directive + "/good.dll")},
                           Asks("IsCurrentSiteTrusted()", asks));
        };

        SUBCASE("a byte every 50 ms: ended at the deadline")
        {
            const Page trickle = page("trickle=50", 1);
            CHECK(trickle.child.out == "false\n");
            CHECK(trickle.seconds < 10);
        }
        SUBCASE("3 MB without a length: cut at the size cap")
        {
            CHECK(page("oversize=3000000", 1).child.out == "false\n");
            for (const auto& file : PageHost::Downloads()) {
                std::string bytes;
                CHECK((ReadBytes(file, bytes) && bytes.size() <= 1024 * 1024 + 1024));
            }
        }
        SUBCASE("20 failures in a row keep at most 8 downloads, and the 21st question still works")
        {
            CHECK(page("failfirst=20", 21).child.out == Repeat("false", 20) + "true\n");
            CHECK(PageHost::Downloads().size() <= 8);
        }
        DeleteKeptDownloads();
    }

    TEST_CASE_FIXTURE(Pages, "random bytes written over the ring while a page runs change none of its answers")
    {
        EnsureRing();
        RingHeaderEditor editor;
        REQUIRE(editor.IsOpen());
        const TarnLog::RingHeader saved = editor.Header();
        std::string script = kAskFunction, expected;
        for (int i = 0; i < 20; ++i)
            script += Asks("IsCurrentSiteTrusted()", 1) + kNotImplemented, expected += "true\nerror 80004001 \n";
        Process page(pages.Args(PageAt(L"http://example.com/p.html", {"TrustedSiteDataFileURL=" + server.Url("/good.dll")}),
                                script + kErrorLine));
        // Half the damage under the ring mutex, as a broken reader would make it, half
        // straight into a second writable view, as a hostile process would.
        RingView raw;
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
        const auto run = page.Finish();
        Survived(run);
        CHECK(run.out.substr(0, expected.size()) == expected);
        CHECK(run.out.compare(expected.size(), 15, "error 80004005 ") == 0);
        TarnLog::RingSnapshot snapshot;  // the ring is usable again for everyone
        std::string error;
        CHECK_MESSAGE(RingReader().Snapshot(snapshot, error), error);
    }
}
