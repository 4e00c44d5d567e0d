#include "TarnSM/AltTrustList.h"

#include "TarnBase/Exceptions.h"
#include "TarnLog/Log.h"
#include "TarnUtils/Base64Utils.h"

#include <utility>

namespace TarnSMX {

namespace {

const char kClassName[] = "TarnSMX::TarnSM";

// A decoder that fails on a token will fail on it again; retrying without end would hang
// the browser we run in, so a token gets a few tries and is then passed over.
constexpr int kDecodeAttempts = 3;

} // namespace

void AddAltTrustList(std::vector<std::string>& containers, const std::string& altTrustList)
{
    AddAltTrustList(containers, altTrustList, &TarnUtils::Base64Utils::Decode);
}

void AddAltTrustList(std::vector<std::string>& containers, const std::string& altTrustList, TokenDecoder decode)
{
    try {
        size_t pos = altTrustList.find_first_not_of(';');
        while (pos != std::string::npos) {
            const size_t end = altTrustList.find(';', pos);
            const std::string token = altTrustList.substr(pos, end == std::string::npos ? std::string::npos : end - pos);
            pos = end == std::string::npos ? end : altTrustList.find_first_not_of(';', end);

            std::string decoded;
            bool ok = false;
            for (int attempt = 0; attempt < kDecodeAttempts && !ok; ++attempt) {
                ok = decode(token, decoded);
                if (!ok)
                    TarnLog::Log(kClassName, 2,
                                 "AddAltTrustList: Failed to decode alternative trust list item, token %s. Token will be ignored",
                                 token.c_str());
            }
            if (!ok)
                continue;

            // Names are matched as C strings further on: "iexplore.exe" followed by a zero
            // byte must be the browser too, not a different name.
            const size_t nul = decoded.find('\0');
            if (nul != std::string::npos)
                decoded.resize(nul);
            std::string name = ToLowerAscii(std::move(decoded));
            if (name != "iexplore.exe")
                containers.push_back(std::move(name));
        }
    } catch (const TarnBase::BaseException& e) {
        TarnLog::Log(kClassName, 2,
                     "AddAltTrustList: TarnBase::BaseException encountered during processing. Error identifier: %S.",
                     e.GetErrorId().c_str());
    }
}

} // namespace TarnSMX
