// The system loader must accept what the builder writes: every string of the input loads
// whole, up to the builder's limit, and ids the input does not hold are empty.
#include "Scratch.h"
#include "tools/tarntrust/TrustDataModule.h"

#include "TarnBase/Exceptions.h"

#include <doctest.h>

using namespace TarnSMX;

namespace {

// The string in place, without a copy or a length limit, as a caller that reads whole lists does.
std::string LoadInPlace(HMODULE module, UINT id)
{
    const wchar_t* text = nullptr;
    const int length = ::LoadStringW(module, id, reinterpret_cast<LPWSTR>(&text), 0);
    return std::string(text, text + (length > 0 ? length : 0));
}

} // namespace

TEST_CASE("built trust data modules load as data files with every string whole; a longer string is refused")
{
    std::string list;
    for (int i = 0; list.size() < 6000; ++i)
        list += "+site" + std::to_string(i) + ".example.com\n";
    list.resize(6000);
    const std::string longest(kMaxTrustDataStringUnits, 'L');
    CHECK_THROWS_AS(BuildTrustDataModule({{102, longest + "L"}}), TarnBase::InvalidParameterException);
    const std::map<uint16_t, std::string> tables[] = {
        {{101, list}, {102, "+a.example\r\n-b.example"}, {103, "PlainSigner"}, {0, "zero"}, {4000, "far"}, {65535, "last"}},
        {{102, longest}, {126, "id126"}, {127, "id127"}},
        {},
    };
    for (const auto& strings : tables) {
        CAPTURE(strings.size());
        TarnTest::TempDir dir(L"tdm");
        const std::vector<uint8_t> image = BuildTrustDataModule(strings);
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
