// The critical file's exact bytes: other tools and people read it, and every process of
// the machine appends to it, so its layout is a contract like the ring's.
#include "TarnLog/CriticalFile.h"

#include <doctest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>

using namespace TarnLog;

namespace {

class TempFile {
public:
    TempFile()
    {
        static std::atomic<unsigned> counter{0};
        std::random_device random;
        const auto now = std::chrono::steady_clock::now().time_since_epoch().count();
        m_path = (std::filesystem::temp_directory_path() /
                  ("tarn-critical-" + std::to_string(random()) + "-" + std::to_string(now) + "-" +
                   std::to_string(counter++) + ".txt"))
                     .string();
    }
    ~TempFile()
    {
        std::error_code ignored;
        std::filesystem::remove(m_path, ignored);
    }
    const std::string& Path() const { return m_path; }

    std::string Bytes() const
    {
        std::ifstream in(m_path, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    void Write(const std::string& bytes) const
    {
        std::ofstream out(m_path, std::ios::binary | std::ios::trunc);
        out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    }

private:
    std::string m_path;
};

std::string Le32(uint32_t value)
{
    std::string bytes(4, '\0');
    for (int i = 0; i < 4; ++i)
        bytes[i] = static_cast<char>((value >> (8 * i)) & 0xFF);
    return bytes;
}

uint32_t PositionOf(const std::string& bytes)
{
    uint32_t position = 0;
    REQUIRE(bytes.size() >= 4);
    std::memcpy(&position, bytes.data(), 4);
    return position;
}

const std::string kSeparator = "$$******SEPARATOR******$$";

std::string RecordText(int n)
{
    char text[128];
    std::snprintf(text, sizeof text,
                  "[03/07/2009 14:05:09][Process: host.exe][PID: 0x1a4][Thread: 0x9c8][Class: Probe][Msg: record %04d]", n);
    return text;
}

} // namespace

TEST_CASE("the first and second records of a new critical file, byte by byte")
{
    TempFile file;
    const std::string first = RecordText(1);
    REQUIRE(AppendCriticalRecord(file.Path(), first));
    const uint32_t firstEnd = 4 + 2 + static_cast<uint32_t>(first.size()) + 2 + 25;
    CHECK(file.Bytes() == Le32(firstEnd) + "\r\n" + first + "\r\n" + kSeparator);

    // The second record replaces the first one's separator, so only one is ever present.
    const std::string second = RecordText(2) + " and a longer tail";
    REQUIRE(AppendCriticalRecord(file.Path(), second));
    const uint32_t secondEnd = firstEnd - 25 + static_cast<uint32_t>(second.size()) + 2 + 25;
    CHECK(file.Bytes() == Le32(secondEnd) + "\r\n" + first + "\r\n" + second + "\r\n" + kSeparator);

    const CriticalFileContents contents = ReadCriticalRecords(file.Bytes());
    CHECK(contents.positionValid);
    CHECK(contents.position == secondEnd);
    REQUIRE(contents.records.size() == 2);
    CHECK(contents.records[0] == first);
    CHECK(contents.records[1] == second);
}

TEST_CASE("a full critical file wraps: the old tail becomes blanks and writing starts again at offset 6")
{
    TempFile file;
    int n = 0;
    while (file.Bytes().size() < 4 || PositionOf(file.Bytes()) < kCriticalWrapPosition)
        REQUIRE(AppendCriticalRecord(file.Path(), RecordText(n++)));
    const std::string before = file.Bytes();
    const uint32_t oldPosition = PositionOf(before);
    REQUIRE(before.size() == oldPosition);  // until the first wrap the file ends at its separator
    REQUIRE(before.compare(oldPosition - 25, 25, kSeparator) == 0);

    const std::string wrapped = "[11/23/2026 10:00:00][Process: host.exe][PID: 0x1][Thread: 0x2][Class: Probe][Msg: after wrap]";
    REQUIRE(AppendCriticalRecord(file.Path(), wrapped));
    const std::string after = file.Bytes();
    const uint32_t newPosition = 6 + static_cast<uint32_t>(wrapped.size()) + 2 + 25;
    REQUIRE(after.size() == before.size());  // never truncated
    CHECK(PositionOf(after) == newPosition);
    CHECK(after.compare(4, 2, "\r\n") == 0);
    CHECK(after.compare(6, wrapped.size(), wrapped) == 0);
    CHECK(after.compare(6 + wrapped.size(), 27, "\r\n" + kSeparator) == 0);
    // Between the new separator and the old one's place the old bytes survive ...
    CHECK(after.compare(newPosition, oldPosition - 25 - newPosition, before, newPosition,
                        oldPosition - 25 - newPosition) == 0);
    // ... and from the old separator to the end there are only blanks.
    CHECK(after.substr(oldPosition - 25) == std::string(after.size() - (oldPosition - 25), ' '));
    CHECK(after.find(kSeparator) == newPosition - 25);
    CHECK(after.find(kSeparator, newPosition) == std::string::npos);

    // Read back: the surviving old records first, in their order, the new one last.
    const CriticalFileContents contents = ReadCriticalRecords(after);
    CHECK(contents.positionValid);
    REQUIRE(contents.records.size() >= 2);
    CHECK(contents.records.back() == wrapped);
    CHECK(contents.records[contents.records.size() - 2] == RecordText(n - 1));
    for (size_t i = 1; i + 1 < contents.records.size(); ++i)
        CHECK(contents.records[i] > contents.records[i - 1]);  // record numbers rise
    for (const auto& record : contents.records)
        CHECK(record.find(' ' + std::string(3, ' ')) == std::string::npos);

    // The record after the wrap goes where the wrap's separator was.
    const std::string next = RecordText(9999);
    REQUIRE(AppendCriticalRecord(file.Path(), next));
    CHECK(PositionOf(file.Bytes()) == newPosition - 25 + next.size() + 27);
    CHECK(ReadCriticalRecords(file.Bytes()).records.back() == next);
}

TEST_CASE("a damaged critical position makes the writer start again at offset 4")
{
    TempFile file;
    const std::string text = RecordText(7);
    const std::string oldBody(200, 'x');

    SUBCASE("a position past the end of the file")
    {
        file.Write(Le32(99999) + oldBody);
    }
    SUBCASE("a position too small to follow a separator")
    {
        file.Write(Le32(10) + oldBody);
    }
    SUBCASE("a position of zero")
    {
        file.Write(Le32(0) + oldBody);
    }
    SUBCASE("a file shorter than its position field")
    {
        file.Write("ab");
    }
    REQUIRE(AppendCriticalRecord(file.Path(), text));
    const std::string bytes = file.Bytes();
    const uint32_t end = 6 + static_cast<uint32_t>(text.size()) + 27;
    CHECK(PositionOf(bytes) == end);
    CHECK(bytes.substr(4, end - 4) == "\r\n" + text + "\r\n" + kSeparator);
    const CriticalFileContents contents = ReadCriticalRecords(bytes);
    CHECK(contents.positionValid);
    REQUIRE_FALSE(contents.records.empty());
    CHECK(contents.records.front() == text);
}

TEST_CASE("reading a damaged critical file keeps the record-shaped lines in file order")
{
    const std::string a = RecordText(1);
    const std::string b = RecordText(2);
    // The position points into the middle of a record rather than after a separator.
    const std::string bytes = Le32(20) + "\r\n" + a + "\r\ngarbage line\r\n" + b + "\r\n" + kSeparator + "\r\n" +
                              std::string(40, ' ');
    const CriticalFileContents contents = ReadCriticalRecords(bytes);
    CHECK_FALSE(contents.positionValid);
    CHECK(contents.position == 20);
    REQUIRE(contents.records.size() == 2);
    CHECK(contents.records[0] == a);
    CHECK(contents.records[1] == b);

    CHECK(ReadCriticalRecords("").records.empty());
    CHECK_FALSE(ReadCriticalRecords("abc").positionValid);
    CHECK(ReadCriticalRecords(Le32(0xFFFFFFFFu)).records.empty());
}
