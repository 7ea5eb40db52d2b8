#include "CaptureShared/video/aes_gcm.h"

#include <openssl/evp.h>  // only the header: libcrypto is opened when a box is first sealed or opened
#include <sys/random.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <stdexcept>
#include <system_error>

#include "CaptureShared/common/shared_library.h"
#include "CaptureShared/video/video_encryption_format.h"

namespace aimwise {

namespace {

#define AIMWISE_CRYPTO_FUNCTION(name) decltype(&name) name##_ = library.function<decltype(&name)>(#name)

struct Crypto {
    SharedLibrary library{"libcrypto.so.3", "video archive encryption", "libssl3"};
    AIMWISE_CRYPTO_FUNCTION(EVP_CIPHER_CTX_new);
    AIMWISE_CRYPTO_FUNCTION(EVP_CIPHER_CTX_free);
    AIMWISE_CRYPTO_FUNCTION(EVP_CIPHER_CTX_ctrl);
    AIMWISE_CRYPTO_FUNCTION(EVP_aes_256_gcm);
    AIMWISE_CRYPTO_FUNCTION(EVP_EncryptInit_ex);
    AIMWISE_CRYPTO_FUNCTION(EVP_EncryptUpdate);
    AIMWISE_CRYPTO_FUNCTION(EVP_EncryptFinal_ex);
    AIMWISE_CRYPTO_FUNCTION(EVP_DecryptInit_ex);
    AIMWISE_CRYPTO_FUNCTION(EVP_DecryptUpdate);
    AIMWISE_CRYPTO_FUNCTION(EVP_DecryptFinal_ex);
};

#undef AIMWISE_CRYPTO_FUNCTION

const Crypto& crypto() {
    static const Crypto loaded;
    return loaded;
}

void randomBytes(uint8_t* out, size_t size) {
    size_t done = 0;
    while (done < size) {
        const ssize_t count = ::getrandom(out + done, size - done, 0);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) throw std::system_error(errno, std::generic_category(), "getrandom");
        done += static_cast<size_t>(count);
    }
}

EVP_CIPHER_CTX* cipherContext(void* context) { return static_cast<EVP_CIPHER_CTX*>(context); }

}  // namespace

VideoArchiveKey::~VideoArchiveKey() { ::explicit_bzero(bytes_.data(), bytes_.size()); }

VideoArchiveKey VideoArchiveKey::random() {
    Bytes bytes;
    randomBytes(bytes.data(), bytes.size());
    VideoArchiveKey key(bytes);
    ::explicit_bzero(bytes.data(), bytes.size());
    return key;
}

AesGcm::AesGcm(const VideoArchiveKey& key) : key_(key) {
    try {
        context_ = crypto().EVP_CIPHER_CTX_new_();
    } catch (const std::runtime_error& error) {
        throw VideoEncryptionError(VideoEncryptionError::Kind::sealingFailed, error.what());
    }
    if (!context_) throw VideoEncryptionError(VideoEncryptionError::Kind::sealingFailed, "no cipher context");
}

AesGcm::~AesGcm() {
    if (context_) crypto().EVP_CIPHER_CTX_free_(cipherContext(context_));
}

void AesGcm::seal(const uint8_t* plaintext, size_t size, uint8_t* box) {
    const Crypto& c = crypto();
    EVP_CIPHER_CTX* context = cipherContext(context_);
    uint8_t* nonce = box;
    uint8_t* ciphertext = box + VideoEncryptionFormat::nonceLength;
    uint8_t* tag = ciphertext + size;
    try {
        randomBytes(nonce, VideoEncryptionFormat::nonceLength);
    } catch (const std::system_error& error) {
        throw VideoEncryptionError(VideoEncryptionError::Kind::sealingFailed,
                                   std::string("no random nonce: ") + error.what());
    }
    int produced = 0, finished = 0;
    const bool sealed = size <= INT_MAX &&
                        c.EVP_EncryptInit_ex_(context, c.EVP_aes_256_gcm_(), nullptr, key_.bytes().data(), nonce) == 1 &&
                        c.EVP_EncryptUpdate_(context, ciphertext, &produced, plaintext, static_cast<int>(size)) == 1 &&
                        c.EVP_EncryptFinal_ex_(context, ciphertext + produced, &finished) == 1 &&
                        static_cast<size_t>(produced + finished) == size &&
                        c.EVP_CIPHER_CTX_ctrl_(context, EVP_CTRL_GCM_GET_TAG, VideoEncryptionFormat::tagLength, tag) == 1;
    if (!sealed) throw VideoEncryptionError(VideoEncryptionError::Kind::sealingFailed, "AES-GCM refused the chunk");
}

bool AesGcm::open(const uint8_t* box, size_t size, std::string& plaintext) {
    if (size < overhead || size - overhead > INT_MAX) return false;
    const Crypto& c = crypto();
    EVP_CIPHER_CTX* context = cipherContext(context_);
    const size_t length = size - overhead;
    const uint8_t* nonce = box;
    const uint8_t* ciphertext = box + VideoEncryptionFormat::nonceLength;
    uint8_t tag[VideoEncryptionFormat::tagLength];
    std::memcpy(tag, ciphertext + length, sizeof tag);
    plaintext.resize(length);
    auto* out = reinterpret_cast<uint8_t*>(plaintext.data());
    int produced = 0, finished = 0;
    const bool opened = c.EVP_DecryptInit_ex_(context, c.EVP_aes_256_gcm_(), nullptr, key_.bytes().data(), nonce) == 1 &&
                        c.EVP_DecryptUpdate_(context, out, &produced, ciphertext, static_cast<int>(length)) == 1 &&
                        c.EVP_CIPHER_CTX_ctrl_(context, EVP_CTRL_GCM_SET_TAG, sizeof tag, tag) == 1 &&
                        c.EVP_DecryptFinal_ex_(context, out + produced, &finished) == 1;
    if (!opened) {
        // Never hand out what failed authentication.
        ::explicit_bzero(plaintext.data(), plaintext.size());
        plaintext.clear();
    }
    return opened;
}

}  // namespace aimwise
