// The record's one-line text form and the formatting of the log call, independent of any
// ring. (Field cuts are shown on the real ring entry in win/Logger_test.)
#include "LogCapture.h"
#include "TarnLog/Log.h"
#include "TarnLog/LogFormat.h"
#include "TarnLog/LogRecord.h"

#include <doctest.h>

#include <cstring>
#include <ctime>
#include <string>

using namespace TarnLog;

TEST_CASE("the text form reads month first, hex ids, one bracket per field, and stays inside damaged fields")
{
    LogRecord record{};
    CopyField(record.processName, sizeof record.processName, "host.exe");
    CopyField(record.className, sizeof record.className, "TarnMT::Mutex");
    CopyField(record.message, sizeof record.message, "Throwing ...");
    record.processId = 0x1a4, record.threadId = 0x9c8;
    std::tm when{9, 5, 14, 7, 2, 2009 - 1900};
    CHECK(FormatRecordText(record, when) ==
          "[03/07/2009 14:05:09][Process: host.exe][PID: 0x1a4][Thread: 0x9c8][Class: TarnMT::Mutex][Msg: Throwing ...]");

    // Fields without terminators (damage in the ring) stay inside their record.
    std::memset(record.processName, 'P', sizeof record.processName);
    std::memset(record.message, 'M', sizeof record.message);
    CHECK(FormatRecordText(record, when) == "[03/07/2009 14:05:09][Process: " + std::string(32, 'P') +
                                                "][PID: 0x1a4][Thread: 0x9c8][Class: TarnMT::Mutex][Msg: " + std::string(512, 'M') + "]");
}

TEST_CASE("formats are checked before they are used")
{
    const struct { const char* format; bool valid; } table[] = {
        {"plain text", true},
        {"%d %u %s %% %c %p %x %X %08.3f %-5s %*d %.*s %I64d %I32u %ld %lld %hs %ls %ws %S", true},
        {"%n", false}, {"%5n", false},  // would write through an argument
        {"ends with %", false}, {"%y", false}, {nullptr, false},
    };
    for (const auto& row : table)
        CHECK(IsValidFormat(row.format) == row.valid);
}

TEST_CASE("a format that cannot be used is logged raw after a TarnLogLib record")
{
    TarnTest::LogCapture capture;
    const std::string format = "RawProbe: %n and %d never formatted", long700(700, 'z');
    TarnLog::Log("Probe::Raw", 1, format.c_str(), 5);
    TarnLog::Log("Probe::Fine", 2, "Fine: %d of %s. <0x%08.8X> %s!", 3, "four", 0x80004005u, long700.c_str());
    TarnTest::Expect(capture, {
        {"TarnLogLib", 2, "Invalid parameter handler invoked:  The original log text contained an invalid sequence."},
        {"Probe::Raw", 1, format},
        {"Probe::Fine", 2, "Fine: 3 of four. <0x80004005> " + long700 + "!"},  // longer than the first buffer
    });
}
