// The table's byte layout and the rules read from it, on plain buffers.
#include "TarnSys/TrustTable.h"

#include <doctest.h>

#include <cstring>
#include <random>

using namespace TarnSys;

namespace {

std::vector<uint8_t> EmptyTable()
{
    return std::vector<uint8_t>(kTableBytes, 0);
}

void Put(std::vector<uint8_t>& table, size_t index, const std::u16string& pid, const std::u16string& path)
{
    const auto entry = EncodeEntry(pid, path);
    REQUIRE(entry.has_value());
    REQUIRE(WriteEntry(table.data(), table.size(), index, *entry));
}

uint16_t UnitAt(const std::vector<uint8_t>& bytes, size_t offset)
{
    return static_cast<uint16_t>(bytes[offset] | (bytes[offset + 1] << 8));
}

} // namespace

TEST_CASE("layout: 4-byte header, 15 entries of 2568 bytes, pid field 516 and path field 2052 bytes")
{
    CHECK(kTableBytes == 38524);
    CHECK(EntryOffset(0) == 4);
    CHECK(EntryOffset(1) == 4 + 2568);
    CHECK(EntryOffset(14) + kTableEntryBytes == kTableBytes);

    auto table = EmptyTable();
    Put(table, 2, u"1234", u"AB");
    const size_t base = EntryOffset(2);
    CHECK(UnitAt(table, base) == u'1');
    CHECK(UnitAt(table, base + 6) == u'4');
    CHECK(UnitAt(table, base + 8) == 0);
    CHECK(UnitAt(table, base + 516) == u'A');  // path field starts 516 bytes into the entry
    CHECK(UnitAt(table, base + 518) == u'B');
    CHECK(UnitAt(table, base + 520) == 0);
    // Little-endian units: the high byte of a non-ASCII unit comes second.
    Put(table, 3, u"1", u"\u20ac");
    CHECK(table[EntryOffset(3) + 516] == 0xAC);
    CHECK(table[EntryOffset(3) + 517] == 0x20);
    // Nothing outside entries 2 and 3 changed, the header included.
    for (size_t i = 0; i < kTableBytes; ++i)
        if (i < EntryOffset(2) || i >= EntryOffset(4))
            REQUIRE(table[i] == 0);
}

TEST_CASE("reading entries back: fields up to their terminator, free entries, bounds")
{
    auto table = EmptyTable();
    Put(table, 0, u"42", u"stored");
    auto entry = ReadEntry(table.data(), table.size(), 0);
    REQUIRE(entry);
    CHECK(entry->pid == u"42");
    CHECK(entry->path == u"stored");
    CHECK_FALSE(entry->IsFree());
    CHECK(ReadEntry(table.data(), table.size(), 1)->IsFree());

    CHECK_FALSE(ReadEntry(table.data(), table.size(), 15));
    CHECK_FALSE(ReadEntry(nullptr, table.size(), 0));
    // A mapping shorter than the layout: only whole entries inside it are read.
    CHECK(ReadEntry(table.data(), EntryOffset(1) + kTableEntryBytes, 1));
    CHECK_FALSE(ReadEntry(table.data(), EntryOffset(1) + kTableEntryBytes - 1, 1));
}

TEST_CASE("fields without a terminator are bounded by their own field")
{
    auto table = EmptyTable();
    // Fill entry 5 completely with 'A' units: neither field has a terminator.
    for (size_t i = 0; i < kTableEntryBytes; i += 2) {
        table[EntryOffset(5) + i] = 'A';
        table[EntryOffset(5) + i + 1] = 0;
    }
    const auto entry = ReadEntry(table.data(), table.size(), 5);
    REQUIRE(entry);
    CHECK(entry->pid.size() == kPidFieldUnits);    // 258, not running into the path field
    CHECK(entry->path.size() == kPathFieldUnits);  // 1026, not running into entry 6
    // An odd trailing byte is never read as half a unit.
    const uint8_t odd[3] = {'7', 0, '8'};
    CHECK(ReadField(odd, 3) == u"7");
}

