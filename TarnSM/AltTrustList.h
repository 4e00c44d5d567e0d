#pragma once
// The alternative trust list a page passes with a container-trust question: Base64-encoded
// executable names separated by semicolons, added to the trusted-container list.

#include "TarnBase/AsciiCase.h"

#include <string>
#include <vector>

namespace TarnSMX {

// Decodes `encodedText` into `decodedBytes`; false when the token cannot be decoded.
using TokenDecoder = bool (*)(const std::string& encodedText, std::string& decodedBytes);

// Appends the lower-cased name of every token of `altTrustList` to `containers`, except
// "iexplore.exe": a page can never make the browser itself a trusted container. Never
// reports failure; undecodable tokens and library exceptions are logged.
void AddAltTrustList(std::vector<std::string>& containers, const std::string& altTrustList);

// The same with a chosen decoder (tests use it to make decoding fail).
void AddAltTrustList(std::vector<std::string>& containers, const std::string& altTrustList, TokenDecoder decode);

// Lower case by ASCII rules only: file names must compare the same in every code page.
using ::TarnBase::ToLowerAscii;

} // namespace TarnSMX
