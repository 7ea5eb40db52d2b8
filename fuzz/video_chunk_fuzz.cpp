// Arbitrary bytes as a sealed video file: the reader ends cleanly or with a typed error, never
// crashes, never allocates more than one chunk, and never hands out a chunk that failed its tag.
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "CaptureShared/video/file_descriptor.h"
#include "CaptureShared/video/video_encryption_format.h"
#include "CaptureShared/video/video_stream_decryptor.h"

// The seeds in fuzz/seeds/video_chunk_fuzz are sealed with this key: bytes 0, 1, ..., 31.
static const aimwise::VideoArchiveKey fuzzKey = [] {
    aimwise::VideoArchiveKey::Bytes bytes;
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(i);
    return aimwise::VideoArchiveKey(bytes);
}();

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const int fd = ::memfd_create("video-chunk-fuzz", MFD_CLOEXEC);
    if (::ftruncate(fd, 0) != 0 || ::pwrite(fd, data, size, 0) != static_cast<ssize_t>(size) ||
        ::lseek(fd, 0, SEEK_SET) != 0)
        std::abort();
    try {
        aimwise::VideoStreamDecryptor decryptor(fuzzKey, aimwise::FileDescriptor(::dup(fd)));
        size_t total = 0;
        while (auto chunk = decryptor.readChunk()) {
            if (chunk->size() > aimwise::VideoEncryptionFormat::maximumSealedBoxLength - 28) std::abort();
            total += chunk->size();
        }
        if (total > size) std::abort();
    } catch (const aimwise::VideoEncryptionError&) {
    }
    return 0;
}