TEST_CASE("encoding an entry refuses what its fields cannot hold")
{
    CHECK(EncodeEntry(std::u16string(257, u'1'), u"p"));
    CHECK_FALSE(EncodeEntry(std::u16string(258, u'1'), u"p"));
    CHECK(EncodeEntry(u"1", std::u16string(1025, u'p')));
    CHECK_FALSE(EncodeEntry(u"1", std::u16string(1026, u'p')));
    CHECK_FALSE(EncodeEntry(u"", u"p"));
    CHECK_FALSE(EncodeEntry(u"1", u""));
    CHECK_FALSE(EncodeEntry(u"1", std::u16string(u"ab\0cd", 5)));
    CHECK_FALSE(EncodeEntry(std::u16string(u"1\0", 2), u"p"));

    // The longest path keeps its terminator inside the field.
    const auto longest = EncodeEntry(u"1", std::u16string(1025, u'p'));
    REQUIRE(longest);
    CHECK(longest->size() == kTableEntryBytes);
    CHECK((*longest)[kPidFieldBytes + 2050] == 0);
    CHECK((*longest)[kPidFieldBytes + 2051] == 0);

    auto table = EmptyTable();
    CHECK_FALSE(WriteEntry(table.data(), table.size(), 15, *longest));
    CHECK_FALSE(WriteEntry(table.data(), table.size() - 1, 14, *longest));
    CHECK_FALSE(WriteEntry(table.data(), table.size(), 0, std::vector<uint8_t>(10, 0)));
}

TEST_CASE("look-up by process identifier: first match wins, case ignored, all 15 visited")
{
    auto table = EmptyTable();
    Put(table, 3, u"77", u"first");
    Put(table, 9, u"77", u"second");
    Put(table, 14, u"ab", u"last");
    CHECK(FindEntry(table.data(), table.size(), u"77") == size_t{3});
    CHECK(FindEntry(table.data(), table.size(), u"AB") == size_t{14});
    CHECK_FALSE(FindEntry(table.data(), table.size(), u"7"));
    CHECK_FALSE(FindEntry(table.data(), table.size(), u"777"));
    // An empty identifier is the identifier of a free entry.
    CHECK(FindEntry(table.data(), table.size(), u"") == size_t{0});

    for (size_t i = 0; i < kTableEntryCount; ++i)
        Put(table, i, PidText(static_cast<uint32_t>(1000 + i)), u"p");
    CHECK_FALSE(FirstFreeEntry(table.data(), table.size()));
    CHECK(FindEntry(table.data(), table.size(), u"1014") == size_t{14});
    CHECK_FALSE(FindEntry(table.data(), table.size(), u"999"));
    REQUIRE(WriteEntry(table.data(), table.size(), 6, std::vector<uint8_t>(kTableEntryBytes, 0)));
    CHECK(FirstFreeEntry(table.data(), table.size()) == size_t{6});
}

TEST_CASE("comparison without regard to case is the C-string comparison of the default locale")
{
    CHECK(EqualsNoCase(u"C:\\Windows\\MSHTA.EXE", u"c:\\windows\\mshta.exe"));
    CHECK_FALSE(EqualsNoCase(u"C:\\a", u"C:\\b"));
    CHECK_FALSE(EqualsNoCase(u"abc", u"abcd"));
    // Only A-Z and a-z fold: other letters and neighbours of the range stay distinct.
    CHECK_FALSE(EqualsNoCase(u"\u00c4", u"\u00e4"));
    CHECK_FALSE(EqualsNoCase(u"@", u"`"));
    CHECK_FALSE(EqualsNoCase(u"[", u"{"));
    // Both sides end at their first zero unit.
    CHECK(EqualsNoCase(std::u16string(u"path\0junk", 9), u"PATH"));
    CHECK(EqualsNoCase(std::u16string(u"\0a", 2), u""));
    CHECK(UpToZero(std::u16string(u"ab\0c", 4)) == u"ab");
}

