// String encryption of the trusted-process table, checked against stored forms computed
// independently (MD5 of the secret, first 5 bytes plus 11 zero bytes as the RC4 key).
#include "TarnUtils/win/CryptoUtils.h"

#include <doctest.h>

#include <string>

using TarnUtils::CryptoUtils;

namespace {

std::wstring FromHexUnits(const std::string& hex)  // each unit as 4 hex digits, low byte first
{
    std::wstring units;
    for (size_t i = 0; i + 4 <= hex.size(); i += 4)
        units.push_back(static_cast<wchar_t>(std::stoul(hex.substr(i + 2, 2) + hex.substr(i, 2), nullptr, 16)));
    return units;
}

std::wstring Stored(const std::wstring& encrypted) { return encrypted.substr(0, encrypted.find(L'\0')); }

const wchar_t kPath[] = L"C:\\Windows\\system32\\mshta.exe";
const char kPathStored[] =
    "15e2be02146e3de773f4bec3397f871308835f56eae75863562ab728f4a3c0999f5c257706492e10271512fa81552703a66ed3a01fbfbe4bb3e7";
const wchar_t kUnicodePath[] = L"C:\\Users\\J\u00f6rg\\\u4e2d\u6587\\host.exe";
const char kUnicodeStored[] =
    "15e2be02146e3fe769f4b5c32f7f9b132383665640e75963482a9828aded22fcae5c7e775b4901103e154ffa8c552b03a26e";

} // namespace

TEST_CASE("encryption gives the independently computed stored form, in the doubled layout")
{
    CryptoUtils crypto;
    std::wstring text = kPath;
    const size_t n = text.size();
    REQUIRE(crypto.EncryptString(text));
    // 2n units: n carry the cipher bytes, the other n start with the old terminator.
    REQUIRE(text.size() == 2 * n);
    CHECK(text.substr(0, n) == FromHexUnits(kPathStored));
    CHECK(text.substr(n) == std::wstring(n, L'\0'));
    CHECK_FALSE(crypto.IsInitialized());  // released after each string operation

    std::wstring wide = kUnicodePath;  // the second string starts the key stream afresh
    REQUIRE(crypto.EncryptString(wide));
    CHECK(Stored(wide) == FromHexUnits(kUnicodeStored));
}

TEST_CASE("decrypting the stored form gives the path back")
{
    CryptoUtils crypto;
    for (const std::wstring& path : {std::wstring(kPath), std::wstring(kUnicodePath), std::wstring(L"x"),
                                    std::wstring(1025, L'p'), std::wstring()}) {
        std::wstring text = path;
        REQUIRE(crypto.EncryptString(text));
        std::wstring stored = Stored(text);
        REQUIRE(stored.size() == path.size());
        REQUIRE(crypto.DecryptString(stored));
        CHECK(stored.size() == 2 * path.size());
        CHECK(Stored(stored) == path);
    }
}
