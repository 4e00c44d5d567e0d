#include "TarnUtils/win/Authenticode.h"

#include "TarnBase/Throw.h"
#include "TarnBase/win/Owners.h"
#include "TarnLog/Log.h"
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

using TarnBase::UniqueCertContext;

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

    CERT_NAME_BLOB* subjectBlob = &signer.Get()->pCertInfo->Subject;
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

    // The text form narrows look-alike letters into plain ones and ends a name at a zero,
    // and another attribute's value can imitate a common name in it: the name that counts
    // is the decoded subject's own common-name attribute, and only in its exact form.
    std::string exact;
    if (Authenticode::SubjectCommonName(subjectBlob->pbData, subjectBlob->cbData, exact) !=
        Authenticode::NameResult::Found) {
        TarnLog::Log(kClass, 1,
                     "%s - Signer common name in %S is not exactly %s (a look-alike or a zero inside). It matches no trusted signer.",
                     operation, fileName.c_str(), commonName.data());
        return std::string();
    }
    return exact;
}

// Wide values decoded from a certificate name come with their length; whether that length
// counts the terminator differs between platforms, so it is measured once on a known value.
// If it cannot be measured, none is assumed: a name then looks as if it held a zero and
// matches nothing.
size_t DecodedTerminatorUnits()
{
    static const size_t units = [] {
        wchar_t probe[] = L"A";
        CERT_RDN_ATTR attribute{const_cast<char*>(szOID_COMMON_NAME), CERT_RDN_UTF8_STRING,
                                {sizeof(wchar_t), reinterpret_cast<BYTE*>(probe)}};
        CERT_RDN rdn{1, &attribute};
        CERT_NAME_INFO name{1, &rdn};
        BYTE encoded[64];
        DWORD encodedSize = sizeof encoded;
        CERT_NAME_INFO* decoded = nullptr;
        DWORD decodedSize = 0;
        if (!::CryptEncodeObjectEx(kEncoding, X509_UNICODE_NAME, &name, 0, nullptr, encoded, &encodedSize) ||
            !::CryptDecodeObjectEx(kEncoding, X509_UNICODE_NAME, encoded, encodedSize, CRYPT_DECODE_ALLOC_FLAG, nullptr,
                                   &decoded, &decodedSize))
            return size_t{0};
        TarnBase::UniqueLocal owner(decoded);
        const DWORD bytes = decoded->rgRDN[0].rgRDNAttr[0].Value.cbData;
        return bytes == 2 * sizeof(wchar_t) ? size_t{1} : size_t{0};
    }();
    return units;
}

} // namespace

Authenticode::NameResult Authenticode::SubjectCommonName(const unsigned char* encoded, size_t size, std::string& name)
{
    name.clear();
    // Decoded as wide text: every string type of the certificate comes out as UTF-16 with
    // its length, zeros included.
    CERT_NAME_INFO* decoded = nullptr;
    DWORD decodedSize = 0;
    if (encoded == nullptr || size == 0 || size > MAXDWORD ||
        !::CryptDecodeObjectEx(kEncoding, X509_UNICODE_NAME, encoded, static_cast<DWORD>(size),
                               CRYPT_DECODE_ALLOC_FLAG, nullptr, &decoded, &decodedSize))
        return NameResult::Absent;
    TarnBase::UniqueLocal owner(decoded);
    const CERT_RDN_ATTR* attribute = ::CertFindRDNAttr(szOID_COMMON_NAME, decoded);
    if (attribute == nullptr || attribute->Value.pbData == nullptr)
        return NameResult::Absent;
    const auto* text = reinterpret_cast<const wchar_t*>(attribute->Value.pbData);
    const size_t counted = attribute->Value.cbData / sizeof(wchar_t);
    const size_t units = counted - std::min(counted, DecodedTerminatorUnits());
    if (units == 0)
        return NameResult::Absent;
    if (std::find(text, text + units, L'\0') != text + units || !TryWideToAnsi(text, units, name)) {
        name.clear();
        return NameResult::Inexact;
    }
    return NameResult::Found;
}

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
