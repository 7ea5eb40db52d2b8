#include "CaptureShared/common/environment.h"

#include <cstdlib>
#include <cstring>

extern char** environ;

namespace aimwise {

Environment processEnvironment() {
    Environment env;
    for (char** entry = environ; entry && *entry; ++entry) {
        const char* eq = std::strchr(*entry, '=');
        if (!eq) continue;
        env.emplace(std::string(*entry, static_cast<size_t>(eq - *entry)), std::string(eq + 1));
    }
    return env;
}

std::optional<std::string> lookup(const Environment& env, const std::string& key) {
    auto it = env.find(key);
    if (it == env.end()) return std::nullopt;
    return it->second;
}

std::optional<std::string> getEnv(const char* key) {
    const char* value = std::getenv(key);
    if (!value) return std::nullopt;
    return std::string(value);
}

}  // namespace aimwise
