// SHA-256 on Windows, over the system's own cryptography (CNG, bcrypt.dll):
// the Windows build has no OpenSSL.

#include "ZARN_Common/Digest.h"

#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#include <windows.h>

#include <bcrypt.h>

namespace ZARN {

struct Sha256::Context {
    BCRYPT_ALG_HANDLE mAlgorithm = nullptr;
    BCRYPT_HASH_HANDLE mHash = nullptr;
    ~Context() {
        if (mHash != nullptr)
            BCryptDestroyHash(mHash);
        if (mAlgorithm != nullptr)
            BCryptCloseAlgorithmProvider(mAlgorithm, 0);
    }
    void start() {
        if (mHash != nullptr)
            BCryptDestroyHash(mHash);
        mHash = nullptr;
        _DYNAMIC_ASSERT_(BCryptCreateHash (mAlgorithm, &mHash, nullptr, 0, nullptr, 0, 0) >= 0);
    }
};

Sha256::Sha256() : mContext(std::make_unique<Context>()) {
    _DYNAMIC_ASSERT_(BCryptOpenAlgorithmProvider (&mContext->mAlgorithm, BCRYPT_SHA256_ALGORITHM, nullptr, 0) >= 0);
    mContext->start();
}

Sha256::~Sha256() = default;

Sha256 &Sha256::add(const void *data, std::size_t size) {
    // BCryptHashData takes at most 4 GiB - 1 bytes at a time.
    auto bytes = static_cast<const unsigned char *>(data);
    while (size > 0) {
        const ULONG part = size > 0x40000000u ? 0x40000000u : static_cast<ULONG>(size);
        _DYNAMIC_ASSERT_(BCryptHashData (mContext->mHash, const_cast<PUCHAR> (bytes), part, 0) >= 0);
        bytes += part;
        size -= part;
    }
    return *this;
}

std::array<unsigned char, 32> Sha256::digest() {
    std::array<unsigned char, 32> digest{};
    _DYNAMIC_ASSERT_(BCryptFinishHash (mContext->mHash, digest.data (), 32, 0) >= 0);
    mContext->start();
    return digest;
}

} // namespace ZARN
