#include "AimwiseCore/models/server_prompt.h"

#include <algorithm>
#include <mutex>

namespace aimwise {

namespace ServerPrompt {

namespace {
constexpr std::string_view opening = "\u27e6merl-prompt:";
constexpr std::string_view closing = "\u27e7";
}  // namespace

std::string placeholder(std::string_view id) {
    return std::string(opening) + std::string(id) + std::string(closing);
}

bool containsPlaceholder(std::string_view text) { return text.find(opening) != std::string_view::npos; }

PlaceholderLeak::PlaceholderLeak(std::string_view backendName)
    : Error("a server-side prompt placeholder reached the " + std::string(backendName) +
            " backend. Placeholders are only for the cloud proxy; this call was handed ProxyModelBackend's "
            "rewritten copy.") {}

void refuseIfPlaceholders(const std::vector<ChatMessage>& messages, std::string_view backendName) {
    for (const ChatMessage& message : messages)
        if (containsPlaceholder(message.content) || (message.thinking && containsPlaceholder(*message.thinking)))
            throw PlaceholderLeak(backendName);
}

}  // namespace ServerPrompt

namespace {

std::mutex catalogueMutex;
std::vector<ServerPrompt::Block>& catalogue() {
    static std::vector<ServerPrompt::Block> blocks;
    return blocks;
}

bool hasRole(const ChatMessage& message, ServerPrompt::AnchorRole role) {
    return role == ServerPrompt::AnchorRole::system ? message.role == ChatRole::system
                                                    : message.role == ChatRole::user;
}

}  // namespace

void ServerPromptCatalog::add(ServerPrompt::Block block) {
    std::lock_guard lock(catalogueMutex);
    auto& blocks = catalogue();
    auto same = std::find_if(blocks.begin(), blocks.end(), [&](const auto& known) { return known.id == block.id; });
    if (same != blocks.end())
        *same = std::move(block);
    else
        blocks.push_back(std::move(block));
}

ServerPromptCatalog ServerPromptCatalog::registered(std::string promptSetID) {
    std::lock_guard lock(catalogueMutex);
    return ServerPromptCatalog(std::move(promptSetID), catalogue());
}

ServerPromptCatalog::Rewritten ServerPromptCatalog::rewrite(const std::vector<ChatMessage>& messages) const {
    std::vector<const ServerPrompt::Block*> order;
    for (const auto& block : blocks_)
        if (!block.text.empty()) order.push_back(&block);
    std::stable_sort(order.begin(), order.end(), [](auto* a, auto* b) { return a->text.size() > b->text.size(); });

    Rewritten out{messages, {}};
    std::vector<bool> anchored(blocks_.size(), false);
    for (ChatMessage& message : out.messages) {
        for (const ServerPrompt::Block* block : order) {
            size_t at = message.content.find(block->text);
            if (at == std::string::npos) continue;
            if (block->anchor && hasRole(message, *block->anchor)) anchored[block - blocks_.data()] = true;
            const std::string replacement = ServerPrompt::placeholder(block->id);
            for (; at != std::string::npos; at = message.content.find(block->text, at + replacement.size()))
                message.content.replace(at, block->text.size(), replacement);
        }
    }
    for (size_t i = 0; i < blocks_.size(); ++i)
        if (anchored[i]) out.anchors.push_back(blocks_[i].id);
    return out;
}

}  // namespace aimwise
