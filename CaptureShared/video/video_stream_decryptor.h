#pragma once
// Reads a sealed video file chunk by chunk. A file cut at a chunk boundary reads as complete (there is
// no end marker); one cut inside a chunk reads up to that chunk, which is `corruptChunk`. A chunk that
// fails authentication is never returned.
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

#include "CaptureShared/video/aes_gcm.h"
#include "CaptureShared/video/file_descriptor.h"
#include "CaptureShared/video/video_archive_key.h"

namespace aimwise {

class VideoStreamDecryptor {
public:
    // Reads and checks the header of `input`, which it owns: `notEncrypted` unless it opens with either
    // magic.
    VideoStreamDecryptor(const VideoArchiveKey& key, FileDescriptor input);
    // Opens `path` and asks `keys` for the generation in its header; a version 1 file, which has none,
    // was sealed by the first generation, 1. Errors of the lookup pass through.
    static VideoStreamDecryptor open(const std::filesystem::path& path, const VideoArchiveKeyLookup& keys);

    // The next chunk's plaintext, or nothing at a clean end. Throws VideoEncryptionError.
    std::optional<std::string> readChunk();
    std::string readAll();

    int version() const { return version_; }
    // Absent for version 1.
    std::optional<uint32_t> generation() const { return generation_; }
    // Chunks returned so far.
    uint64_t chunksRead() const { return chunksRead_; }

private:
    struct Header {
        int version = 2;
        std::optional<uint32_t> generation;
    };
    VideoStreamDecryptor(const VideoArchiveKey& key, FileDescriptor input, Header header);
    static Header readHeader(int fd);

    AesGcm cipher_;
    FileDescriptor input_;
    int version_ = 2;
    std::optional<uint32_t> generation_;
    std::string box_;
    uint64_t chunksRead_ = 0;
};

}  // namespace aimwise
