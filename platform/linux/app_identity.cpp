#include "platform/app_identity.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <initializer_list>

namespace aimwise::AppIdentity {

namespace {

struct KnownBrowser {
    std::string_view name;
    std::initializer_list<std::string_view> classes;   // lowercase
    std::initializer_list<std::string_view> suffixes;  // longest first
};

// Firefox titles end in an em dash on current releases and a hyphen on older ones.
const std::array<KnownBrowser, 6> browsers{{
    {"Firefox",
     {"firefox", "firefox-esr", "navigator"},
     {" \u2014 Mozilla Firefox Private Browsing", " - Mozilla Firefox Private Browsing", " \u2014 Mozilla Firefox",
      " - Mozilla Firefox", " \u2014 Firefox", " - Firefox"}},
    {"Chromium", {"chromium", "chromium-browser"}, {" - Chromium"}},
    {"Google Chrome", {"google-chrome", "google-chrome-beta", "google-chrome-unstable"}, {" - Google Chrome"}},
    {"Brave Browser", {"brave-browser", "brave-browser-beta"}, {" - Brave"}},
    {"Vivaldi", {"vivaldi-stable", "vivaldi", "vivaldi-snapshot"}, {" - Vivaldi"}},
    {"Epiphany", {"epiphany", "org.gnome.epiphany"}, {" \u2014 Web", " - Web"}},
}};

std::string lowercase(std::string_view text) {
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(), [](unsigned char c) { return std::tolower(c); });
    return out;
}

}  // namespace

std::optional<std::string> browserName(std::string_view className) {
    const std::string lower = lowercase(className);
    for (const auto& browser : browsers)
        for (std::string_view known : browser.classes)
            if (lower == known) return std::string(browser.name);
    return std::nullopt;
}

std::optional<Identity> fromWMClass(std::string_view instance, std::string_view className) {
    const std::string_view identity = className.empty() ? instance : className;
    if (identity.empty()) return std::nullopt;
    if (auto browser = browserName(identity)) return Identity{*browser, std::string(identity)};
    return Identity{std::string(identity), std::string(identity)};
}

std::string pageTitle(std::string_view browser, std::string_view windowTitle) {
    for (const auto& known : browsers) {
        if (known.name != browser) continue;
        for (std::string_view suffix : known.suffixes)
            if (windowTitle.size() > suffix.size() && windowTitle.ends_with(suffix))
                return std::string(windowTitle.substr(0, windowTitle.size() - suffix.size()));
        // A browser showing only its own name has no page title.
        for (std::string_view suffix : known.suffixes)
            if (windowTitle == suffix.substr(suffix.find(' ', 1) + 1)) return {};
    }
    return std::string(windowTitle);
}

}  // namespace aimwise::AppIdentity
