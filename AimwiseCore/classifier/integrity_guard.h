#pragma once
// Before a screenshot goes to the local model server, make sure the server is serving the verified
// model file and that the file has not changed since it was verified. Anything else listening on
// the model port gets nothing.
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "AimwiseCore/models/endpoint_url.h"
#include "AimwiseCore/models/http_session.h"
#include "AimwiseCore/models/local_model_store.h"

namespace aimwise {

namespace ModelIntegrityGuard {

// The expected file on disk, as the caller found it.
struct FileCheck {
    struct Stale {
        std::string text;  // what changed
        bool operator==(const Stale&) const = default;
    };
    struct Verified {
        bool operator==(const Verified&) const = default;
    };
    struct Missing {
        bool operator==(const Missing&) const = default;
    };
    struct UnknownModel {
        bool operator==(const UnknownModel&) const = default;
    };
    std::variant<Stale, Verified, Missing, UnknownModel> value;
    bool operator==(const FileCheck&) const = default;
};

struct Verdict {
    struct Matches {
        std::string path;
        bool operator==(const Matches&) const = default;
    };
    struct ServingOtherFile {
        std::string expected;
        std::string actual;
        bool operator==(const ServingOtherFile&) const = default;
    };
    struct FileChanged {
        std::string text;
        bool operator==(const FileChanged&) const = default;
    };
    struct UnknownModel {
        std::string servedPath;
        bool operator==(const UnknownModel&) const = default;
    };
    struct ModelAbsent {
        bool operator==(const ModelAbsent&) const = default;
    };
    std::variant<Matches, ServingOtherFile, FileChanged, UnknownModel, ModelAbsent> value;
    bool operator==(const Verdict&) const = default;
};

// No manifest: unknownModel. Otherwise the store's disk state, with the names of files that need
// verifying as the stale text.
FileCheck integrityFileCheck(const std::optional<LocalModelManifest>& manifest, const LocalModelStore& store);

// `verified`, `stale("…")`, `matches(path: "…")`, … as an operator reads them.
std::string describe(const FileCheck& check);
std::string describe(const Verdict& verdict);

// For the application to read: why the classifier stopped judging.
struct RefusalNote {
    enum class Kind { modelReplaced, cannotVerify };
    Kind kind = Kind::modelReplaced;
    std::string model;
    std::string message;
    int64_t atMs = 0;
    bool operator==(const RefusalNote&) const = default;
};
std::string_view rawValue(RefusalNote::Kind kind);

struct TickDecision {
    // Present: do not judge.
    std::optional<std::string> refusal;
    std::optional<RefusalNote> note;
    std::vector<std::string> warnings;
    bool operator==(const TickDecision&) const = default;
};

inline constexpr const char* refusalNoteFileName = "model-integrity-refusal.json";
// In the support directory.
std::filesystem::path refusalNotePath();

// GET <base>/props within 5 seconds. Throws ModelBackendError.
std::string fetchServedModelPath(const EndpointURL& base, HTTPSession& session);
std::optional<std::string> parseServedModelPath(std::string_view body);
// Equal once symbolic links are resolved and "." and ".." segments removed.
bool samePath(const std::string& a, const std::string& b);

Verdict evaluate(const std::optional<std::string>& expectedPath, const FileCheck& fileCheck,
                 const std::string& servedPath);
// The fetch always runs, whatever the file check says.
Verdict verify(const std::optional<std::string>& expectedPath, const FileCheck& fileCheck, const EndpointURL& base,
               HTTPSession& session);
TickDecision tickDecision(const std::string& model, const Verdict& verdict, int64_t nowMs);

// `at` is written as an ISO 8601 instant in UTC; readers also take a number of seconds since
// 2001-01-01, the other form such notes have been written in.
std::string encodeRefusalNote(const RefusalNote& note);
// Throws std::filesystem::filesystem_error.
void writeRefusalNote(const RefusalNote& note, const std::filesystem::path& to);
std::optional<RefusalNote> readRefusalNote(const std::filesystem::path& from);
void clearRefusalNote(const std::filesystem::path& at);

// Parent directory 0700 when it must be made, file 0600, replaced in one rename. Throws
// std::filesystem::filesystem_error; the temporary file never outlives a failure.
void writeOwnerOnly(std::string_view data, const std::filesystem::path& to);

}  // namespace ModelIntegrityGuard
}  // namespace aimwise
