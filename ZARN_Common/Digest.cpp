// SHA-256 over OpenSSL's libcrypto.

#include "ZARN_Common/Digest.h"

#include <openssl/evp.h>

namespace ZARN {

struct Sha256::Context {
    std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX *)> mSelf{EVP_MD_CTX_new(), EVP_MD_CTX_free};
    void start() { _DYNAMIC_ASSERT_(EVP_DigestInit_ex (mSelf.get (), EVP_sha256 (), nullptr) == 1); }
};

Sha256::Sha256() : mContext(std::make_unique<Context>()) {
    _DYNAMIC_ASSERT_(mContext->mSelf != nullptr);
    mContext->start();
}

Sha256::~Sha256() = default;

Sha256 &Sha256::add(const void *data, std::size_t size) {
    _DYNAMIC_ASSERT_(EVP_DigestUpdate (mContext->mSelf.get (), data, size) == 1);
    return *this;
}

std::array<unsigned char, 32> Sha256::digest() {
    std::array<unsigned char, 32> digest{};
    unsigned int size = 0;
    _DYNAMIC_ASSERT_(EVP_DigestFinal_ex (mContext->mSelf.get (), digest.data (), &size) == 1 && size == 32);
    mContext->start();
    return digest;
}

} // namespace ZARN
