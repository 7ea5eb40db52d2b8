#include "CaptureShared/video/video_encryption_format.h"

#include <fcntl.h>

#include "CaptureShared/video/file_descriptor.h"

namespace aimwise {

namespace {

std::string describe(VideoEncryptionError::Kind kind, const std::string& detail) {
    switch (kind) {
        case VideoEncryptionError::Kind::sealingFailed: return "couldn't seal video: " + detail;
        case VideoEncryptionError::Kind::notEncrypted: return "not an encrypted video file: " + detail;
        case VideoEncryptionError::Kind::corruptChunk: return "corrupt encrypted video: " + detail;
        case VideoEncryptionError::Kind::authenticationFailed:
            return "encrypted video failed authentication (damaged, or sealed with another key): " + detail;
    }
    return detail;
}

// The first `size` bytes, fewer when the file is shorter; empty when it cannot be read.
std::string readPrefix(const std::filesystem::path& path, size_t size) {
    FileDescriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::string prefix(size, '\0');
    const ptrdiff_t count = fd.valid() ? readFully(fd.get(), prefix.data(), size) : -1;
    prefix.resize(count > 0 ? static_cast<size_t>(count) : 0);
    return prefix;
}

}  // namespace

VideoEncryptionError::VideoEncryptionError(Kind kind, std::string detail)
    : Error(describe(kind, detail)), kind_(kind) {}

namespace VideoEncryptionFormat {

bool isEncrypted(const std::filesystem::path& path) {
    const std::string prefix = readPrefix(path, magicLength);
    return prefix == magicV1 || prefix == magicV2;
}

std::optional<uint32_t> peekHeaderGeneration(const std::filesystem::path& path) {
    const std::string header = readPrefix(path, v2HeaderLength);
    if (header.size() < v2HeaderLength || header.compare(0, magicLength, magicV2) != 0) return std::nullopt;
    uint32_t generation = 0;
    for (size_t i = 0; i < generationFieldLength; ++i)
        generation |= static_cast<uint32_t>(static_cast<uint8_t>(header[magicLength + i])) << (8 * i);
    return generation;
}

}  // namespace VideoEncryptionFormat

}  // namespace aimwise
