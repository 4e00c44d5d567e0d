#include "TarnLog/CriticalFile.h"

#include <cstdio>
#include <cstring>
#include <memory>
#ifdef _WIN32
#include <io.h>
#else
#include <unistd.h>
#endif

namespace TarnLog {

const char kCriticalSeparator[] = "$$******SEPARATOR******$$";

namespace {

struct FileCloser {
    void operator()(std::FILE* f) const { std::fclose(f); }
};
using UniqueStdFile = std::unique_ptr<std::FILE, FileCloser>;

UniqueStdFile OpenForUpdate(const std::string& path)
{
    UniqueStdFile file(std::fopen(path.c_str(), "rb+"));
    if (!file) {
        UniqueStdFile created(std::fopen(path.c_str(), "wb"));
        if (!created)
            return nullptr;
        created.reset();
        file.reset(std::fopen(path.c_str(), "rb+"));
    }
    return file;
}

bool WriteAll(std::FILE* f, const void* data, size_t size)
{
    return std::fwrite(data, 1, size, f) == size;
}

bool TruncateToEmpty(std::FILE* f)
{
    if (std::fflush(f) != 0)
        return false;
#ifdef _WIN32
    return _chsize(_fileno(f), 0) == 0;
#else
    return ftruncate(fileno(f), 0) == 0;
#endif
}

// Blanks [from, to) in blocks: the range is at most one file of the writer's own size.
bool Blank(std::FILE* f, uint32_t from, uint32_t to)
{
    static const std::string blanks(4096, ' ');
    if (std::fseek(f, static_cast<long>(from), SEEK_SET) != 0)
        return false;
    for (uint32_t at = from; at < to;) {
        const size_t part = to - at < blanks.size() ? to - at : blanks.size();
        if (!WriteAll(f, blanks.data(), part))
            return false;
        at += static_cast<uint32_t>(part);
    }
    return true;
}

} // namespace

bool AppendCriticalRecord(const std::string& path, const std::string& text)
{
    try {
        UniqueStdFile file = OpenForUpdate(path);
        return file && AppendCriticalRecord(file.get(), text);
    } catch (...) {
        return false;
    }
}

bool AppendCriticalRecord(std::FILE* f, const std::string& text)
{
    try {
        uint32_t position = 0;
        if (std::fseek(f, 0, SEEK_SET) != 0 || std::fread(&position, 1, 4, f) != 4)
            position = 0;
        if (std::fseek(f, 0, SEEK_END) != 0)
            return false;
        // A size the platform cannot even report (2 GiB and more) is too large as well.
        const long sizeOrError = std::ftell(f);
        const bool oversized = sizeOrError < 0 || static_cast<unsigned long>(sizeOrError) > kCriticalMaxFileSize;
        if (oversized && !TruncateToEmpty(f))
            return false;
        const uint32_t size = oversized ? 0 : static_cast<uint32_t>(sizeOrError);

        bool restart = false;
        if (oversized || position == 0 || position > size) {
            restart = true;  // new file, or a position that points past the end: damaged
        } else if (position >= kCriticalWrapPosition) {
            if (!Blank(f, position - kCriticalSeparatorLength, size))
                return false;
            restart = true;
        } else if (position < kCriticalSeparatorLength + 6) {
            restart = true;  // too short to hold a separator
        }

        if (restart) {
            if (std::fseek(f, 4, SEEK_SET) != 0 || !WriteAll(f, "\r\n", 2))
                return false;
        } else if (std::fseek(f, static_cast<long>(position - kCriticalSeparatorLength), SEEK_SET) != 0) {
            return false;
        }

        if (!WriteAll(f, text.data(), text.size()) || !WriteAll(f, "\r\n", 2) ||
            !WriteAll(f, kCriticalSeparator, kCriticalSeparatorLength))
            return false;
        const long newPosition = std::ftell(f);
        if (newPosition < 0)
            return false;
        const uint32_t stored = static_cast<uint32_t>(newPosition);
        if (std::fseek(f, 0, SEEK_SET) != 0 || !WriteAll(f, &stored, 4))
            return false;
        return std::fflush(f) == 0;
    } catch (...) {
        return false;
    }
}

namespace {

// Record texts begin with their time stamp: "[MM/DD/YYYY ".
bool LooksLikeRecord(const std::string& line)
{
    if (line.size() < 12 || line[0] != '[' || line[3] != '/' || line[6] != '/' || line[11] != ' ')
        return false;
    for (int i : {1, 2, 4, 5, 7, 8, 9, 10})
        if (line[i] < '0' || line[i] > '9')
            return false;
    return true;
}

void CollectRecords(const std::string& bytes, size_t begin, size_t end, std::vector<std::string>& out)
{
    size_t at = begin;
    while (at < end) {
        size_t lineEnd = bytes.find("\r\n", at);
        if (lineEnd == std::string::npos || lineEnd > end)
            lineEnd = end;
        std::string line = bytes.substr(at, lineEnd - at);
        const size_t separator = line.find(kCriticalSeparator);
        if (separator != std::string::npos)
            line.erase(separator);
        if (LooksLikeRecord(line))
            out.push_back(line);
        at = lineEnd + 2;
    }
}

} // namespace

CriticalFileContents ReadCriticalRecords(const std::string& bytes)
{
    CriticalFileContents contents;
    if (bytes.size() < 4)
        return contents;
    uint32_t position = 0;
    std::memcpy(&position, bytes.data(), 4);
    contents.position = position;
    const size_t size = bytes.size();
    contents.positionValid = position >= kCriticalSeparatorLength + 6 && position <= size &&
                             bytes.compare(position - kCriticalSeparatorLength, kCriticalSeparatorLength,
                                           kCriticalSeparator) == 0;
    if (!contents.positionValid) {
        CollectRecords(bytes, 4, size, contents.records);
        return contents;
    }
    // After the newest separator lie the oldest surviving records (their first line may be
    // half overwritten, which the record-shape test drops); before it, the newer ones.
    CollectRecords(bytes, position, size, contents.records);
    CollectRecords(bytes, 4, position - kCriticalSeparatorLength, contents.records);
    return contents;
}

} // namespace TarnLog
