#pragma once
// Matching over already-decoded text, shared with the outbound title filter. Internal to privacy/.
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "AimwiseCore/privacy/identifier_normalization.h"
#include "AimwiseCore/privacy/sensitive_sites.h"

namespace aimwise::SensitiveSites {

std::optional<Category> categoryForHost(std::u16string_view host);
std::optional<Category> categoryMentionedIn(std::u16string_view text);
// The plain normalised form, then the form without invisible characters when there are any.
std::vector<std::u16string> titleForms(const std::u16string& title);
std::optional<Category> categoryInTitleForms(const std::vector<std::u16string>& forms);

}  // namespace aimwise::SensitiveSites
