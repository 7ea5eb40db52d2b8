// Installing a catalogue model against a loopback server: whole, resumed, refused, reused, locked.
#include "AimwiseCore/models/model_installer.h"

#include <gtest/gtest.h>
#include <sys/file.h>
#include <fcntl.h>
#include <unistd.h>

#include <thread>

#include "AimwiseCore/models/model_download.h"
#include "AimwiseCore/models/sha256.h"
#include "tests/support/blob_server.h"
#include "tests/support/fake_clock.h"
#include "tests/support/temp_dir.h"

namespace aimwise::testing {
namespace {

namespace fs = std::filesystem;
using Route = BlobServer::Route;

std::string sha256(const std::string& bytes) {
    Sha256 digest;
    digest.update(bytes);
    return digest.finalHex();
}

std::string bytes(size_t size, char seed) {
    std::string text(size, '\0');
    for (size_t i = 0; i < size; ++i) text[i] = static_cast<char>(seed + i * 7 % 251);
    return text;
}

struct Installer : ::testing::Test {
    TempDir temp{"model-install"};
    BlobServer server;
    LocalModelStore store{temp / "models"};
    FakeClock clock;
    const std::string weights = bytes(3 << 20, 'w');
    const std::string projector = bytes(70'000, 'p');

    ModelCatalogue::Entry entry(const std::string& modelPath = "/m.gguf") const {
        return {"tiny:1b",
                "",
                {"tiny.gguf", server.url(modelPath), int64_t(weights.size()), sha256(weights)},
                ModelCatalogue::File{"tiny-mmproj.gguf", server.url("/p.gguf"), int64_t(projector.size()),
                                     sha256(projector)}};
    }
    ModelInstaller::Outcome install(const ModelCatalogue::Entry& e, ModelInstaller::Options options = {}) {
        if (options.environment.empty()) options.environment = {{"HOME", (temp / "home").string()}};
        return ModelInstaller::install(e, store, options, clock);
    }
    void serveBoth() {
        server.route("/m.gguf", {.body = weights});
        server.route("/p.gguf", {.body = projector});
    }
    bool installed() const {
        const auto manifest = store.manifest("tiny:1b");
        return manifest && std::holds_alternative<LocalModelDiskState::Verified>(store.diskState(*manifest).value);
    }
    std::vector<std::string> downloadsLeft() const {
        std::vector<std::string> names;
        for (const auto& file : fs::directory_iterator(temp / "models/.downloads")) names.push_back(file.path().filename());
        return names;
    }
};

using How = ModelInstaller::FileOutcome::How;

TEST_F(Installer, AWholeDownloadIsVerifiedAndOnlyThenRecordedWithItsManifest) {
    serveBoth();
    const auto outcome = install(entry());
    ASSERT_EQ(outcome.files.size(), 2u);
    EXPECT_EQ(outcome.files[0].how, How::downloaded);
    EXPECT_EQ(outcome.files[1].how, How::downloaded);
    EXPECT_TRUE(installed());
    EXPECT_EQ(store.manifest("tiny:1b"), ModelInstaller::manifestFor(entry()));
    EXPECT_EQ(readFile(temp / "models/tiny.gguf"), weights);
    EXPECT_TRUE(downloadsLeft().empty());
    // Installed stays installed: a second run reads nothing and asks nothing.
    const size_t asked = server.requests().size();
    EXPECT_EQ(install(entry()).files[1].how, How::alreadyVerified);
    EXPECT_EQ(server.requests().size(), asked);
}

TEST_F(Installer, AnInterruptedDownloadContinuesFromItsLastByte) {
    server.route("/m.gguf", {.body = weights, .cutAfterBytes = 1'000'000});
    server.route("/p.gguf", {.body = projector});
    EXPECT_THROW(install(entry()), ModelDownloadError);
    EXPECT_FALSE(installed());
    EXPECT_FALSE(fs::exists(temp / "models/tiny.gguf"));

    server.route("/m.gguf", {.body = weights});
    const auto outcome = install(entry());
    EXPECT_EQ(outcome.files[0].resumedFromBytes, 1'000'000);
    EXPECT_EQ(server.requests().back(), "GET /p.gguf");
    EXPECT_EQ(server.requests()[1], "GET /m.gguf bytes=1000000-");
    EXPECT_TRUE(installed());

    // A server that cannot resume sends the whole file again, and that is fine too.
    fs::remove(temp / "models/tiny.gguf");
    writeFile(temp / "models/.downloads" / (sha256(weights) + ".partial"), weights.substr(0, 5000));
    server.route("/m.gguf", {.body = weights, .honourRange = false});
    EXPECT_EQ(install(entry()).files[0].resumedFromBytes, 0);
    EXPECT_EQ(readFile(temp / "models/tiny.gguf"), weights);

    // A server whose file ends before the partial one does cannot be resumed from: nothing is kept.
    fs::remove(temp / "models/tiny.gguf");
    writeFile(temp / "models/.downloads" / (sha256(weights) + ".partial"), weights.substr(0, 5000));
    server.route("/m.gguf", {.body = weights.substr(0, 4000)});
    EXPECT_THROW(install(entry()), ModelDownloadError);
    EXPECT_TRUE(downloadsLeft().empty());
}

TEST_F(Installer, RepliesThatAreNotTheFileNeverLeaveAnythingThatLooksInstalled) {
    using Kind = ModelDownloadError::Kind;
    std::string tampered = weights;
    tampered[12345] ^= 1;
    const struct {
        const char* name;
        Route route;
        Kind kind;
        bool partialKept;
    } cases[] = {
        {"digest mismatch", {.body = tampered}, Kind::digestMismatch, false},
        {"error page", {.body = "<html>Sign in</html>", .contentType = "text/html"}, Kind::refusedReply, false},
        {"not found", {.body = "gone", .status = 404}, Kind::refusedReply, false},
        {"wrong size", {.body = weights + "x"}, Kind::wrongSize, false},
        {"truncated body", {.body = weights, .cutAfterBytes = 4096}, Kind::interrupted, true},
        {"redirect loop", {.location = "/m.gguf"}, Kind::redirectLoop, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        fs::remove_all(temp / "models");
        server.route("/m.gguf", c.route);
        server.route("/p.gguf", {.body = projector});
        try {
            install(entry());
            ADD_FAILURE() << "installed";
        } catch (const ModelDownloadError& error) {
            EXPECT_EQ(error.kind(), c.kind) << error.description();
        }
        EXPECT_FALSE(fs::exists(temp / "models/tiny.gguf"));
        EXPECT_FALSE(store.manifest("tiny:1b"));
        EXPECT_FALSE(fs::exists(store.verificationsPath()));
        EXPECT_EQ(downloadsLeft().size(), c.partialKept ? 1u : 0u);
    }
}

TEST_F(Installer, WhatCannotBeVerifiedOrStoredIsRefusedBeforeTheFirstRequest) {
    ModelCatalogue::Entry unverifiable = entry();
    unverifiable.projector->sha256.reset();
    try {
        install(unverifiable);
        ADD_FAILURE() << "installed";
    } catch (const ModelInstallError& error) {
        EXPECT_EQ(error.kind(), ModelInstallError::Kind::notInstallable);
        EXPECT_NE(error.description().find("tiny-mmproj.gguf has no SHA-256 digest"), std::string::npos);
    }
    ModelCatalogue::Entry huge = entry();
    huge.model.sizeBytes = 1'000'000'000'000'000;
    try {
        install(huge);
        ADD_FAILURE() << "installed";
    } catch (const ModelDownloadError& error) {
        EXPECT_EQ(error.kind(), ModelDownloadError::Kind::diskFull);
        EXPECT_NE(error.description().find("tiny.gguf needs 1000 TB free"), std::string::npos) << error.description();
    }
    EXPECT_TRUE(server.requests().empty());
    EXPECT_FALSE(store.manifest("tiny:1b"));
}

TEST_F(Installer, AnIdenticalFileAlreadyOnTheMachineIsReusedWithoutARequest) {
    // The other runner's blob store holds the weights; the models directory holds the projector
    // under another name; a same-sized impostor stands in the way of both.
    const fs::path blobs = temp / "home/.ollama/models/blobs";
    writeFile(blobs / ("sha256-" + sha256(weights)), weights);
    writeFile(temp / "models/old-projector.gguf", projector);
    std::string impostor = projector;
    impostor[0] ^= 1;
    writeFile(temp / "models/aaa-impostor.gguf", impostor);
    const auto outcome = install(entry());
    EXPECT_EQ(outcome.files[0].how, How::hardLinked);
    EXPECT_EQ(outcome.files[0].source, (blobs / ("sha256-" + sha256(weights))).string());
    EXPECT_EQ(outcome.files[1].how, How::hardLinked);
    EXPECT_EQ(outcome.files[1].source, (temp / "models/old-projector.gguf").string());
    EXPECT_TRUE(server.requests().empty());
    EXPECT_TRUE(installed());
}

TEST_F(Installer, ASecondInstallRefusesOrWaitsForTheFirst) {
    serveBoth();
    fs::create_directories(temp / "models");
    const int held = ::open(ModelInstaller::lockPath(store).c_str(), O_RDWR | O_CREAT, 0600);
    ASSERT_EQ(::flock(held, LOCK_EX), 0);
    ASSERT_EQ(::write(held, "4242\n", 5), 5);
    try {
        install(entry(), {.ifBusy = ModelInstaller::IfBusy::refuse});
        ADD_FAILURE() << "installed";
    } catch (const ModelInstallError& error) {
        EXPECT_EQ(error.description(), "another model install (process 4242) is writing into " +
                                           (temp / "models").string() +
                                           "; nothing was changed. Run this again once it has finished.");
    }
    std::atomic<bool> waiting = false;
    std::thread second([&] {
        install(entry(), {.listener = {.onWaiting = [&](const std::string& holder) {
                              EXPECT_EQ(holder, "4242");
                              waiting = true;
                          }}});
    });
    while (!waiting) std::this_thread::yield();
    EXPECT_FALSE(installed());
    ::close(held);
    second.join();
    EXPECT_TRUE(installed());
}

TEST(ModelCatalogueTest, EntriesAreCheckedAndTheMirrorKeepsEachFileItsPath) {
    const std::string good =
        R"({"models":[{"name":"a","model":{"file":"a.gguf","url":"https://h/x/a.gguf","size_bytes":5,"sha256":")" +
        std::string(64, 'A') + R"("},"projector":null}]})";
    const ModelCatalogue parsed = ModelCatalogue::parse(good, "test");
    ASSERT_EQ(parsed.entries.size(), 1u);
    EXPECT_EQ(parsed.entries[0].model.sha256, std::string(64, 'a'));
    EXPECT_TRUE(parsed.entries[0].gaps().empty());
    for (const char* bad : {R"([])", R"({"models":[{"name":" "}]})", "{\"models\":[{\"name\":\"a\",\"model\":{}}]}",
                            R"({"models":[{"name":"a\nb","model":{"file":"a","url":"https://h/a"}}]})",
                            R"({"models":[{"name":"a","model":{"file":"../a","url":"https://h/a"}}]})",
                            R"({"models":[{"name":"a","model":{"file":"a","url":"ftp://h/a"}}]})",
                            R"({"models":[{"name":"a","model":{"file":"a","url":"https://h/a","sha256":"abc"}}]})",
                            R"({"models":[{"name":"a","model":{"file":"a","url":"https://h/a","size_bytes":-1}}]})", "{"})
        EXPECT_THROW(ModelCatalogue::parse(bad, "test"), ModelCatalogueError) << bad;

    const std::string url = "https://hub.example/org/repo/resolve/main/m.gguf";
    EXPECT_EQ(ModelMirror::apply(url, "m.gguf", ""), url);
    EXPECT_EQ(ModelMirror::apply(url, "m.gguf", "https://mirror.example/"),
              "https://mirror.example/org/repo/resolve/main/m.gguf");
    EXPECT_EQ(ModelMirror::apply(url, "m.gguf", "file:///srv/models/{file}"), "file:///srv/models/m.gguf");
}

}  // namespace
}  // namespace aimwise::testing
