#pragma once
// Owners for CryptoAPI handles, in the style of TarnBase/win/Handle.h: each handle has
// exactly one owner, so no failure path can leak a provider or release it twice.

#include "TarnBase/win/Handle.h"

#include <wincrypt.h>

namespace TarnUtils {

// Releasing a provider takes a flags argument too, so it keeps traits of its own.
struct CryptProviderTraits {
    using Type = HCRYPTPROV;
    static Type Invalid() { return 0; }
    static bool IsValid(Type h) { return h != 0; }
    static void Close(Type h) { ::CryptReleaseContext(h, 0); }
};
using UniqueCryptProvider = TarnBase::UniqueResource<CryptProviderTraits>;

using UniqueCryptHash = TarnBase::UniqueResource<TarnBase::ZeroIsNoneTraits<HCRYPTHASH, &::CryptDestroyHash>>;
using UniqueCryptKey = TarnBase::UniqueResource<TarnBase::ZeroIsNoneTraits<HCRYPTKEY, &::CryptDestroyKey>>;

} // namespace TarnUtils
