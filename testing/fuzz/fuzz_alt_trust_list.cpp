// A page passes the alternative trust list: Base64 names separated by semicolons.
#include "TarnSM/AltTrustList.h"
#include "TarnUtils/Base64Utils.h"
#include "TarnBase/Exceptions.h"

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), size);
    std::string decoded;
    try {
        if (TarnUtils::Base64Utils::Decode(text, decoded) && decoded.size() > text.size())
            std::abort();
    } catch (const TarnBase::BaseException&) {
    }
    std::vector<std::string> containers;
    TarnSMX::AddAltTrustList(containers, text);
    for (const auto& name : containers)
        if (name == "iexplore.exe")
            std::abort();  // the browser itself is never a trusted container
    return 0;
}
