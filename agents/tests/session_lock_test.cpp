#include "agents/capture/session_lock.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/support/temp_dir.h"

namespace aimwise {
namespace {

using testing::readFile;
using testing::TempDir;
using testing::writeFile;

// A stand-in for loginctl that logs its arguments and prints what the test put in `answer`.
struct FakeLoginctl {
    TempDir dir;
    std::filesystem::path script = dir / "loginctl";
    FakeLoginctl() {
        writeFile(script, "#!/bin/sh\necho \"$*\" >> '" + (dir / "calls").string() + "'\ncat '" +
                              (dir / "answer").string() + "' || exit 1\n");
        chmod(script.c_str(), 0700);
    }
    void answer(const std::string& text) { writeFile(dir / "answer", text); }
    std::string calls() const {
        return std::filesystem::exists(dir / "calls") ? readFile(dir / "calls") : std::string();
    }
};

TEST(SessionLockTest, AsksLogindAtMostOncePerCachePeriod) {
    FakeLoginctl loginctl;
    loginctl.answer("yes\n");
    SessionLock lock({.loginctl = loginctl.script.string(), .sessionId = "c4", .cacheMs = 10'000});
    EXPECT_EQ(lock.locked(1'000), true);
    loginctl.answer("no\n");
    EXPECT_EQ(lock.locked(9'000), true);  // still the cached answer
    EXPECT_EQ(lock.locked(11'000), false);
    EXPECT_EQ(loginctl.calls(), "show-session c4 -p LockedHint --value\nshow-session c4 -p LockedHint --value\n");
}

TEST(SessionLockTest, AServiceFindsTheUsersGraphicalSession) {
    FakeLoginctl loginctl;
    loginctl.answer("no\n");
    SessionLock lock({.loginctl = loginctl.script.string(), .userId = 1000});
    EXPECT_EQ(lock.locked(0), false);
    // The fake answers "no" to both questions, so the session is named "no".
    EXPECT_EQ(loginctl.calls(), "show-user 1000 -p Display --value\nshow-session no -p LockedHint --value\n");
}

TEST(SessionLockTest, WithoutLogindItGivesNoAnswerAndStopsAskingForAWhile) {
    FakeLoginctl loginctl;  // no answer file: exits 1
    SessionLock lock({.loginctl = loginctl.script.string(), .sessionId = "3", .cacheMs = 1'000,
                      .unavailableRetryMs = 60'000});
    EXPECT_EQ(lock.locked(0), std::nullopt);
    loginctl.answer("yes\n");
    EXPECT_EQ(lock.locked(30'000), std::nullopt);
    EXPECT_EQ(lock.locked(61'000), true);
    EXPECT_EQ(SessionLock({.loginctl = "/nonexistent/loginctl", .sessionId = "3"}).locked(0), std::nullopt);
}

TEST(SessionLockTest, OnlyYesAndNoAreAnswers) {
    EXPECT_EQ(SessionLock::parseBoolean("yes\n"), true);
    EXPECT_EQ(SessionLock::parseBoolean(" no "), false);
    EXPECT_EQ(SessionLock::parseBoolean(""), std::nullopt);
    EXPECT_EQ(SessionLock::parseBoolean("LockedHint=yes"), std::nullopt);
}

TEST(SessionLockTest, AHangingHelperIsKilledAtItsDeadline) {
    const auto started = std::chrono::steady_clock::now();
    EXPECT_EQ(SessionLock::run({"/bin/sleep", "10"}, 300), std::nullopt);
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(3));
}

}  // namespace
}  // namespace aimwise
