#pragma once
// Is this file validly Authenticode-signed, and by a certificate whose subject common
// name is on the caller's list?

#include <string>
#include <vector>

namespace TarnUtils {

class Authenticode {
public:
    // True when WinVerifyTrust accepts the file. Revocation is not consulted.
    static bool VerifyAuthenticodeSignature(const std::wstring& fileName);

    // True when the signature is valid and the first certificate entry's signer common
    // name is on the list (an empty list accepts any valid signature).
    static bool VerifyAuthenticodeSignatureAndTrustedSigner(const std::wstring& fileName,
                                                             const std::vector<std::string>& trustedSigners,
                                                             std::string& signerName);

    // The subject common name of the signer in the file's first certificate entry, or
    // empty when it cannot be read. For tools that show who signed a file.
    static std::string ReadSignerCommonName(const std::wstring& fileName);
};

} // namespace TarnUtils
