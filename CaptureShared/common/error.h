#pragma once
// The one base of every error this system throws. `description()` is the system's own words, the
// text a verb prints after "FAIL: " and a long-running process writes to its log.
#include <exception>
#include <string>

namespace aimwise {

class Error : public std::exception {
public:
    explicit Error(std::string description) : description_(std::move(description)) {}
    const std::string& description() const noexcept { return description_; }
    const char* what() const noexcept override { return description_.c_str(); }

protected:
    void setDescription(std::string description) { description_ = std::move(description); }

private:
    std::string description_;
};

}  // namespace aimwise
