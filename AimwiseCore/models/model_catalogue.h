#pragma once
// The models this system knows how to install: for each name the configuration may carry, the GGUF
// file the server loads and the vision projector that lets it read screenshots, each with where it
// is published, its size and its SHA-256. The catalogue is data shipped with the program; a person
// may add or correct entries with a file of the same shape in the models directory.
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "CaptureShared/common/error.h"

namespace aimwise {

// The catalogue text is not a catalogue. Its description names the source and what is wrong.
class ModelCatalogueError : public Error {
public:
    using Error::Error;
};

struct ModelCatalogue {
    struct File {
        std::string name;  // the file name in the models directory
        std::string url;
        std::optional<int64_t> sizeBytes;
        std::optional<std::string> sha256;  // lowercase hex
        bool operator==(const File&) const = default;
    };
    struct Entry {
        std::string name;
        std::string summary;
        File model;
        std::optional<File> projector;
        bool operator==(const Entry&) const = default;

        // The model file first, then the projector.
        std::vector<File> files() const;
        // What keeps the entry from being installed, one phrase per gap; empty when nothing does.
        // A file without a digest could never be verified, so it is never downloaded.
        std::vector<std::string> gaps() const;
    };

    std::vector<Entry> entries;

    // Throws ModelCatalogueError naming `source`. Names, file names and URLs are checked here;
    // a missing size or digest is kept as a gap, so that the entry can still be listed.
    static ModelCatalogue parse(std::string_view text, const std::string& source);

    const Entry* find(std::string_view name) const;
    // The entries of `overrides` replace those of the same name; new ones are added at the end.
    ModelCatalogue mergedWith(const ModelCatalogue& overrides) const;
};

namespace ModelMirror {

// The setting that sends every catalogue download to a mirror.
inline constexpr const char* envVar = "AIMCAP_MODEL_MIRROR";

// With "{file}" in the mirror, the file's name takes its place ("file:///srv/models/{file}").
// Otherwise the mirror replaces the URL's scheme and host and the path is kept, the way mirrors of
// a model hub are laid out. Empty or blank: the URL as it is.
std::string apply(const std::string& url, const std::string& fileName, const std::string& mirror);

}  // namespace ModelMirror
}  // namespace aimwise
