#include "TarnBase/win/Handle.h"
#include "TarnMT/DebugLine.h"
#include "LogCapture.h"

#include <doctest.h>

#include <windows.h>

#include <cstring>
#include <string>

using TarnBase::UniqueHandle;

TEST_CASE("the debug line reaches the observer cut to its buffer, leaving the last error alone")
{
    TarnTest::LogCapture capture;
    ::SetLastError(1234);
    TarnMT::DebugLog("TarnMT::Mutex", 1, "%u %s", 7u, std::string(3000, 'x').c_str());
    CHECK(::GetLastError() == 1234);
    const auto records = capture.Records();
    REQUIRE(records.size() == 1);
    CHECK(records[0].className == "TarnMT::Mutex");
    CHECK(records[0].level == 1);
    CHECK(records[0].message == "7 " + std::string(2045, 'x'));
}

TEST_CASE("the debug line reaches the debugger output whole")
{
    // Play the debugger-output reader: OutputDebugStringA hands each string to the owner of
    // these machine-wide objects.
    UniqueHandle bufferReady(::CreateEventA(nullptr, FALSE, FALSE, "DBWIN_BUFFER_READY"));
    if (!bufferReady || ::GetLastError() == ERROR_ALREADY_EXISTS) {
        MESSAGE("another debugger-output reader is active; skipped");
        return;
    }
    UniqueHandle dataReady(::CreateEventA(nullptr, FALSE, FALSE, "DBWIN_DATA_READY"));
    UniqueHandle mapping(::CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 4096, "DBWIN_BUFFER"));
    REQUIRE(mapping);
    TarnBase::UniqueMappedView view(::MapViewOfFile(mapping.Get(), FILE_MAP_READ, 0, 0, 4096));
    REQUIRE(view);
    ::SetEvent(bufferReady.Get());

    const std::string marker = "marker " + std::to_string(::GetTickCount());
    TarnMT::DebugLog("TarnMT::Thread", 1, "%s", marker.c_str());
    std::string line;
    while (line.find(marker) == std::string::npos && ::WaitForSingleObject(dataReady.Get(), 5000) == WAIT_OBJECT_0) {
        const char* bytes = static_cast<const char*>(view.Get());
        DWORD pid = 0;
        std::memcpy(&pid, bytes, sizeof pid);
        if (pid == ::GetCurrentProcessId())
            line.assign(bytes + sizeof pid, strnlen(bytes + sizeof pid, 4096 - sizeof pid));
        ::SetEvent(bufferReady.Get());
    }
    // Everything but the time stamp is known; the stamp's shape is checked on its own.
    const std::string tail = " ] [ PID: " + std::to_string(::GetCurrentProcessId()) + " ] [ TID: " +
                             std::to_string(::GetCurrentThreadId()) + " ] [ TarnMT-Log ] [ TarnMT::Thread ] [ Msg: " +
                             marker + " ]\n";
    REQUIRE(line.size() == 30 + tail.size());
    CHECK(line.substr(0, 11) == "[ WARN  ][ ");
    CHECK(line.substr(30) == tail);
    CHECK(line[13] == '/');
    CHECK(line[16] == '/');
    CHECK(line[21] == ' ');
    CHECK(line[24] == ':');
    CHECK(line[27] == ':');
}
