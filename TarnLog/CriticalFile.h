#pragma once
// The circular critical log file: a 4-byte position, then record texts, each followed by
// CR LF and one separator line that the next record overwrites. It is shared by every
// process on the machine and must stay readable whatever a crashed writer left behind.

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace TarnLog {

extern const char kCriticalSeparator[];            // "$$******SEPARATOR******$$"
constexpr uint32_t kCriticalSeparatorLength = 25;
constexpr uint32_t kCriticalWrapPosition = 32500;
// Larger than any file the writer makes (the wrap point plus one record of at most about
// 1 KiB): a bigger file is damaged or planted, and is started again from empty rather than
// blanked byte by byte.
constexpr uint32_t kCriticalMaxFileSize = kCriticalWrapPosition + 4096;

// Appends one record text at its place in the file at `path`, creating the file when it is
// missing. Not synchronised: the caller serialises writers of one process.
bool AppendCriticalRecord(const std::string& path, const std::string& text);
// The same on a file the caller opened for reading and writing (binary); it stays open.
bool AppendCriticalRecord(std::FILE* file, const std::string& text);

struct CriticalFileContents {
    bool positionValid = false;
    uint32_t position = 0;
    std::vector<std::string> records;  // oldest first
};

// Splits a critical file's bytes into its records, oldest first. Garbage is tolerated: a
// damaged position yields the record-shaped lines in file order.
CriticalFileContents ReadCriticalRecords(const std::string& bytes);

} // namespace TarnLog
