// The downloaded data file as the site check handles it: held so that nobody can swap it
// between the signature check and the read, and read even when its optional signer list
// cannot be narrowed.
#include "Scratch.h"
#include "tools/tarntrust/TrustDataModule.h"
#include "TarnUtils/win/TempFile.h"
#include "TarnSM/win/TrustDataFile.h"
#include "TarnUtils/win/StringConvert.h"

#include <doctest.h>

TEST_CASE("a held data file can be read but not written, replaced, renamed or deleted")
{
    // String 103 holds U+0080, which the ANSI code page cannot hold exactly.
    const auto module = TarnSMX::BuildTrustDataModule({{102, "+example.com"}, {103, "SiteSigner\n\x80Signer"}});
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
