#pragma once
#include <string>

namespace aimwise {

// Where the user has been recently: an application and roughly how many minutes in it.
struct AppMinutes {
    std::string app;
    double approxMinutes = 0;
    bool operator==(const AppMinutes&) const = default;
};

}  // namespace aimwise
