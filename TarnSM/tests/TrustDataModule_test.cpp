#include "tools/tarntrust/TrustDataModule.h"

#include "TarnBase/Exceptions.h"

#include <doctest.h>

#include <cstring>
#include <memory>

using namespace TarnSMX;

namespace {

using Image = std::vector<uint8_t>;
using Strings = std::map<uint16_t, std::string>;

uint16_t Get16(const Image& b, size_t o) { return static_cast<uint16_t>(b.at(o) | (b.at(o + 1) << 8)); }
uint32_t Get32(const Image& b, size_t o) { return Get16(b, o) | (static_cast<uint32_t>(Get16(b, o + 2)) << 16); }
void Set16(Image& b, size_t o, uint16_t v)
{
    b.at(o) = static_cast<uint8_t>(v);
    b.at(o + 1) = static_cast<uint8_t>(v >> 8);
}
void Set32(Image& b, size_t o, uint32_t v)
{
    Set16(b, o, static_cast<uint16_t>(v));
    Set16(b, o + 2, static_cast<uint16_t>(v >> 16));
}

bool Read(const Image& image, Strings& out, std::string& error)
{
    return ReadTrustDataStrings(image.data(), image.size(), out, error);
}

// Where the interesting structures of a built image lie, found by walking its headers the
// way a loader does rather than by trusting the builder's constants.
struct Layout {
    explicit Layout(const Image& b)
    {
        pe = Get32(b, 0x3C);
        opt = pe + 24;
        const bool plus = Get16(b, opt) == 0x20B;
        dirs = opt + (plus ? 112 : 96);
        section = opt + Get16(b, pe + 20);
        sectionVa = Get32(b, section + 12);
        sectionRaw = Get32(b, section + 20);
        root = RvaToOffset(Get32(b, dirs + 16));
    }
    size_t RvaToOffset(uint32_t rva) const { return rva - sectionVa + sectionRaw; }
    size_t TypeDir(const Image& b) const { return root + (Get32(b, root + 20) & 0x7FFFFFFF); }
    size_t BlockEntry(const Image& b, size_t i) const { return TypeDir(b) + 16 + 8 * i; }
    size_t LangDir(const Image& b, size_t i) const { return root + (Get32(b, BlockEntry(b, i) + 4) & 0x7FFFFFFF); }
    size_t DataEntry(const Image& b, size_t i) const { return root + Get32(b, LangDir(b, i) + 20); }
    size_t Data(const Image& b, size_t i) const { return RvaToOffset(Get32(b, DataEntry(b, i))); }

    size_t pe, opt, dirs, section, root;
    uint32_t sectionVa, sectionRaw;
};

uint32_t ReferenceChecksum(const Image& b, size_t checksumOffset)
{
    uint32_t sum = 0;
    for (size_t i = 0; i < b.size(); i += 2) {
        if (i == checksumOffset || i == checksumOffset + 2)
            continue;
        sum += Get16(b, i);
        if (sum > 0xFFFF)
            sum = (sum & 0xFFFF) + 1;
    }
    return sum + static_cast<uint32_t>(b.size());
}

// The same module as a PE32 (x86) image: the optional header shrinks by 16 bytes because
// the image base and the stack and heap sizes are 32-bit there.
Image ToPe32(const Image& plus)
{
    const Layout l(plus);
    Image out(plus.begin(), plus.begin() + l.opt);
    Image opt(224, 0);
    std::copy(plus.begin() + l.opt, plus.begin() + l.opt + 24, opt.begin());
    Set16(opt, 0, 0x10B);
    Set32(opt, 28, 0x10000000);
    std::copy(plus.begin() + l.opt + 32, plus.begin() + l.opt + 72, opt.begin() + 32);
    for (size_t i = 0; i < 4; ++i)
        Set32(opt, 72 + 4 * i, Get32(plus, l.opt + 72 + 8 * i));
    Set32(opt, 92, 16);
    std::copy(plus.begin() + l.dirs, plus.begin() + l.dirs + 128, opt.begin() + 96);
    out.insert(out.end(), opt.begin(), opt.end());
    out.insert(out.end(), plus.begin() + l.section, plus.begin() + l.section + 40);
    out.resize(Get32(plus, l.opt + 60), 0);
    out.insert(out.end(), plus.begin() + Get32(plus, l.opt + 60), plus.end());
    Set16(out, l.pe + 4, 0x14C);
    Set16(out, l.pe + 20, 224);
    return out;
}

const Strings kSmall = {{1, "one"}, {17, "seventeen"}, {101, "+a.example"}};

} // namespace

