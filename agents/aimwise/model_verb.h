#pragma once
// `aimwise model list | install [NAME] | serve [NAME]`: from the catalogue to a verified model that
// llama-server serves where the classifier looks, and the status line that says what is missing.
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "AimwiseCore/classifier/integrity_guard.h"
#include "AimwiseCore/models/local_model_store.h"
#include "AimwiseCore/models/model_catalogue.h"
#include "CaptureShared/common/clock.h"
#include "CaptureShared/common/environment.h"

namespace aimwise::ModelVerb {

// The catalogue text this build carries (agents/models/catalogue.json).
const char* builtInCatalogue();
// <models>/catalogue.json: the person's own entries.
std::filesystem::path personalCataloguePath(const LocalModelStore& store);
// The built-in catalogue with the person's entries over it. Throws ModelCatalogueError.
ModelCatalogue catalogue(const LocalModelStore& store);

// The settings as the agents see them: config.json's env under the real environment.
Environment effectiveEnvironment();

// Which local model each role asks for.
struct Roles {
    std::string classifier;
    std::string coach;
    // The coach asks an online model first and the local one only when that fails.
    bool coachIsFallback = false;
};
Roles roles(const Environment& environment);

std::string renderList(const ModelCatalogue& catalogue, const LocalModelStore& store, const Roles& roles,
                       const std::optional<std::string>& recommended);

// "  [#####---------------]  2.0 GB of 8.0 GB  40 MB/s  2m30s left", cut to `width` columns.
std::string progressLine(int64_t doneBytes, int64_t totalBytes, double bytesPerSec, size_t width);

// What the model server said when asked which file it serves.
struct ServerReply {
    enum class Kind { served, loading, unreachable, unexpected };
    Kind kind = Kind::unreachable;
    // The served path, or why there was no usable answer, in words.
    std::string detail;
};

// The status line: where the server is, as a path for a socket; what is missing; the one
// command that fixes it.
std::string statusLine(const std::string& model, const ModelIntegrityGuard::FileCheck& fileCheck,
                       const std::optional<std::string>& expectedPath, const std::string& whereServed,
                       const ServerReply& reply);
// The same for this machine: reads the store and asks the server.
std::string statusLine(const Environment& environment);

// After install-services: serves the classifier's model when it is installed and not yet served
// (asking first on a terminal), or says how to get there. Returns the exit status.
int offerServe(const Environment& environment, const Clock& clock);

// Returns the exit status: 0, 1 for a failure, 2 for a usage error.
int run(const std::vector<std::string>& arguments, const Clock& clock);

}  // namespace aimwise::ModelVerb
