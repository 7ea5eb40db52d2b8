#include "CaptureShared/dataroot/agent_config.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <functional>
#include <nlohmann/json.hpp>

#include "CaptureShared/dataroot/model_provisioning.h"
#include "tests/support/scoped_environment.h"
#include "tests/support/temp_dir.h"

namespace aimwise {

namespace fs = std::filesystem;
namespace {

using testing::readFile;
using testing::writeFile;

class AgentConfigTest : public ::testing::Test {
protected:
    void SetUp() override {
        env.set("HOME", dir.path().string());
        env.unset("XDG_DATA_HOME");
        env.unset("AIMCAP_DATA_ROOT");
        DataPaths::setConfigPathOverrideForTesting(config);
    }
    void TearDown() override { DataPaths::setConfigPathOverrideForTesting(std::nullopt); }

    std::string renderedFailure(const std::function<void()>& write) {
        try {
            write();
        } catch (const ConfigWriteError& error) {
            return error.description();
        }
        return "";
    }

    testing::TempDir dir;
    testing::ScopedEnvironment env;
    fs::path config = dir / "support" / "config.json";
};

TEST_F(AgentConfigTest, ParseSortsAllowedStringsFromEverythingElse) {
    const auto result = AgentConfig::parse(R"({"env": {"AIMCAP_MODEL": "m", "AIMCAP_LAYER3": 1,
        "NOT_A_KEY": "x", "AIMCAP_DATA_ROOT": "/elsewhere", "AIMCHECK_MODEL": "c"}, "other": true})");
    EXPECT_EQ(result.parseError, std::nullopt);
    EXPECT_EQ(result.settings, (std::map<std::string, std::string>{{"AIMCAP_MODEL", "m"}, {"AIMCHECK_MODEL", "c"}}));
    // A number for an allowed key and the data root (environment-only) are reported, never applied.
    EXPECT_EQ(result.unknownKeys, (std::vector<std::string>{"AIMCAP_DATA_ROOT", "AIMCAP_LAYER3", "NOT_A_KEY"}));
}

TEST_F(AgentConfigTest, ParseNamesWhatIsWrongAndKeepsNothing) {
    EXPECT_EQ(AgentConfig::parse("{\"env\":{\"AIMCAP_MODEL\":\"\xff\"}}").parseError, "config is not valid UTF-8");
    EXPECT_EQ(AgentConfig::parse("{\"env\": ").parseError, "config is not valid JSON");
    EXPECT_EQ(AgentConfig::parse("[]").parseError, "config must be a JSON object");
    EXPECT_EQ(AgentConfig::parse(R"({"env": ["AIMCAP_MODEL"]})").parseError,
              "\"env\" must be an object of string values");
    const auto bad = AgentConfig::parse(R"({"env": 3})");
    EXPECT_TRUE(bad.settings.empty());
    EXPECT_TRUE(bad.unknownKeys.empty());
    EXPECT_EQ(AgentConfig::parse(" \n\t ").parseError, std::nullopt);
    EXPECT_EQ(AgentConfig::parse(R"({"dataRoot": "/x"})"), AgentConfig::ParseResult{});
    EXPECT_EQ(AgentConfig::load(dir / "missing.json"), AgentConfig::ParseResult{});
}

TEST_F(AgentConfigTest, RealEnvironmentWinsButEmptyCountsAsUnset) {
    writeFile(config, R"({"env": {"AIMCAP_MODEL": "from-file", "AIMCAP_LAYER3": "1", "AIMCHECK_MODEL": "file-model"}})");
    env.set("AIMCAP_MODEL", "from-environment");
    env.set("AIMCAP_LAYER3", "");
    env.unset("AIMCHECK_MODEL");

    const auto applied = AgentConfig::bootstrapProcessEnvironment(std::nullopt, std::nullopt);

    EXPECT_EQ(applied, (std::vector<std::string>{"AIMCAP_LAYER3", "AIMCHECK_MODEL"}));
    EXPECT_STREQ(std::getenv("AIMCAP_MODEL"), "from-environment");
    EXPECT_STREQ(std::getenv("AIMCAP_LAYER3"), "1");
    EXPECT_STREQ(std::getenv("AIMCHECK_MODEL"), "file-model");
}

