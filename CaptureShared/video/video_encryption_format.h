#pragma once
// The sealed file format of the video archive. Version 2, which is written:
//   "VESKAVE2", generation (u32 LE), then chunks to the end of the file.
// Version 1, still read: "VESKAVE1", then chunks. One chunk:
//   length (u32 LE) of the sealed box, then the box: nonce (12), ciphertext, tag (16).
// Each chunk is sealed on its own with AES-256-GCM, so a crash loses only the chunk being written and a
// reader decodes a partly written file from the start. There is no end marker.
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "CaptureShared/common/error.h"

namespace aimwise {

namespace VideoEncryptionFormat {

inline constexpr std::string_view magicV1 = "VESKAVE1";
inline constexpr std::string_view magicV2 = "VESKAVE2";
inline constexpr std::string_view magic = magicV2;
inline constexpr size_t magicLength = 8;
inline constexpr size_t generationFieldLength = 4;
inline constexpr size_t v2HeaderLength = magicLength + generationFieldLength;
inline constexpr size_t lengthFieldLength = 4;
inline constexpr size_t nonceLength = 12;
inline constexpr size_t tagLength = 16;
inline constexpr size_t chunkSize = 1048576;
// The largest sealed box a reader accepts; a damaged length never allocates more.
inline constexpr size_t maximumSealedBoxLength = chunkSize + 64;

// The first eight bytes are either magic. A short or unreadable file is not encrypted.
bool isEncrypted(const std::filesystem::path& path);
// The generation of a version 2 file; nothing for version 1, plain and unreadable files.
std::optional<uint32_t> peekHeaderGeneration(const std::filesystem::path& path);

}  // namespace VideoEncryptionFormat

class VideoEncryptionError : public Error {
public:
    enum class Kind { sealingFailed, notEncrypted, corruptChunk, authenticationFailed };

    VideoEncryptionError(Kind kind, std::string detail);
    Kind kind() const { return kind_; }

private:
    Kind kind_;
};

}  // namespace aimwise
