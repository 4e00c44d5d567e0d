#pragma once
// Obscures wide strings with RC4 keyed from a built-in secret, so that application paths
// in the shared trusted-process table are not stored in clear. The output is deterministic:
// every operation starts from a fresh key, so the same text always gives the same bytes,
// which table look-ups rely on.

#include "TarnBase/NoCopySemantics.h"
#include "TarnUtils/win/CryptoHandles.h"

#include <string>

namespace TarnUtils {

class CryptoUtils : public TarnBase::NoCopySemantics {
public:
    CryptoUtils() = default;
    ~CryptoUtils();

    // Acquires the provider and derives the key; true at once when already done.
    bool Initialize();

    // In place. The encrypted form of n characters is 2n units long: the first n carry the
    // cipher bytes, the rest start with a zero unit (readers stop there). Throw
    // InvalidObjectException when the provider cannot be initialised.
    bool EncryptString(std::wstring& text);
    bool DecryptString(std::wstring& text);

    // Workers of the two above on the first `length` characters of `text`; `final` marks
    // the last section, after which the key is dropped.
    bool EncryptSection(bool final, std::wstring& text, size_t length);
    bool DecryptSection(bool final, std::wstring& text, size_t length);

    // Destroys the key, releases the provider; the next operation starts over.
    void Release();

    bool IsInitialized() const { return m_initialized; }

private:
    enum class Direction { Encrypt, Decrypt };
    bool RunSection(Direction direction, bool final, std::wstring& text, size_t length);

    bool m_initialized = false;
    UniqueCryptProvider m_provider;
    UniqueCryptKey m_key;
};

} // namespace TarnUtils
