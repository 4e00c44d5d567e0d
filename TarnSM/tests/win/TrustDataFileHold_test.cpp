// Trust data modules as the system loader and the site check see them: what the builder
// writes loads whole; the downloaded file is held so that nobody can swap it between the
// signature check and the read, and read even when its optional signer list cannot be
// narrowed.
#include "Scratch.h"
#include "TarnBase/Exceptions.h"
#include "tools/tarntrust/TrustDataModule.h"
#include "TarnUtils/win/TempFile.h"
#include "TarnSM/win/TrustDataFile.h"
#include "TarnUtils/win/StringConvert.h"

#include <doctest.h>

namespace {

// The string in place, without a copy or a length limit, as a caller that reads whole lists does.
std::string LoadInPlace(HMODULE module, UINT id)
{
    const wchar_t* text = nullptr;
    const int length = ::LoadStringW(module, id, reinterpret_cast<LPWSTR>(&text), 0);
    return std::string(text, text + (length > 0 ? length : 0));
}

} // namespace

TEST_CASE("a held data file can be read but not written, replaced, renamed or deleted")
{
    // String 103 holds U+0080, which the ANSI code page cannot hold exactly.
    const auto module = TarnTrust::BuildTrustDataModule({{102, "+example.com"}, {103, "SiteSigner\n\x80Signer"}});
    const std::wstring path = TarnUtils::CreateUniqueTempFile(L"PTI");
    REQUIRE(TarnTest::WriteBytes(path, std::string(module.begin(), module.end())));
    const std::wstring moved = path + L".moved";
    {
        TarnBase::UniqueFile held = TarnUtils::HoldForReading(path);
        REQUIRE(held);
        TarnBase::UniqueFile writer(
            ::CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                          OPEN_EXISTING, 0, nullptr));
        CHECK_FALSE(writer);
        CHECK_FALSE(::DeleteFileW(path.c_str()));
        CHECK_FALSE(::MoveFileExW(path.c_str(), moved.c_str(), MOVEFILE_REPLACE_EXISTING));
        CHECK_FALSE(TarnTest::WriteBytes(path, ""));

        // What the check and the read open meanwhile.
        TarnBase::UniqueFile reader(::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                                  0, nullptr));
        CHECK(reader);
        TarnSMX::NameList signers, trusted, denied;
        CHECK(TarnSMX::ReadTrustDataDLL(0, TarnUtils::WideToAnsi(path), signers, trusted, denied));
        CHECK(trusted == TarnSMX::NameList{"example.com"});
        CHECK(signers.empty());  // not read, and not the end of the check either
    }
    CHECK(::DeleteFileW(path.c_str()));
    ::DeleteFileW(moved.c_str());
}

TEST_CASE("built trust data modules load as data files with every string whole; a longer string is refused")
{
    std::string list;
    for (int i = 0; list.size() < 6000; ++i)
        list += "+site" + std::to_string(i) + ".example.com\n";
    list.resize(6000);
    const std::string longest(TarnTrust::kMaxTrustDataStringUnits, 'L');
    CHECK_THROWS_AS(TarnTrust::BuildTrustDataModule({{102, longest + "L"}}), TarnBase::InvalidParameterException);
    const std::map<uint16_t, std::string> tables[] = {
        {{101, list}, {102, "+a.example\r\n-b.example"}, {103, "PlainSigner"}, {0, "zero"}, {4000, "far"}, {65535, "last"}},
        {{102, longest}, {126, "id126"}, {127, "id127"}},
        {},
    };
    for (const auto& strings : tables) {
        CAPTURE(strings.size());
        TarnTest::TempDir dir(L"tdm");
        const std::vector<uint8_t> image = TarnTrust::BuildTrustDataModule(strings);
        REQUIRE(TarnTest::WriteBytes(dir / L"t.dll", std::string(image.begin(), image.end())));
        const HMODULE module = ::LoadLibraryExW((dir / L"t.dll").c_str(), nullptr, LOAD_LIBRARY_AS_DATAFILE);
        REQUIRE_MESSAGE(module != nullptr, "LoadLibraryEx failed with " << ::GetLastError());
        for (UINT id : {0u, 1u, 90u, 101u, 102u, 103u, 104u, 99u, 126u, 127u, 200u, 4000u, 65535u}) {
            const auto it = strings.find(static_cast<uint16_t>(id));
            CHECK(LoadInPlace(module, id) == (it == strings.end() ? std::string() : it->second));
        }
        ::FreeLibrary(module);
    }
}
