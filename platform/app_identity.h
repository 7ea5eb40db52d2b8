#pragma once
// What an X11 window's WM_CLASS says about the application that owns it. The class is the stable
// identity; known browsers get the names the classifier compares browser fields against.
#include <optional>
#include <string>
#include <string_view>

namespace aimwise::AppIdentity {

struct Identity {
    std::string name;      // frontmost_app and windows.owner_name
    std::string bundleId;  // the class itself
    bool operator==(const Identity&) const = default;
};

// The class as WM_CLASS gives it, or the browser's own name; the instance stands in for a
// missing class. Nothing when both are empty.
std::optional<Identity> fromWMClass(std::string_view instance, std::string_view className);

// The browser's name when the class belongs to a known browser.
std::optional<std::string> browserName(std::string_view className);

// The page title without the browser's " - Browser" suffix.
std::string pageTitle(std::string_view browser, std::string_view windowTitle);

}  // namespace aimwise::AppIdentity
