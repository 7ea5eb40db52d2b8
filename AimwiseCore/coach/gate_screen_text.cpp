#include "AimwiseCore/coach/gate_screen_text.h"

#include <mutex>
#include <unordered_map>

#include "AimwiseCore/privacy/outbound_title_privacy.h"
#include "AimwiseCore/privacy/safe_text.h"
#include "AimwiseCore/privacy/screen_text.h"
#include "AimwiseCore/privacy/sensitive_identifier_redaction.h"

namespace aimwise::GateScreenText {

namespace {

// Emptied whole when full, like the date memo: no eviction order to keep.
constexpr size_t capacity = 65'536;

std::mutex lock;
std::unordered_map<std::string, std::string>& memo() {
    static std::unordered_map<std::string, std::string> entries;
    return entries;
}

template <typename Make>
std::string remembered(std::string key, Make&& make) {
    {
        std::lock_guard guard(lock);
        if (const auto it = memo().find(key); it != memo().end()) return it->second;
    }
    std::string value = make();
    std::lock_guard guard(lock);
    if (memo().size() >= capacity) memo().clear();
    memo().emplace(std::move(key), value);
    return value;
}

// The one place where the gate's screen text meets the privacy filters.
std::string cleaned(const std::string& text, int cap) {
    return ScreenText::quoted(SafeText::clean(text, SensitiveIdentifierRedaction::Scope::outbound, cap).text, cap);
}

}  // namespace

std::string quoted(const std::string& text, int cap) {
    return remembered(std::to_string(cap) + '\x1f' + text, [&] { return cleaned(text, cap); });
}

std::string quotedTitle(const std::string& title) {
    return remembered("title\x1f" + title, [&] {
        if (const auto token = OutboundTitlePrivacy::token(OutboundTitlePrivacy::outcome(title)))
            return "\"" + std::string(*token) + "\"";
        return cleaned(title, ScreenText::titleCap);
    });
}

size_t rememberedCount() {
    std::lock_guard guard(lock);
    return memo().size();
}

void forget() {
    std::lock_guard guard(lock);
    memo().clear();
}

}  // namespace aimwise::GateScreenText
