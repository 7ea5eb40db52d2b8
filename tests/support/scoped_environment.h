#pragma once
// Sets and unsets environment variables for one test and puts them back afterwards.
#include <map>
#include <optional>
#include <string>

namespace aimwise::testing {

class ScopedEnvironment {
public:
    ScopedEnvironment() = default;
    ~ScopedEnvironment();
    ScopedEnvironment(const ScopedEnvironment&) = delete;
    ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

    void set(const std::string& key, const std::string& value);
    void unset(const std::string& key);

private:
    void remember(const std::string& key);
    std::map<std::string, std::optional<std::string>> saved_;
};

}  // namespace aimwise::testing
