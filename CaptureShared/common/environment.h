#pragma once
// The process environment as a plain map, so that decisions can take it as an argument.
#include <map>
#include <optional>
#include <string>

namespace aimwise {

using Environment = std::map<std::string, std::string>;

// A snapshot of the real process environment.
Environment processEnvironment();

// The value of `key` in `env`, absent when the key is not there.
std::optional<std::string> lookup(const Environment& env, const std::string& key);

// The value of a real environment variable, absent when unset.
std::optional<std::string> getEnv(const char* key);

}  // namespace aimwise
