// Historical window content: each way a past window can stay unread, and a frame read through the
// same text recognition helper as a live judgment.
#include <gtest/gtest.h>

#include "AimwiseCore/classifier/historical_window_content.h"
#include "CaptureShared/signals/signals_reader.h"
#include "platform/vision_text_recognizer.h"
#include "tests/support/fake_clock.h"
#include "tests/support/scoped_environment.h"
#include "tests/support/signals_fixtures.h"
#include "tests/support/temp_dir.h"

namespace aimwise {
namespace {

namespace fs = std::filesystem;
using Failure = HistoricalWindowContent::Failure;

constexpr int64_t T = 1'782'898'215'000;

class FakeArchive final : public FrameArchive {
public:
    Frame frame = Image{"png bytes", T - 500};
    mutable std::vector<std::tuple<int, int64_t, int64_t>> asked;
    mutable std::optional<ScreenRect> cropped;

    Frame frameNear(int display, int64_t tsMs, int64_t searchLimitMs, const ScreenRect& crop) const override {
        asked.emplace_back(display, tsMs, searchLimitMs);
        cropped = crop;
        return frame;
    }
    bool hasFrameNear(int, int64_t, int64_t) const override { return true; }
};

class HistoricalWindowContentTest : public ::testing::Test {
protected:
    HistoricalWindowContentTest() : fixture(dir / "signals.sqlite") {
        fixture.tick({.tsMs = T, .frontmostApp = "Editor"});
        fixture.window({.tsMs = T, .ownerName = "Editor", .title = "notes.txt", .x = 10, .y = 20, .width = 640, .height = 480});
        // The helper copies the image it is given aside, to show what it read and that it was private.
    useHelper("cp \"$1\" " + (dir / "seen.png").string() + "; printf %s \"$1\" >" + (dir / "seen-path").string() +
              "; printf 'Weekly plan\\nCall the dentist\\n'");
    }
    // The OCR helper is a script, so the test needs no image.
    void useHelper(const std::string& body) {
        const fs::path helper = dir / "ocr-helper";
        testing::writeFile(helper, "#!/bin/sh\n" + body + "\n");
        fs::permissions(helper, fs::perms::owner_all);
        environment.set(VisionTextRecognizer::helperEnvVar, helper.string());
    }
    HistoricalWindowContent::Outcome reconstruct(const std::string& owner = "Editor") {
        const SignalsReader reader = SignalsReader::open(dir / "signals.sqlite");
        return HistoricalWindowContent::reconstructDetailed(reader, T, owner, 1, {}, archive, clock);
    }
    static std::optional<Failure> failure(const HistoricalWindowContent::Outcome& outcome) {
        if (const auto* blind = std::get_if<HistoricalWindowContent::Blind>(&outcome)) return blind->failure;
        return std::nullopt;
    }

    testing::TempDir dir;
    testing::SignalsFixture fixture;
    testing::ScopedEnvironment environment;
    testing::FakeClock clock;
    FakeArchive archive;
};

TEST_F(HistoricalWindowContentTest, ReadsTheFrameCutToTheRecordedWindowAndLeavesNoFile) {
    const auto outcome = reconstruct();
    const auto* sighted = std::get_if<HistoricalWindowContent::Sighted>(&outcome);
    ASSERT_TRUE(sighted);
    EXPECT_EQ(sighted->ocrText, "Weekly plan\nCall the dentist\n");
    EXPECT_EQ(sighted->frameAtMs, T - 500);
    EXPECT_EQ(archive.asked, (std::vector<std::tuple<int, int64_t, int64_t>>{{1, T, 1'800'000}}));
    EXPECT_EQ(archive.cropped, (ScreenRect{10, 20, 640, 480}));
    EXPECT_EQ(testing::readFile(dir / "seen.png"), "png bytes");
    EXPECT_FALSE(fs::exists(testing::readFile(dir / "seen-path")));
    EXPECT_EQ(fs::status(dir / "seen.png").permissions() & fs::perms::all, fs::perms::owner_read | fs::perms::owner_write);
}

TEST_F(HistoricalWindowContentTest, EachFailureHasItsClass) {
    EXPECT_EQ(failure(reconstruct("Mail")), Failure::noRecordedWindowBounds);
    EXPECT_TRUE(archive.asked.empty());

    archive.frame = FrameArchive::NoFrameNear{};
    EXPECT_EQ(failure(reconstruct()), Failure::noSidecarFrameNearby);
    archive.frame = FrameArchive::PredatesSidecar{};
    EXPECT_EQ(failure(reconstruct()), Failure::unsupportedEra);
    archive.frame = FrameArchive::Failed{"frame 42 did not decode"};
    EXPECT_EQ(failure(reconstruct()), Failure::extractionFailed);

    archive.frame = FrameArchive::Image{"png", T};
    for (const char* helper : {"exit 4", "printf '  \\n'", "sleep 30"}) {
        useHelper(helper);
        const SignalsReader reader = SignalsReader::open(dir / "signals.sqlite");
        const auto outcome =
            HistoricalWindowContent::reconstructDetailed(reader, T, "Editor", 1, {.timeoutSec = 0.5}, archive, clock);
        EXPECT_EQ(failure(outcome), Failure::extractionFailed) << helper;
    }
}

TEST_F(HistoricalWindowContentTest, ADataRootWithoutAReadableRecordingHasNoFrameNearby) {
    const auto none = FrameArchive::forDataRoot(dir.path());
    const SignalsReader reader = SignalsReader::open(dir / "signals.sqlite");
    const auto outcome = HistoricalWindowContent::reconstructDetailed(reader, T, "Editor", 1, {}, *none, clock);
    EXPECT_EQ(failure(outcome), Failure::noSidecarFrameNearby);
}

}  // namespace
}  // namespace aimwise
