#include "tools/tarntrust/TrustDataModule.h"

#include "TarnBase/Throw.h"
#include "TarnLog/Log.h"

#include <algorithm>
#include <cstring>

namespace TarnTrust {

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

} // namespace TarnTrust
