#include "TarnUtils/win/Authenticode.h"

#include "TarnBase/Throw.h"
#include "TarnBase/win/Handle.h"
#include "TarnUtils/X500Name.h"
#include "TarnUtils/win/Path.h"
#include "TarnUtils/win/StringConvert.h"

#include <windows.h>
#include <imagehlp.h>
#include <softpub.h>
#include <wincrypt.h>
#include <wintrust.h>

#include <algorithm>
#include <memory>

namespace TarnUtils {
namespace {

const char kClass[] = "TarnUtilsLib::Authenticode";
const char kSource[] = "Authenticode";
const char kVerify[] = "VerifyAuthenticodeSignature";
const char kVerifySigner[] = "VerifyAuthenticodeSignatureAndTrustedSigner (list)";
constexpr DWORD kEncoding = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;

struct CertContextDeleter {
    void operator()(PCCERT_CONTEXT context) const { ::CertFreeCertificateContext(context); }
};
using UniqueCertContext = std::unique_ptr<const CERT_CONTEXT, CertContextDeleter>;

void CallFailed(const char* operation, const char* call, const std::wstring& file, DWORD error)
{
    TarnLog::Log(kClass, 1, "%s - Call to %s for file %S failed with error %d", operation, call, file.c_str(),
                 static_cast<int>(error));
}

std::vector<char> AllocateOrThrow(size_t size, const char* what)
{
    try {
        return std::vector<char>(size, '\0');
    } catch (const std::bad_alloc&) {
        TarnLog::Log(kClass, 1, "%s - Allocation failed for %s.", kVerifySigner, what);
        TARN_THROW(kClass, kSource, TarnBase::OutOfMemoryException);
    }
}

// One pass over certificate entry 0: the common name of its signer, or empty.
std::string SignerOfFirstEntry(HANDLE file, const std::wstring& fileName, const char* operation)
{
    WIN_CERTIFICATE header{};
    header.wRevision = WIN_CERT_REVISION_1_0;
    if (!::ImageGetCertificateHeader(file, 0, &header)) {
        CallFailed(operation, "ImageGetCertificateHeader()", fileName, ::GetLastError());
        return std::string();
    }
    // A certificate table entry is read from the downloaded file: its length is the
    // publisher's claim, so it is bounded before anything is allocated for it.
    constexpr DWORD kMaxEntry = 16u << 20;
    if (header.dwLength < offsetof(WIN_CERTIFICATE, bCertificate) || header.dwLength > kMaxEntry) {
        CallFailed(operation, "ImageGetCertificateHeader()", fileName, ERROR_INVALID_DATA);
        return std::string();
    }
    std::vector<char> buffer = AllocateOrThrow(header.dwLength + 12, "pszCertBuffer");
    auto* certificate = reinterpret_cast<WIN_CERTIFICATE*>(buffer.data());
    certificate->dwLength = header.dwLength;
    certificate->wRevision = WIN_CERT_REVISION_1_0;
    DWORD length = static_cast<DWORD>(buffer.size());
    if (!::ImageGetCertificateData(file, 0, certificate, &length)) {
        CallFailed(operation, "ImageGetCertificateData()", fileName, ::GetLastError());
        return std::string();
    }

    CRYPT_VERIFY_MESSAGE_PARA parameters{};
    parameters.cbSize = sizeof parameters;
    parameters.dwMsgAndCertEncodingType = kEncoding;
    PCCERT_CONTEXT signerContext = nullptr;
    const DWORD blobSize = std::min<DWORD>(certificate->dwLength, static_cast<DWORD>(buffer.size()) - 8);
    const BOOL verified = ::CryptVerifyMessageSignature(&parameters, 0, certificate->bCertificate, blobSize, nullptr,
                                                        nullptr, &signerContext);
    UniqueCertContext signer(signerContext);
    if (!verified || !signer) {
        CallFailed(operation, "CryptVerifyMessageSignature()", fileName, ::GetLastError());
        return std::string();
    }

    CERT_NAME_BLOB* subjectBlob = &signer->pCertInfo->Subject;
    const DWORD subjectSize = ::CertNameToStrA(kEncoding, subjectBlob, CERT_OID_NAME_STR, nullptr, 0);
    if (subjectSize == 0) {
        TarnLog::Log(kClass, 3, "%s - %s length is 0.  Moving on to next cert.", operation, "subjectSize");
        return std::string();
    }
    std::vector<char> subject = AllocateOrThrow(subjectSize, "pszCertSubject");
    ::CertNameToStrA(kEncoding, subjectBlob, CERT_OID_NAME_STR, subject.data(), subjectSize);
    subject.back() = '\0';

    const size_t nameSize = ExtractX500Name(subject.data(), "2.5.4.3", nullptr, 0);
    if (nameSize == 0) {
        TarnLog::Log(kClass, 3, "%s - %s length is 0.  Moving on to next cert.", operation, "X500Name");
        return std::string();
    }
    std::vector<char> commonName = AllocateOrThrow(nameSize, "pszCertCN");
    ExtractX500Name(subject.data(), "2.5.4.3", commonName.data(), nameSize);
    return std::string(commonName.data());
}

} // namespace

bool Authenticode::VerifyAuthenticodeSignature(const std::wstring& fileName)
{
    if (fileName.empty() || !Path::IsAbsolute(fileName)) {
        TarnLog::Log(kClass, 1, "%s - Invalid argument detected for parameter %s.", kVerify, "p_cstrwFileName");
        TARN_THROW(kClass, kSource, TarnBase::InvalidParameterException);
    }
    if (!Path::IsFile(fileName)) {
        TarnLog::Log(kClass, 1, "%s - File %S not found", kVerify, fileName.c_str());
        TARN_THROW(kClass, kSource, TarnBase::InvalidParameterException);
    }

    WINTRUST_FILE_INFO file{};
    file.cbStruct = sizeof file;
    file.pcwszFilePath = fileName.c_str();
    WINTRUST_DATA data{};
    data.cbStruct = sizeof data;
    data.dwUIChoice = WTD_UI_NONE;
    data.fdwRevocationChecks = WTD_REVOKE_NONE;
    data.dwUnionChoice = WTD_CHOICE_FILE;
    data.pFile = &file;
    data.dwStateAction = 0;
    GUID action = WINTRUST_ACTION_GENERIC_VERIFY_V2;
    const LONG result = ::WinVerifyTrust(static_cast<HWND>(INVALID_HANDLE_VALUE), &action, &data);
    if (result == 0)
        return true;
    TarnLog::Log(kClass, 1, "%s - Authenticode signature for %S is not valid with error 0x%08x", kVerify,
                 fileName.c_str(), static_cast<unsigned>(result));
    return false;
}

bool Authenticode::VerifyAuthenticodeSignatureAndTrustedSigner(const std::wstring& fileName,
                                                                const std::vector<std::string>& trustedSigners,
                                                                std::string& signerName)
{
    signerName.clear();
    if (!VerifyAuthenticodeSignature(fileName)) {
        TarnLog::Log(kClass, 1, "%s - Authenticode signature for %S is not valid", kVerifySigner, fileName.c_str());
        return false;
    }
    if (trustedSigners.empty()) {
        TarnLog::Log(kClass, 3, "%s - No trusted trusted signers specified in Trusted Signers string", kVerifySigner);
        return true;
    }

    const std::string narrowPath = WideToAnsi(fileName);
    TarnBase::UniqueFile file(::CreateFileA(narrowPath.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                            FILE_ATTRIBUTE_NORMAL | FILE_FLAG_RANDOM_ACCESS, nullptr));
    if (!file) {
        CallFailed(kVerifySigner, "CreateFile", fileName, ::GetLastError());
        return false;
    }
    DWORD count = 0;
    if (!::ImageEnumerateCertificates(file.Get(), CERT_SECTION_TYPE_ANY, &count, nullptr, 0)) {
        CallFailed(kVerifySigner, "ImageEnumerateCertificates()", fileName, ::GetLastError());
        return false;
    }

    // Every pass reads entry 0, so only the first entry is ever examined, however many
    // there are: an appended entry can never vouch for a file. Passes repeat the same
    // work, so a file claiming thousands of entries is cut short rather than allowed to
    // hold the host's thread.
    constexpr DWORD kMaxPasses = 16;
    const DWORD passes = count < kMaxPasses ? count : kMaxPasses;
    for (DWORD pass = 0; pass < passes; ++pass) {
        const std::string commonName = SignerOfFirstEntry(file.Get(), fileName, kVerifySigner);
        if (commonName.empty())
            continue;
        if (std::find(trustedSigners.begin(), trustedSigners.end(), commonName) != trustedSigners.end()) {
            signerName = commonName;
            return true;
        }
    }
    return false;
}

std::string Authenticode::ReadSignerCommonName(const std::wstring& fileName)
{
    try {
        TarnBase::UniqueFile file(::CreateFileW(fileName.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                                OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
        DWORD count = 0;
        if (!file || !::ImageEnumerateCertificates(file.Get(), CERT_SECTION_TYPE_ANY, &count, nullptr, 0) ||
            count == 0)
            return std::string();
        return SignerOfFirstEntry(file.Get(), fileName, "ReadSignerCommonName");
    } catch (const TarnBase::BaseException&) {
        return std::string();
    }
}

} // namespace TarnUtils
