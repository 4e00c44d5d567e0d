#include "tools/tarntrust/TrustDataModule.h"

#include "TarnBase/Throw.h"
#include "TarnLog/Log.h"

#include <algorithm>
#include <cstring>

namespace TarnSMX {

namespace {

const char* const kClass = "TarnSMX::TarnSM";

constexpr uint32_t kFileAlignment = 0x200;
constexpr uint32_t kSectionAlignment = 0x1000;
constexpr uint32_t kPeOffset = 0x40;
constexpr uint32_t kOptionalHeaderSize = 240;  // PE32+ with all 16 data directories
constexpr uint32_t kSectionTableOffset = kPeOffset + 4 + 20 + kOptionalHeaderSize;
constexpr uint32_t kHeadersSize = kFileAlignment;
constexpr uint32_t kResourceRva = kSectionAlignment;
constexpr uint16_t kRtString = 6;
constexpr uint16_t kLangEnUs = 0x0409;
constexpr uint32_t kSubdirectoryBit = 0x80000000u;
constexpr uint32_t kStringsPerBlock = 16;
constexpr uint32_t kMaxBlockId = 0x10000 / kStringsPerBlock;

// Upper bounds that keep a hostile image from making the reader slow or greedy: real string
// tables visit a few hundred directory entries and hold kilobytes of text.
constexpr uint32_t kMaxSections = 96;
constexpr size_t kMaxEntryVisits = 1u << 20;
constexpr size_t kMaxTotalTextBytes = 16u << 20;

uint32_t AlignUp(uint32_t value, uint32_t alignment)
{
    return (value + alignment - 1) / alignment * alignment;
}

void Put16(std::vector<uint8_t>& image, size_t offset, uint16_t value)
{
    image[offset] = static_cast<uint8_t>(value);
    image[offset + 1] = static_cast<uint8_t>(value >> 8);
}

void Put32(std::vector<uint8_t>& image, size_t offset, uint32_t value)
{
    for (int i = 0; i < 4; ++i)
        image[offset + i] = static_cast<uint8_t>(value >> (8 * i));
}

void Put64(std::vector<uint8_t>& image, size_t offset, uint64_t value)
{
    for (int i = 0; i < 8; ++i)
        image[offset + i] = static_cast<uint8_t>(value >> (8 * i));
}

void PutDirectoryHeader(std::vector<uint8_t>& image, size_t offset, uint16_t idEntries)
{
    // Characteristics, time stamp and version stay zero so that the output is reproducible.
    Put16(image, offset + 14, idEntries);
}

void PutDirectoryEntry(std::vector<uint8_t>& image, size_t offset, uint32_t id, uint32_t target)
{
    Put32(image, offset, id);
    Put32(image, offset + 4, target);
}

uint32_t PeChecksum(const std::vector<uint8_t>& image, size_t checksumOffset)
{
    uint64_t sum = 0;
    for (size_t i = 0; i + 1 < image.size(); i += 2) {
        if (i == checksumOffset || i == checksumOffset + 2)
            continue;
        sum += static_cast<uint32_t>(image[i] | (image[i + 1] << 8));
        sum = (sum & 0xFFFF) + (sum >> 16);
    }
    sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<uint32_t>(sum + image.size());
}

// The block's payload: sixteen length-prefixed UTF-16 strings, absent ones of length zero.
std::vector<uint8_t> EncodeBlock(const std::map<uint16_t, std::string>& strings, uint32_t blockId)
{
    std::vector<uint8_t> out;
    for (uint32_t index = 0; index < kStringsPerBlock; ++index) {
        const uint32_t id = (blockId - 1) * kStringsPerBlock + index;
        auto it = strings.find(static_cast<uint16_t>(id));
        const std::string empty;
        const std::string& text = it == strings.end() ? empty : it->second;
        out.push_back(static_cast<uint8_t>(text.size()));
        out.push_back(static_cast<uint8_t>(text.size() >> 8));
        for (char c : text) {
            out.push_back(static_cast<uint8_t>(c));
            out.push_back(0);
        }
    }
    return out;
}

} // namespace

std::vector<uint8_t> BuildTrustDataModule(const std::map<uint16_t, std::string>& strings)
{
    std::map<uint32_t, std::vector<uint8_t>> blocks;  // block id -> payload, ascending
    for (const auto& entry : strings) {
        if (entry.second.size() > kMaxTrustDataStringUnits) {
            TarnLog::Log(kClass, 1, "BuildTrustDataModule: String %u is %u characters long; the limit is %u.",
                         static_cast<unsigned>(entry.first), static_cast<unsigned>(entry.second.size()),
                         static_cast<unsigned>(kMaxTrustDataStringUnits));
            TARN_THROW(kClass, "TrustDataModule", TarnBase::InvalidParameterException);
        }
        if (!entry.second.empty())
            blocks[entry.first / kStringsPerBlock + 1];
    }
    for (auto& block : blocks)
        block.second = EncodeBlock(strings, block.first);

    // Resource section: directories first (root, type, one language directory per block),
    // then the data entries, then the payloads, each on a 4-byte boundary.
    const uint32_t blockCount = static_cast<uint32_t>(blocks.size());
    const uint32_t rootSize = 16 + (blockCount ? 8 : 0);
    const uint32_t typeOffset = rootSize;
    const uint32_t typeSize = blockCount ? 16 + 8 * blockCount : 0;
    const uint32_t langOffset = typeOffset + typeSize;
    const uint32_t langSize = 16 + 8;
    const uint32_t dataEntryOffset = langOffset + langSize * blockCount;
    uint32_t payloadOffset = dataEntryOffset + 16 * blockCount;
    uint32_t sectionSize = payloadOffset;
    for (const auto& block : blocks)
        sectionSize = AlignUp(sectionSize + static_cast<uint32_t>(block.second.size()), 4);

    const uint32_t rawSize = AlignUp(sectionSize, kFileAlignment);
    std::vector<uint8_t> image(kHeadersSize + rawSize, 0);
    const size_t rsrc = kHeadersSize;

    PutDirectoryHeader(image, rsrc, blockCount ? 1 : 0);
    if (blockCount) {
        PutDirectoryEntry(image, rsrc + 16, kRtString, kSubdirectoryBit | typeOffset);
        PutDirectoryHeader(image, rsrc + typeOffset, static_cast<uint16_t>(blockCount));
    }
    uint32_t n = 0;
    for (const auto& block : blocks) {
        const uint32_t lang = langOffset + n * langSize;
        const uint32_t dataEntry = dataEntryOffset + n * 16;
        PutDirectoryEntry(image, rsrc + typeOffset + 16 + 8 * n, block.first, kSubdirectoryBit | lang);
        PutDirectoryHeader(image, rsrc + lang, 1);
        PutDirectoryEntry(image, rsrc + lang + 16, kLangEnUs, dataEntry);
        // Data entries hold RVAs, unlike the directory offsets, which are section-relative.
        Put32(image, rsrc + dataEntry, kResourceRva + payloadOffset);
        Put32(image, rsrc + dataEntry + 4, static_cast<uint32_t>(block.second.size()));
        std::copy(block.second.begin(), block.second.end(), image.begin() + rsrc + payloadOffset);
        payloadOffset = AlignUp(payloadOffset + static_cast<uint32_t>(block.second.size()), 4);
        ++n;
    }

    image[0] = 'M';
    image[1] = 'Z';
    Put32(image, 0x3C, kPeOffset);
    std::memcpy(&image[kPeOffset], "PE\0\0", 4);

    const size_t coff = kPeOffset + 4;
    Put16(image, coff + 0, 0x8664);  // x64
    Put16(image, coff + 2, 1);       // one section
    Put16(image, coff + 16, kOptionalHeaderSize);
    Put16(image, coff + 18, 0x0002 | 0x0020 | 0x2000);  // executable image, large address aware, DLL

    const size_t opt = coff + 20;
    Put16(image, opt + 0, 0x20B);  // PE32+
    Put32(image, opt + 8, rawSize);  // initialized data
    // Entry point and code base stay 0: the module carries no code and is only mapped as data.
    Put64(image, opt + 24, 0x180000000ull);
    Put32(image, opt + 32, kSectionAlignment);
    Put32(image, opt + 36, kFileAlignment);
    Put16(image, opt + 40, 6);  // operating system 6.0
    Put16(image, opt + 48, 6);  // subsystem 6.0
    Put32(image, opt + 56, kResourceRva + AlignUp(sectionSize, kSectionAlignment));
    Put32(image, opt + 60, kHeadersSize);
    Put16(image, opt + 68, 2);  // Windows GUI
    // No relocations are needed, so the image may be placed anywhere; data is never executable.
    Put16(image, opt + 70, 0x0020 | 0x0040 | 0x0100);
    Put64(image, opt + 72, 0x100000);
    Put64(image, opt + 80, 0x1000);
    Put64(image, opt + 88, 0x100000);
    Put64(image, opt + 96, 0x1000);
    Put32(image, opt + 108, 16);
    Put32(image, opt + 112 + 2 * 8, kResourceRva);
    Put32(image, opt + 112 + 2 * 8 + 4, sectionSize);
    // The security directory (index 4) stays empty: a signing tool fills it when it appends
    // the certificate table at the end of the file.

    const size_t section = kSectionTableOffset;
    std::memcpy(&image[section], ".rsrc", 5);
    Put32(image, section + 8, sectionSize);
    Put32(image, section + 12, kResourceRva);
    Put32(image, section + 16, rawSize);
    Put32(image, section + 20, kHeadersSize);
    Put32(image, section + 36, 0x40000040);  // initialized data, readable

    Put32(image, opt + 64, PeChecksum(image, opt + 64));
    return image;
}

namespace {

struct Section {
    uint32_t virtualAddress;
    uint32_t mappedSize;
    uint32_t rawOffset;
};

class ImageView {
public:
    ImageView(const uint8_t* data, size_t size) : m_data(data), m_size(size) {}

