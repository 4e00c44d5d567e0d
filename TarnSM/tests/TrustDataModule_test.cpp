// The builder's output is proven by the platform loader (win/TrustDataModuleLoad_test) and by
// osslsigncode + WinVerifyTrust on every signed trust file; here only what needs no loader.
#include "tools/tarntrust/TrustDataModule.h"

#include "TarnBase/Exceptions.h"

#include <doctest.h>

using namespace TarnSMX;

TEST_CASE("the builder: the string limit, a signable length, and the same bytes for the same strings")
{
    const std::string longest(kMaxTrustDataStringUnits, 'L');
    const std::vector<uint8_t> image = BuildTrustDataModule({{102, longest}});
    CHECK(image.size() % 0x200 == 0);  // a signing tool appends its table right at the end
    CHECK_THROWS_AS(BuildTrustDataModule({{102, longest + "L"}}), TarnBase::InvalidParameterException);
    const std::map<uint16_t, std::string> small = {{1, "one"}, {17, "seventeen"}, {101, "+a.example"}};
    CHECK(BuildTrustDataModule(small) == BuildTrustDataModule(small));
}
