#pragma once
// A read of an optional log that tells a missing file apart from one that failed to read.
#include <exception>
#include <filesystem>
#include <string>
#include <system_error>
#include <variant>

namespace aimwise::LogFileRead {

struct Unreadable {
    std::exception_ptr error;
    std::string description;
};
struct Absent {};

template <typename Value>
using Outcome = std::variant<Value, Unreadable, Absent>;

std::string describe(const std::exception_ptr& error);

template <typename Read>
auto attempt(const std::filesystem::path& at, Read&& read) -> Outcome<decltype(read(at))> {
    try {
        return read(at);
    } catch (...) {
        std::error_code ignored;
        // The error only matters when there was a file to fail on.
        if (std::filesystem::exists(at, ignored)) {
            auto error = std::current_exception();
            return Unreadable{error, describe(error)};
        }
        return Absent{};
    }
}

inline std::string describe(const std::exception_ptr& error) {
    try {
        std::rethrow_exception(error);
    } catch (const std::exception& caught) {
        return caught.what();
    } catch (...) {
        return "unknown error";
    }
}

}  // namespace aimwise::LogFileRead
