#pragma once
// Owners for CryptoAPI handles, in the style of TarnBase/win/Handle.h: each handle has
// exactly one owner, so no failure path can leak a provider or release it twice.

#include "TarnBase/win/Handle.h"

#include <wincrypt.h>

namespace TarnUtils {

struct CryptProviderTraits {
    using Type = HCRYPTPROV;
    static Type Invalid() { return 0; }
    static bool IsValid(Type h) { return h != 0; }
    static void Close(Type h) { ::CryptReleaseContext(h, 0); }
};
using UniqueCryptProvider = TarnBase::UniqueResource<CryptProviderTraits>;

struct CryptHashTraits {
    using Type = HCRYPTHASH;
    static Type Invalid() { return 0; }
    static bool IsValid(Type h) { return h != 0; }
    static void Close(Type h) { ::CryptDestroyHash(h); }
};
using UniqueCryptHash = TarnBase::UniqueResource<CryptHashTraits>;

struct CryptKeyTraits {
    using Type = HCRYPTKEY;
    static Type Invalid() { return 0; }
    static bool IsValid(Type h) { return h != 0; }
    static void Close(Type h) { ::CryptDestroyKey(h); }
};
using UniqueCryptKey = TarnBase::UniqueResource<CryptKeyTraits>;

} // namespace TarnUtils
