#include "TarnUtils/Base64Utils.h"

#include "TarnBase/Throw.h"
#include "TarnLog/Log.h"

#include <utility>

namespace TarnUtils {

namespace {

const char kClassName[] = "TarnUtils::Base64Utils";
const char kSourceName[] = "Base64Utils";

int SextetOf(unsigned char c)
{
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+') return 62;
    if (c == '/') return 63;
    return -1;
}

} // namespace

bool Base64Utils::Decode(const std::string& encodedText, std::string& decodedBytes)
{
    if (encodedText.empty()) {
        TarnLog::Log(kClassName, 1, "%s - Invalid argument detected for parameter %s.", "Decode", "pstraEncodedText");
        TARN_THROW(kClassName, kSourceName, TarnBase::InvalidParameterException);
    }

    // Built apart from `decodedBytes` so that decoding a string into itself works.
    const size_t capacity = encodedText.size();
    std::string out;
    out.reserve(capacity);

    unsigned long group = 0;
    int count = 0;
    bool overflow = false;
    auto emit = [&](int bytes) {
        if (out.size() + static_cast<size_t>(bytes) > capacity) {
            overflow = true;
            return;
        }
        for (int i = 0; i < bytes; ++i)
            out.push_back(static_cast<char>((group >> (16 - 8 * i)) & 0xFF));
    };

    for (const char ch : encodedText) {
        if (ch == '\0')
            break;
        const int sextet = SextetOf(static_cast<unsigned char>(ch));
        if (sextet < 0)
            continue;
        group = (group << 6) | static_cast<unsigned long>(sextet);
        if (++count == 4) {
            emit(3);
            group = 0;
            count = 0;
        }
    }
    if (count >= 2) {
        group <<= 6 * (4 - count);
        emit(count - 1);
    }

    if (overflow) {
        TarnLog::Log(kClassName, 4, "Decode - decode failed");
        decodedBytes.clear();
        return false;
    }
    decodedBytes = std::move(out);
    return true;
}

} // namespace TarnUtils
