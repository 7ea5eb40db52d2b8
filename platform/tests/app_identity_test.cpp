#include "platform/app_identity.h"

#include <gtest/gtest.h>

namespace aimwise {
namespace {

TEST(AppIdentityTest, TheClassIsTheIdentityAndKnownBrowsersGetTheirNames) {
    EXPECT_EQ(AppIdentity::fromWMClass("code", "Code"), (AppIdentity::Identity{"Code", "Code"}));
    EXPECT_EQ(AppIdentity::fromWMClass("Navigator", "firefox-esr"), (AppIdentity::Identity{"Firefox", "firefox-esr"}));
    EXPECT_EQ(AppIdentity::fromWMClass("google-chrome", "Google-chrome"),
              (AppIdentity::Identity{"Google Chrome", "Google-chrome"}));
    EXPECT_EQ(AppIdentity::fromWMClass("brave-browser", "Brave-browser")->name, "Brave Browser");
    EXPECT_EQ(AppIdentity::fromWMClass("vivaldi-stable", "Vivaldi-stable")->name, "Vivaldi");
    EXPECT_EQ(AppIdentity::fromWMClass("epiphany", "Org.gnome.Epiphany")->name, "Epiphany");
    // A client that set only its instance still has an identity; one with neither has none.
    EXPECT_EQ(AppIdentity::fromWMClass("scratch", ""), (AppIdentity::Identity{"scratch", "scratch"}));
    EXPECT_EQ(AppIdentity::fromWMClass("", ""), std::nullopt);
    EXPECT_EQ(AppIdentity::browserName("Codium"), std::nullopt);
}

TEST(AppIdentityTest, PageTitlesLoseOnlyTheirOwnBrowsersSuffix) {
    EXPECT_EQ(AppIdentity::pageTitle("Firefox", "Inbox \u2014 Mozilla Firefox"), "Inbox");
    EXPECT_EQ(AppIdentity::pageTitle("Firefox", "Inbox - Mozilla Firefox"), "Inbox");
    EXPECT_EQ(AppIdentity::pageTitle("Firefox", "Inbox \u2014 Mozilla Firefox Private Browsing"), "Inbox");
    EXPECT_EQ(AppIdentity::pageTitle("Chromium", "A - B - Chromium"), "A - B");
    EXPECT_EQ(AppIdentity::pageTitle("Google Chrome", "Docs - Google Chrome"), "Docs");
    EXPECT_EQ(AppIdentity::pageTitle("Brave Browser", "News - Brave"), "News");
    EXPECT_EQ(AppIdentity::pageTitle("Vivaldi", "Mail - Vivaldi"), "Mail");
    // Another browser's suffix is part of the page's own title.
    EXPECT_EQ(AppIdentity::pageTitle("Chromium", "Why - Google Chrome"), "Why - Google Chrome");
    EXPECT_EQ(AppIdentity::pageTitle("Epiphany", "Plain page"), "Plain page");
    // A window showing only the browser's name has no page in it.
    EXPECT_EQ(AppIdentity::pageTitle("Firefox", "Mozilla Firefox"), "");
    EXPECT_EQ(AppIdentity::pageTitle("Chromium", "Chromium"), "");
}

}  // namespace
}  // namespace aimwise
