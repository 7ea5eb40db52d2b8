#pragma once
// The system's fixed prompts as the hosted coach route knows them. That route sends a placeholder
// in place of each fixed prompt and the service fills it in; every other backend must never see a
// placeholder, since a model would read it as the prompt.
//
// The texts themselves belong to the code that writes each prompt (the coach, the gate,
// consolidation). Each registers its blocks once, with a ServerPromptCatalog::Registration object in
// the same source file as the text, so a new prompt plugs in without touching the route.
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "AimwiseCore/models/chat_types.h"
#include "CaptureShared/common/error.h"

namespace aimwise {

namespace ServerPrompt {

enum class AnchorRole { system, user };

struct Block {
    std::string id;
    // Set on the prompts that identify a request the service accepts (layer 3, the gate,
    // consolidation): the role of the message that must carry the text.
    std::optional<AnchorRole> anchor;
    std::string text;
    bool operator==(const Block&) const = default;
};

// "⟦merl-prompt:<id>⟧"
std::string placeholder(std::string_view id);
bool containsPlaceholder(std::string_view text);

class PlaceholderLeak : public Error {
public:
    explicit PlaceholderLeak(std::string_view backendName);
};

// Throws PlaceholderLeak when any message still holds a placeholder.
void refuseIfPlaceholders(const std::vector<ChatMessage>& messages, std::string_view backendName);

}  // namespace ServerPrompt

class ServerPromptCatalog {
public:
    ServerPromptCatalog(std::string promptSetID, std::vector<ServerPrompt::Block> blocks)
        : promptSetID_(std::move(promptSetID)), blocks_(std::move(blocks)) {}

    const std::string& promptSetID() const { return promptSetID_; }
    const std::vector<ServerPrompt::Block>& blocks() const { return blocks_; }

    // The blocks registered in this process, under the given prompt set.
    static ServerPromptCatalog registered(std::string promptSetID);
    // Adds a block to the process's catalogue; a later block with the same id replaces the earlier.
    static void add(ServerPrompt::Block block);

    struct Registration {
        explicit Registration(ServerPrompt::Block block) { add(std::move(block)); }
    };

    struct Rewritten {
        std::vector<ChatMessage> messages;
        // Ids of the anchor blocks found in a message of their role, in catalogue order.
        std::vector<std::string> anchors;
    };
    // Each block's text, wherever it stands in a message's content, becomes its placeholder; longer
    // texts are replaced first so that a block inside another stays whole.
    Rewritten rewrite(const std::vector<ChatMessage>& messages) const;

private:
    std::string promptSetID_;
    std::vector<ServerPrompt::Block> blocks_;
};

}  // namespace aimwise
