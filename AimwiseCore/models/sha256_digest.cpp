#include "AimwiseCore/models/sha256_digest.h"

#include <openssl/evp.h>  // only the header: libcrypto is opened when a digest is first needed

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

struct Sha256Digest::Impl {
    const Crypto& crypto = libcrypto();
    EVP_MD_CTX* context = nullptr;
    ~Impl() {
        if (context) crypto.contextFree(context);
    }
};

Sha256Digest::Sha256Digest() : impl_(std::make_unique<Impl>()) {
    impl_->context = impl_->crypto.contextNew();
    if (!impl_->context || impl_->crypto.digestInit(impl_->context, impl_->crypto.sha256(), nullptr) != 1)
        throw std::runtime_error("SHA-256 is unavailable: libcrypto could not start a digest");
}

Sha256Digest::~Sha256Digest() = default;

void Sha256Digest::update(std::string_view bytes) {
    if (!bytes.empty() && impl_->crypto.digestUpdate(impl_->context, bytes.data(), bytes.size()) != 1)
        throw std::runtime_error("SHA-256 failed while digesting");
}

std::string Sha256Digest::finalHex() {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (impl_->crypto.digestFinal(impl_->context, digest, &length) != 1)
        throw std::runtime_error("SHA-256 failed while finishing");
    static constexpr char hex[] = "0123456789abcdef";
    std::string out;
    for (unsigned int i = 0; i < length; ++i) {
        out += hex[digest[i] >> 4];
        out += hex[digest[i] & 15];
    }
    return out;
}

bool Sha256Digest::isDigestText(std::string_view text) {
    if (text.size() != 64) return false;
    for (unsigned char c : text)
        if (!std::isxdigit(c)) return false;
    return true;
}

}  // namespace aimwise
