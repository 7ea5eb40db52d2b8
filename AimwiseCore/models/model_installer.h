#pragma once
// Installs a catalogue model into the models directory that the local model store reads: each file
// is found already verified, reused from a copy already on this machine, or downloaded; the manifest
// is written last, once every file's digest matched, so that a model the store calls installed is
// one whose every byte was checked. One install at a time per models directory, by a lock file.
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "AimwiseCore/models/local_model_store.h"
#include "AimwiseCore/models/model_catalogue.h"
#include "CaptureShared/common/clock.h"
#include "CaptureShared/common/environment.h"
#include "CaptureShared/common/error.h"

namespace aimwise {

class ModelInstallError : public Error {
public:
    enum class Kind { notInstallable, busy, storeFailed };
    ModelInstallError(Kind kind, std::string description) : Error(std::move(description)), kind_(kind) {}
    Kind kind() const { return kind_; }

private:
    Kind kind_;
};

namespace ModelInstaller {

enum class IfBusy { wait, refuse };

struct FileOutcome {
    enum class How { alreadyVerified, verifiedInPlace, hardLinked, copied, downloaded };
    std::string name;
    How how = How::downloaded;
    // Where a reused file came from, or the URL it was downloaded from.
    std::string source;
    int64_t resumedFromBytes = 0;
};

struct Listener {
    // Another install holds the lock; `holder` is its process id as it wrote it, or empty.
    std::function<void(const std::string& holder)> onWaiting;
    // A file is about to be checked against copies already here, then fetched from `url`.
    std::function<void(const ModelCatalogue::File& file, const std::string& url)> onFile;
    // Bytes of the file read or received so far. `resumedFromBytes` were there before this run.
    std::function<void(const ModelCatalogue::File& file, int64_t doneBytes, int64_t resumedFromBytes)> onProgress;
    std::function<void(const FileOutcome& outcome)> onFileDone;
};

struct Options {
    // AIMCAP_MODEL_MIRROR; empty for the catalogue's own URLs.
    std::string mirror;
    // Where other runners keep their blobs (HOME, OLLAMA_MODELS, HF_HOME, ...).
    Environment environment;
    IfBusy ifBusy = IfBusy::wait;
    Listener listener;
};

struct Outcome {
    LocalModelManifest manifest;
    std::vector<FileOutcome> files;
};

// The manifest the store will check the entry's files against. The entry must have no gaps.
LocalModelManifest manifestFor(const ModelCatalogue::Entry& entry);

// <models>/.install.lock; it holds the installing process's id.
std::filesystem::path lockPath(const LocalModelStore& store);

// Throws ModelInstallError or ModelDownloadError. An entry with gaps is refused before anything
// is fetched or written.
Outcome install(const ModelCatalogue::Entry& entry, const LocalModelStore& store, const Options& options,
                const Clock& clock);

}  // namespace ModelInstaller
}  // namespace aimwise
