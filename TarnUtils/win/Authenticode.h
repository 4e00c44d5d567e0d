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

    // The first common-name attribute of a DER-encoded certificate name, read from the
    // decoded name rather than its text form. Found: `name` is its exact ANSI form.
    // Absent: the name has no common name. Inexact: it holds a zero or has no exact ANSI
    // form (a look-alike of a listed name): it matches no signer.
    enum class NameResult { Found, Absent, Inexact };
    static NameResult SubjectCommonName(const unsigned char* encoded, size_t size, std::string& name);

    // The subject common name of the signer in the file's first certificate entry, or
    // empty when it cannot be read. For tools that show who signed a file.
    static std::string ReadSignerCommonName(const std::wstring& fileName);
};

} // namespace TarnUtils
