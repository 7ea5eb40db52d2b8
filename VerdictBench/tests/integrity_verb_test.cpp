// Runs the built VerdictBench against a scripted model server, as an operator would.
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "AimwiseCore/models/local_model_store.h"
#include "tests/support/scripted_model_server.h"
#include "tests/support/temp_dir.h"

extern char** environ;

namespace aimwise {
namespace {

using testing::ScriptedModelServer;

struct ProcessRun {
    int status = -1;
    std::string out;
    std::string err;
};

ProcessRun runVerdictBench(const std::vector<std::string>& arguments, const std::map<std::string, std::string>& environment) {
    int outPipe[2], errPipe[2];
    EXPECT_EQ(::pipe2(outPipe, O_CLOEXEC), 0);
    EXPECT_EQ(::pipe2(errPipe, O_CLOEXEC), 0);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, outPipe[1], 1);
    posix_spawn_file_actions_adddup2(&actions, errPipe[1], 2);
    std::vector<std::string> argvText{VERDICT_BENCH_PATH};
    argvText.insert(argvText.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (std::string& text : argvText) argv.push_back(text.data());
    argv.push_back(nullptr);
    std::vector<std::string> envText;
    for (const auto& [key, value] : environment) envText.push_back(key + "=" + value);
    std::vector<char*> envp;
    for (std::string& text : envText) envp.push_back(text.data());
    envp.push_back(nullptr);
    pid_t pid = 0;
    EXPECT_EQ(posix_spawn(&pid, VERDICT_BENCH_PATH, &actions, nullptr, argv.data(), envp.data()), 0);
    posix_spawn_file_actions_destroy(&actions);
    ::close(outPipe[1]);
    ::close(errPipe[1]);
    ProcessRun run;
    pollfd fds[2] = {{outPipe[0], POLLIN, 0}, {errPipe[0], POLLIN, 0}};
    int open = 2;
    char buffer[4096];
    while (open > 0 && ::poll(fds, 2, 30000) > 0) {
        for (int i = 0; i < 2; ++i) {
            if (!(fds[i].revents & (POLLIN | POLLHUP))) continue;
            ssize_t count = ::read(fds[i].fd, buffer, sizeof buffer);
            if (count <= 0) {
                fds[i].fd = -1;
                --open;
            } else {
                (i == 0 ? run.out : run.err).append(buffer, static_cast<size_t>(count));
            }
        }
    }
    ::close(outPipe[0]);
    ::close(errPipe[0]);
    int status = 0;
    ::waitpid(pid, &status, 0);
    run.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return run;
}

class IntegrityVerbTest : public ::testing::Test {
protected:
    IntegrityVerbTest()
        : supportDir(home.path() / "data" / "AimCapture"),
          store(supportDir / "models"),
          model("gemma-test:1b") {
        environment = {{"HOME", home.path().string()},
                       {"XDG_DATA_HOME", (home.path() / "data").string()},
                       {"XDG_STATE_HOME", (home.path() / "state").string()},
                       {"AIMCAP_DATA_ROOT", (home.path() / "root").string()},
                       {"AIMCHECK_MODEL", model},
                       {"PATH", "/usr/bin:/bin"}};
        std::filesystem::create_directories(home.path() / "root");
    }

    // A downloaded, verified model file, as the installer leaves it.
    std::filesystem::path installModel() {
        std::filesystem::path file = store.modelsDirectory() / "model.gguf";
        testing::writeFile(file, "weights");
        store.saveManifest({model, "model.gguf", {{"model.gguf", 7, *LocalModelStore::sha256OfFile(file)}}});
        EXPECT_TRUE(store.verify(*store.manifest(model), 0).ok());
        return file;
    }

    void useTCP(const ScriptedModelServer& server) {
        environment["AIMCAP_LOCAL_INFERENCE_ENDPOINT"] = server.baseURLString();
    }

