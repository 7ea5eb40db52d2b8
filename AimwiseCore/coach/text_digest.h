#pragma once
// SHA-256 of a text in lowercase hexadecimal: how session keys are derived from prompt texts.
#include <string>
#include <string_view>

namespace aimwise::TextDigest {

// libcrypto is opened on first use. Throws std::runtime_error when it cannot be.
std::string sha256Hex(std::string_view text);

}  // namespace aimwise::TextDigest
