#pragma once
// `aimwise models`: which model each role gets and why; `aimwise models --check` sends one short
// message through the coach's own stack, redaction and fallback included, and says who answered.
#include <iosfwd>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "AimwiseCore/models/model_backend_factory.h"
#include "CaptureShared/common/environment.h"

namespace aimwise::ModelsVerb {

inline constexpr const char* defaultCheckMessage = "Reply with the single word: ready.";

struct Request {
    bool check = false;
    std::optional<std::string> message;
    bool operator==(const Request&) const = default;
};
struct UsageError {
    std::string message;
    bool operator==(const UsageError&) const = default;
};

std::variant<Request, UsageError> parse(const std::vector<std::string>& arguments);

// The verb over a given environment and services; results to `out`, diagnostics to `err`. Returns
// the exit status: 0 for an answer, 1 for a refused configuration or a failed check.
int run(const Request& request, const Environment& environment, const ModelBackendFactory::Services& services,
        std::ostream& out, std::ostream& err);

// The process's own environment (config.json applied first).
int run(const std::vector<std::string>& arguments);

}  // namespace aimwise::ModelsVerb
