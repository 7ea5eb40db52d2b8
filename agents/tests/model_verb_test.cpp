// The person's side of the local model: what status says is missing, the list, the llama-server
// unit for this machine, and install, status, serve and uninstall run as a person would.
#include "agents/aimwise/model_verb.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "AimwiseCore/models/model_installer.h"
#include "AimwiseCore/models/sha256.h"
#include "agents/aimwise/first_run.h"
#include "agents/services/model_server_unit.h"
#include "agents/tests/agent_test_support.h"
#include "tests/support/blob_server.h"
#include "tests/support/run_process.h"
#include "tests/support/scripted_model_server.h"

namespace aimwise::testing {
namespace {

namespace fs = std::filesystem;
namespace Guard = ModelIntegrityGuard;
using Reply = ModelVerb::ServerReply;
constexpr int64_t gib = 1LL << 30;

TEST(ModelVerbTest, TheStatusLineNamesWhatIsMissingAndTheCommandThatFixesIt) {
    const Guard::FileCheck verified{Guard::FileCheck::Verified{}}, unknown{Guard::FileCheck::UnknownModel{}};
    const Reply other{Reply::Kind::served, "/x/other.gguf"}, none{Reply::Kind::unreachable, "there is no socket there"},
        same{Reply::Kind::served, "/m/./tiny.gguf"}, loading{Reply::Kind::loading, "503"};
    struct Case {
        Guard::FileCheck check;
        Reply reply;
        std::string expected;
    };
    const std::vector<Case> cases{
        {unknown, other, "the server on the socket /s/llama.sock serves /x/other.gguf, but tiny:1b was not installed by "
                         "aimwise, so that file cannot be checked — `aimwise model install tiny:1b` installs a verified copy"},
        {unknown, none, "tiny:1b is not installed — run `aimwise model install tiny:1b`, then `aimwise model serve`"},
        {{Guard::FileCheck::Missing{}}, other, "tiny:1b's files are missing — run `aimwise model install tiny:1b` to fetch them again"},
        {{Guard::FileCheck::Stale{"tiny.gguf"}}, none, "tiny:1b's files changed since they were verified (tiny.gguf) — run "
                                                       "`aimwise model install tiny:1b` to check them again"},
        {verified, same, "tiny:1b — installed, verified and served on the socket /s/llama.sock"},
        {verified, other, "the server on the socket /s/llama.sock serves /x/other.gguf, not the verified /m/tiny.gguf — "
                          "run `aimwise model serve` to restart it with the verified file"},
        {verified, loading, "tiny:1b is installed and verified; llama-server on the socket "
                                               "/s/llama.sock is still loading it — check again in a minute"},
        {verified, none, "tiny:1b is installed and verified, but no server answers on the socket /s/llama.sock (there is "
                         "no socket there) — run `aimwise model serve`"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(ModelVerb::statusLine("tiny:1b", c.check, "/m/tiny.gguf", "on the socket /s/llama.sock", c.reply),
                  "Model: " + c.expected);

    using State = UserServices::UnitState;
    const std::string none_ = "Signals: none yet — the capture service ";
    EXPECT_EQ(FirstRun::noSignalsLine(State{false, "inactive"}),
              none_ + "is not installed; run `aimwise install-services` to record in the background");
    EXPECT_EQ(FirstRun::noSignalsLine(State{true, "failed"}),
              none_ + "failed; journalctl --user -u aimwise-capture.service says why, and systemctl --user restart "
                      "aimwise-capture.service tries again");
    EXPECT_EQ(FirstRun::noSignalsLine(State{true, "inactive"}),
              none_ + "is installed but not running (inactive); start it with systemctl --user start aimwise-capture.service");
    EXPECT_EQ(ModelVerb::progressLine(2'000'000'000, 8'000'000'000, 40e6, 100),
              "  [######------------------]  2.0 GB of 8.0 GB  40 MB/s  2m30s left");
}

TEST(ModelVerbTest, TheServerGetsTwoSlotsAndTheLargestContextThisMachineCanHold) {
    using ModelServerUnit::Plan;
    EXPECT_EQ(ModelServerUnit::plan(64 * gib, 8'100'000'000), (Plan{2, 32768}));
    EXPECT_EQ(ModelServerUnit::plan(23 * gib, 8'100'000'000), (Plan{2, 16384}));
    EXPECT_EQ(ModelServerUnit::plan(16 * gib, 8'100'000'000), (Plan{2, 8192}));
    EXPECT_EQ(ModelServerUnit::plan(8 * gib, 3'300'000'000), (Plan{1, 8192}));
    EXPECT_EQ(ModelServerUnit::plan(4 * gib, 3'300'000'000), (Plan{1, 8192}));

    const std::string socket = "/home/a b/.local/share/AimCapture/llama/llama.sock";
    EXPECT_EQ(ModelServerUnit::unitText({"/opt/llama/llama-server", "tiny:1b", "/home/a b/m/100%.gguf",
                                         fs::path("/home/a b/m/mmproj.gguf"), EndpointURL::unixSocket(socket), {2, 8192}}),
              "# Written by `aimwise model serve`, which writes it again for another model or machine: change the\n"
              "# command's choices rather than this file. --parallel slots share --ctx-size equally.\n"
              "[Unit]\nDescription=Aimwise local model server: llama-server with tiny:1b\n\n"
              "[Service]\nType=simple\nUMask=0077\n"
              "ExecStartPre=/bin/mkdir -p \"/home/a b/.local/share/AimCapture/llama\"\n"
              "ExecStartPre=/bin/rm -f \"/home/a b/.local/share/AimCapture/llama/llama.sock\"\n"
              "ExecStart=/opt/llama/llama-server --model \"/home/a b/m/100%%.gguf\" --mmproj \"/home/a b/m/mmproj.gguf\" "
              "--host \"/home/a b/.local/share/AimCapture/llama/llama.sock\" --ctx-size 16384 --parallel 2 --jinja "
              "--alias tiny:1b\n"
              "Restart=on-failure\nRestartSec=10\nNice=5\n\n[Install]\nWantedBy=default.target\n");
}

TEST(ModelVerbTest, TheListShowsEachModelsFilesStateAndWhoUsesIt) {
    TempDir temp("model-list");
    const LocalModelStore store(temp / "models");
    writeFile(temp / "models/tiny.gguf", "12345");
    Sha256 digest;
    digest.update("12345");
    const ModelCatalogue::Entry tiny{"tiny:1b", "", {"tiny.gguf", "https://h/tiny.gguf", 5, digest.finalHex()}, {}};
    store.saveManifest(ModelInstaller::manifestFor(tiny));
    ASSERT_TRUE(store.verify(ModelInstaller::manifestFor(tiny), 1).ok());
    const ModelCatalogue catalogue{{tiny, {"big:9b", "A big one", {"big.gguf", "https://h/big.gguf", {}, {}}, {}}}};
    EXPECT_EQ(ModelVerb::renderList(catalogue, store, {"tiny:1b", "custom", true}, "big:9b"),
              "tiny:1b (used by the classifier)\n  files: tiny.gguf (5 bytes)\n  installed and verified\n"
              "big:9b (recommended for this machine)\n  A big one\n  files: big.gguf (size unknown)\n"
              "  not installed, and cannot be yet: big.gguf has no size or SHA-256 digest\n"
              "custom (used by the coach when the online model fails)\n  not in the catalogue; not installed, so which "
              "file a server serves for it cannot be checked\n"
              "Models directory: " + (temp / "models").string() + "\n");
}

struct Person {
    AgentSandbox sandbox;
    fs::path models = sandbox.home / ".local/share/AimCapture/models";
    fs::path socket = sandbox.home / ".local/share/AimCapture/llama/llama.sock";
    fs::path bin = sandbox.temp / "bin";
    ProcessResult aimwise(const std::vector<std::string>& arguments, std::map<std::string, std::string> extra = {}) {
        auto env = sandbox.environment();
        env["AIMCHECK_MODEL"] = "tiny:1b";
        env["AIMWISE_SYSTEMCTL"] = (bin / "systemctl").string();
        env["PATH"] = bin.string();
        for (const auto& [key, value] : extra) env[key] = value;
        return runProcess(aimwisePath(), arguments, {.environment = env, .unset = {"AIMCAP_LOCAL_INFERENCE_ENDPOINT"}});
    }
    void script(const std::string& name, const std::string& body) {
        writeFile(bin / name, "#!/bin/sh\n" + body);
        chmod((bin / name).c_str(), 0700);
    }
};

TEST(ModelVerbTest, WithoutADataRootStatusAndTaskSayWhichCommandSetsItUp) {
    Person person;
    const auto run = [&](const std::vector<std::string>& arguments) {
        auto env = person.sandbox.environment();
        env.erase("AIMCAP_DATA_ROOT");
        env["AIMCHECK_MODEL"] = "tiny:1b";
        return runProcess(aimwisePath(), arguments,
                          {.environment = env, .unset = {"AIMCAP_DATA_ROOT", "AIMCAP_LOCAL_INFERENCE_ENDPOINT"}});
    };
    const std::string fix = "there is no data root yet — run `aimwise init PATH` to choose where captured data lives";
    EXPECT_EQ(run({"task", "write"}).standardError, "FAIL: nothing was recorded: " + fix + ".\n");
    EXPECT_EQ(run({"status"}).standardOutput,
              "T" + fix.substr(1) + "\nModel: tiny:1b is not installed — run `aimwise model install tiny:1b`, then "
                                     "`aimwise model serve`\n");
}

TEST(ModelVerbTest, InstallStatusServeAndUninstallAsAPersonRunsThem) {
    Person person;
    BlobServer server;
    const std::string weights(200'000, 'w');
    Sha256 digest;
    digest.update(weights);
    server.route("/a/tiny.gguf", {.body = weights});
    writeFile(person.models / "catalogue.json",
              R"({"models":[{"name":"tiny:1b","model":{"file":"tiny.gguf","url":"https://unreachable.invalid/a/tiny.gguf",)"
              R"("size_bytes":200000,"sha256":")" + digest.finalHex() + R"("}}]})");
    person.script("systemctl", "echo \"$*\" >> '" + (person.sandbox.temp / "calls").string() + "'\n");

    const ProcessResult installed = person.aimwise({"model", "install"}, {{"AIMCAP_MODEL_MIRROR", server.url("/")}});
    ASSERT_EQ(installed.exitStatus, 0) << installed.standardError;
    EXPECT_NE(installed.standardOutput.find("  tiny.gguf (200 kB), from " + server.url("/a/tiny.gguf") +
                                            " unless a copy is already on this machine\n"),
              std::string::npos) << installed.standardOutput;
    EXPECT_NE(installed.standardOutput.find("  tiny.gguf: downloaded and SHA-256 verified\nInstalled and verified tiny:1b.\n"),
              std::string::npos) << installed.standardOutput;
    const std::string status = person.aimwise({"status"}).standardOutput;
    EXPECT_NE(status.find("Model: tiny:1b is installed and verified, but no server answers on the socket " +
                          person.socket.string() + " (there is no socket there) — run `aimwise model serve`\n"),
              std::string::npos) << status;

    const ProcessResult missing = person.aimwise({"model", "serve", "--no-start"});
    EXPECT_EQ(missing.exitStatus, 1);
    EXPECT_NE(missing.standardError.find("is not installed: it is in no directory of the PATH, nor at " +
                                         (person.sandbox.home / ".local/bin/llama-server").string() +
                                         ", /usr/local/bin/llama-server, " +
                                         (person.sandbox.home / "llama.cpp/build/bin/llama-server").string() + ".\n"),
              std::string::npos) << missing.standardError;

    person.script("llama-server", "exit 0\n");
    fs::remove(person.sandbox.temp / "calls");
    const ProcessResult served = person.aimwise({"model", "serve", "--no-start"});
    ASSERT_EQ(served.exitStatus, 0) << served.standardError;
    const fs::path unit = person.sandbox.home / ".config/systemd/user/aimwise-llama-server.service";
    EXPECT_NE(readFile(unit).find("\nExecStart=" + (person.bin / "llama-server").string() + " --model " +
                                  (person.models / "tiny.gguf").string() + " --host " + person.socket.string() +
                                  " --ctx-size "),
              std::string::npos) << readFile(unit);
    EXPECT_EQ(readFile(person.sandbox.temp / "calls"), "--user daemon-reload\n--user enable aimwise-llama-server.service\n");

    ScriptedModelServer llama(person.socket);
    llama.setModelPath((person.models / "tiny.gguf").string());
    EXPECT_NE(person.aimwise({"status"}).standardOutput.find("Model: tiny:1b — installed, verified and served on the socket " +
                                                            person.socket.string() + "\n"),
              std::string::npos);

    ASSERT_EQ(person.aimwise({"uninstall-services"}).exitStatus, 0);
    EXPECT_FALSE(fs::exists(unit));
}

}  // namespace
}  // namespace aimwise::testing
