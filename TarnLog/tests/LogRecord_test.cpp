// The record's fixed fields and its one-line text form, and the formatting of the log
// call, independent of any ring.
#include "LogCapture.h"
#include "TarnLog/Log.h"
#include "TarnLog/LogFormat.h"
#include "TarnLog/LogRecord.h"

#include <doctest.h>

#include <cstdarg>
#include <cstring>
#include <ctime>
#include <string>

using namespace TarnLog;

namespace {

std::string Format(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    bool invalid = false;
    std::string text = FormatMessageText(format, args, invalid);
    va_end(args);
    return invalid ? "<invalid>" : text;
}

} // namespace

TEST_CASE("fixed fields are cut to their size less one and always terminated")
{
    char field[8];
    std::memset(field, 'x', sizeof field);
    CopyField(field, sizeof field, "0123456789");
    CHECK(std::string(field) == "0123456");
    CopyField(field, sizeof field, "ab");
    CHECK(std::memcmp(field, "ab\0\0\0\0\0\0", 8) == 0);  // the rest is cleared, not left over
    CopyField(field, sizeof field, nullptr);
    CHECK(std::memcmp(field, "\0\0\0\0\0\0\0\0", 8) == 0);

    LogRecord record;
    std::memset(&record, 0, sizeof record);
    CopyField(record.message, sizeof record.message, std::string(600, 'm').c_str());
    CHECK(std::strlen(record.message) == 511);
    CopyField(record.className, sizeof record.className, std::string(100, 'c').c_str());
    CHECK(std::strlen(record.className) == 63);
    CopyField(record.processName, sizeof record.processName, std::string(40, 'p').c_str());
    CHECK(std::strlen(record.processName) == 31);

    // A field written by another process may lack its terminator: read to its end only.
    std::memset(record.className, 'k', sizeof record.className);
    CHECK(ReadField(record.className, sizeof record.className) == std::string(64, 'k'));
}

TEST_CASE("the text form reads month first, hex ids, one bracket per field")
{
    LogRecord record;
    std::memset(&record, 0, sizeof record);
    CopyField(record.processName, sizeof record.processName, "host.exe");
    CopyField(record.className, sizeof record.className, "TarnMT::Mutex");
    CopyField(record.message, sizeof record.message, "Throwing ...");
    record.processId = 0x1a4;
    record.threadId = 0x9c8;
    std::tm when{};
    when.tm_year = 2009 - 1900;
    when.tm_mon = 2;
    when.tm_mday = 7;
    when.tm_hour = 14;
    when.tm_min = 5;
    when.tm_sec = 9;
    CHECK(FormatRecordText(record, when) ==
          "[03/07/2009 14:05:09][Process: host.exe][PID: 0x1a4][Thread: 0x9c8][Class: TarnMT::Mutex][Msg: Throwing ...]");

    // Fields without terminators (damage in the ring) stay inside their record.
    std::memset(record.processName, 'P', sizeof record.processName);
    std::memset(record.message, 'M', sizeof record.message);
    const std::string text = FormatRecordText(record, when);
    CHECK(text.find("[Process: " + std::string(32, 'P') + "]") != std::string::npos);
    CHECK(text.find("[Msg: " + std::string(512, 'M') + "]") != std::string::npos);

    // The record time is the calendar time of now, round-tripped through local time.
    const uint32_t before = static_cast<uint32_t>(std::time(nullptr));
    const uint32_t stamp = CurrentRecordTime();
    const uint32_t after = static_cast<uint32_t>(std::time(nullptr));
    CHECK(stamp + 3600 >= before);  // an hour either way only at a daylight-saving change
    CHECK(stamp <= after + 3600);
    record.time = stamp;
    CHECK(FormatRecordText(record).compare(0, 1, "[") == 0);
}

TEST_CASE("formats are checked before they are used")
{
    CHECK(IsValidFormat("plain text"));
    CHECK(IsValidFormat("%d %u %s %% %c %p %x %X %08.3f %-5s %*d %.*s"));
    CHECK(IsValidFormat("%I64d %I32u %ld %lld %hs %ls %ws %S"));
    CHECK_FALSE(IsValidFormat("%n"));        // would write through an argument
    CHECK_FALSE(IsValidFormat("%5n"));
    CHECK_FALSE(IsValidFormat("ends with %"));
    CHECK_FALSE(IsValidFormat("%y"));
    CHECK_FALSE(IsValidFormat(nullptr));

    CHECK(Format("HRESULT = <0x%08.8X>", 0x80004005u) == "HRESULT = <0x80004005>");
    CHECK(Format("GetLastError: %u.", 5u) == "GetLastError: 5.");
    const std::string long700(700, 'z');
    CHECK(Format("%s!", long700.c_str()) == long700 + "!");  // longer than the first buffer
    CHECK(Format("bad %n") == "<invalid>");
}

TEST_CASE("a format that cannot be used is logged raw after a TarnLogLib record")
{
    TarnTest::LogCapture capture;
    const std::string format = "RawProbe: %n and %d never formatted";
    TarnLog::Log("Probe::Raw", 1, format.c_str(), 5);
    const auto records = capture.Records();
    REQUIRE(records.size() == 2);
    CHECK(records[0].className == "TarnLogLib");
    CHECK(records[0].level == 2);
    CHECK(records[0].message == "Invalid parameter handler invoked:  The original log text contained an invalid sequence.");
    CHECK(records[1].className == "Probe::Raw");
    CHECK(records[1].level == 1);
    CHECK(records[1].message == format);

    capture.Clear();
    TarnLog::Log("Probe::Fine", 2, "Fine: %d of %s.", 3, "four");
    REQUIRE(capture.Records().size() == 1);
    CHECK(capture.Records()[0].message == "Fine: 3 of four.");
}
