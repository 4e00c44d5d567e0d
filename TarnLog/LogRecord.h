#pragma once
// One log record: the fixed 692-byte entry every process writes into the shared ring and
// every viewer reads back. Offsets are an inter-process contract.

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>

namespace TarnLog {

#pragma pack(push, 1)
struct LogRecord {
    char processName[32];
    char className[64];
    char reserved1[64];
    uint32_t time;
    uint8_t level;
    uint8_t reserved2[3];
    uint32_t reserved3;
    uint32_t threadId;
    uint32_t processId;
    char message[512];
};
#pragma pack(pop)

static_assert(sizeof(LogRecord) == 692, "ring entry size");
static_assert(offsetof(LogRecord, className) == 32, "class name offset");
static_assert(offsetof(LogRecord, reserved1) == 96, "reserved offset");
static_assert(offsetof(LogRecord, time) == 160, "time offset");
static_assert(offsetof(LogRecord, level) == 164, "level offset");
static_assert(offsetof(LogRecord, threadId) == 172, "thread id offset");
static_assert(offsetof(LogRecord, processId) == 176, "process id offset");
static_assert(offsetof(LogRecord, message) == 180, "message offset");

// Copies text into a fixed field, cut to the field size less one, always terminated.
void CopyField(char* field, size_t fieldSize, const char* text);

// Reads a field that another process wrote: stops at the terminator or the field's end.
std::string ReadField(const char* field, size_t fieldSize);

// "[MM/DD/YYYY hh:mm:ss][Process: ...][PID: 0x..][Thread: 0x..][Class: ...][Msg: ...]"
std::string FormatRecordText(const LogRecord& record);
std::string FormatRecordText(const LogRecord& record, const std::tm& local);

} // namespace TarnLog
