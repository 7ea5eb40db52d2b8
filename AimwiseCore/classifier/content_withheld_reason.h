#pragma once
// Why window content was not captured; the notice stands in the prompt where the content would be.
#include <optional>
#include <string_view>

namespace aimwise {

enum class ContentWithheldReason { frontmostAppDenylisted, anotherDenylistedAppWindowVisible };

std::string_view logValue(ContentWithheldReason reason);
std::string_view notice(ContentWithheldReason reason);
std::optional<ContentWithheldReason> contentWithheldReasonFromLogValue(std::string_view value);

}  // namespace aimwise
