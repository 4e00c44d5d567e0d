// What other processes, and the host's own threads, can do to the logger without it
// crashing, freezing or writing where it should not. The first case needs a machine
// without a log ring, so it comes first and nothing before it in this program logs.
#include "RingReader.h"
#include "TarnLog/win/CriticalFileOpen.h"

#include <doctest.h>

#include <cstdlib>
#include <thread>

using namespace TarnTest;

namespace {

// Puts the critical file back as it was.
struct CriticalFileRestore {
    const std::string path = CriticalFilePath();
    const bool existed = ::GetFileAttributesA(path.c_str()) != INVALID_FILE_ATTRIBUTES;
    const std::string saved = FileBytes(path);
    ~CriticalFileRestore()
    {
        ::DeleteFileA(path.c_str());
        if (existed)
            std::ofstream(path, std::ios::binary) << saved;
    }
};

void __cdecl SentinelHandler(const wchar_t*, const wchar_t*, const wchar_t*, unsigned int, uintptr_t) {}

} // namespace

TEST_CASE("a log ring squatted as reserved, never committed memory is refused (Wine lets such pages be used where Windows faults)")
{
    REQUIRE_MESSAGE(!RingView().Open(false), "another process holds the log ring; this case needs the machine to itself");
    size_t bytes = 0;
    TarnLog::RingBytes(TarnLog::kDefaultRingEntries, bytes);
    TarnBase::UniqueHandle squat(::CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE | SEC_RESERVE, 0,
                                                      static_cast<DWORD>(bytes), RingMappingName().c_str()));
    REQUIRE((squat && ::GetLastError() != ERROR_ALREADY_EXISTS));
    TarnBase::UniqueMappedView view(::MapViewOfFile(squat.Get(), FILE_MAP_ALL_ACCESS, 0, 0, 0));
    REQUIRE(view);
    // A believable header. Windows would fault on this write and on any reader's; Wine takes
    // it, which lets the test see whether the logger would have used the pages.
    const TarnLog::RingHeader header{1, 0, TarnLog::kDefaultRingEntries, {}};
    std::memcpy(view.Get(), &header, sizeof header);

    CriticalFileRestore restore;
    const std::string className = "HostSafety-" + Nonce();
    const auto run = RunLogWriter({L"--count", L"10", L"--error-every", L"5", L"--class", Widen(className)});
    CHECK((run.started && !run.timedOut && run.exitCode == 0));
    // Nothing was written into the squatter's pages; the errors and the refusal went to the file.
    MEMORY_BASIC_INFORMATION region{};
    REQUIRE(::VirtualQuery(view.Get(), &region, sizeof region) == sizeof region);
    CHECK((region.State == MEM_RESERVE && static_cast<const TarnLog::RingHeader*>(view.Get())->writeCounter == 0));
    char pid[32];
    std::snprintf(pid, sizeof pid, "[PID: 0x%lx]", static_cast<unsigned long>(run.processId));
    CHECK((CriticalFileHas(pid, className) && CriticalFileHas(pid, "The log map another process made is damaged, not committed")));
}

TEST_CASE("a ring mutex another process keeps costs a writer one bounded wait, and its errors still reach the file")
{
    EnsureRing();
    CriticalFileRestore restore;
    const std::string nonce = Nonce();
    const uint32_t counterBefore = RingReader().WriteCounter();
    // Another thread holds the ring mutex through a handle of its own, as another process would.
    TarnBase::UniqueHandle locked(::CreateEventA(nullptr, TRUE, FALSE, nullptr)), done(::CreateEventA(nullptr, TRUE, FALSE, nullptr));
    RingHeaderEditor editor;
    std::thread holder([&] {
        RingMutexHold hold(editor.View().Mutex(), 5000);
        ::SetEvent(locked.Get()), ::WaitForSingleObject(done.Get(), 10000);
    });
    REQUIRE(::WaitForSingleObject(locked.Get(), 5000) == WAIT_OBJECT_0);
    // Ten records, each of which would wait a second if the logger kept waiting.
    const ULONGLONG start = (::SetLastError(4321), ::GetTickCount64());
    for (int i = 0; i < 10; ++i)
        TarnLog::Log("Timeout::Probe", 0, "Timeout: locked out %s %d.", nonce.c_str(), i);
    const ULONGLONG waited = ::GetTickCount64() - start;
    CHECK(::GetLastError() == 4321u);
    ::SetEvent(done.Get()), holder.join();
    CHECK((waited >= 900 && waited < 3000 && RingReader().WriteCounter() == counterBefore));
    CHECK(CriticalFileHas("[Class: Timeout::Probe][Msg: Timeout: locked out " + nonce + " 9.]"));
}