TEST_CASE("built trust data modules read back exactly")
{
    SUBCASE("the three trust data strings, one of them a 6,000-character list")
    {
        std::string list;
        for (int i = 0; list.size() < 6000; ++i)
            list += "+site" + std::to_string(i) + ".example.com\r\n";
        list.resize(6000);
        const Strings in = {{101, list}, {102, "+a.example\n-b.example"}, {103, "PlainSigner\nOrg, Inc."}};
        Strings out;
        std::string error;
        CHECK(Read(BuildTrustDataModule(in), out, error));
        CHECK(error.empty());
        CHECK(out == in);
        CHECK(out[101].size() == 6000);
    }
    SUBCASE("ids at the edges of their blocks, in many blocks, with every byte value")
    {
        std::string bytes;
        for (int c = 1; c < 256; ++c)
            bytes += static_cast<char>(c);
        const Strings in = {{0, "zero"}, {15, "fifteen"}, {16, "sixteen"}, {17, bytes},
                            {4095, "x"},  {4096, "y"},      {65520, "z"},      {65535, "last"}};
        Strings out;
        std::string error;
        CHECK(Read(BuildTrustDataModule(in), out, error));
        CHECK(out == in);
    }
    SUBCASE("an empty map gives a valid module without strings; empty strings are absent")
    {
        Strings out = {{5, "stale"}};
        std::string error;
        CHECK(Read(BuildTrustDataModule({}), out, error));
        CHECK(out.empty());
        CHECK(Read(BuildTrustDataModule({{7, ""}, {8, "eight"}}), out, error));
        CHECK(out == Strings{{8, "eight"}});
    }
    SUBCASE("the longest allowed string is kept; a longer one is refused")
    {
        const std::string longest(kMaxTrustDataStringUnits, 'L');
        Strings out;
        std::string error;
        CHECK(Read(BuildTrustDataModule({{102, longest}}), out, error));
        CHECK(out[102] == longest);
        CHECK_THROWS_AS(BuildTrustDataModule({{102, longest + "L"}}), TarnBase::InvalidParameterException);
    }
    SUBCASE("the same strings give the same bytes")
    {
        CHECK(BuildTrustDataModule(kSmall) == BuildTrustDataModule(kSmall));
    }
}

TEST_CASE("the built image is a loadable, signable x64 resource-only DLL")
{
    const Image b = BuildTrustDataModule({{101, std::string(3000, 'a')}, {200, "b"}});
    const Layout l(b);
    REQUIRE(b.size() > 0x400);
    CHECK(b[0] == 'M');
    CHECK(b[1] == 'Z');
    CHECK(std::memcmp(&b[l.pe], "PE\0\0", 4) == 0);
    CHECK(Get16(b, l.pe + 4) == 0x8664);
    CHECK(Get16(b, l.pe + 6) == 1);
    CHECK((Get16(b, l.pe + 22) & 0x2002) == 0x2002);  // executable DLL
    CHECK(Get16(b, l.opt) == 0x20B);
    CHECK(Get32(b, l.opt + 16) == 0);  // no entry point
    CHECK(Get32(b, l.opt + 32) == 0x1000);
    CHECK(Get32(b, l.opt + 36) == 0x200);
    CHECK(Get32(b, l.opt + 108) == 16);
    CHECK(Get32(b, l.dirs + 8) == 0);   // no imports
    CHECK(Get32(b, l.dirs + 32) == 0);  // no certificate table yet
    CHECK(Get32(b, l.dirs + 36) == 0);
    CHECK(Get32(b, l.dirs + 16) == l.sectionVa);
    CHECK(Get32(b, l.dirs + 20) == Get32(b, l.section + 8));
    CHECK(l.section + 40 <= Get32(b, l.opt + 60));
    CHECK(Get32(b, l.opt + 60) == l.sectionRaw);
    CHECK(l.sectionRaw + Get32(b, l.section + 16) == b.size());
    CHECK(Get32(b, l.opt + 56) == (l.sectionVa + Get32(b, l.section + 8) + 0xFFF) / 0x1000 * 0x1000);
    CHECK(b.size() % 0x200 == 0);
    CHECK(Get32(b, l.opt + 64) == ReferenceChecksum(b, l.opt + 64));
    // Two blocks, language US English, data on 4-byte boundaries and addressed by RVA.
    CHECK(Get16(b, l.TypeDir(b) + 14) == 2);
    CHECK(Get32(b, l.BlockEntry(b, 0)) == 101 / 16 + 1);
    CHECK(Get32(b, l.BlockEntry(b, 1)) == 200 / 16 + 1);
    CHECK(Get32(b, l.LangDir(b, 1) + 16) == 0x0409);
    CHECK(Get32(b, l.DataEntry(b, 1)) % 4 == 0);
    size_t at = l.Data(b, 0);
    for (int i = 0; i < 101 % 16; ++i) {
        CHECK(Get16(b, at) == 0);  // ids 96 to 100 are absent ...
        at += 2;
    }
    CHECK(Get16(b, at) == 3000);  // ... and 101 follows with its length
    CHECK(Get16(b, at + 2) == 'a');
}

