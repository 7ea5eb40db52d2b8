#include "AimwiseCore/models/sha256.h"

#include <openssl/evp.h>  // only the header

#include <cctype>
#include <stdexcept>

#include "CaptureShared/common/shared_library.h"

namespace aimwise {

namespace {

struct Crypto {
    SharedLibrary library{"libcrypto.so.3", "SHA-256", "libssl3"};
    decltype(&EVP_MD_CTX_new) contextNew = library.function<decltype(&EVP_MD_CTX_new)>("EVP_MD_CTX_new");
    decltype(&EVP_MD_CTX_free) contextFree = library.function<decltype(&EVP_MD_CTX_free)>("EVP_MD_CTX_free");
    decltype(&EVP_sha256) sha256 = library.function<decltype(&EVP_sha256)>("EVP_sha256");
    decltype(&EVP_DigestInit_ex) digestInit = library.function<decltype(&EVP_DigestInit_ex)>("EVP_DigestInit_ex");
    decltype(&EVP_DigestUpdate) digestUpdate = library.function<decltype(&EVP_DigestUpdate)>("EVP_DigestUpdate");
    decltype(&EVP_DigestFinal_ex) digestFinal =
        library.function<decltype(&EVP_DigestFinal_ex)>("EVP_DigestFinal_ex");
};

const Crypto& libcrypto() {
    static const Crypto* const loaded = new Crypto();
    return *loaded;
}

}  // namespace

Sha256::Sha256() {
    const Crypto& crypto = libcrypto();
    EVP_MD_CTX* context = crypto.contextNew();
    if (!context) throw std::runtime_error("could not create a SHA-256 context");
    context_ = context;
    failed_ = crypto.digestInit(context, crypto.sha256(), nullptr) != 1;
}

Sha256::~Sha256() { libcrypto().contextFree(static_cast<EVP_MD_CTX*>(context_)); }

bool Sha256::update(const void* bytes, size_t count) {
    if (!failed_ && count > 0)
        failed_ = libcrypto().digestUpdate(static_cast<EVP_MD_CTX*>(context_), bytes, count) != 1;
    return !failed_;
}

std::optional<std::string> Sha256::hexDigest() {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (failed_ || libcrypto().digestFinal(static_cast<EVP_MD_CTX*>(context_), digest, &length) != 1)
        return std::nullopt;
    static constexpr char digits[] = "0123456789abcdef";
    std::string out;
    for (unsigned int i = 0; i < length; ++i) {
        out += digits[digest[i] >> 4];
        out += digits[digest[i] & 15];
    }
    return out;
}

std::string Sha256::finalHex() {
    auto out = hexDigest();
    if (!out) throw std::runtime_error("SHA-256 failed");
    return *out;
}

std::string Sha256::hex(std::string_view bytes) {
    Sha256 digest;
    digest.update(bytes);
    return digest.finalHex();
}

bool Sha256::isDigestText(std::string_view text) {
    if (text.size() != 64) return false;
    for (unsigned char c : text)
        if (!std::isxdigit(c)) return false;
    return true;
}

}  // namespace aimwise