    bool Has(uint64_t offset, uint64_t length) const
    {
        return offset <= m_size && length <= m_size - offset;
    }
    uint16_t U16(size_t offset) const { return static_cast<uint16_t>(m_data[offset] | (m_data[offset + 1] << 8)); }
    uint32_t U32(size_t offset) const
    {
        return static_cast<uint32_t>(m_data[offset]) | (static_cast<uint32_t>(m_data[offset + 1]) << 8) |
               (static_cast<uint32_t>(m_data[offset + 2]) << 16) | (static_cast<uint32_t>(m_data[offset + 3]) << 24);
    }

    // File offset of [rva, rva + length) when the whole range lies in one section's file data.
    bool Map(uint64_t rva, uint64_t length, size_t& offset) const
    {
        for (const Section& s : m_sections) {
            if (rva < s.virtualAddress)
                continue;
            const uint64_t into = rva - s.virtualAddress;
            if (into > s.mappedSize || length > s.mappedSize - into)
                continue;
            offset = static_cast<size_t>(s.rawOffset + into);
            return true;
        }
        return false;
    }

    std::vector<Section> m_sections;

private:
    const uint8_t* m_data;
    size_t m_size;
};

struct Directory {
    size_t entries;     // file offset of the first entry
    uint32_t named;     // named entries come first
    uint32_t total;
};

class StringTableReader {
public:
    StringTableReader(const ImageView& image, uint32_t base) : m_image(image), m_base(base) {}

