#pragma once
// The model files on disk: where they live, what each known model should consist of, and whether
// the files there are still the ones that were verified.
//
// Manifests (file name, byte size, SHA-256 of each file) are written by the installer into
// <models>/manifests.json when it downloads a model; a model without one is unknown and cannot be
// verified. Hashing a multi-gigabyte file on every classifier tick is out of the question, so a
// file is hashed once, by `verify`, and its identity at that moment (size, modification time,
// change time, inode and device) is recorded with the digest in <models>/verified.json. The disk
// state compares only that identity afterwards. Any write to the file moves its modification or
// change time, and a replacement has another inode, so a changed file is never taken for the
// verified one; the price is that a mere metadata change (a chmod, a restore from backup) also
// asks for a new verification.
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace aimwise {

struct LocalModelManifest {
    struct File {
        std::string name;
        int64_t sizeBytes = 0;
        std::string sha256;  // lowercase hex
        bool operator==(const File&) const = default;
    };
    std::string model;
    // The file the server loads; the others (a vision projector, say) are checked alongside it.
    std::string fileName;
    std::vector<File> files;
    bool operator==(const LocalModelManifest&) const = default;
};

struct LocalModelDiskState {
    struct Missing {
        bool operator==(const Missing&) const = default;
    };
    struct Verified {
        bool operator==(const Verified&) const = default;
    };
    struct NeedsVerification {
        std::vector<std::string> names;
        bool operator==(const NeedsVerification&) const = default;
    };
    std::variant<Missing, Verified, NeedsVerification> value;
    bool operator==(const LocalModelDiskState&) const = default;
};

class LocalModelStore {
public:
    struct VerificationResult {
        // Files whose digest or size is not the manifest's; nothing was recorded for them.
        std::vector<std::string> mismatched;
        std::vector<std::string> missing;
        bool ok() const { return mismatched.empty() && missing.empty(); }
    };

    explicit LocalModelStore(std::filesystem::path modelsDirectory);
    // <support dir>/models
    static std::filesystem::path defaultModelsDirectory();

    const std::filesystem::path& modelsDirectory() const { return directory_; }
    std::filesystem::path manifestsPath() const { return directory_ / "manifests.json"; }
    std::filesystem::path verificationsPath() const { return directory_ / "verified.json"; }

    // Nothing when the model has no manifest or the manifests file is unreadable.
    std::optional<LocalModelManifest> manifest(const std::string& model) const;
    // Adds or replaces the model's manifest. Throws std::filesystem::filesystem_error.
    void saveManifest(const LocalModelManifest& manifest) const;

    // Cheap: reads file metadata and the verification record, never file contents.
    LocalModelDiskState diskState(const LocalModelManifest& manifest) const;
    // Hashes every file of the manifest and records those that match. Slow for large files.
    VerificationResult verify(const LocalModelManifest& manifest, int64_t nowMs) const;
    // Records a file whose digest the caller computed while writing it, so that a fresh download is
    // not read a second time. False, recording nothing, when the file's size or the digest is not
    // the manifest's. Throws std::filesystem::filesystem_error.
    bool recordVerified(const LocalModelManifest::File& file, const std::string& sha256, int64_t nowMs) const;

    // Lowercase hex SHA-256 of a file's contents; nothing when it cannot be read.
    static std::optional<std::string> sha256OfFile(const std::filesystem::path& path);

private:
    std::filesystem::path directory_;
};

}  // namespace aimwise
