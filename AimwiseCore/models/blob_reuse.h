#pragma once
// A model file that is already on this machine is never downloaded again. Candidates are files of
// the right size in the models directory and in the content-addressed stores of other local model
// runners and model hub caches, where a blob is named by its SHA-256. A candidate is taken only
// after its bytes hash to the expected digest.
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "CaptureShared/common/environment.h"

namespace aimwise::BlobReuse {

// Directories whose files are named "sha256-<hex>" or "<hex>": the other runner's blob store (under
// OLLAMA_MODELS, the home directory or its system-wide install) and the blob folder of every model
// in the hub cache (HF_HUB_CACHE, HF_HOME/hub or XDG_CACHE_HOME/huggingface/hub).
std::vector<std::filesystem::path> blobStores(const Environment& environment);

// Files that may hold the blob: same-sized regular files of `modelsDirectory` (the destination
// first, when it is one), then the named blob in each store. Cheap: no file is read.
std::vector<std::filesystem::path> candidates(const std::string& sha256, int64_t sizeBytes,
                                              const std::filesystem::path& modelsDirectory,
                                              const std::filesystem::path& destination,
                                              const std::vector<std::filesystem::path>& stores);

enum class Method { alreadyInPlace, hardLink, copy };

struct Adopted {
    std::filesystem::path source;
    Method method = Method::copy;
};

// Places the first candidate whose bytes hash to `sha256` at `destination`: a hard link where the
// file system allows it, a copy otherwise, through `scratch` so that `destination` only ever holds
// a verified file. Nothing when no candidate does. `onBytes` reports bytes read so far.
std::optional<Adopted> adopt(const std::vector<std::filesystem::path>& candidates, const std::string& sha256,
                             int64_t sizeBytes, const std::filesystem::path& destination,
                             const std::filesystem::path& scratch, const std::function<void(int64_t)>& onBytes);

}  // namespace aimwise::BlobReuse
