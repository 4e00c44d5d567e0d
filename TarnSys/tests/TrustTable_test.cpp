// The table's byte layout and the rules read from it, on plain buffers.
#include "TarnSys/TrustTable.h"

#include <doctest.h>

#include <algorithm>
#include <cstring>
#include <optional>

using namespace TarnSys;

namespace {

std::vector<uint8_t> EmptyTable() { return std::vector<uint8_t>(kTableBytes, 0); }

void Put(std::vector<uint8_t>& table, size_t index, const std::u16string& pid, const std::u16string& path)
{
    const auto entry = EncodeEntry(pid, path);
    REQUIRE(entry.has_value());
    REQUIRE(WriteEntry(table.data(), table.size(), index, *entry));
}

uint16_t UnitAt(const std::vector<uint8_t>& bytes, size_t at) { return uint16_t(bytes[at] | (bytes[at + 1] << 8)); }

} // namespace

TEST_CASE("layout: a pid field then a path field, little-endian units, nothing else touched; read back within bounds")
{
    auto table = EmptyTable();
    Put(table, 2, u"1234", u"AB");
    Put(table, 3, u"1", u"\u20ac");
    const size_t base = EntryOffset(2);
    const struct { size_t offset; uint16_t unit; } units[] = {
        {base, u'1'}, {base + 6, u'4'}, {base + 8, 0}, {base + 516, u'A'}, {base + 518, u'B'}, {base + 520, 0},
        {EntryOffset(3) + 516, 0x20AC},
    };
    for (const auto& u : units)
        CHECK(UnitAt(table, u.offset) == u.unit);
    CHECK(std::count(table.begin(), table.begin() + EntryOffset(2), 0) == std::ptrdiff_t(EntryOffset(2)));
    CHECK(std::count(table.begin() + EntryOffset(4), table.end(), 0) == std::ptrdiff_t(kTableBytes - EntryOffset(4)));
    // Read back: free entries, bounds, fields up to their terminator or their own end.
    CHECK(ReadEntry(table.data(), table.size(), 1)->IsFree());
    CHECK_FALSE(ReadEntry(table.data(), table.size(), 15));
    CHECK_FALSE(ReadEntry(nullptr, table.size(), 0));
    // A mapping shorter than the layout: only whole entries inside it are read.
    CHECK(ReadEntry(table.data(), EntryOffset(1) + kTableEntryBytes, 1));
    CHECK_FALSE(ReadEntry(table.data(), EntryOffset(1) + kTableEntryBytes - 1, 1));

    // Entry 5 all 'A' units: neither field has a terminator.
    for (size_t i = 0; i < kTableEntryBytes; i += 2)
        table[EntryOffset(5) + i] = 'A';
    const auto entry = ReadEntry(table.data(), table.size(), 5);
    REQUIRE(entry);
    CHECK(entry->pid.size() == kPidFieldUnits);    // not running into the path field
    CHECK(entry->path.size() == kPathFieldUnits);  // not running into entry 6
}

TEST_CASE("encoding an entry refuses what its fields cannot hold")
{
    const struct { std::u16string pid, path; bool ok; } table[] = {
        {std::u16string(257, u'1'), u"p", true}, {std::u16string(258, u'1'), u"p", false},
        {u"1", std::u16string(1025, u'p'), true}, {u"1", std::u16string(1026, u'p'), false},
        {u"", u"p", false}, {u"1", u"", false},
        {u"1", std::u16string(u"ab\0cd", 5), false}, {std::u16string(u"1\0", 2), u"p", false},
    };
    for (const auto& row : table)
        CHECK(EncodeEntry(row.pid, row.path).has_value() == row.ok);

    // The longest path keeps its terminator inside the field.
    const auto longest = EncodeEntry(u"1", std::u16string(1025, u'p'));
    REQUIRE(longest);
    CHECK(longest->size() == kTableEntryBytes);
    CHECK(UnitAt(*longest, kPidFieldBytes + 2050) == 0);
    auto empty = EmptyTable();
    CHECK_FALSE(WriteEntry(empty.data(), empty.size(), 15, *longest));
    CHECK_FALSE(WriteEntry(empty.data(), empty.size() - 1, 14, *longest));
    CHECK_FALSE(WriteEntry(empty.data(), empty.size(), 0, std::vector<uint8_t>(10, 0)));
}

