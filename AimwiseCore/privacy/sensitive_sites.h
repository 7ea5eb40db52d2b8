#pragma once
// Recognises financial and medical sites from a host, from text that mentions a host, and from a title,
// so that such a site only ever leaves the machine in a generic form.
#include <array>
#include <optional>
#include <string>
#include <string_view>

namespace aimwise::SensitiveSites {

enum class Category { financial, medical };
std::string_view rawValue(Category category);

extern const std::array<std::string_view, 32> financialDomains;
extern const std::array<std::string_view, 18> medicalDomains;
extern const std::array<std::string_view, 1> medicalHostLabels;
extern const std::array<std::string_view, 16> financialTitlePhrases;
extern const std::array<std::string_view, 13> medicalTitlePhrases;

// The host of a URL, or of "https://" + the text when the text alone has none (e.g. "chase.com/login").
std::optional<std::string> host(const std::string& text);
std::optional<Category> categoryForHost(const std::string& host);
// Any host-like token in free text; host matching is case-insensitive.
std::optional<Category> categoryMentionedIn(const std::string& text);
// Host-like tokens first, then the site names that titles carry (case-sensitive), each through both
// normalised forms of the title.
std::optional<Category> categoryInTitle(const std::string& title);
// What the front of the screen shows, as far as a site can be read from it.
struct FrontOfScreen {
    std::optional<std::string> frontmostApp;
    std::optional<std::string> browserApp;
    std::optional<std::string> browserURL;
    std::optional<std::string> frontmostWindowTitle;
    std::optional<std::string> browserTitle;
};
// Applies only while the browser is the front application.
std::optional<Category> category(const FrontOfScreen& front);

}  // namespace aimwise::SensitiveSites
