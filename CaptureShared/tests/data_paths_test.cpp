#include "CaptureShared/dataroot/data_paths.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <nlohmann/json.hpp>

#include "CaptureShared/dataroot/agent_config.h"
#include "tests/support/scoped_environment.h"
#include "tests/support/temp_dir.h"

namespace aimwise {

namespace fs = std::filesystem;
namespace {

using testing::readFile;
using testing::writeFile;

class DataPathsTest : public ::testing::Test {
protected:
    void SetUp() override {
        env.set("HOME", home.string());
        env.unset("XDG_DATA_HOME");
        env.unset("AIMCAP_DATA_ROOT");
        DataPaths::setConfigPathOverrideForTesting(std::nullopt);
        DataPaths::invalidateConfigCache();
        fs::create_directories(home);
    }
    void TearDown() override { DataPaths::invalidateConfigCache(); }

    fs::path config() const { return home / ".local/share/AimCapture/config.json"; }

    testing::TempDir dir;
    testing::ScopedEnvironment env;
    fs::path home = dir / "home";
};

TEST_F(DataPathsTest, EnvironmentRootThatIsAbsentIsReturnedButNeverCreated) {
    const fs::path absent = dir / "Volumes" / "Capture";
    env.set("AIMCAP_DATA_ROOT", absent.string());
    writeFile(config(), R"({"dataRoot": "/somewhere/else"})");

    EXPECT_EQ(DataPaths::dataRoot(), absent);
    EXPECT_EQ(DataPaths::dataRootSource(), DataPaths::RootSource::environment);
    EXPECT_FALSE(DataPaths::isDataRootAvailable());
    EXPECT_EQ(DataPaths::dataRootUnavailableReason(), "configured data root (" + absent.string() + ") isn't mounted");
    EXPECT_NO_THROW(DataPaths::ensureSubdirsExist());
    EXPECT_FALSE(fs::exists(dir / "Volumes"));
    EXPECT_EQ(DataPaths::signalsDB(), absent / "signals.sqlite");
}

TEST_F(DataPathsTest, UnconfiguredRootIsNeverAvailableEvenIfSomeoneMadeIt) {
    EXPECT_EQ(DataPaths::dataRootSource(), DataPaths::RootSource::unconfigured);
    EXPECT_EQ(DataPaths::dataRoot(), config().parent_path() / "no-data-root-configured");
    fs::create_directories(DataPaths::dataRoot());
    EXPECT_FALSE(DataPaths::isDataRootAvailable());
    EXPECT_EQ(DataPaths::dataRootUnavailableReason(),
              "no data root configured yet — run first-run setup or choose one in Settings");
    DataPaths::ensureSubdirsExist();
    EXPECT_FALSE(fs::exists(DataPaths::dataRoot() / "io-layer"));
}

TEST_F(DataPathsTest, ConfiguredRootIsTrimmedAndTildeExpanded) {
    writeFile(config(), "{\"dataRoot\": \"  ~/Capture\\n\"}");
    EXPECT_EQ(DataPaths::dataRoot(), home / "Capture");
    EXPECT_EQ(DataPaths::dataRootSource(), DataPaths::RootSource::configFile);

    fs::create_directories(home / "Capture");
    EXPECT_TRUE(DataPaths::isDataRootAvailable());
    DataPaths::ensureSubdirsExist();
    struct stat info {};
    ASSERT_EQ(::stat((home / "Capture/io-layer").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0700u);
    EXPECT_TRUE(fs::is_directory(home / "Capture/video"));
}

TEST_F(DataPathsTest, BlankOrNonStringRootCountsAsUnset) {
    for (const char* contents : {R"({"dataRoot": "   "})", R"({"dataRoot": 7})", "[]", "garbage"}) {
        writeFile(config(), contents);
        DataPaths::invalidateConfigCache();
        EXPECT_EQ(DataPaths::dataRootSource(), DataPaths::RootSource::unconfigured) << contents;
    }
    EXPECT_TRUE(DataPaths::configFileExistsButFailedToParse());
}

TEST_F(DataPathsTest, FileIsReadOnceUntilTheCacheIsDropped) {
    writeFile(config(), R"({"dataRoot": "/first"})");
    EXPECT_EQ(DataPaths::dataRoot(), "/first");
    writeFile(config(), R"({"dataRoot": "/second"})");
    EXPECT_EQ(DataPaths::dataRoot(), "/first");
    DataPaths::invalidateConfigCache();
    EXPECT_EQ(DataPaths::dataRoot(), "/second");
}

TEST_F(DataPathsTest, SetConfiguredRootKeepsEverythingElseAndResetsTheCache) {
    writeFile(config(), "");
    EXPECT_EQ(DataPaths::dataRoot().filename(), "no-data-root-configured");
    static int notified = 0;
    DataPaths::onRootDidChange([] { ++notified; });

    DataPaths::setConfiguredRoot(dir / "root");
    EXPECT_EQ(DataPaths::dataRoot(), dir / "root");
    EXPECT_EQ(notified, 1);

    AgentConfig::setEnvValue("m", "AIMCAP_MODEL");
    DataPaths::setConfiguredRoot(dir / "other");
    const auto top = nlohmann::json::parse(readFile(config()));
    EXPECT_EQ(top["dataRoot"], (dir / "other").string());
    EXPECT_EQ(top["env"]["AIMCAP_MODEL"], "m");
}

TEST_F(DataPathsTest, SharedContainersAreNeverTightened) {
    EXPECT_TRUE(DataPaths::isSharedContainerRoot("/", home));
    EXPECT_TRUE(DataPaths::isSharedContainerRoot(home, home));
    EXPECT_TRUE(DataPaths::isSharedContainerRoot("/proc", home));  // a mount point
    const fs::path adopted = dir / "adopted";
    fs::create_directories(adopted);
    fs::permissions(adopted, fs::perms::all);
    EXPECT_FALSE(DataPaths::isSharedContainerRoot(adopted, home));
    DataPaths::hardenAdoptedRoot(adopted, home);
    EXPECT_EQ(fs::status(adopted).permissions() & fs::perms::all, fs::perms::owner_all);
}

TEST_F(DataPathsTest, SupportDirectoryFollowsXdg) {
    env.set("XDG_DATA_HOME", (dir / "xdg").string());
    EXPECT_EQ(DataPaths::supportDir(), dir / "xdg" / "AimCapture");
    EXPECT_EQ(DataPaths::callHoldOverride(), dir / "xdg" / "AimCapture" / "call-hold-override.json");
    env.set("XDG_DATA_HOME", "relative/ignored");
    EXPECT_EQ(DataPaths::supportDir(), home / ".local/share/AimCapture");
}

}  // namespace
}  // namespace aimwise
