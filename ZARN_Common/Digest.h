#pragma once

// SHA-256 over OpenSSL's libcrypto, fed in pieces: the upload manifests'
// file and part digests, and the identifiers made from names.

#include "__ORN__/orn_basic.h"

#include <array>
#include <cstddef>
#include <memory>
#include <string_view>

namespace ZARN {

class Sha256 {
public:
    Sha256();
    ~Sha256();
    Sha256(const Sha256 &) = delete;
    Sha256 &operator=(const Sha256 &) = delete;

    Sha256 &add(const void *data, std::size_t size);
    Sha256 &add(std::string_view text) { return add(text.data(), text.size()); }
    // The digest of everything added since the start or the last digest;
    // the object then starts afresh.
    std::array<unsigned char, 32> digest();
    // The same as 64 lower-case hexadecimal digits.
    ORN::String<char> hex() {
        static constexpr char HEX[] = "0123456789abcdef";
        ORN::String<char> text;
        for (const unsigned char byte : digest()) {
            text += HEX[byte >> 4];
            text += HEX[byte & 15];
        }
        return text;
    }

private:
    struct Context;
    std::unique_ptr<Context> mContext;
};

} // namespace ZARN