TEST_CASE("two threads logging at once leave the host's invalid-parameter handler as it was")
{
    const _invalid_parameter_handler before = _set_invalid_parameter_handler(SentinelHandler);
    // Long texts keep each call formatting for a while, so the two threads' calls overlap.
    const std::string longText(100000, 'x');
    auto logAtOnce = [&longText] {
        for (int i = 0; i < 200; ++i) {
            TarnLog::Log("HostSafety", 5, "long %s", longText.c_str());
            TarnLog::Log("HostSafety", 5, "bad %y format %d", i);
        }
    };
    std::thread first(logAtOnce), second(logAtOnce);
    first.join(), second.join();
    CHECK((_set_invalid_parameter_handler(before) == SentinelHandler));  // doctest cannot print a handler
}

TEST_CASE("an oversized critical file is started again, not blanked byte by byte")
{
    CriticalFileRestore restore;
    std::ofstream(restore.path, std::ios::binary | std::ios::trunc)
        .write(reinterpret_cast<const char*>(&TarnLog::kCriticalWrapPosition), 4).seekp(8 * 1024 * 1024 - 1).put('\0');
    const std::string marker = "HostSafety oversized " + Nonce();
    TarnLog::Log("HostSafety", 0, "%s", marker.c_str());
    CHECK(FileBytes(restore.path).size() <= TarnLog::kCriticalMaxFileSize);
    CHECK(CriticalFileHas(marker));
}

TEST_CASE("a critical file that is a hard link to another file is not written")
{
    CriticalFileRestore restore;
    const std::string victim = restore.path + ".victim-" + Nonce();
    std::ofstream(victim, std::ios::binary) << "victim";
    ::DeleteFileA(restore.path.c_str());
    REQUIRE(::CreateHardLinkA(restore.path.c_str(), victim.c_str(), nullptr));
    TarnLog::Log("HostSafety", 0, "HostSafety: a record for the linked file.");
    CHECK(FileBytes(victim) == "victim");
    ::DeleteFileA(victim.c_str());
}

TEST_CASE("critical file path checks, with the platform's answers injected (Wine reports no reparse point for links)")
{
    constexpr DWORD kFile = FILE_ATTRIBUTE_ARCHIVE, kFolder = FILE_ATTRIBUTE_DIRECTORY, kLink = FILE_ATTRIBUTE_REPARSE_POINT;
    const struct { const char* what; TarnLog::PathEntryFacts facts; bool directory, plain; } rows[] = {
        {"plain file", {kFile, kFile, 1}, false, true},
        {"plain folder", {kFolder, kFolder, 1}, true, true},
        {"symbolic link to a file", {kFile | kLink, kFile | kLink, 1}, false, false},
        {"link seen only by name", {kFile | kLink, kFile, 1}, false, false},
        {"junction seen only by handle", {kFolder, kFolder | kLink, 1}, true, false},
        {"hard link", {kFile, kFile, 2}, false, false},
        {"folder where the file belongs", {kFolder, kFolder, 1}, false, false},
        {"file where the folder belongs", {kFile, kFile, 1}, true, false},
        {"gone", {INVALID_FILE_ATTRIBUTES, kFile, 1}, false, false},
    };
    for (const auto& row : rows)
        CHECK_MESSAGE(TarnLog::IsPlainEntry(row.facts, row.directory) == row.plain, row.what);
}
