#pragma once
// The trusted-process table as bytes: a 4-byte header and 15 fixed entries, each a process
// identifier field and an (encrypted) application path field of UTF-16LE units.
//
// Every local process can write the table, so nothing here trusts its contents: fields are
// read only within their own bounds, a field without a terminator is taken whole, and an
// entry is copied out before it is looked at. No <windows.h>: this builds and is tested
// natively under the sanitizers.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace TarnSys {

constexpr size_t kTableHeaderBytes = 4;
constexpr size_t kTableEntryCount = 15;
constexpr size_t kPidFieldBytes = 516;
constexpr size_t kPathFieldBytes = 2052;
constexpr size_t kTableEntryBytes = kPidFieldBytes + kPathFieldBytes;                   // 2568
constexpr size_t kTableBytes = kTableHeaderBytes + kTableEntryCount * kTableEntryBytes;  // 38524
constexpr size_t kPidFieldUnits = kPidFieldBytes / 2;    // 258
constexpr size_t kPathFieldUnits = kPathFieldBytes / 2;  // 1026

// Longest identifier a look-up accepts, and the longest each field stores (one unit is the
// terminator).
constexpr size_t kMaxLookupPidUnits = 256;
constexpr size_t kMaxStoredPidUnits = kPidFieldUnits - 1;    // 257
constexpr size_t kMaxStoredPathUnits = kPathFieldUnits - 1;  // 1025

static_assert(kTableEntryBytes == 2568, "entry size");
static_assert(kTableBytes == 38524, "table size");

// One entry as copied out of the table.
struct TableEntry {
    std::u16string pid;   // up to the first zero unit, at most the whole field
    std::u16string path;  // the stored (encrypted) form, the same way
    bool IsFree() const { return pid.empty(); }
};

size_t EntryOffset(size_t index);

// A UTF-16LE string read from `fieldBytes` bytes: up to the first zero unit, or every unit
// of the field when it has no terminator.
std::u16string ReadField(const uint8_t* field, size_t fieldBytes);

// Entry `index` of a table of `tableBytes` bytes; nullopt when the index or the table size
// does not allow it. The entry is read from `table` exactly once, byte by byte into a copy.
std::optional<TableEntry> ReadEntry(const uint8_t* table, size_t tableBytes, size_t index);

// The 2568 bytes of an entry holding `pid` and `path` (the rest zero); nullopt when either
// does not fit its field with a terminator, or holds a zero unit.
std::optional<std::vector<uint8_t>> EncodeEntry(const std::u16string& pid, const std::u16string& path);

// Writes `entryBytes` (2568 bytes) over entry `index`; false when it does not fit.
bool WriteEntry(uint8_t* table, size_t tableBytes, size_t index, const std::vector<uint8_t>& entryBytes);

// The first entry whose identifier equals `pid` without regard to case, as a look-up does.
std::optional<size_t> FindEntry(const uint8_t* table, size_t tableBytes, const std::u16string& pid);

std::optional<size_t> FirstFreeEntry(const uint8_t* table, size_t tableBytes);

// Wide strings as C strings: the part before the first zero unit.
std::u16string UpToZero(const std::u16string& text);

// Equality of the parts before the first zero unit, letters A-Z and a-z taken as equal
// (the case rule of the platform's wide-string comparison in its default locale).
bool EqualsNoCase(const std::u16string& a, const std::u16string& b);

// Every occurrence of `from` replaced by `to`, matched case-sensitively, left to right.
std::u16string ReplaceAll(const std::u16string& text, const std::u16string& from, const std::u16string& to);

// A 32-bit process on a 64-bit system sees the system directory as "\syswow64\" where a
// 64-bit writer stored "\system32\". Given whether the reader runs under WOW64:
//  - the stored path in the reader's form (query direction), or nullopt when no exchange
//    applies (not WOW64, or no "\system32\" in it);
std::optional<std::u16string> StoredPathAsSeenUnderWow64(const std::u16string& storedPath, bool wow64);
//  - the reader's path in the writer's form (clearing direction), likewise.
std::optional<std::u16string> ReaderPathAsWrittenUnderWow64(const std::u16string& readerPath, bool wow64);

// The query rule: plain paths equal without regard to case, else (under WOW64) the stored
// path with its system directory exchanged. `exchanged` receives the exchanged path when
// one was tried.
bool PathsMatchForQuery(const std::u16string& decryptedStoredPath, const std::u16string& readerPath, bool wow64,
                        std::u16string* exchanged = nullptr);

// Decimal text of a process identifier, as "%lu" formats it.
std::u16string PidText(uint32_t pid);

// Narrow text for log lines: ASCII units kept, others shown as '?'.
std::string ToNarrowForLog(const std::u16string& text);

} // namespace TarnSys
