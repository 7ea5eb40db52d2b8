#include "agents/coach/chat_channel.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include "AimwiseCore/events/json_value.h"
#include "AimwiseCore/models/sha256.h"

namespace aimwise::ChatChannel {

namespace fs = std::filesystem;

namespace {

std::string rootKey(const fs::path& dataRoot) {
    std::error_code ignored;
    const fs::path canonical = fs::weakly_canonical(dataRoot, ignored);
    return Sha256::hex((canonical.empty() ? dataRoot : canonical).string()).substr(0, 16);
}

}  // namespace

fs::path runtimeDirectory(const Environment& environment) {
    const auto runtime = lookup(environment, "XDG_RUNTIME_DIR");
    const fs::path directory = runtime && !runtime->empty() ? fs::path(*runtime) / "aimwise"
                                                            : fs::path("/tmp") / ("aimwise-" + std::to_string(::getuid()));
    fs::create_directories(directory);
    fs::permissions(directory, fs::perms::owner_all, fs::perm_options::replace);
    return directory;
}

fs::path socketPath(const fs::path& dataRoot, const Environment& environment) {
    return runtimeDirectory(environment) / ("coach-" + rootKey(dataRoot) + ".sock");
}

fs::path chatLockPath(const fs::path& dataRoot, const Environment& environment) {
    return runtimeDirectory(environment) / ("chat-" + rootKey(dataRoot) + ".lock");
}

bool isChatOpen(const fs::path& lockPath) {
    const int fd = ::open(lockPath.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    const bool held = ::flock(fd, LOCK_EX | LOCK_NB) != 0;
    ::close(fd);
    return held;
}

std::string encode(const Message& message) {
    JSONValue::Object object;
    switch (message.type) {
        case Message::Type::delta:
            object = {{"type", "delta"}, {"text", message.text}, {"thinking", message.thinking}, {"reset", message.reset}};
            break;
        case Message::Type::end:
            object = {{"type", "end"}};
            if (!message.silent) object["text"] = message.text;
            break;
        case Message::Type::failed:
            object = {{"type", "failed"}, {"reason", message.reason}};
            break;
    }
    return JSONValue(std::move(object)).serialized() + "\n";
}

std::optional<Message> decode(std::string_view line) {
    const auto value = JSONValue::tryParse(line);
    if (!value || !value->isObject()) return std::nullopt;
    auto text = [&](const char* key) {
        const JSONValue* member = value->member(key);
        return member ? member->stringValue() : std::nullopt;
    };
    const auto type = text("type");
    Message message;
    if (type == "delta") {
        message.text = text("text").value_or("");
        message.thinking = text("thinking").value_or("");
        const JSONValue* reset = value->member("reset");
        message.reset = reset && std::get_if<bool>(&reset->value) && std::get<bool>(reset->value);
    } else if (type == "end") {
        message.type = Message::Type::end;
        const auto words = text("text");
        message.silent = !words;
        message.text = words.value_or("");
    } else if (type == "failed") {
        message.type = Message::Type::failed;
        message.reason = text("reason").value_or("");
    } else {
        return std::nullopt;
    }
    return message;
}

}  // namespace aimwise::ChatChannel