TEST_CASE("other layouts of valid images are read too")
{
    Strings out;
    std::string error;
    SUBCASE("a PE32 image")
    {
        const Image pe32 = ToPe32(BuildTrustDataModule(kSmall));
        CHECK(Read(pe32, out, error));
        CHECK(out == kSmall);
    }
    SUBCASE("a signed image: the certificate table follows the sections")
    {
        Image b = BuildTrustDataModule(kSmall);
        const Layout l(b);
        Set32(b, l.dirs + 32, static_cast<uint32_t>(b.size()));
        Set32(b, l.dirs + 36, 16);
        b.insert(b.end(), 16, 0xCC);
        CHECK(Read(b, out, error));
        CHECK(out == kSmall);
    }
    SUBCASE("several languages: neutral is preferred over US English")
    {
        Image b = BuildTrustDataModule({{1, "english"}, {33, "neutral"}});
        const Layout l(b);
        // Give block 1 a second language entry, neutral, that points at block 3's data; the
        // entry overlays the unused first bytes of block 3's language directory header.
        const size_t lang = l.LangDir(b, 0);
        Set16(b, lang + 14, 2);
        Set32(b, lang + 24, 0);
        Set32(b, lang + 28, Get32(b, l.LangDir(b, 1) + 20));
        CHECK(Read(b, out, error));
        CHECK(out == Strings{{1, "neutral"}, {33, "neutral"}});
    }
    SUBCASE("a resource directory without a string table")
    {
        Image b = BuildTrustDataModule(kSmall);
        const Layout l(b);
        Set32(b, l.root + 16, 3);  // RT_ICON instead of RT_STRING
        CHECK(Read(b, out, error));
        CHECK(out.empty());
    }
    SUBCASE("units beyond Latin-1 read as question marks")
    {
        Image b = BuildTrustDataModule({{0, "ab"}});
        const Layout l(b);
        Set16(b, l.Data(b, 0) + 4, 0x263A);
        CHECK(Read(b, out, error));
        CHECK(out[0] == "a?");
    }
}

