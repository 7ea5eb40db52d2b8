#include "AimwiseCore/coach/text_digest.h"

#include <openssl/evp.h>  // only the header: libcrypto is opened when a digest is first needed

#include <stdexcept>

#include "CaptureShared/common/shared_library.h"

namespace aimwise::TextDigest {

namespace {

struct Crypto {
    SharedLibrary library{"libcrypto.so.3", "SHA-256 session keys", "libssl3"};
    decltype(&EVP_sha256) sha256 = library.function<decltype(&EVP_sha256)>("EVP_sha256");
    decltype(&EVP_Digest) digest = library.function<decltype(&EVP_Digest)>("EVP_Digest");
};

const Crypto& libcrypto() {
    static const Crypto* const loaded = new Crypto();
    return *loaded;
}

}  // namespace

std::string sha256Hex(std::string_view text) {
    const Crypto& crypto = libcrypto();
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (crypto.digest(text.data(), text.size(), digest, &length, crypto.sha256(), nullptr) != 1)
        throw std::runtime_error("SHA-256 failed in libcrypto");
    static constexpr char hex[] = "0123456789abcdef";
    std::string out;
    out.reserve(length * 2);
    for (unsigned int i = 0; i < length; ++i) {
        out += hex[digest[i] >> 4];
        out += hex[digest[i] & 15];
    }
    return out;
}

}  // namespace aimwise::TextDigest
