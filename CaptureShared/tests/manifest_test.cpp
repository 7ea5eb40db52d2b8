#include "CaptureShared/dataroot/manifest.h"

#include <gtest/gtest.h>

#include "CaptureShared/dataroot/executable_path.h"
#include "tests/support/temp_dir.h"

namespace aimwise {
namespace {

TEST(ManifestTest, RoundTripsThroughTheDataRoot) {
    testing::TempDir dir;
    const Manifest manifest = Manifest::make(dir.path().string(), 1.0, 2.5, 1920, 1795327944123);
    EXPECT_EQ(manifest.startedAt, "2026-11-22T06:12:24Z");
    manifest.write(dir.path());
    EXPECT_EQ(Manifest::read(dir.path()), manifest);
}

TEST(ManifestTest, AnythingElseIsNoManifest) {
    for (const char* text : {"", "[]", "{}", R"({"schemaVersion": "1"})", "{\"schemaVersion\": 1,"})
        EXPECT_EQ(Manifest::fromJSON(text), std::nullopt) << text;
    testing::TempDir dir;
    EXPECT_EQ(Manifest::read(dir.path()), std::nullopt);
}

TEST(ExecutablePathTest, ResolvesThisProgramAndItsDirectory) {
    const auto self = ExecutablePath::resolveSelf();
    EXPECT_TRUE(self.is_absolute());
    EXPECT_TRUE(std::filesystem::is_regular_file(self));
    EXPECT_EQ(self.filename(), "CaptureShared_manifest_test");
    EXPECT_EQ(ExecutablePath::siblingDirectory(self), self.parent_path());
}

}  // namespace
}  // namespace aimwise
