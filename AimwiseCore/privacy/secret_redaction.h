#pragma once
// A small fixed scrub of keys and tokens for log lines and error text. It keeps no report.
#include <string>

namespace aimwise::SecretRedaction {

inline constexpr const char* replacement = "[redacted]";

std::string redact(const std::string& text);

}  // namespace aimwise::SecretRedaction
