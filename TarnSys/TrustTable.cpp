#include "TarnSys/TrustTable.h"

#include <cstring>

namespace TarnSys {
namespace {

char16_t FoldAscii(char16_t c)
{
    return (c >= u'A' && c <= u'Z') ? static_cast<char16_t>(c - u'A' + u'a') : c;
}

void PutField(uint8_t* field, const std::u16string& text)
{
    for (size_t i = 0; i < text.size(); ++i) {
        field[2 * i] = static_cast<uint8_t>(text[i] & 0xFF);
        field[2 * i + 1] = static_cast<uint8_t>(text[i] >> 8);
    }
}

bool Storable(const std::u16string& text, size_t maxUnits)
{
    return !text.empty() && text.size() <= maxUnits && text.find(u'\0') == std::u16string::npos;
}

const std::u16string kSystem32 = u"\\system32\\";
const std::u16string kSysWow64 = u"\\syswow64\\";

} // namespace

size_t EntryOffset(size_t index)
{
    return kTableHeaderBytes + index * kTableEntryBytes;
}

std::u16string ReadField(const uint8_t* field, size_t fieldBytes)
{
    std::u16string text;
    for (size_t i = 0; i + 1 < fieldBytes; i += 2) {
        const char16_t unit = static_cast<char16_t>(field[i] | (field[i + 1] << 8));
        if (unit == u'\0')
            break;
        text.push_back(unit);
    }
    return text;
}

std::optional<TableEntry> ReadEntry(const uint8_t* table, size_t tableBytes, size_t index)
{
    if (table == nullptr || index >= kTableEntryCount || tableBytes < EntryOffset(index) + kTableEntryBytes)
        return std::nullopt;
    // One copy, then only the copy is read: a writer changing the entry meanwhile cannot
    // make the two fields come from different moments.
    uint8_t copy[kTableEntryBytes];
    std::memcpy(copy, table + EntryOffset(index), kTableEntryBytes);
    TableEntry entry;
    entry.pid = ReadField(copy, kPidFieldBytes);
    entry.path = ReadField(copy + kPidFieldBytes, kPathFieldBytes);
    return entry;
}

std::optional<std::vector<uint8_t>> EncodeEntry(const std::u16string& pid, const std::u16string& path)
{
    if (!Storable(pid, kMaxStoredPidUnits) || !Storable(path, kMaxStoredPathUnits))
        return std::nullopt;
    std::vector<uint8_t> bytes(kTableEntryBytes, 0);
    PutField(bytes.data(), pid);
    PutField(bytes.data() + kPidFieldBytes, path);
    return bytes;
}

bool WriteEntry(uint8_t* table, size_t tableBytes, size_t index, const std::vector<uint8_t>& entryBytes)
{
    if (table == nullptr || index >= kTableEntryCount || entryBytes.size() != kTableEntryBytes ||
        tableBytes < EntryOffset(index) + kTableEntryBytes)
        return false;
    std::memcpy(table + EntryOffset(index), entryBytes.data(), kTableEntryBytes);
    return true;
}

std::optional<size_t> FindEntry(const uint8_t* table, size_t tableBytes, const std::u16string& pid)
{
    for (size_t i = 0; i < kTableEntryCount; ++i) {
        const auto entry = ReadEntry(table, tableBytes, i);
        if (entry && EqualsNoCase(entry->pid, pid))
            return i;
    }
    return std::nullopt;
}

std::optional<size_t> FirstFreeEntry(const uint8_t* table, size_t tableBytes)
{
    for (size_t i = 0; i < kTableEntryCount; ++i) {
        const auto entry = ReadEntry(table, tableBytes, i);
        if (entry && entry->IsFree())
            return i;
    }
    return std::nullopt;
}

std::u16string UpToZero(const std::u16string& text)
{
    const size_t zero = text.find(u'\0');
    return zero == std::u16string::npos ? text : text.substr(0, zero);
}

bool EqualsNoCase(const std::u16string& a, const std::u16string& b)
{
    const std::u16string x = UpToZero(a);
    const std::u16string y = UpToZero(b);
    if (x.size() != y.size())
        return false;
    for (size_t i = 0; i < x.size(); ++i)
        if (FoldAscii(x[i]) != FoldAscii(y[i]))
            return false;
    return true;
}

std::u16string ReplaceAll(const std::u16string& text, const std::u16string& from, const std::u16string& to)
{
    if (from.empty())
        return text;
    std::u16string result;
    size_t start = 0;
    for (size_t hit = text.find(from); hit != std::u16string::npos; hit = text.find(from, start)) {
        result.append(text, start, hit - start);
        result += to;
        start = hit + from.size();
    }
    result.append(text, start, std::u16string::npos);
    return result;
}

std::optional<std::u16string> StoredPathAsSeenUnderWow64(const std::u16string& storedPath, bool wow64)
{
    if (!wow64)
        return std::nullopt;
    return ReplaceAll(UpToZero(storedPath), kSystem32, kSysWow64);
}

std::optional<std::u16string> ReaderPathAsWrittenUnderWow64(const std::u16string& readerPath, bool wow64)
{
    if (!wow64)
        return std::nullopt;
    return ReplaceAll(UpToZero(readerPath), kSysWow64, kSystem32);
}

bool PathsMatchForQuery(const std::u16string& decryptedStoredPath, const std::u16string& readerPath, bool wow64,
                        std::u16string* exchanged)
{
    if (EqualsNoCase(decryptedStoredPath, readerPath))
        return true;
    const auto seen = StoredPathAsSeenUnderWow64(decryptedStoredPath, wow64);
    if (!seen)
        return false;
    if (exchanged != nullptr)
        *exchanged = *seen;
    return EqualsNoCase(*seen, readerPath);
}

std::u16string PidText(uint32_t pid)
{
    const std::string digits = std::to_string(pid);
    return std::u16string(digits.begin(), digits.end());
}

std::string ToNarrowForLog(const std::u16string& text)
{
    std::string narrow;
    narrow.reserve(text.size());
    for (char16_t c : text)
        narrow.push_back(c >= 0x20 && c < 0x7F ? static_cast<char>(c) : '?');
    return narrow;
}

} // namespace TarnSys
