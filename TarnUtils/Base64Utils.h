#pragma once
// Lenient Base64 decoding (standard alphabet) of short texts that pages hand to the control.

#include <string>

namespace TarnUtils {

class Base64Utils {
public:
    // Decodes `encodedText` into `decodedBytes` (a byte buffer). Characters outside the
    // alphabet, padding and white space included, are skipped; a zero byte ends the text; a
    // last group of 2 or 3 characters gives 1 or 2 bytes, a lone last character nothing.
    // Throws TarnBase::InvalidParameterException when `encodedText` is empty.
    static bool Decode(const std::string& encodedText, std::string& decodedBytes);
};

} // namespace TarnUtils