TEST_CASE("look-up by process identifier: first match wins, case ignored, all 15 visited")
{
    auto table = EmptyTable();
    Put(table, 3, u"77", u"first");
    Put(table, 9, u"77", u"second");
    Put(table, 14, u"ab", u"last");
    const struct { std::u16string pid; std::optional<size_t> found; } rows[] = {
        {u"77", 3}, {u"AB", 14}, {u"7", std::nullopt}, {u"777", std::nullopt},
        {u"", 0},  // an empty identifier is the identifier of a free entry
    };
    for (const auto& row : rows)
        CHECK(FindEntry(table.data(), table.size(), row.pid) == row.found);

    for (size_t i = 0; i < kTableEntryCount; ++i)
        Put(table, i, PidText(static_cast<uint32_t>(1000 + i)), u"p");
    CHECK_FALSE(FirstFreeEntry(table.data(), table.size()));
    CHECK(FindEntry(table.data(), table.size(), u"1014") == size_t{14});
    REQUIRE(WriteEntry(table.data(), table.size(), 6, std::vector<uint8_t>(kTableEntryBytes, 0)));
    CHECK(FirstFreeEntry(table.data(), table.size()) == size_t{6});
}

TEST_CASE("comparison without regard to case folds A-Z only and ends at the first zero unit")
{
    const struct { std::u16string a, b; bool equal; } table[] = {
        {u"C:\\Windows\\MSHTA.EXE", u"c:\\windows\\mshta.exe", true}, {u"C:\\a", u"C:\\b", false},
        {u"abc", u"abcd", false}, {u"\u00c4", u"\u00e4", false}, {u"@", u"`", false}, {u"[", u"{", false},
        {std::u16string(u"path\0junk", 9), u"PATH", true}, {std::u16string(u"\0a", 2), u"", true},
    };
    for (const auto& row : table)
        CHECK(EqualsNoCase(row.a, row.b) == row.equal);
}

TEST_CASE("the system directory exchange under WOW64, in both directions")
{
    const std::u16string written = u"C:\\Windows\\system32\\mshta.exe";
    const std::u16string seen = u"C:\\Windows\\syswow64\\mshta.exe";
    const struct { std::u16string stored, asked; bool wow64, match; } table[] = {
        {written, seen, true, true},
        {written, seen, false, false},
        {u"C:\\Windows\\System32\\mshta.exe", seen, true, false},  // the search is case-sensitive
        {u"C:\\WINDOWS\\SYSWOW64\\MSHTA.EXE", seen, false, true},  // case alone needs no exchange
        {written, written, false, true},                             // no exchange on x64
        // Every occurrence, left to right, whole directory names only.
        {u"C:\\system32\\a\\system32\\b", u"C:\\syswow64\\a\\syswow64\\b", true, true},
        {u"C:\\system32x\\a", u"C:\\syswow64x\\a", true, false},
    };
    for (const auto& row : table)
        CHECK(PathsMatchForQuery(row.stored, row.asked, row.wow64) == row.match);
    std::u16string exchanged;
    CHECK(PathsMatchForQuery(written, seen, true, &exchanged));
    CHECK(exchanged == seen);
    CHECK(ReaderPathAsWrittenUnderWow64(seen, true) == written);
    CHECK_FALSE(ReaderPathAsWrittenUnderWow64(seen, false));
    CHECK(ReaderPathAsWrittenUnderWow64(u"C:\\Windows\\SysWOW64\\mshta.exe", true) == u"C:\\Windows\\SysWOW64\\mshta.exe");
}
