// Runs the built VerdictBench against a scripted model server, as an operator would.
#include <gtest/gtest.h>

#include "AimwiseCore/models/local_model_store.h"
#include "tests/support/run_process.h"
#include "tests/support/scripted_model_server.h"
#include "tests/support/temp_dir.h"

namespace aimwise {
namespace {

using testing::ScriptedModelServer;

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

    testing::ProcessResult integrity() {
        return testing::runProcess(testing::verdictBenchPath(), {"integrity"},
                                   {.environment = environment, .clearEnvironment = true});
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

    const auto run = integrity();
    EXPECT_EQ(run.exitStatus, 0) << run.standardError;
    EXPECT_EQ(run.standardOutput, model + ": files verified\n" + model + ": matches(path: \"" + (home.path() / "link.gguf").string() +
                           "\")\ntick would proceed\n");
    EXPECT_EQ(server.requests("/props").size(), 1u);
}

TEST_F(IntegrityVerbTest, RefusesWhenTheServerReportsAnotherFileAndWritesNoNote) {
    std::filesystem::path file = installModel();
    ScriptedModelServer server(ScriptedModelServer::Transport::tcp);
    server.setModelPath("/elsewhere/other.gguf");
    useTCP(server);

    const auto run = integrity();
    EXPECT_EQ(run.exitStatus, 1);
    EXPECT_EQ(run.standardOutput, model + ": files verified\n" + model + ": servingOtherFile(expected: \"" + file.string() +
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

    const auto run = integrity();
    EXPECT_EQ(run.exitStatus, 1);
    EXPECT_NE(run.standardOutput.find(model + ": files stale(\"model.gguf\")\n"), std::string::npos) << run.standardOutput;
    EXPECT_NE(run.standardOutput.find("tick would REFUSE: REFUSING TO JUDGE (#986): " + model +
                           "'s files changed on disk since they were verified (model.gguf)."),
              std::string::npos)
        << run.standardOutput;
}

TEST_F(IntegrityVerbTest, RefusesWhenTheModelIsNotDownloaded) {
    installModel();
    std::filesystem::remove(store.modelsDirectory() / "model.gguf");
    ScriptedModelServer server(ScriptedModelServer::Transport::tcp);
    useTCP(server);
    const auto run = integrity();
    EXPECT_EQ(run.exitStatus, 1);
    EXPECT_EQ(run.standardOutput, model + ": files missing\n" + model + ": modelAbsent\ntick would REFUSE: REFUSING TO JUDGE (#986): " +
                           model + " isn't downloaded, so there is nothing verified to judge with. Not sending a screenshot.\n");
}

TEST_F(IntegrityVerbTest, AModelWithoutAManifestProceedsWithAWarning) {
    ScriptedModelServer server(ScriptedModelServer::Transport::tcp);
    server.setModelPath("/custom/model.gguf");
    useTCP(server);
    const auto run = integrity();
    EXPECT_EQ(run.exitStatus, 0) << run.standardError;
    EXPECT_EQ(run.standardOutput, model + ": files unknownModel\n" + model + ": unknownModel(servedPath: \"/custom/model.gguf\")\n" +
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
        const auto run = integrity();
        EXPECT_NE(run.exitStatus, 0);
        EXPECT_NE(run.exitStatus, 1);
        EXPECT_EQ(run.standardOutput, model + ": files verified\n");
        EXPECT_NE(run.standardError.find(expected), std::string::npos) << run.standardError;
    }
}

TEST_F(IntegrityVerbTest, ABadEndpointStopsBeforeAnyRequest) {
    environment["AIMCAP_LOCAL_INFERENCE_ENDPOINT"] = "http://localhost:11477";
    const auto run = integrity();
    EXPECT_NE(run.exitStatus, 0);
    EXPECT_NE(run.standardError.find("must spell the host as 127.0.0.1"), std::string::npos) << run.standardError;
}

}  // namespace
}  // namespace aimwise
