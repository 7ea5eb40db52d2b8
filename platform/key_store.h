#pragma once
// Where the video archive's keys live. Keys have numbered generations: new files are sealed with the
// newest, and every older generation stays so that older files remain readable. On Linux each
// generation is a file (platform/linux/key_store_linux.cpp); a keychain-backed store can sit beside it.
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "CaptureShared/common/error.h"
#include "CaptureShared/video/video_archive_key.h"

namespace aimwise {

class VideoArchiveKeyStore {
public:
    class KeyError : public Error {
    public:
        enum class Kind { notTrusted, unreadable, alreadyExists, noCapturePath, noKey, keychainLocked, noSuchGeneration };
        // `detail` is the reason for notTrusted and unreadable, and where the keys are kept for noKey
        // and noSuchGeneration.
        KeyError(Kind kind, std::string detail, uint32_t generation = 0);
        Kind kind() const { return kind_; }

    private:
        Kind kind_;
    };

    struct Current {
        VideoArchiveKey key;
        uint32_t generation = 0;
    };

    virtual ~VideoArchiveKeyStore() = default;

    // The newest readable key, at or below `maxGeneration` when one is given. KeyError when none is.
    virtual Current loadCurrentWithGeneration(std::optional<uint32_t> maxGeneration = std::nullopt) const = 0;
    // The key of one generation; a KeyError that names the generation when it is missing or unreadable.
    virtual VideoArchiveKey loadGeneration(uint32_t generation) const = 0;
    VideoArchiveKey keyForGeneration(uint32_t generation) const { return loadGeneration(generation); }
    // The key to seal new files with: the newest readable one, or a new generation when there is none.
    virtual Current loadOrRotate() = 0;
    // A new generation for the files written from now on.
    virtual Current rotate() = 0;
    // The generations present, readable or not, oldest first.
    virtual std::vector<uint32_t> generations() const = 0;

    // For readers: the key of a file's generation.
    VideoArchiveKeyLookup lookup() const {
        return [this](uint32_t generation) { return loadGeneration(generation); };
    }
};

// Keys as files `generation-<n>.key` (32 bytes, mode 0600) in `directory` (0700, created on first use).
std::unique_ptr<VideoArchiveKeyStore> makeFileKeyStore(const std::filesystem::path& directory);
// The support directory's video-archive-keys.
std::filesystem::path defaultKeyStoreDirectory();
// This platform's store at its usual place.
std::unique_ptr<VideoArchiveKeyStore> defaultVideoArchiveKeyStore();

}  // namespace aimwise
