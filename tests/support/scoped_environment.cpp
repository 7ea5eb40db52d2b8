#include "tests/support/scoped_environment.h"

#include <cstdlib>

namespace aimwise::testing {

ScopedEnvironment::~ScopedEnvironment() {
    for (const auto& [key, value] : saved_) {
        if (value)
            ::setenv(key.c_str(), value->c_str(), 1);
        else
            ::unsetenv(key.c_str());
    }
}

void ScopedEnvironment::remember(const std::string& key) {
    if (saved_.contains(key)) return;
    const char* current = std::getenv(key.c_str());
    saved_[key] = current ? std::optional<std::string>(current) : std::nullopt;
}

void ScopedEnvironment::set(const std::string& key, const std::string& value) {
    remember(key);
    ::setenv(key.c_str(), value.c_str(), 1);
}

void ScopedEnvironment::unset(const std::string& key) {
    remember(key);
    ::unsetenv(key.c_str());
}

}  // namespace aimwise::testing
