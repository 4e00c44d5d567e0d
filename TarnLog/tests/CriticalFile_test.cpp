// The critical file's exact bytes: other tools and people read it, and every process of
// the machine appends to it, so its layout is a contract like the ring's.
#include "TarnLog/CriticalFile.h"

#include <doctest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>

using namespace TarnLog;

namespace {

struct TempFile {
    const std::string path = (std::filesystem::temp_directory_path() /
                              ("tarn-critical-" + std::to_string(std::random_device()()) + ".txt")).string();
    ~TempFile() { std::remove(path.c_str()); }
    std::string Bytes() const { std::ifstream in(path, std::ios::binary); return {std::istreambuf_iterator<char>(in), {}}; }
};

std::string Le32(uint32_t value) { return std::string(reinterpret_cast<const char*>(&value), 4); }

uint32_t PositionOf(const std::string& b) { uint32_t p = 0; return std::memcpy(&p, b.data(), b.size() >= 4 ? 4 : 0), p; }

const std::string kSeparator = "$$******SEPARATOR******$$";

std::string RecordText(int n)  // four digits, so later records sort after earlier ones
{
    return "[03/07/2009 14:05:09][Process: host.exe][PID: 0x1a4][Thread: 0x9c8][Class: Probe][Msg: record " +
           std::to_string(10000 + n).substr(1) + "]";
}

} // namespace

TEST_CASE("the first and second records of a new critical file, byte by byte")
{
    TempFile file;
    const std::string first = RecordText(1), second = RecordText(2) + " and a longer tail";
    REQUIRE(AppendCriticalRecord(file.path, first));
    const uint32_t firstEnd = 4 + 2 + static_cast<uint32_t>(first.size()) + 2 + 25;
    CHECK(file.Bytes() == Le32(firstEnd) + "\r\n" + first + "\r\n" + kSeparator);

    // The second record replaces the first one's separator, so only one is ever present.
    REQUIRE(AppendCriticalRecord(file.path, second));
    const uint32_t secondEnd = firstEnd - 25 + static_cast<uint32_t>(second.size()) + 2 + 25;
    CHECK(file.Bytes() == Le32(secondEnd) + "\r\n" + first + "\r\n" + second + "\r\n" + kSeparator);
}

TEST_CASE("a full critical file wraps: the old tail becomes blanks and writing starts again at offset 6")
{
    TempFile file;
    int n = 0;
    while (PositionOf(file.Bytes()) < kCriticalWrapPosition)
        REQUIRE(AppendCriticalRecord(file.path, RecordText(n++)));
    const std::string before = file.Bytes(), wrapped = RecordText(5000);
    const uint32_t oldPosition = PositionOf(before);
    REQUIRE(before.size() == oldPosition);  // until the first wrap the file ends at its separator
    REQUIRE(AppendCriticalRecord(file.path, wrapped));
    const std::string after = file.Bytes();
    const uint32_t newPosition = 6 + static_cast<uint32_t>(wrapped.size()) + 2 + 25;
    REQUIRE((after.size() == before.size() && PositionOf(after) == newPosition));  // never truncated
    CHECK(after.compare(4, newPosition - 4, "\r\n" + wrapped + "\r\n" + kSeparator) == 0);
    // Old bytes survive up to the old separator's place; from there to the end only blanks.
    const size_t oldSeparator = oldPosition - 25;
    CHECK(after.compare(newPosition, oldSeparator - newPosition, before, newPosition, oldSeparator - newPosition) == 0);
    CHECK(after.substr(oldSeparator) == std::string(after.size() - oldSeparator, ' '));
    CHECK(after.find(kSeparator, newPosition) == std::string::npos);

    // Read back: the surviving old records in their order, the new one last.
    auto records = ReadCriticalRecords(after).records;
    REQUIRE(records.size() >= 2);
    CHECK((records.back() == wrapped && records[records.size() - 2] == RecordText(n - 1)));
    CHECK(std::is_sorted(records.begin(), records.end() - 1));  // record numbers rise
}

TEST_CASE("a damaged critical file: the writer starts again at offset 4, the reader keeps record-shaped lines")
{
    const std::string text = RecordText(7);
    // 300: past the end of a short file but before the wrap point, so only the size check catches it.
    for (const std::string& damaged : {Le32(99999) + std::string(200, 'x'), Le32(300) + std::string(200, 'x'),
                                       Le32(10) + std::string(200, 'x'), Le32(0) + std::string(200, 'x'), std::string("ab")}) {
        TempFile file;
        std::ofstream(file.path, std::ios::binary) << damaged;
        REQUIRE(AppendCriticalRecord(file.path, text));
        const uint32_t end = 6 + static_cast<uint32_t>(text.size()) + 27;
        CHECK(file.Bytes().substr(0, end) == Le32(end) + "\r\n" + text + "\r\n" + kSeparator);
    }

    // The position points into the middle of a record rather than after a separator.
    const std::string a = RecordText(1), b = RecordText(2);
    const CriticalFileContents contents = ReadCriticalRecords(Le32(20) + "\r\n" + a + "\r\ngarbage line\r\n" + b +
                                                              "\r\n" + kSeparator + "\r\n" + std::string(40, ' '));
    CHECK((!contents.positionValid && contents.records == std::vector{a, b}));
}
