#include "CaptureShared/video/video_stream_decryptor.h"

#include <fcntl.h>

#include <cerrno>
#include <cstring>

#include "CaptureShared/video/video_encryption_format.h"

namespace aimwise {

namespace Format = VideoEncryptionFormat;
using Kind = VideoEncryptionError::Kind;

namespace {

uint32_t littleEndian(const char* bytes) {
    uint32_t value = 0;
    for (int i = 0; i < 4; ++i) value |= static_cast<uint32_t>(static_cast<uint8_t>(bytes[i])) << (8 * i);
    return value;
}

ptrdiff_t readOrThrow(int fd, char* buffer, size_t size) {
    const ptrdiff_t count = readFully(fd, buffer, size);
    if (count < 0) throw VideoEncryptionError(Kind::corruptChunk, std::string("read failed: ") + std::strerror(errno));
    return count;
}

}  // namespace

VideoStreamDecryptor::Header VideoStreamDecryptor::readHeader(int fd) {
    char magic[Format::magicLength];
    const ptrdiff_t count = readFully(fd, magic, sizeof magic);
    const std::string_view seen(magic, count > 0 ? static_cast<size_t>(count) : 0);
    if (seen == Format::magicV1) return {.version = 1};
    if (seen != Format::magicV2)
        throw VideoEncryptionError(Kind::notEncrypted, "the file does not begin with the archive's header");
    char generation[Format::generationFieldLength];
    if (readFully(fd, generation, sizeof generation) != static_cast<ptrdiff_t>(sizeof generation))
        throw VideoEncryptionError(Kind::corruptChunk, "the header ends before its key generation");
    return {.version = 2, .generation = littleEndian(generation)};
}

VideoStreamDecryptor::VideoStreamDecryptor(const VideoArchiveKey& key, FileDescriptor input)
    : cipher_(key), input_(std::move(input)) {
    const Header header = readHeader(input_.get());
    version_ = header.version;
    generation_ = header.generation;
}

VideoStreamDecryptor::VideoStreamDecryptor(const VideoArchiveKey& key, FileDescriptor input, Header header)
    : cipher_(key), input_(std::move(input)), version_(header.version), generation_(header.generation) {}

VideoStreamDecryptor VideoStreamDecryptor::open(const std::filesystem::path& path, const VideoArchiveKeyLookup& keys) {
    FileDescriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd.valid())
        throw VideoEncryptionError(Kind::notEncrypted, "could not open " + path.string() + ": " + std::strerror(errno));
    const Header header = readHeader(fd.get());
    return VideoStreamDecryptor(keys(header.generation.value_or(1)), std::move(fd), header);
}

std::optional<std::string> VideoStreamDecryptor::readChunk() {
    const std::string where = "chunk " + std::to_string(chunksRead_ + 1);
    char lengthField[Format::lengthFieldLength];
    const ptrdiff_t got = readOrThrow(input_.get(), lengthField, sizeof lengthField);
    if (got == 0) return std::nullopt;
    if (got != static_cast<ptrdiff_t>(sizeof lengthField))
        throw VideoEncryptionError(Kind::corruptChunk, where + " is cut inside its length field");
    const uint32_t length = littleEndian(lengthField);
    if (length > Format::maximumSealedBoxLength)
        throw VideoEncryptionError(Kind::corruptChunk, where + " claims " + std::to_string(length) +
                                                           " bytes, more than a chunk can hold");
    box_.resize(length);
    if (readOrThrow(input_.get(), box_.data(), length) != static_cast<ptrdiff_t>(length))
        throw VideoEncryptionError(Kind::corruptChunk, where + " is cut short; the file ends inside it");
    std::string plaintext;
    if (!cipher_.open(reinterpret_cast<const uint8_t*>(box_.data()), length, plaintext))
        throw VideoEncryptionError(Kind::authenticationFailed, where);
    ++chunksRead_;
    return plaintext;
}

std::string VideoStreamDecryptor::readAll() {
    std::string all;
    while (auto chunk = readChunk()) all += *chunk;
    return all;
}

}  // namespace aimwise
