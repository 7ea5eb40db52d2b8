// What the built tick loads, as the dynamic loader reports it: a skip opens nothing beyond what the
// program starts with, and a judgment opens ICU and libcurl when it first needs them.
#include <gtest/gtest.h>

#include <algorithm>
#include <regex>
#include <set>

#include "CaptureShared/common/clock.h"
#include "tests/support/run_process.h"
#include "tests/support/scripted_model_server.h"
#include "tests/support/signals_fixtures.h"
#include "tests/support/temp_dir.h"

namespace aimwise {
namespace {

using testing::ScriptedModelServer;

// Libraries named in LD_DEBUG=files output: "file=libicuuc.so.72 [0];  dynamically loaded by ...".
std::set<std::string> loaded(const std::string& debugOutput) {
    std::set<std::string> names;
    static const std::regex file(R"(file=(lib[^ \[]+))");
    for (std::sregex_iterator it(debugOutput.begin(), debugOutput.end(), file), end; it != end; ++it)
        names.insert((*it)[1]);
    return names;
}

bool anyStartsWith(const std::set<std::string>& names, const std::string& prefix) {
    return std::any_of(names.begin(), names.end(), [&](const std::string& name) { return name.starts_with(prefix); });
}

TEST(TickLibraries, ASkipLoadsNeitherICUNorHTTPAndAJudgmentLoadsBothWhenItNeedsThem) {
    testing::TempDir dir;
    ScriptedModelServer server(ScriptedModelServer::Transport::tcp);
    const int64_t now = Clock::system().wallMs();
    testing::SignalsFixture signals(dir / "root" / "signals.sqlite");
    signals.tick({.tsMs = now - 5'000, .frontmostApp = "Editor", .idleAnySec = 1.0});
    signals.window({.tsMs = now - 5'000, .ownerName = "Editor", .title = "notes.md"});
    testing::ProcessOptions options;
    options.environment = testing::verdictBenchEnvironment(dir.path(), server.baseURLString());
    options.environment["LD_DEBUG"] = "files";
    options.unset = {"DISPLAY", "WAYLAND_DISPLAY", "AIMCAP_CLASSIFY_MIN_INTERVAL_SEC", "AIMCAP_CLASSIFY_MAX_INTERVAL_SEC"};

    server.enqueue("/v1/chat/completions",
                   ScriptedModelServer::Reply::json(200, ScriptedModelServer::completionBody(
                                                             R"({"state": "ON_TASK", "confidence": 0.8, "reason": "ok"})")));
    const auto judged = testing::runProcess(testing::verdictBenchPath(), {"tick"}, options);
    ASSERT_EQ(judged.exitStatus, 0) << judged.standardError;
    const auto judging = loaded(judged.standardError);
    EXPECT_TRUE(anyStartsWith(judging, "libicuuc.so") && anyStartsWith(judging, "libicui18n.so") &&
                anyStartsWith(judging, "libcurl.so"))
        << judged.standardError;

    const auto skip = testing::runProcess(testing::verdictBenchPath(), {"tick"}, options);
    ASSERT_EQ(skip.standardOutput.rfind("skipped: nothing cheap changed", 0), 0u) << skip.standardOutput;
    const auto skipping = loaded(skip.standardError);
    for (const char* unused : {"libicu", "libcurl", "libcrypto", "libfmt"})
        EXPECT_FALSE(anyStartsWith(skipping, unused)) << unused << " in " << skip.standardError;
    EXPECT_TRUE(anyStartsWith(skipping, "libsqlite3.so")) << skip.standardError;
}

}  // namespace
}  // namespace aimwise
