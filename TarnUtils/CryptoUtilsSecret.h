#pragma once
// The fixed secret behind the obscured strings of the trusted-process table. Every writer
// of the table must hash exactly these bytes, or its entries never match.

#include <cstddef>
#include <cstdint>

namespace TarnUtils {

constexpr size_t kCryptoSecretSize = 16;
constexpr uint8_t kCryptoSecret[kCryptoSecretSize] = {0x3f, 0x9a, 0x1c, 0x7e, 0x52, 0xb0, 0x4d, 0x8a,
                                                      0x9e, 0x16, 0xc0, 0xf4, 0x7b, 0x2d, 0x58, 0xe3};

} // namespace TarnUtils
