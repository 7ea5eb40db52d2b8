#pragma once
// The symmetric key that seals the video archive, and how a reader finds the key of a generation.
#include <array>
#include <cstdint>
#include <functional>

namespace aimwise {

// 256 bits. Wiped when it goes away, so a key does not linger in freed memory.
class VideoArchiveKey {
public:
    static constexpr size_t length = 32;
    using Bytes = std::array<uint8_t, length>;

    explicit VideoArchiveKey(const Bytes& bytes) : bytes_(bytes) {}
    VideoArchiveKey(const VideoArchiveKey&) = default;
    VideoArchiveKey& operator=(const VideoArchiveKey&) = default;
    ~VideoArchiveKey();

    const Bytes& bytes() const { return bytes_; }
    // 32 bytes from the system's random source; throws std::system_error when it fails.
    static VideoArchiveKey random();

private:
    Bytes bytes_;
};

// The key of one generation, or a thrown aimwise::Error (the key store's KeyError) naming it.
using VideoArchiveKeyLookup = std::function<VideoArchiveKey(uint32_t generation)>;

}  // namespace aimwise
