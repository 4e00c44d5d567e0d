#pragma once
// Reading one attribute out of an X.500 name as the certificate API writes it
// (2.5.4.6=US, 2.5.4.3="Org, Inc.").

#include <cstddef>
#include <string>

namespace TarnUtils {

// Returns the length the value of the first attribute of type `attributeType` needs,
// terminator included, or 0 when the name has no such attribute. When `buffer` is given
// the value is copied into it, cut to bufferSize - 1 characters if it does not fit, and
// always terminated (nothing is written when bufferSize is 0).
// Throws TarnBase::InvalidParameterException when `name` or `attributeType` is null or empty.
size_t ExtractX500Name(const char* name, const char* attributeType, char* buffer, size_t bufferSize);

// The value itself, or "" when absent. Throws like ExtractX500Name.
std::string ExtractX500NameString(const std::string& name, const std::string& attributeType);

} // namespace TarnUtils
