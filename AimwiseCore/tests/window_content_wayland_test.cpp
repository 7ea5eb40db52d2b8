// Window content on a real wlroots compositor (headless sway): positions are unknown, so the whole
// screen is taken with grim, and any open denylisted window withholds it.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "AimwiseCore/classifier/window_content.h"
#include "AimwiseCore/models/http_session.h"
#include "CaptureShared/signals/signals_reader.h"
#include "platform/desktop_helper.h"
#include "platform/vision_text_recognizer.h"
#include "tests/support/required_tools.h"
#include "tests/support/run_process.h"
#include "tests/support/scoped_environment.h"
#include "tests/support/scripted_model_server.h"
#include "tests/support/signals_fixtures.h"
#include "tests/support/sway_display.h"
#include "tests/support/temp_dir.h"

namespace aimwise {
namespace {

using namespace testing;

// Width and height from a PNG's header, read out of its base64 text.
std::pair<uint32_t, uint32_t> pngSize(const std::string& dataURL) {
    const std::string encoded = dataURL.substr(dataURL.find(',') + 1, 44);
    const std::string alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string bytes;
    uint32_t buffer = 0;
    int bits = 0;
    for (char c : encoded) {
        buffer = buffer << 6 | static_cast<uint32_t>(alphabet.find(c));
        if ((bits += 6) >= 8) bytes += static_cast<char>((buffer >> (bits -= 8)) & 0xFF);
    }
    const auto word = [&](size_t at) {
        return uint32_t(uint8_t(bytes[at])) << 24 | uint32_t(uint8_t(bytes[at + 1])) << 16 |
               uint32_t(uint8_t(bytes[at + 2])) << 8 | uint32_t(uint8_t(bytes[at + 3]));
    };
    return {word(16), word(20)};
}

class WindowContentOnSway : public ::testing::Test {
protected:
    void SetUp() override {
        if (auto missing = SwayDisplay::missing()) GTEST_SKIP() << *missing;
        if (auto missing = missingTools({"grim"})) GTEST_SKIP() << *missing;
        sway_.emplace(dir_ / "sway.log");
        for (const auto& [key, value] : sway_->environment()) environment_.set(key, value);
        environment_.unset("DISPLAY");
        environment_.set(DesktopHelper::helperEnvVar, AIMWISE_BINARY_DIR "/bin/aimwise-desktop");
        environment_.set("TMPDIR", (dir_ / "tmp").string());
        std::filesystem::create_directories(dir_ / "tmp");
        writeFile(dir_ / "ocr", "#!/bin/sh\necho 'make -j2'\n");
        ::chmod((dir_ / "ocr").c_str(), 0755);
        environment_.set(VisionTextRecognizer::helperEnvVar, (dir_ / "ocr").string());
        server_.setHandler("/v1/chat/completions", [](const ScriptedModelServer::Request&) {
            return ScriptedModelServer::Reply::json(200, ScriptedModelServer::completionBody("A terminal."));
        });
    }
    // The capture agent's row for a toplevel: its place unknown.
    void front(const std::string& appId, const std::string& title) {
        signals_.tick(FixtureTick{.tsMs = ++ts_, .frontmostApp = appId, .frontmostBundleId = appId});
        signals_.window(FixtureWindow{.tsMs = ts_, .ownerName = appId, .title = title, .x = {}, .y = {}, .width = {},
                                      .height = {}});
    }
    SignalsReader reader() const { return SignalsReader::open(signals_.path()); }

    ScopedEnvironment environment_;
    TempDir dir_;
    std::optional<SwayDisplay> sway_;
    SignalsFixture signals_{dir_ / "signals.sqlite"};
    ScriptedModelServer server_{ScriptedModelServer::Transport::tcp};
    HTTPSession session_;
    int64_t ts_ = 1000;
};

TEST_F(WindowContentOnSway, TheWholeScreenIsTakenWhenTheFrontWindowsPlaceIsUnknown) {
    const auto shell = sway_->terminal("alpha", "make -j2");
    front("alpha", "make -j2");
    const ProcessResult listing = runProcess(AIMWISE_BINARY_DIR "/bin/aimwise-desktop", {"windows"});
    EXPECT_EQ(listing.standardOutput, "-\t-\t-\t-\talpha\talpha\n") << listing.standardError;

    ASSERT_EQ(WindowContentReader::frontmostWindowBounds(reader()), std::nullopt);
    EXPECT_EQ(contentMustBeWithheldForDenylist(reader()), std::nullopt);
    const auto parts = captureLiveWindowContentParts(reader(), std::nullopt,
                                                     {"describe-model", "Describe.", server_.chatURL(), 150}, session_);
    ASSERT_TRUE(parts);
    EXPECT_EQ(parts->ocrText, "make -j2\n");
    EXPECT_EQ(parts->textSource, WindowContentReader::TextSource::ocr);
    const std::string url = server_.requests("/v1/chat/completions").at(0).json()["messages"][0]["content"][1]["image_url"]["url"];
    EXPECT_EQ(pngSize(url), (std::pair<uint32_t, uint32_t>{1280, 800}));
    EXPECT_EQ(std::filesystem::directory_iterator(dir_ / "tmp"), std::filesystem::directory_iterator());
}

TEST_F(WindowContentOnSway, AnyOpenDenylistedWindowWithholdsAndAFrontOneIsNamedFirst) {
    const auto shell = sway_->terminal("alpha", "notes");
    front("alpha", "notes");
    {
        const auto vault = sway_->terminal("KeePassXC", "Passwords.kdbx");
        front("alpha", "notes");
        EXPECT_EQ(contentMustBeWithheldForDenylist(reader()), ContentWithheldReason::anotherDenylistedAppWindowVisible);
        front("KeePassXC", "Passwords.kdbx");
        EXPECT_EQ(contentMustBeWithheldForDenylist(reader()), ContentWithheldReason::frontmostAppDenylisted);
    }
    // Closed: nothing holds the picture back any more.
    front("alpha", "notes");
    for (int i = 0; i < 50 && contentMustBeWithheldForDenylist(reader()); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(contentMustBeWithheldForDenylist(reader()), std::nullopt);

    // A compositor that cannot be reached lists nothing, and then nothing can be ruled out.
    environment_.set("WAYLAND_DISPLAY", "wayland-absent");
    EXPECT_THROW(contentMustBeWithheldForDenylist(reader()), WindowListUnavailable);
}

}  // namespace
}  // namespace aimwise
