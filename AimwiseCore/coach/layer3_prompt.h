#pragma once
// The system prompt of the coach's conversation path, in an online and a shorter local wording, and
// the joining rules that keep its fixed part first so that it stays cached.
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "AimwiseCore/models/chat_types.h"

namespace aimwise {

namespace Layer3Prompt {
enum class Variant { online, local };
std::string_view rawValue(Variant variant);
std::optional<Variant> variantFromRaw(std::string_view raw);

// Each made once.
const std::string& text(Variant variant);
const std::string& system();  // the online wording
const std::string& local();
}  // namespace Layer3Prompt

namespace Layer3SystemPrompt {
// `base`, then the person's instructions, then each memory note, each after a blank line.
std::string build(const std::string& base, const std::optional<std::string>& instructions,
                  const std::vector<std::string>& memoryNotes);
}  // namespace Layer3SystemPrompt

namespace Layer3PromptVariant {
struct Request {
    std::vector<ChatMessage> messages;
    std::optional<std::vector<ToolSpec>> tools;
    bool operator==(const Request&) const = default;
};
// A local model gets the shorter wording without the caller building the request twice: an opening
// system message that begins with the online prompt gets the local one in its place (whatever
// followed stays), and the online write-intention tool its local form. Everything else is untouched.
Request forLocalModel(std::vector<ChatMessage> messages, std::optional<std::vector<ToolSpec>> tools);
}  // namespace Layer3PromptVariant

}  // namespace aimwise