TEST_CASE("the system directory exchange under WOW64, in both directions")
{
    const std::u16string written = u"C:\\Windows\\system32\\mshta.exe";
    const std::u16string seen = u"C:\\Windows\\syswow64\\mshta.exe";

    SUBCASE("query direction: the stored path is brought to the 32-bit reader's view")
    {
        CHECK(StoredPathAsSeenUnderWow64(written, true) == seen);
        CHECK_FALSE(StoredPathAsSeenUnderWow64(written, false));
        std::u16string exchanged;
        CHECK(PathsMatchForQuery(written, seen, true, &exchanged));
        CHECK(exchanged == seen);
        CHECK_FALSE(PathsMatchForQuery(written, seen, false));
        // Capital S: the case-sensitive search finds nothing to exchange.
        CHECK_FALSE(PathsMatchForQuery(u"C:\\Windows\\System32\\mshta.exe", seen, true));
        // Paths that differ only in case match without any exchange.
        CHECK(PathsMatchForQuery(u"C:\\WINDOWS\\SYSWOW64\\MSHTA.EXE", seen, false));
    }
    SUBCASE("clearing direction: the reader's path is brought back to the writer's form")
    {
        CHECK(ReaderPathAsWrittenUnderWow64(seen, true) == written);
        CHECK_FALSE(ReaderPathAsWrittenUnderWow64(seen, false));
        CHECK(ReaderPathAsWrittenUnderWow64(u"C:\\Windows\\SysWOW64\\mshta.exe", true) ==
              u"C:\\Windows\\SysWOW64\\mshta.exe");
    }
    SUBCASE("every occurrence, left to right, and only whole directory names")
    {
        CHECK(ReplaceAll(u"\\system32\\a\\system32\\b", u"\\system32\\", u"\\syswow64\\") ==
              u"\\syswow64\\a\\syswow64\\b");
        CHECK(ReplaceAll(u"C:\\system32x\\a", u"\\system32\\", u"\\syswow64\\") == u"C:\\system32x\\a");
        CHECK(ReplaceAll(u"\\system32\\system32\\", u"\\system32\\", u"-") == u"-system32\\");
        CHECK(ReplaceAll(u"abc", u"", u"x") == u"abc");
    }
}

TEST_CASE("process identifiers are formatted like %lu")
{
    CHECK(PidText(0) == u"0");
    CHECK(PidText(4) == u"4");
    CHECK(PidText(4294967295u) == u"4294967295");
    CHECK(ToNarrowForLog(u"12\u00e9\x01") == "12??");
}

TEST_CASE("random tables: look-ups stay inside the mapping and never match a foreign identifier")
{
    std::mt19937 random(20240611);
    std::uniform_int_distribution<int> byte(0, 255);
    for (int round = 0; round < 200; ++round) {
        // Sizes around the real one, smaller ones included, as a hostile creator could make.
        const size_t size = round % 3 == 0 ? kTableBytes : static_cast<size_t>(random() % (kTableBytes + 64));
        std::vector<uint8_t> table(size);
        for (auto& b : table)
            b = static_cast<uint8_t>(round % 2 ? byte(random) : (byte(random) < 32 ? byte(random) : 0));
        const auto found = FindEntry(table.data(), table.size(), u"4294967295");
        if (found) {
            // Only possible if the garbage spells exactly that identifier.
            const auto entry = ReadEntry(table.data(), table.size(), *found);
            REQUIRE(entry);
            CHECK(EqualsNoCase(entry->pid, u"4294967295"));
        }
        for (size_t i = 0; i < kTableEntryCount; ++i) {
            const auto entry = ReadEntry(table.data(), table.size(), i);
            if (entry) {
                CHECK(entry->pid.size() <= kPidFieldUnits);
                CHECK(entry->path.size() <= kPathFieldUnits);
            }
        }
    }
}
