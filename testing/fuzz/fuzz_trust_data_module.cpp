// A downloaded trust data file is read by publisher tools straight from its bytes.
#include "tools/tarntrust/TrustDataModule.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::map<uint16_t, std::string> strings;
    std::string error;
    TarnSMX::ReadTrustDataStrings(data, size, strings, error);
    return 0;
}
