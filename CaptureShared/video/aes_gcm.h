#pragma once
// AES-256-GCM boxes in their combined form: nonce (12), ciphertext, tag (16), with no additional data.
// libcrypto is opened on first use, so a process that links this library but never seals or opens a
// box (the classifier's tick) does not load it.
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>

#include "CaptureShared/video/video_archive_key.h"

namespace aimwise {

class AesGcm {
public:
    static constexpr size_t overhead = 28;

    // Throws VideoEncryptionError (sealingFailed) when libcrypto cannot be used.
    explicit AesGcm(const VideoArchiveKey& key);
    ~AesGcm();
    AesGcm(const AesGcm&) = delete;
    AesGcm& operator=(const AesGcm&) = delete;
    AesGcm(AesGcm&& other) noexcept : context_(std::exchange(other.context_, nullptr)), key_(other.key_) {}

    // Seals `size` bytes into `box`, which has room for size + overhead, under a fresh random nonce.
    // Throws VideoEncryptionError (sealingFailed).
    void seal(const uint8_t* plaintext, size_t size, uint8_t* box);
    // Opens a combined box into `plaintext`; false when it is too short or fails authentication.
    bool open(const uint8_t* box, size_t size, std::string& plaintext);

private:
    void* context_ = nullptr;  // EVP_CIPHER_CTX
    VideoArchiveKey key_;
};

}  // namespace aimwise
