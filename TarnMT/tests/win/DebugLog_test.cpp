#include "TarnMT/DebugLine.h"
#include "DebuggerOutput.h"
#include "LogCapture.h"

#include <doctest.h>

TEST_CASE("the debug line: cut to its buffer for the logger, whole to the debugger, last error kept")
{
    TarnTest::DebuggerOutput debugger;
    REQUIRE(debugger.Ready());
    TarnTest::LogCapture capture;
    ::SetLastError(1234);
    TarnMT::DebugLog("TarnMT::Mutex", 1, "%u %s", 7u, std::string(3000, 'x').c_str());
    CHECK(::GetLastError() == 1234);
    TarnTest::Expect(capture, {{"TarnMT::Mutex", 1, "7 " + std::string(2045, 'x')}});

    const std::string marker = "marker " + std::to_string(::GetTickCount());
    TarnMT::DebugLog("TarnMT::Thread", 1, "%s", marker.c_str());
    const std::string line = debugger.WaitFor(marker);
    // Everything but the time stamp is known; the stamp's layout is DebugLine_test's.
    const std::string tail = " ] [ PID: " + std::to_string(::GetCurrentProcessId()) + " ] [ TID: " +
                             std::to_string(::GetCurrentThreadId()) + " ] [ TarnMT-Log ] [ TarnMT::Thread ] [ Msg: " +
                             marker + " ]\n";
    REQUIRE(line.size() == 30 + tail.size());
    CHECK(line.substr(0, 11) == "[ WARN  ][ ");
    CHECK(line.substr(30) == tail);
}
