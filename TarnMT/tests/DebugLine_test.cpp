#include "TarnMT/DebugLine.h"

#include <doctest.h>

#include <string>

using TarnMT::FormatDebugLine;

static std::tm At(int year, int month, int day, int hour, int minute, int second)
{
    std::tm t{};
    return t.tm_year = year - 1900, t.tm_mon = month - 1, t.tm_mday = day, t.tm_hour = hour, t.tm_min = minute, t.tm_sec = second, t;
}

TEST_CASE("debug line layout")
{
    // Month first, all but the year padded to two digits, ids in decimal, one line feed.
    CHECK(FormatDebugLine(1, At(2009, 3, 7, 4, 5, 9), 0x1a4, 0x9c8, "TarnMT::Mutex", "100% %s done") ==
          "[ WARN  ][ 03/07/2009 04:05:09 ] [ PID: 420 ] [ TID: 2504 ] [ TarnMT-Log ] [ TarnMT::Mutex ] [ Msg: 100% %s done ]\n");
    CHECK(FormatDebugLine(0, At(1999, 12, 31, 23, 59, 58), 1, 4294967295UL, "TarnMT::Thread", "x") ==
          "[ ERROR ][ 12/31/1999 23:59:58 ] [ PID: 1 ] [ TID: 4294967295 ] [ TarnMT-Log ] [ TarnMT::Thread ] [ Msg: x ]\n");
    CHECK(FormatDebugLine(2, At(2024, 1, 2, 0, 0, 0), 5, 6, nullptr, nullptr) ==
          "[ DEBUG ][ 01/02/2024 00:00:00 ] [ PID: 5 ] [ TID: 6 ] [ TarnMT-Log ] [  ] [ Msg:  ]\n");
    CHECK(std::string(TarnMT::LevelTag(255)) == "[ DEBUG ]");
}