TEST_CASE("broken images are refused with a reason")
{
    Strings out = {{9, "stale"}};
    std::string error;
    const Image good = BuildTrustDataModule(kSmall);
    const Layout l(good);
    auto refused = [&](const Image& b, const char* why) {
        out = {{9, "stale"}};
        const bool ok = Read(b, out, error);
        INFO(why << ": " << error);
        CHECK_FALSE(ok);
        CHECK(out.empty());
        CHECK_FALSE(error.empty());
    };

    SUBCASE("no data, too little data, no PE signature")
    {
        CHECK_FALSE(ReadTrustDataStrings(nullptr, 0, out, error));
        CHECK(out.empty());
        refused(Image(), "empty");
        refused(Image{'M', 'Z'}, "two bytes");
        Image text(4096, 'A');
        refused(text, "text");
        Image b = good;
        Set32(b, 0x3C, 0xFFFFFFF0);
        refused(b, "header offset past the end");
        b = good;
        b[l.pe + 1] = 'X';
        refused(b, "bad signature");
    }
    SUBCASE("a long string whose length prefix is raised past the limit or past its block")
    {
        Image b = BuildTrustDataModule({{0, std::string(kMaxTrustDataStringUnits, 'x')}});
        const Layout lb(b);
        Set16(b, lb.Data(b, 0), static_cast<uint16_t>(kMaxTrustDataStringUnits + 1));
        refused(b, "over the limit");
        CHECK(error.find("limit") != std::string::npos);
        b = good;
        Set16(b, l.Data(b, 0) + 2, 0x4000);
        refused(b, "past the block");
    }
    SUBCASE("directories that point into themselves, out of order, or out of range")
    {
        Image b = good;
        Set32(b, l.LangDir(b, 0) + 20, 0x80000000);  // language entry pointing back at the root
        refused(b, "cycle to the root");
        b = good;
        Set32(b, l.BlockEntry(b, 0) + 4, Get32(b, l.root + 20));  // block entry pointing at its own directory
        refused(b, "cycle to the parent");
        b = good;
        Set32(b, l.BlockEntry(b, 0), 2);  // blocks 2, 2, 7
        refused(b, "duplicate block");
        b = good;
        Set32(b, l.BlockEntry(b, 0), 0);
        refused(b, "block id 0");
        b = good;
        Set32(b, l.BlockEntry(b, 2), 4097);
        refused(b, "block id past the last string id");
        b = good;
        Set32(b, l.root + 20, 3);  // the string type entry as a leaf
        refused(b, "type leaf");
        b = good;
        Set16(b, l.root + 14, 0xFFFF);
        refused(b, "entry count past the section");
    }
    SUBCASE("data, sections and directories outside the file")
    {
        Image b = good;
        Set32(b, l.DataEntry(b, 1), 0x7FFFFFF0);
        refused(b, "data rva");
        b = good;
        Set32(b, l.DataEntry(b, 1) + 4, 0xFFFFFFFF);
        refused(b, "data size");
        b = good;
        Set32(b, l.section + 16, 0x10000);
        refused(b, "raw size past the end");
        b = good;
        Set32(b, l.DataEntry(b, 2) + 4, static_cast<uint32_t>(b.size() - l.Data(b, 2) + 2));
        refused(b, "data running two bytes past the end of the file");
        b = good;
        Set32(b, l.section + 8, Get32(b, l.DataEntry(b, 0)) - l.sectionVa);
        refused(b, "data beyond the section's mapped size");
        b = good;
        Set32(b, l.dirs + 16, 0x5000);
        refused(b, "resource rva outside the sections");
        b = good;
        Set16(b, l.pe + 6, 0xFFFF);
        refused(b, "section count");
        b = good;
        Set16(b, l.opt, 0x107);
        refused(b, "optional header magic");
        b = good;
        Set16(b, l.pe + 20, 0xFFFF);
        refused(b, "optional header size");
    }
    SUBCASE("every truncation of a module")
    {
        for (size_t n = 0; n < good.size(); ++n) {
            const bool ok = ReadTrustDataStrings(good.data(), n, out, error);
            if (ok) {
                FAIL("truncated to " << n << " bytes was accepted");
                break;
            }
        }
    }
}

TEST_CASE("no single-byte change makes the reader misbehave")
{
    // Each changed image is read under the sanitizers of the native build; whatever the reader
    // concludes, it must answer consistently and stay within the buffer.
    const Image good = BuildTrustDataModule(kSmall);
    size_t accepted = 0, refused = 0;
    for (size_t i = 0; i < good.size(); ++i) {
        const uint8_t original = good[i];
        for (uint8_t value : {uint8_t(0x00), uint8_t(0xFF), uint8_t(original ^ 0x01), uint8_t(original ^ 0x80)}) {
            if (value == original)
                continue;
            Image b = good;
            b[i] = value;
            // An exact-size heap copy lets AddressSanitizer catch a read one byte past the end.
            std::unique_ptr<uint8_t[]> exact(new uint8_t[b.size()]);
            std::memcpy(exact.get(), b.data(), b.size());
            Strings out;
            std::string error;
            const bool ok = ReadTrustDataStrings(exact.get(), b.size(), out, error);
            if (ok != error.empty() || (!ok && !out.empty())) {
                FAIL("byte " << i << " set to " << int(value) << ": ok=" << ok << " error=" << error);
                return;
            }
            ++(ok ? accepted : refused);
        }
    }
    CHECK(accepted > 0);
    CHECK(refused > 100);
}