    bool Read(std::map<uint16_t, std::string>& strings, std::string& error);

private:
    bool OpenDirectory(uint32_t offset, Directory& dir, std::string& error);
    bool Visit(std::string& error);
    bool ReadBlock(uint32_t blockId, uint32_t langDirectory, std::map<uint16_t, std::string>& strings,
                   std::string& error);

    const ImageView& m_image;
    uint32_t m_base;
    size_t m_visits = 0;
    size_t m_textBytes = 0;
};

bool StringTableReader::OpenDirectory(uint32_t offset, Directory& dir, std::string& error)
{
    size_t at = 0;
    if (!m_image.Map(static_cast<uint64_t>(m_base) + offset, 16, at)) {
        error = "A resource directory lies outside the image's sections.";
        return false;
    }
    dir.named = m_image.U16(at + 12);
    dir.total = dir.named + m_image.U16(at + 14);
    if (!m_image.Map(static_cast<uint64_t>(m_base) + offset + 16, 8ull * dir.total, dir.entries)) {
        error = "A resource directory's entries run outside the image's sections.";
        return false;
    }
    return true;
}

bool StringTableReader::Visit(std::string& error)
{
    if (++m_visits > kMaxEntryVisits) {
        error = "The resource directories have too many entries.";
        return false;
    }
    return true;
}

bool StringTableReader::Read(std::map<uint16_t, std::string>& strings, std::string& error)
{
    // The tree has a fixed depth (type, block, language), walked level by level: a directory
    // that points back at an ancestor cannot make the walk go round.
    Directory root;
    if (!OpenDirectory(0, root, error))
        return false;
    bool found = false;
    uint32_t typeOffset = 0;
    for (uint32_t i = root.named; i < root.total && !found; ++i) {
        if (!Visit(error))
            return false;
        const size_t e = root.entries + 8ull * i;
        if (m_image.U32(e) != kRtString)
            continue;
        const uint32_t target = m_image.U32(e + 4);
        if (!(target & kSubdirectoryBit)) {
            error = "The string table's type entry is not a directory.";
            return false;
        }
        typeOffset = target & ~kSubdirectoryBit;
        found = true;
    }
    if (!found)
        return true;

    Directory types;
    if (!OpenDirectory(typeOffset, types, error))
        return false;
    uint32_t previous = 0;
    for (uint32_t i = types.named; i < types.total; ++i) {
        if (!Visit(error))
            return false;
        const size_t e = types.entries + 8ull * i;
        const uint32_t blockId = m_image.U32(e);
        const uint32_t target = m_image.U32(e + 4);
        if (blockId == 0 || blockId > kMaxBlockId) {
            error = "A string block has the invalid id " + std::to_string(blockId) + ".";
            return false;
        }
        // The system looks blocks up by binary search, so an unsorted table is broken anyway;
        // insisting on order also caps the blocks at their number of possible ids.
        if (blockId <= previous) {
            error = "The string blocks are not in ascending order.";
            return false;
        }
        previous = blockId;
        if (!(target & kSubdirectoryBit)) {
            error = "String block " + std::to_string(blockId) + " has no language directory.";
            return false;
        }
        if (!ReadBlock(blockId, target & ~kSubdirectoryBit, strings, error))
            return false;
    }
    return true;
}

bool StringTableReader::ReadBlock(uint32_t blockId, uint32_t langDirectory, std::map<uint16_t, std::string>& strings,
                                  std::string& error)
{
    Directory langs;
    if (!OpenDirectory(langDirectory, langs, error))
        return false;
    size_t chosen = 0;
    int rank = 3;  // 0 neutral, 1 US English, 2 any other
    for (uint32_t i = langs.named; i < langs.total && rank > 0; ++i) {
        if (!Visit(error))
            return false;
        const size_t e = langs.entries + 8ull * i;
        const uint32_t lang = m_image.U32(e);
        const int r = lang == 0 ? 0 : lang == kLangEnUs ? 1 : 2;
        if (r < rank) {
            rank = r;
            chosen = e;
        }
    }
    if (rank == 3)
        return true;

    const std::string block = "String block " + std::to_string(blockId);
    const uint32_t target = m_image.U32(chosen + 4);
    if (target & kSubdirectoryBit) {
        error = block + " has a directory where its data entry belongs.";
        return false;
    }
    size_t dataEntry = 0;
    if (!m_image.Map(static_cast<uint64_t>(m_base) + target, 16, dataEntry)) {
        error = block + " has its data entry outside the image's sections.";
        return false;
    }
    const uint32_t dataRva = m_image.U32(dataEntry);
    const uint32_t dataSize = m_image.U32(dataEntry + 4);
    size_t data = 0;
    if (!m_image.Map(dataRva, dataSize, data)) {
        error = block + " has its data outside the image's sections.";
        return false;
    }

    size_t pos = 0;
    for (uint32_t index = 0; index < kStringsPerBlock && pos + 2 <= dataSize; ++index) {
        const uint32_t id = (blockId - 1) * kStringsPerBlock + index;
        const size_t units = m_image.U16(data + pos);
        pos += 2;
        if (units > kMaxTrustDataStringUnits) {
            error = "String " + std::to_string(id) + " is " + std::to_string(units) +
                    " characters long, more than the limit of " + std::to_string(kMaxTrustDataStringUnits) + ".";
            return false;
        }
        if (units * 2 > dataSize - pos) {
            error = "String " + std::to_string(id) + " runs past the end of its block.";
            return false;
        }
        if (units == 0)
            continue;
        m_textBytes += units;
        if (m_textBytes > kMaxTotalTextBytes) {
            error = "The string table holds more text than any trust data module needs.";
            return false;
        }
        std::string text(units, '\0');
        for (size_t u = 0; u < units; ++u) {
            const uint16_t unit = m_image.U16(data + pos + 2 * u);
            text[u] = unit <= 0xFF ? static_cast<char>(unit) : '?';
        }
        pos += units * 2;
        strings[static_cast<uint16_t>(id)] = std::move(text);
    }
    return true;
}

bool ReadImage(const uint8_t* data, size_t size, std::map<uint16_t, std::string>& strings, std::string& error)
{
    ImageView image(data, size);
    if (!data || !image.Has(0, 64) || data[0] != 'M' || data[1] != 'Z') {
        error = "Not a PE image: no MZ header.";
        return false;
    }
    const uint32_t pe = image.U32(0x3C);
    if (!image.Has(pe, 24) || std::memcmp(data + pe, "PE\0\0", 4) != 0) {
        error = "Not a PE image: no PE signature.";
        return false;
    }
    const size_t coff = pe + 4ull;
    const uint32_t sectionCount = image.U16(coff + 2);
    const uint32_t optionalSize = image.U16(coff + 16);
    const size_t opt = coff + 20;
    if (!image.Has(opt, optionalSize) || optionalSize < 2) {
        error = "The optional header is truncated.";
        return false;
    }
    const uint16_t magic = image.U16(opt);
    uint32_t directories = 0;
    if (magic == 0x10B)
        directories = 92;
    else if (magic == 0x20B)
        directories = 108;
    else {
        error = "The optional header is neither PE32 nor PE32+.";
        return false;
    }
    if (optionalSize < directories + 4) {
        error = "The optional header is too small for its data directories.";
        return false;
    }
    const uint32_t directoryCount = image.U32(opt + directories);
    const uint32_t resourceSlot = directories + 4 + 2 * 8;
    if (directoryCount <= 2 || optionalSize < resourceSlot + 8)
        return true;  // no resource directory, hence no strings
    const uint32_t resourceRva = image.U32(opt + resourceSlot);
    if (resourceRva == 0)
        return true;

    if (sectionCount > kMaxSections) {
        error = "The image has " + std::to_string(sectionCount) + " sections, more than any loader accepts.";
        return false;
    }
    const size_t table = opt + optionalSize;
    if (!image.Has(table, 40ull * sectionCount)) {
        error = "The section table is truncated.";
        return false;
    }
    for (uint32_t i = 0; i < sectionCount; ++i) {
        const size_t s = table + 40ull * i;
        const uint32_t virtualSize = image.U32(s + 8);
        const uint32_t virtualAddress = image.U32(s + 12);
        const uint32_t rawSize = image.U32(s + 16);
        const uint32_t rawOffset = image.U32(s + 20);
        if (rawSize != 0 && !image.Has(rawOffset, rawSize)) {
            error = "Section " + std::to_string(i + 1) + " extends past the end of the file.";
            return false;
        }
        // Only the part that is both in the file and in the mapped image holds resource data.
        const uint32_t mapped = virtualSize == 0 ? rawSize : std::min(virtualSize, rawSize);
        image.m_sections.push_back(Section{virtualAddress, mapped, rawOffset});
    }

    StringTableReader reader(image, resourceRva);
    return reader.Read(strings, error);
}

} // namespace

bool ReadTrustDataStrings(const uint8_t* data, size_t size, std::map<uint16_t, std::string>& strings,
                          std::string& error)
{
    strings.clear();
    error.clear();
    try {
        if (ReadImage(data, size, strings, error))
            return true;
    } catch (const std::bad_alloc&) {
        error = "Out of memory while reading the string table.";
    }
    strings.clear();
    return false;
}

} // namespace TarnSMX
