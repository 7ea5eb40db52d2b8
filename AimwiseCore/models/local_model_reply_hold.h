#pragma once
// Whether a coach reply should wait for the local model to arrive rather than fail or fall back.
#include <cstdint>
#include <optional>
#include <string>

namespace aimwise {

namespace LocalModelReplyHold {

enum class Decision { run, holdWithNotice, holdQuietly };

// A server that was just given its files gets this long to start serving.
inline constexpr int64_t serverStartGraceMs = 180'000;

inline constexpr const char* notice =
    "The coach will answer when the model on this Mac finishes downloading. Your message is kept.";

Decision decide(bool primaryIsLocal, bool modelFilesMissing, bool serverServing, std::optional<int64_t> filesLandedAtMs,
                int64_t asOfMs, bool answersTypedMessage, bool noticeAlreadyWritten);

std::string noticeReason(const std::string& model);

}  // namespace LocalModelReplyHold
}  // namespace aimwise
