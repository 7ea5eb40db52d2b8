#include "CaptureShared/dataroot/agent_logging.h"

#include <gtest/gtest.h>

#include "tests/support/scoped_environment.h"
#include "tests/support/temp_dir.h"

namespace aimwise {
namespace {

namespace fs = std::filesystem;
using testing::readFile;
using testing::writeFile;

class AgentLoggingTest : public ::testing::Test {
protected:
    void SetUp() override { env.set("XDG_STATE_HOME", dir.path().string()); }
    testing::TempDir dir;
    testing::ScopedEnvironment env;
};

TEST_F(AgentLoggingTest, LogLivesUnderTheStateDirectory) {
    EXPECT_EQ(AgentLogging::logURL("AimwiseCoach", "classifier"), dir / "AimwiseCoach" / "classifier.log");
    EXPECT_EQ(AgentLogging::rotatedURL(dir / "a.log"), dir / "a.log.1");
}

TEST_F(AgentLoggingTest, RotatesAtTheCapExactlyAndKeepsOneGeneration) {
    const fs::path log = AgentLogging::logURL("Agents", "capture");
    writeFile(log.string() + ".1", "oldest");
    writeFile(log, std::string(99, 'a'));
    AgentLogging::rotateIfNeeded("Agents", "capture", 100);
    EXPECT_EQ(readFile(log), std::string(99, 'a'));

    writeFile(log, std::string(100, 'b'));
    AgentLogging::rotateIfNeeded("Agents", "capture", 100);
    EXPECT_EQ(readFile(log.string() + ".1"), std::string(100, 'b'));
    EXPECT_EQ(readFile(log),
              "[AgentLogging] log rotated at 100 bytes (cap 100) — previous generation is capture.log.1. A child "
              "process that inherited this log before the rotation keeps writing to that older file until it "
              "restarts.\n");
}

TEST_F(AgentLoggingTest, OnlyTheServiceManagerCausesRedirection) {
    EXPECT_TRUE(AgentLogging::startedByServiceManager(1, {}));
    EXPECT_TRUE(AgentLogging::startedByServiceManager(4242, {{"INVOCATION_ID", "abc"}}));
    EXPECT_FALSE(AgentLogging::startedByServiceManager(4242, {{"HOME", "/root"}}));
}

}  // namespace
}  // namespace aimwise
