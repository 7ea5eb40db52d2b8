#pragma once
// Reads the time budget out of a declared task's text with the local model, once per distinct text,
// and keeps the answer in the estimate_cache table of signals.sqlite for the ticks that follow.
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "AimwiseCore/models/endpoint_url.h"
#include "AimwiseCore/models/http_session.h"
#include "CaptureShared/common/error.h"

namespace aimwise {

struct EstimateExtractorError : Error {
    enum class Kind { httpError, invalidResponse };
    EstimateExtractorError(Kind kind, int status, std::string text)
        : Error(kind == Kind::httpError ? "http error " + std::to_string(status) + ": " + text : text),
          kind(kind),
          status(status),
          text(std::move(text)) {}
    Kind kind = Kind::invalidResponse;
    int status = 0;    // httpError
    std::string text;  // the body for httpError, the reason for invalidResponse
};

namespace EstimateExtractor {

struct Config {
    EndpointURL endpoint;
    std::string model;
    int numPredict = 200;
    double timeout = 60.0;  // seconds

    // The local chat endpoint of the process environment, the default model, 200 tokens, 60 s.
    // Throws LocalInferenceEndpoint::ResolutionError.
    static Config standard();
};

struct Estimate {
    std::optional<double> minutes;
    std::string reason;
    bool operator==(const Estimate&) const = default;
};

extern const std::string systemPrompt;
inline constexpr const char* createTableSQL =
    "CREATE TABLE IF NOT EXISTS estimate_cache (\n"
    "    declared_task TEXT PRIMARY KEY, estimated_minutes REAL, reason TEXT, parsed_at_ms INTEGER)";

std::string buildRequestBody(const std::string& system, const std::string& user, const Config& config);

// The answer that a reply's text gives; a reply that is not a JSON object is a parse failure.
Estimate interpret(std::string_view reply);

// Never fails: whatever goes wrong is "no estimate" with a reason, and is stored like any answer so
// that the next tick does not ask again. An empty text calls no model and stores nothing.
Estimate extract(const std::string& declaredText, const std::filesystem::path& signalsPath, const Config& config,
                 HTTPSession& session);

// Failures are ignored: the answer stands for this call and the next tick asks again.
void store(const std::string& declaredText, const Estimate& estimate, const std::filesystem::path& signalsPath,
           int64_t nowMs);

}  // namespace EstimateExtractor
}  // namespace aimwise