TEST_F(AgentConfigTest, BuildCarriedKeyIsTheLastResort) {
    env.unset("OPENROUTER_API_KEY");
    writeFile(config, R"({"env": {"OPENROUTER_API_KEY": "file-key"}})");
    AgentConfig::bootstrapProcessEnvironment(std::nullopt, std::string("  baked-key \n"));
    EXPECT_STREQ(std::getenv("OPENROUTER_API_KEY"), "file-key");

    env.unset("OPENROUTER_API_KEY");
    writeFile(config, "{}");
    EXPECT_EQ(AgentConfig::bootstrapProcessEnvironment(std::nullopt, std::string("  baked-key \n")),
              std::vector<std::string>{"OPENROUTER_API_KEY"});
    EXPECT_STREQ(std::getenv("OPENROUTER_API_KEY"), "baked-key");

    env.set("OPENROUTER_API_KEY", "real");
    EXPECT_TRUE(AgentConfig::bootstrapProcessEnvironment(std::nullopt, std::string("baked")).empty());
    EXPECT_STREQ(std::getenv("OPENROUTER_API_KEY"), "real");
}

TEST_F(AgentConfigTest, MalformedFileIsHarmlessToAgents) {
    writeFile(config, "{not json");
    env.unset("AIMCAP_MODEL");
    EXPECT_TRUE(AgentConfig::bootstrapProcessEnvironment().empty());
    EXPECT_EQ(std::getenv("AIMCAP_MODEL"), nullptr);
}

TEST_F(AgentConfigTest, WritersRefuseMalformedFilesAndLeaveThemByteForByte) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"[]", "config must be a JSON object"},
        {"{\"env\": {}, \"x\": \"\xc3\x28\"}", "config is not valid UTF-8"},
        {"{\"env\": ", "config is not valid JSON"},
        {" \n\t ", "config is not valid JSON"},
    };
    for (const auto& [contents, reason] : cases) {
        writeFile(config, contents);
        const std::string message = renderedFailure([&] { AgentConfig::setEnvSettings({{"AIMCAP_MODEL", "m"}}); });
        EXPECT_EQ(message, config.string() + " is malformed (" + reason +
                               ") — refusing to save, so nothing already in it is lost. Fix it by hand, or delete it "
                               "and reconfigure.");
        EXPECT_NE(renderedFailure([&] { AgentConfig::setEnvValue("v", "AIMCAP_MODEL"); }), "");
        EXPECT_NE(renderedFailure([&] { DataPaths::setConfiguredRoot(dir / "root"); }), "");
        EXPECT_EQ(readFile(config), contents);
    }
}

TEST_F(AgentConfigTest, UnsupportedKeysAreRefusedBeforeAnythingIsWritten) {
    EXPECT_EQ(renderedFailure([&] { AgentConfig::setEnvValue("x", "AIMCAP_DATA_ROOT"); }),
              "AIMCAP_DATA_ROOT isn't a setting this file can apply, so writing it would look configured and do "
              "nothing.");
    EXPECT_EQ(renderedFailure([&] { AgentConfig::setEnvSettings({{"B_KEY", "1"}, {"A_KEY", "2"}, {"AIMCAP_MODEL", "m"}}); }),
              "A_KEY, B_KEY aren't settings this file can apply, so writing them would look configured and do "
              "nothing.");
    EXPECT_FALSE(fs::exists(config));
}

