#include "AimwiseCore/privacy/sensitive_sites.h"

#include <gtest/gtest.h>

namespace aimwise {
namespace {

using namespace SensitiveSites;

TEST(HostOf, URLsBareHostsAndNonURLs) {
    EXPECT_EQ(host("https://secure.chase.com/web/auth"), "secure.chase.com");
    EXPECT_EQ(host("  http://user:pw@Example.org:8443/x?y#z \n"), "Example.org");
    EXPECT_EQ(host("chase.com/login"), "chase.com");
    EXPECT_EQ(host("localhost:8080"), "localhost");
    EXPECT_EQ(host("https://[::1]:80/"), "::1");
    EXPECT_EQ(host("mailto:someone@wellsfargo.com"), "wellsfargo.com");
    EXPECT_EQ(host(""), std::nullopt);
    EXPECT_EQ(host("bank of america"), std::nullopt);
    EXPECT_EQ(host("https://host:port/x"), "https") << "re-read with the prefix, the scheme becomes the host";
    EXPECT_EQ(host("file:///etc/hosts"), "file");
    EXPECT_EQ(host("[::1"), std::nullopt);
}

TEST(CategoryForHost, ExactDomainsSubdomainsAndTheMyChartLabel) {
    EXPECT_EQ(categoryForHost("chase.com"), Category::financial);
    EXPECT_EQ(categoryForHost("secure.Chase.COM"), Category::financial);
    EXPECT_EQ(categoryForHost("chase.com."), Category::financial);
    EXPECT_EQ(categoryForHost("notchase.com"), std::nullopt);
    EXPECT_EQ(categoryForHost("chase.com.evil.net"), std::nullopt);
    EXPECT_EQ(categoryForHost("www.cvs.com"), Category::medical);
    EXPECT_EQ(categoryForHost("mychart.example-health.org"), Category::medical);
    EXPECT_EQ(categoryForHost("portal.mychart.anything"), Category::medical);
    EXPECT_EQ(categoryForHost("mycharts.org"), std::nullopt);
    EXPECT_EQ(categoryForHost(".."), std::nullopt);
    EXPECT_EQ(categoryForHost(""), std::nullopt);
}

TEST(CategoryMentionedIn, HostLikeTokensInsideSentences) {
    EXPECT_EQ(categoryMentionedIn("Pay your bill at PayPal.com today"), Category::financial);
    EXPECT_EQ(categoryMentionedIn("Sign in - secure.chase.com - Browser"), Category::financial);
    EXPECT_EQ(categoryMentionedIn("(walgreens.com)."), Category::medical);
    EXPECT_EQ(categoryMentionedIn("open MyChart now"), Category::medical);
    EXPECT_EQ(categoryMentionedIn("chase the dream"), std::nullopt);
    EXPECT_EQ(categoryMentionedIn("paypal"), std::nullopt);
    EXPECT_EQ(categoryMentionedIn("notes.txt and readme.md"), std::nullopt);
    // The first host-like token wins.
    EXPECT_EQ(categoryMentionedIn("cvs.com vs chase.com"), Category::medical);
}

TEST(CategoryInTitle, PhrasesAreCaseSensitiveAndHostsAreNot) {
    EXPECT_EQ(categoryInTitle("Online Banking - Summary"), Category::financial);
    EXPECT_EQ(categoryInTitle("online banking - summary"), std::nullopt);
    EXPECT_EQ(categoryInTitle("Results | Quest Diagnostics"), Category::medical);
    EXPECT_EQ(categoryInTitle("MyUSAAccount"), std::nullopt);
    EXPECT_EQ(categoryInTitle("USAA: Home"), Category::financial);
    EXPECT_EQ(categoryInTitle("CHASE.COM"), Category::financial);
    // Look-alike letters and an invisible character inside a word are seen through.
    EXPECT_EQ(categoryInTitle("\uFF30\uFF41\uFF59\uFF30\uFF41\uFF4C"), Category::financial);
    EXPECT_EQ(categoryInTitle("Pay\u200BPal activity"), Category::financial);
    EXPECT_EQ(categoryInTitle("chase\u200B.com"), std::nullopt);
}

FrontOfScreen browserState() {
    return {.frontmostApp = "Firefox", .browserApp = "Firefox", .browserURL = "https://www.wellsfargo.com/accounts",
            .frontmostWindowTitle = "Accounts", .browserTitle = {}};
}

TEST(CategoryOfState, OnlyWhileTheBrowserIsInFront) {
    EXPECT_EQ(category(browserState()), Category::financial);
    auto behind = browserState();
    behind.frontmostApp = "Terminal";
    EXPECT_EQ(category(behind), std::nullopt);
    auto noApp = browserState();
    noApp.browserApp.reset();
    EXPECT_EQ(category(noApp), std::nullopt);
}

TEST(CategoryOfState, URLThenWindowTitleThenBrowserTitle) {
    auto state = browserState();
    state.browserURL = "https://news.example.com";
    EXPECT_EQ(category(state), std::nullopt);
    state.browserTitle = "Refill - cvs.com";
    EXPECT_EQ(category(state), Category::medical);
    state.frontmostWindowTitle = "venmo.com";
    EXPECT_EQ(category(state), Category::financial);
    // Titles are searched for hosts only; a site name alone is not enough here.
    state.frontmostWindowTitle = "Online Banking";
    state.browserTitle = "Wells Fargo";
    EXPECT_EQ(category(state), std::nullopt);
}

}  // namespace
}  // namespace aimwise