    testing::TempDir home{"aimwise-integrity"};
    std::filesystem::path supportDir;
    LocalModelStore store;
    std::string model;
    std::map<std::string, std::string> environment;
};

TEST_F(IntegrityVerbTest, ProceedsWhenTheDefaultSocketServesTheVerifiedFile) {
    std::filesystem::path file = installModel();
    ScriptedModelServer server(supportDir / "llama" / "llama.sock");
    // Served through a symbolic link to the same file.
    std::filesystem::create_symlink(file, home.path() / "link.gguf");
    server.setModelPath((home.path() / "link.gguf").string());

    ProcessRun run = runVerdictBench({"integrity"}, environment);
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, model + ": files verified\n" + model + ": matches(path: \"" + (home.path() / "link.gguf").string() +
                           "\")\ntick would proceed\n");
    EXPECT_EQ(server.requests("/props").size(), 1u);
}

TEST_F(IntegrityVerbTest, RefusesWhenTheServerReportsAnotherFileAndWritesNoNote) {
    std::filesystem::path file = installModel();
    ScriptedModelServer server(ScriptedModelServer::Transport::tcp);
    server.setModelPath("/elsewhere/other.gguf");
    useTCP(server);

    ProcessRun run = runVerdictBench({"integrity"}, environment);
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.out, model + ": files verified\n" + model + ": servingOtherFile(expected: \"" + file.string() +
                           "\", actual: \"/elsewhere/other.gguf\")\n"
                           "tick would REFUSE: REFUSING TO JUDGE (#986): the local server is serving "
                           "/elsewhere/other.gguf, not the verified " +
                           file.string() + " for " + model +
                           ". Something else may be listening on the model port, or the server wasn't restarted after "
                           "a model change. Not sending a screenshot to it.\n");
    EXPECT_FALSE(std::filesystem::exists(supportDir / "model-integrity-refusal.json"));
}

TEST_F(IntegrityVerbTest, RefusesAFileChangedSinceItWasVerified) {
    std::filesystem::path file = installModel();
    testing::writeFile(file, "WEIGHTS");  // same size, new content
    ScriptedModelServer server(ScriptedModelServer::Transport::tcp);
    server.setModelPath(file.string());
    useTCP(server);

    ProcessRun run = runVerdictBench({"integrity"}, environment);
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.out.find(model + ": files stale(\"model.gguf\")\n"), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("tick would REFUSE: REFUSING TO JUDGE (#986): " + model +
                           "'s files changed on disk since they were verified (model.gguf)."),
              std::string::npos)
        << run.out;
}

TEST_F(IntegrityVerbTest, RefusesWhenTheModelIsNotDownloaded) {
    installModel();
    std::filesystem::remove(store.modelsDirectory() / "model.gguf");
    ScriptedModelServer server(ScriptedModelServer::Transport::tcp);
    useTCP(server);
    ProcessRun run = runVerdictBench({"integrity"}, environment);
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.out, model + ": files missing\n" + model + ": modelAbsent\ntick would REFUSE: REFUSING TO JUDGE (#986): " +
                           model + " isn't downloaded, so there is nothing verified to judge with. Not sending a screenshot.\n");
}

TEST_F(IntegrityVerbTest, AModelWithoutAManifestProceedsWithAWarning) {
    ScriptedModelServer server(ScriptedModelServer::Transport::tcp);
    server.setModelPath("/custom/model.gguf");
    useTCP(server);
    ProcessRun run = runVerdictBench({"integrity"}, environment);
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, model + ": files unknownModel\n" + model + ": unknownModel(servedPath: \"/custom/model.gguf\")\n" +
                           "warning: model integrity (#986): " + model +
                           " has no Veska download to verify against (custom AIMCHECK_MODEL?); the server reports "
                           "/custom/model.gguf — judging without an identity check\ntick would proceed\n");
}

TEST_F(IntegrityVerbTest, AFailedFetchIsNoVerdict) {
    installModel();
    ScriptedModelServer server(ScriptedModelServer::Transport::tcp);
    server.enqueue("/props", ScriptedModelServer::Reply::json(404, R"({"error":{"message":"File Not Found"}})"));
    server.enqueue("/props", ScriptedModelServer::Reply::json(200, "{}"));
    useTCP(server);
    for (const char* expected : {"HTTP 404", "llama-server /props carried no model_path: {}"}) {
        ProcessRun run = runVerdictBench({"integrity"}, environment);
        EXPECT_NE(run.status, 0);
        EXPECT_NE(run.status, 1);
        EXPECT_EQ(run.out, model + ": files verified\n");
        EXPECT_NE(run.err.find(expected), std::string::npos) << run.err;
    }
}

TEST_F(IntegrityVerbTest, ABadEndpointStopsBeforeAnyRequest) {
    environment["AIMCAP_LOCAL_INFERENCE_ENDPOINT"] = "http://localhost:11477";
    ProcessRun run = runVerdictBench({"integrity"}, environment);
    EXPECT_NE(run.status, 0);
    EXPECT_NE(run.err.find("must spell the host as 127.0.0.1"), std::string::npos) << run.err;
}

}  // namespace
}  // namespace aimwise
