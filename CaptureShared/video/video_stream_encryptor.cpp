#include "CaptureShared/video/video_stream_encryptor.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "CaptureShared/video/video_encryption_format.h"

namespace aimwise {

namespace Format = VideoEncryptionFormat;

namespace {

void putLittleEndian(uint8_t* out, uint32_t value) {
    for (int i = 0; i < 4; ++i) out[i] = static_cast<uint8_t>(value >> (8 * i));
}

}  // namespace

VideoStreamEncryptor::VideoStreamEncryptor(const VideoArchiveKey& key, uint32_t generation, FileDescriptor output)
    : cipher_(key),
      output_(std::move(output)),
      sealed_(new uint8_t[Format::lengthFieldLength + Format::chunkSize + AesGcm::overhead]) {
    buffer_.reserve(Format::chunkSize);
    uint8_t header[Format::v2HeaderLength];
    std::memcpy(header, Format::magicV2.data(), Format::magicLength);
    putLittleEndian(header + Format::magicLength, generation);
    writeOut(header, sizeof header);
}

std::unique_ptr<VideoStreamEncryptor> VideoStreamEncryptor::create(const std::filesystem::path& path,
                                                                   const VideoArchiveKey& key, uint32_t generation) {
    FileDescriptor fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!fd.valid())
        throw VideoEncryptionError(VideoEncryptionError::Kind::sealingFailed,
                                   "could not create " + path.string() + ": " + std::strerror(errno));
    return std::make_unique<VideoStreamEncryptor>(key, generation, std::move(fd));
}

VideoStreamEncryptor::~VideoStreamEncryptor() {
    try {
        close();
    } catch (const VideoEncryptionError&) {
        // Whatever was sealed before stays readable; the caller that cared called close itself.
    }
}

void VideoStreamEncryptor::write(std::string_view data) {
    plaintextBytes_ += data.size();
    // Whole chunks straight from the caller's bytes when nothing is pending: no copy on the fast path.
    if (buffer_.empty()) {
        while (data.size() >= Format::chunkSize) {
            sealChunk(data.data(), Format::chunkSize);
            data.remove_prefix(Format::chunkSize);
        }
    }
    while (!data.empty()) {
        const size_t take = std::min(data.size(), Format::chunkSize - buffer_.size());
        buffer_.append(data.data(), take);
        data.remove_prefix(take);
        if (buffer_.size() == Format::chunkSize) flush();
    }
}

void VideoStreamEncryptor::flush() {
    if (buffer_.empty()) return;
    sealChunk(buffer_.data(), buffer_.size());
    buffer_.clear();
}

void VideoStreamEncryptor::close() {
    if (!output_.valid()) return;
    flush();
    if (output_.reset() != 0)
        throw VideoEncryptionError(VideoEncryptionError::Kind::sealingFailed,
                                   std::string("closing the sealed file failed: ") + std::strerror(errno));
}

void VideoStreamEncryptor::sealChunk(const char* data, size_t size) {
    uint8_t* out = sealed_.get();
    putLittleEndian(out, static_cast<uint32_t>(size + AesGcm::overhead));
    cipher_.seal(reinterpret_cast<const uint8_t*>(data), size, out + Format::lengthFieldLength);
    // Length and box in one call, so a crash leaves at most one partial chunk, at the end.
    writeOut(out, Format::lengthFieldLength + size + AesGcm::overhead);
    ++chunksWritten_;
}

void VideoStreamEncryptor::writeOut(const uint8_t* data, size_t size) {
    if (!output_.valid())
        throw VideoEncryptionError(VideoEncryptionError::Kind::sealingFailed, "the sealed file is already closed");
    if (!writeFully(output_.get(), data, size))
        throw VideoEncryptionError(VideoEncryptionError::Kind::sealingFailed,
                                   std::string("writing the sealed file failed: ") + std::strerror(errno));
}

}  // namespace aimwise
