#pragma once
// Seals a byte stream, such as a recorder's output read from a pipe, into the archive's chunked format
// as the bytes arrive. Each full chunk is written with one write call as soon as it is complete, so a
// crash loses only what is still buffered; `flush` seals that early as a shorter chunk, which bounds the
// loss by time when the stream is slow.
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

#include "CaptureShared/video/aes_gcm.h"
#include "CaptureShared/video/file_descriptor.h"
#include "CaptureShared/video/video_archive_key.h"

namespace aimwise {

class VideoStreamEncryptor {
public:
    // Writes the version 2 header at once. Owns `output`. Throws VideoEncryptionError (sealingFailed).
    VideoStreamEncryptor(const VideoArchiveKey& key, uint32_t generation, FileDescriptor output);
    // A new file, mode 0600, refusing to replace one that exists.
    static std::unique_ptr<VideoStreamEncryptor> create(const std::filesystem::path& path, const VideoArchiveKey& key,
                                                        uint32_t generation);
    // Seals what is left, without throwing; call `close` to learn whether that worked.
    ~VideoStreamEncryptor();
    VideoStreamEncryptor(const VideoStreamEncryptor&) = delete;
    VideoStreamEncryptor& operator=(const VideoStreamEncryptor&) = delete;

    void write(std::string_view data);
    // Seals the buffered bytes now; nothing happens when none are buffered.
    void flush();
    // Seals the remainder (an empty one writes no chunk) and closes the file.
    void close();

    uint64_t plaintextBytes() const { return plaintextBytes_; }
    uint64_t chunksWritten() const { return chunksWritten_; }

private:
    void sealChunk(const char* data, size_t size);
    void writeOut(const uint8_t* data, size_t size);

    AesGcm cipher_;
    FileDescriptor output_;
    std::string buffer_;
    std::unique_ptr<uint8_t[]> sealed_;
    uint64_t plaintextBytes_ = 0;
    uint64_t chunksWritten_ = 0;
};

}  // namespace aimwise
