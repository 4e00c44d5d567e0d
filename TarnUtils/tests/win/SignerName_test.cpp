// The signer's common name comes from the decoded certificate name, never from a text form
// that look-alike letters, a forged attribute or a zero could bend into a listed name.
#include "TarnUtils/win/Authenticode.h"
#include "TarnUtils/win/StringConvert.h"

#include <doctest.h>

#include <windows.h>
#include <wincrypt.h>

#include <vector>

namespace {

using Attribute = std::pair<const char*, std::wstring>;  // OID, value
using Rdn = std::vector<Attribute>;
using Result = TarnUtils::Authenticode::NameResult;

// The DER form of a name with these components, each value a UTF-8 string.
std::vector<unsigned char> Encode(const std::vector<Rdn>& rdns)
{
    std::vector<std::vector<CERT_RDN_ATTR>> attributes;
    std::vector<CERT_RDN> components;
    for (const Rdn& rdn : rdns) {
        attributes.emplace_back();
        for (const Attribute& a : rdn)
            attributes.back().push_back({const_cast<char*>(a.first), CERT_RDN_UTF8_STRING,
                                         {static_cast<DWORD>(a.second.size() * sizeof(wchar_t)),
                                          reinterpret_cast<BYTE*>(const_cast<wchar_t*>(a.second.data()))}});
    }
    for (auto& a : attributes)
        components.push_back({static_cast<DWORD>(a.size()), a.data()});
    CERT_NAME_INFO info{static_cast<DWORD>(components.size()), components.data()};
    DWORD size = 0;
    REQUIRE(::CryptEncodeObjectEx(X509_ASN_ENCODING, X509_UNICODE_NAME, &info, 0, nullptr, nullptr, &size));
    std::vector<unsigned char> der(size);
    REQUIRE(::CryptEncodeObjectEx(X509_ASN_ENCODING, X509_UNICODE_NAME, &info, 0, nullptr, der.data(), &size));
    der.resize(size);
    return der;
}

} // namespace

TEST_CASE("the common name of a certificate name, exactly or not at all")
{
    const char* cn = szOID_COMMON_NAME;
    const struct { const char* what; std::vector<Rdn> name; Result result; const char* value; } rows[] = {
        {"plain", {{{cn, L"PlainSigner"}}}, Result::Found, "PlainSigner"},
        {"comma inside", {{{cn, L"Org, Inc."}}}, Result::Found, "Org, Inc."},
        {"first of two", {{{cn, L"First"}}, {{cn, L"Second"}}}, Result::Found, "First"},
        {"forged inside a multi-valued component",
         {{{szOID_ORGANIZATION_NAME, L"Org"}, {szOID_ORGANIZATIONAL_UNIT_NAME, L"x, 2.5.4.3=PlainSigner, y"}},
          {{cn, L"ForgedSigner"}}},
         Result::Found, "ForgedSigner"},
        {"no common name", {{{szOID_ORGANIZATIONAL_UNIT_NAME, L"2.5.4.3=PlainSigner"}}}, Result::Absent, ""},
        {"full-width look-alike", {{{cn, L"\xFF30lainSigner"}}}, Result::Inexact, ""},
        {"dotless i", {{{cn, L"Pla\x0131nSigner"}}}, Result::Inexact, ""},
        {"zero inside", {{{cn, std::wstring(L"PlainSigner\0x", 13)}}}, Result::Inexact, ""},
    };
    for (const auto& row : rows) {
        CAPTURE(std::string(row.what));
        const std::vector<unsigned char> der = Encode(row.name);
        std::string name = "unchanged";
        CHECK(TarnUtils::Authenticode::SubjectCommonName(der.data(), der.size(), name) == row.result);
        CHECK(name == row.value);
    }
}

TEST_CASE("one exact converter: a UTF-8 code page holds every character but a lone surrogate")
{
    const struct { UINT codePage; std::wstring text; bool exact; } rows[] = {
        {1252, L"mshta.exe", true},
        {1252, L"\xFF4Dyhost.exe", false},  // no best fit into a plain "m"
        {1252, L"caf\xE9", true},
        {CP_UTF8, L"\xFF4Dyhost.exe", true},
        {CP_UTF8, L"\x4E2D\x6587", true},
        {CP_UTF8, L"bad\xD800", false},
    };
    for (const auto& row : rows) {
        CAPTURE(row.codePage);
        std::string narrow = "unchanged";
        CHECK(TarnUtils::TryWideToCodePage(row.codePage, row.text.data(), row.text.size(), narrow) == row.exact);
        CHECK(narrow.empty() != row.exact);
    }
}
