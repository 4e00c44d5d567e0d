#include "TarnUtils/win/CryptoUtils.h"

#include "TarnBase/ResultLog.h"
#include "TarnBase/Throw.h"
#include "TarnLog/Log.h"
#include "TarnUtils/CryptoUtilsSecret.h"

#include <climits>

namespace TarnUtils {
namespace {

const char kClass[] = "TarnUtils::CryptoUtils";
const char kSource[] = "CryptoUtils";
const char kProvider[] = "Microsoft Base Cryptographic Provider v1.0";

} // namespace

CryptoUtils::~CryptoUtils()
{
    Release();
}

bool CryptoUtils::Initialize()
{
    if (m_initialized)
        return true;
    try {
        UniqueCryptProvider provider;
        if (!::CryptAcquireContextA(provider.Put(), nullptr, kProvider, PROV_RSA_FULL, CRYPT_VERIFYCONTEXT)) {
            DWORD error = ::GetLastError();
            if (error == static_cast<DWORD>(NTE_BAD_KEYSET)) {
                TarnLog::Log(kClass, 4, "Initizlize() - Key set does not exist, creating one");
                error = ::CryptAcquireContextA(provider.Put(), nullptr, kProvider, PROV_RSA_FULL, CRYPT_NEWKEYSET)
                            ? ERROR_SUCCESS
                            : ::GetLastError();
            }
            if (error != ERROR_SUCCESS) {
                TarnLog::Log(kClass, 0, "Initialize() - CSP Init failed LASTERROR: 0x%08x", static_cast<unsigned>(error));
                return false;
            }
        }

        UniqueCryptHash hash;
        if (!::CryptCreateHash(provider.Get(), CALG_MD5, 0, 0, hash.Put())) {
            const DWORD error = ::GetLastError();
            provider.Reset();
            TarnLog::Log(kClass, 0, "Initialize() - Hash Init failed LASTERROR: 0x%08x", static_cast<unsigned>(error));
            return false;
        }
        if (!::CryptHashData(hash.Get(), kCryptoSecret, static_cast<DWORD>(kCryptoSecretSize), 0)) {
            const DWORD error = ::GetLastError();
            hash.Reset();
            provider.Reset();
            TarnLog::Log(kClass, 0, "Initialize() - Hash addData failed LASTERROR: 0x%08x", static_cast<unsigned>(error));
            return false;
        }
        // The provider's default key length (40 bits here) is part of the stored form:
        // every writer of the table derives the same key.
        UniqueCryptKey key;
        const BOOL derived = ::CryptDeriveKey(provider.Get(), CALG_RC4, hash.Get(), CRYPT_EXPORTABLE, key.Put());
        const DWORD error = ::GetLastError();
        hash.Reset();
        if (!derived) {
            provider.Reset();
            TarnLog::Log(kClass, 0, "Initialize() - Key Init failed LASTERROR: 0x%08x", static_cast<unsigned>(error));
            return false;
        }

        m_provider = std::move(provider);
        m_key = std::move(key);
        m_initialized = true;
        return true;
    } catch (...) {
        TARN_LOG_UNKNOWN_EXCEPTION(TarnLog::Log, kClass, kSource, __LINE__);
        Release();
        return false;
    }
}

void CryptoUtils::Release()
{
    m_key.Reset();
    m_provider.Reset();
    m_initialized = false;
}

bool CryptoUtils::RunSection(Direction direction, bool final, std::wstring& text, size_t length)
{
    const bool encrypt = direction == Direction::Encrypt;
    if (!Initialize()) {
        TarnLog::Log(kClass, 4, encrypt ? "EncryptSection() - Initialize failed" : "DecryptSection() - Initialize failed");
        return false;
    }

    if (length > text.size())
        length = text.size();
    bool ok = length <= (ULONG_MAX / 2) / sizeof(wchar_t);
    DWORD bytes = 0;
    if (ok) {
        // Room for 2n units; the second half starts at the old terminator and is zeroed
        // so that no clear text stays behind the cipher bytes.
        text.resize(length);
        text.resize(2 * length, L'\0');
        bytes = static_cast<DWORD>(length * sizeof(wchar_t));
        const DWORD capacity = static_cast<DWORD>(text.size() * sizeof(wchar_t));
        // Nothing to transform: some providers refuse an empty final block to decrypt.
        if (length > 0) {
            BYTE* data = reinterpret_cast<BYTE*>(&text[0]);
            ok = encrypt ? ::CryptEncrypt(m_key.Get(), 0, final ? TRUE : FALSE, 0, data, &bytes, capacity) != FALSE
                         : ::CryptDecrypt(m_key.Get(), 0, final ? TRUE : FALSE, 0, data, &bytes) != FALSE;
        }
    }
    if (!ok) {
        TarnLog::Log(kClass, 4,
                     encrypt ? "EncryptSection() - Encrypt failed HRESULT: 0x%08x" : "DecryptSection() - Decrypt failed HRESULT: 0x%08x",
                     static_cast<unsigned>(::GetLastError()));
        bytes = 0;
    }
    // The length in characters becomes the byte count: the stored form depends on it.
    text.resize(bytes, L'\0');

    if (final || !ok)
        Release();
    return ok;
}

bool CryptoUtils::EncryptSection(bool final, std::wstring& text, size_t length)
{
    return RunSection(Direction::Encrypt, final, text, length);
}

bool CryptoUtils::DecryptSection(bool final, std::wstring& text, size_t length)
{
    return RunSection(Direction::Decrypt, final, text, length);
}

bool CryptoUtils::EncryptString(std::wstring& text)
{
    if (!Initialize()) {
        TarnLog::Log(kClass, 4, "EncryptString() - Initialize failed");
        TARN_THROW(kClass, kSource, TarnBase::InvalidObjectException);
    }
    const bool ok = EncryptSection(true, text, text.size());
    if (!ok)
        TarnLog::Log(kClass, 4, "EncryptString() - Encrypt failed ");
    Release();
    return ok;
}

bool CryptoUtils::DecryptString(std::wstring& text)
{
    if (!Initialize()) {
        TarnLog::Log(kClass, 4, "DecryptString() - Initialize failed");
        TARN_THROW(kClass, kSource, TarnBase::InvalidObjectException);
    }
    const bool ok = DecryptSection(true, text, text.size());
    if (!ok)
        TarnLog::Log(kClass, 4, "DecryptString() - Decrypt failed ");
    Release();
    return ok;
}

} // namespace TarnUtils
