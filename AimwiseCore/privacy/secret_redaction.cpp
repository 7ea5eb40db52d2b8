#include "AimwiseCore/privacy/secret_redaction.h"

#include <memory>
#include <vector>

#include "AimwiseCore/privacy/icu_regex.h"

namespace aimwise::SecretRedaction {

namespace {

// Best effort for logs: a pattern that would not compile is left out and the others still run.
const std::vector<std::unique_ptr<privacy_icu::Pattern>>& patterns() {
    static const std::vector<std::unique_ptr<privacy_icu::Pattern>> compiled = [] {
        std::vector<std::unique_ptr<privacy_icu::Pattern>> list;
        for (const char* source : {
                 R"re(\bsk-[A-Za-z0-9._-]{8,})re",
                 R"re((?i)\bBearer\s+[A-Za-z0-9._~+/=-]{8,})re",
                 R"re((?i)\b(api[_-]?key|authorization)\b\"?\s*[:=]\s*\"?[A-Za-z0-9._~+/=-]{8,}\"?)re",
             }) {
            if (auto pattern = privacy_icu::compileOrNull(source)) list.push_back(std::move(pattern));
        }
        return list;
    }();
    return compiled;
}

}  // namespace

std::string redact(const std::string& text) {
    std::u16string current = privacy_icu::toUTF16(text);
    const std::u16string token(replacement, replacement + std::char_traits<char>::length(replacement));
    for (const auto& pattern : patterns()) {
        auto ranges = privacy_icu::findAll(*pattern, current, 0);
        for (auto it = ranges.rbegin(); it != ranges.rend(); ++it)
            current.replace(size_t(it->start), size_t(it->end - it->start), token);
    }
    return privacy_icu::toUTF8(current);
}

}  // namespace aimwise::SecretRedaction
