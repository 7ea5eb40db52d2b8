#include "AimwiseCore/classifier/integrity_guard.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "AimwiseCore/models/model_backend_error.h"
#include "tests/support/scripted_model_server.h"
#include "tests/support/temp_dir.h"

namespace aimwise {
namespace {

namespace Guard = ModelIntegrityGuard;
using Guard::FileCheck;
using Guard::Verdict;

TEST(ModelIntegrityGuardEvaluate, EveryFileCheckGivesItsVerdict) {
    const std::string served = "/models/a.gguf";
    EXPECT_EQ(Guard::evaluate("/models/a.gguf", {FileCheck::Verified{}}, served), Verdict{Verdict::Matches{served}});
    EXPECT_EQ(Guard::evaluate("/models/b.gguf", {FileCheck::Verified{}}, served),
              (Verdict{Verdict::ServingOtherFile{"/models/b.gguf", served}}));
    EXPECT_EQ(Guard::evaluate(std::nullopt, {FileCheck::Verified{}}, served), Verdict{Verdict::UnknownModel{served}});
    EXPECT_EQ(Guard::evaluate("/models/a.gguf", {FileCheck::Missing{}}, served), Verdict{Verdict::ModelAbsent{}});
    EXPECT_EQ(Guard::evaluate("/models/a.gguf", {FileCheck::UnknownModel{}}, served),
              Verdict{Verdict::UnknownModel{served}});
    EXPECT_EQ(Guard::evaluate("/models/a.gguf", {FileCheck::Stale{"a.gguf"}}, served),
              Verdict{Verdict::FileChanged{"a.gguf"}});
}

TEST(ModelIntegrityGuardEvaluate, PathsAreComparedAfterLinksAndDotSegments) {
    testing::TempDir dir;
    testing::writeFile(dir / "real.gguf", "x");
    std::filesystem::create_symlink(dir / "real.gguf", dir / "link.gguf");
    std::string real = (dir / "real.gguf").string();
    EXPECT_TRUE(Guard::samePath(real, (dir / "link.gguf").string()));
    EXPECT_TRUE(Guard::samePath(real, dir.path().string() + "/./real.gguf"));
    EXPECT_TRUE(Guard::samePath(real, dir.path().string() + "/sub/../real.gguf"));
    EXPECT_FALSE(Guard::samePath(real, (dir / "other.gguf").string()));
    EXPECT_EQ(Guard::evaluate(real, {FileCheck::Verified{}}, (dir / "link.gguf").string()),
              Verdict{Verdict::Matches{(dir / "link.gguf").string()}});
}

TEST(ModelIntegrityGuardDecision, RefusalsNotesAndWarnings) {
    const int64_t now = 1763791041000;
    EXPECT_EQ(Guard::tickDecision("m", {Verdict::Matches{"/a"}}, now), Guard::TickDecision{});

    Guard::TickDecision other = Guard::tickDecision("m", {Verdict::ServingOtherFile{"/a", "/b"}}, now);
    EXPECT_EQ(other.refusal, "REFUSING TO JUDGE (#986): the local server is serving /b, not the verified /a for m. "
                             "Something else may be listening on the model port, or the server wasn't restarted after "
                             "a model change. Not sending a screenshot to it.");
    EXPECT_EQ(other.note, (Guard::RefusalNote{Guard::RefusalNote::Kind::modelReplaced, "m",
                                              "Paused: the local model server isn't running the m files Veska "
                                              "downloaded. Download the model again to resume.",
                                              now}));

    Guard::TickDecision changed = Guard::tickDecision("m", {Verdict::FileChanged{"a.gguf"}}, now);
    EXPECT_EQ(changed.refusal, "REFUSING TO JUDGE (#986): m's files changed on disk since they were verified (a.gguf). "
                               "Not sending a screenshot to it.");
    EXPECT_EQ(changed.note->message, "Paused: m's files changed since they were checked. Download the model again to resume.");

    Guard::TickDecision unknown = Guard::tickDecision("m", {Verdict::UnknownModel{"/c"}}, now);
    EXPECT_FALSE(unknown.refusal);
    EXPECT_EQ(unknown.warnings, std::vector<std::string>{"model integrity (#986): m has no Veska download to verify "
                                                         "against (custom AIMCHECK_MODEL?); the server reports /c — "
                                                         "judging without an identity check"});

    Guard::TickDecision absent = Guard::tickDecision("m", {Verdict::ModelAbsent{}}, now);
    EXPECT_EQ(absent.refusal, "REFUSING TO JUDGE (#986): m isn't downloaded, so there is nothing verified to judge "
                              "with. Not sending a screenshot.");
    EXPECT_FALSE(absent.note);
}

TEST(ModelIntegrityGuardDecision, PlainForms) {
    EXPECT_EQ(Guard::describe(FileCheck{FileCheck::Stale{"a, \"b\""}}), R"(stale("a, \"b\""))");
    EXPECT_EQ(Guard::describe(FileCheck{FileCheck::UnknownModel{}}), "unknownModel");
    EXPECT_EQ(Guard::describe(Verdict{Verdict::ServingOtherFile{"/a", "/b"}}),
              R"(servingOtherFile(expected: "/a", actual: "/b"))");
    EXPECT_EQ(Guard::describe(Verdict{Verdict::ModelAbsent{}}), "modelAbsent");
}

TEST(ModelIntegrityGuardFileCheck, MapsTheStoresDiskState) {
    testing::TempDir dir;
    LocalModelStore store(dir / "models");
    EXPECT_EQ(Guard::integrityFileCheck(std::nullopt, store), FileCheck{FileCheck::UnknownModel{}});
    LocalModelManifest manifest{"m", "a.gguf", {{"a.gguf", 1, std::string(64, '0')}, {"b.gguf", 1, std::string(64, '0')}}};
    EXPECT_EQ(Guard::integrityFileCheck(manifest, store), FileCheck{FileCheck::Missing{}});
    testing::writeFile(dir / "models" / "a.gguf", "a");
    testing::writeFile(dir / "models" / "b.gguf", "b");
    EXPECT_EQ(Guard::integrityFileCheck(manifest, store), FileCheck{FileCheck::Stale{"a.gguf, b.gguf"}});
    manifest.files = {{"a.gguf", 1, *LocalModelStore::sha256OfFile(dir / "models" / "a.gguf")}};
    ASSERT_TRUE(store.verify(manifest, 0).ok());
    EXPECT_EQ(Guard::integrityFileCheck(manifest, store), FileCheck{FileCheck::Verified{}});
}

class ModelIntegrityGuardFetch : public ::testing::TestWithParam<testing::ScriptedModelServer::Transport> {
protected:
    std::string error(testing::ScriptedModelServer& server) {
        try {
            Guard::fetchServedModelPath(server.baseURL(), session);
        } catch (const ModelBackendError& thrown) {
            return thrown.description();
        }
        return "no error";
    }
    HTTPSession session;
};

TEST_P(ModelIntegrityGuardFetch, ReadsTheServedPathFromProps) {
    testing::ScriptedModelServer server(GetParam());
    server.setModelPath("/models/served.gguf");
    EXPECT_EQ(Guard::fetchServedModelPath(server.baseURL(), session), "/models/served.gguf");
    EXPECT_EQ(Guard::verify("/models/served.gguf", {FileCheck::Verified{}}, server.baseURL(), session),
              Verdict{Verdict::Matches{"/models/served.gguf"}});
    // The fetch runs even when the file check alone would decide.
    EXPECT_EQ(Guard::verify(std::nullopt, {FileCheck::Missing{}}, server.baseURL(), session),
              Verdict{Verdict::ModelAbsent{}});
    EXPECT_EQ(server.requests("/props").size(), 3u);
}

TEST_P(ModelIntegrityGuardFetch, PropsWithoutAPathOrWithABadStatusIsAnError) {
    testing::ScriptedModelServer server(GetParam());
    using Reply = testing::ScriptedModelServer::Reply;
    server.enqueue("/props", Reply::json(200, "{}"));
    server.enqueue("/props", Reply::json(200, R"({"model_path":""})"));
    server.enqueue("/props", Reply::json(404, "gone"));
    server.enqueue("/props", Reply::loading());
    EXPECT_EQ(error(server), "llama-server /props carried no model_path: {}");
    EXPECT_EQ(error(server), R"(llama-server /props carried no model_path: {"model_path":""})");
    EXPECT_EQ(error(server), "HTTP 404: gone");
    EXPECT_NE(error(server).find("HTTP 503"), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(BothTransports, ModelIntegrityGuardFetch,
                         ::testing::Values(testing::ScriptedModelServer::Transport::tcp,
                                           testing::ScriptedModelServer::Transport::unixSocket));

TEST(ModelIntegrityGuardNote, WrittenOwnerOnlyReadBackAndCleared) {
    testing::TempDir dir;
    std::filesystem::path path = dir / "support" / Guard::refusalNoteFileName;
    Guard::RefusalNote note{Guard::RefusalNote::Kind::modelReplaced, "m", "Paused.", 1763791041123};
    Guard::writeRefusalNote(note, path);
    EXPECT_EQ(Guard::readRefusalNote(path), note);
    struct stat info {};
    ::stat(path.c_str(), &info);
    EXPECT_EQ(info.st_mode & 0777, 0600u);
    ::stat(path.parent_path().c_str(), &info);
    EXPECT_EQ(info.st_mode & 0777, 0700u);
    EXPECT_EQ(testing::readFile(path),
              R"({"kind":"modelReplaced","model":"m","message":"Paused.","at":"2025-11-22T05:57:21.123Z"})");
    int entries = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(path.parent_path())) ++entries;
    EXPECT_EQ(entries, 1);  // no temporary file left behind
    Guard::clearRefusalNote(path);
    EXPECT_FALSE(std::filesystem::exists(path));
    Guard::clearRefusalNote(path);  // clearing nothing is fine
}

TEST(ModelIntegrityGuardNote, ReadersAcceptBothKindsAndBothDateForms) {
    testing::TempDir dir;
    testing::writeFile(dir / "n.json", R"({"kind":"cannotVerify","model":"m","message":"x","at":785484000})");
    auto note = Guard::readRefusalNote(dir / "n.json");
    ASSERT_TRUE(note);
    EXPECT_EQ(note->kind, Guard::RefusalNote::Kind::cannotVerify);
    EXPECT_EQ(note->atMs, 1763791200000);
    testing::writeFile(dir / "bad.json", R"({"kind":"other","model":"m","message":"x","at":0})");
    EXPECT_FALSE(Guard::readRefusalNote(dir / "bad.json"));
    testing::writeFile(dir / "far.json", R"({"kind":"cannotVerify","model":"m","message":"x","at":1e300})");
    EXPECT_FALSE(Guard::readRefusalNote(dir / "far.json"));
    EXPECT_FALSE(Guard::readRefusalNote(dir / "absent.json"));
}

TEST(ModelIntegrityGuardNote, AFailedWriteLeavesNothingBehind) {
    testing::TempDir dir;
    std::filesystem::create_directories(dir / "target.json");  // a directory cannot be renamed over
    EXPECT_THROW(Guard::writeOwnerOnly("{}", dir / "target.json"), std::filesystem::filesystem_error);
    int entries = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(dir.path())) ++entries;
    EXPECT_EQ(entries, 1);
}

}  // namespace
}  // namespace aimwise