TEST_F(AgentConfigTest, RewritesKeepForeignKeysAndArePrivate) {
    writeFile(config, R"({"dataRoot": "/Volumes/x", "future": {"a": [1, 2]}, "env": {"AIMCAP_MODEL": "old"}})");
    AgentConfig::setEnvValue("  new-model \n", "AIMCAP_MODEL");
    AgentConfig::setEnvValue("1", "AIMCAP_LAYER3");
    AgentConfig::setEnvValue("   ", "AIMCAP_LAYER3");

    const auto top = nlohmann::json::parse(readFile(config));
    EXPECT_EQ(top["dataRoot"], "/Volumes/x");
    EXPECT_EQ(top["future"], nlohmann::json::parse(R"({"a": [1, 2]})"));
    EXPECT_EQ(top["env"], nlohmann::json::parse(R"({"AIMCAP_MODEL": "new-model"})"));
    struct stat info {};
    ASSERT_EQ(::stat(config.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);
}

TEST_F(AgentConfigTest, SeedingAddsOnlyWhatIsAbsentAndFollowsMemory) {
    writeFile(config, R"({"env": {"AIMCAP_MODEL_BACKEND": "mine"}})");
    const uint64_t gib = 1024ULL * 1024 * 1024;
    const auto added = AgentConfig::seedDefaultEnvIfAbsent(std::nullopt, 8 * gib);
    EXPECT_EQ(added, (std::vector<std::string>{"AIMCAP_GATE_LOG", "AIMCAP_LAYER3", "AIMCAP_MAIN_WINDOW_CLOSE_EVENT",
                                               "AIMCAP_OFFLINE_MODE", "AIMCAP_REASONING_EFFORT", "AIMCHECK_MODEL"}));
    const auto settings = AgentConfig::load().settings;
    EXPECT_EQ(settings.at("AIMCAP_MODEL_BACKEND"), "mine");
    EXPECT_EQ(settings.at("AIMCHECK_MODEL"), *ModelProvisioning::recommendedDefaultModel(8 * gib));
    EXPECT_TRUE(AgentConfig::seedDefaultEnvIfAbsent(std::nullopt, 64 * gib).empty());

    // Too little memory for any local model: nothing is named rather than something that won't run.
    fs::remove(config);
    AgentConfig::seedDefaultEnvIfAbsent(std::nullopt, 4 * gib);
    EXPECT_FALSE(AgentConfig::load().settings.contains("AIMCHECK_MODEL"));
}

TEST_F(AgentConfigTest, ExampleIsWrittenOnceWithItsReadme) {
    EXPECT_TRUE(AgentConfig::writeExampleIfAbsent());
    EXPECT_FALSE(AgentConfig::writeExampleIfAbsent());
    const auto top = nlohmann::json::parse(readFile(config));
    ASSERT_EQ(top.size(), 2u);
    EXPECT_EQ(top["_readme"].size(), 11u);
    EXPECT_EQ(top["_readme"][4], "");
    EXPECT_EQ(top["_readme"][8], "");
    EXPECT_EQ(top["env"]["AIMCHECK_MODEL"], "gemma4:12b-it-qat");
    EXPECT_EQ(AgentConfig::load().settings.size(), 7u);
}

TEST_F(AgentConfigTest, MissingKeysLooksAtSettingsThenEnvironment) {
    const std::map<std::string, std::string> settings = {{"A", "1"}, {"B", ""}};
    EXPECT_EQ(AgentConfig::missingKeys({"C", "A", "B", "D"}, settings, {{"D", "x"}, {"C", ""}}),
              (std::vector<std::string>{"C", "B"}));
}

TEST_F(AgentConfigTest, RedactedSuffixShowsTheTailOfLongValuesOnly) {
    EXPECT_EQ(AgentConfig::redactedSuffix(std::nullopt), std::nullopt);
    EXPECT_EQ(AgentConfig::redactedSuffix(std::string()), std::nullopt);
    EXPECT_EQ(AgentConfig::redactedSuffix(std::string("1234567")), "…");
    EXPECT_EQ(AgentConfig::redactedSuffix(std::string("12345678")), "…5678");
    EXPECT_EQ(AgentConfig::redactedSuffix(std::string("sk-ééééé-€€€€")), "…€€€€");
}

}  // namespace
}  // namespace aimwise
