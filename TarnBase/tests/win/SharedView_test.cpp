// What another process can leave behind a shared mapping's name, and how much of it a view
// may touch.
#include "TarnBase/win/Handle.h"
#include "TarnBase/win/SharedView.h"
#include "Scratch.h"

#include <doctest.h>

TEST_CASE("only committed, page-file backed bytes of a view are usable")
{
    constexpr DWORD kBytes = 64 * 1024;
    TarnTest::TempDir dir(L"sharedview");
    TarnBase::UniqueFile file(::CreateFileW((dir / L"view.bin").c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                            CREATE_ALWAYS, FILE_FLAG_DELETE_ON_CLOSE, nullptr));
    REQUIRE(file);
    const struct { const char* what; HANDLE backing; DWORD protection, committedBytes; size_t usable; } rows[] = {
        {"page file, committed", INVALID_HANDLE_VALUE, PAGE_READWRITE, 0, kBytes},
        {"page file, reserved only", INVALID_HANDLE_VALUE, PAGE_READWRITE | SEC_RESERVE, 0, 0},
        {"page file, first 8 KiB committed", INVALID_HANDLE_VALUE, PAGE_READWRITE | SEC_RESERVE, 8192, 8192},
        {"file", file.Get(), PAGE_READWRITE, 0, 0},
    };
    for (const auto& row : rows) {
        CAPTURE(std::string(row.what));
        TarnBase::UniqueHandle mapping(::CreateFileMappingA(row.backing, nullptr, row.protection, 0, kBytes, nullptr));
        REQUIRE(mapping);
        TarnBase::UniqueMappedView view(::MapViewOfFile(mapping.Get(), FILE_MAP_ALL_ACCESS, 0, 0, 0));
        REQUIRE(view);
        if (row.committedBytes != 0)
            REQUIRE(::VirtualAlloc(view.Get(), row.committedBytes, MEM_COMMIT, PAGE_READWRITE));
        CHECK(TarnBase::UsableViewBytes(view.Get()) == row.usable);
    }
}
