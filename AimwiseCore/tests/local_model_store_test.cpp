#include "AimwiseCore/models/local_model_store.h"

#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <chrono>
#include <fstream>

#include "tests/support/temp_dir.h"

namespace aimwise {
namespace {

using State = LocalModelDiskState;

class LocalModelStoreTest : public ::testing::Test {
protected:
    LocalModelStoreTest() : store(dir.path() / "models") {
        writeModelFile("model.gguf", "weights");
        writeModelFile("mmproj.gguf", "eyes");
        manifest = {"m:1b",
                    "model.gguf",
                    {{"model.gguf", 7, *LocalModelStore::sha256OfFile(store.modelsDirectory() / "model.gguf")},
                     {"mmproj.gguf", 4, *LocalModelStore::sha256OfFile(store.modelsDirectory() / "mmproj.gguf")}}};
    }

    void writeModelFile(const std::string& name, const std::string& contents) {
        testing::writeFile(store.modelsDirectory() / name, contents);
    }

    testing::TempDir dir;
    LocalModelStore store;
    LocalModelManifest manifest;
};

TEST_F(LocalModelStoreTest, HashesWithSHA256) {
    testing::writeFile(dir / "abc", "abc");
    EXPECT_EQ(LocalModelStore::sha256OfFile(dir / "abc"),
              "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_FALSE(LocalModelStore::sha256OfFile(dir / "absent"));
}

TEST_F(LocalModelStoreTest, ManifestsAreSavedReplacedAndReadBack) {
    EXPECT_FALSE(store.manifest("m:1b"));
    store.saveManifest(manifest);
    store.saveManifest({"other", "o.gguf", {}});
    EXPECT_EQ(store.manifest("m:1b"), manifest);
    LocalModelManifest updated = manifest;
    updated.files.pop_back();
    store.saveManifest(updated);
    EXPECT_EQ(store.manifest("m:1b"), updated);
    EXPECT_TRUE(store.manifest("other"));
    testing::writeFile(store.manifestsPath(), "{ not json");
    EXPECT_FALSE(store.manifest("m:1b"));
    // Members of the wrong type are absent, never thrown.
    testing::writeFile(store.manifestsPath(), R"({"models":[{"model":5},{"model":"m:1b","file_name":3},
        {"model":"other","file_name":"o.gguf","files":[{"name":"o.gguf","sha256":7}]}]})");
    EXPECT_FALSE(store.manifest("m:1b"));
    EXPECT_EQ(store.manifest("other"), (LocalModelManifest{"other", "o.gguf", {{"o.gguf", -1, ""}}}));
    store.saveManifest(manifest);
    EXPECT_EQ(store.manifest("m:1b"), manifest);
}

TEST_F(LocalModelStoreTest, FilesNeedVerifyingUntilTheyAreHashedOnce) {
    EXPECT_EQ(store.diskState(manifest), (State{State::NeedsVerification{{"model.gguf", "mmproj.gguf"}}}));
    EXPECT_TRUE(store.verify(manifest, 1).ok());
    EXPECT_EQ(store.diskState(manifest), State{State::Verified{}});
    struct stat info {};
    ASSERT_EQ(::stat(store.verificationsPath().c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);
}

TEST_F(LocalModelStoreTest, AnyChangeAfterVerificationIsNoticedWithoutHashing) {
    ASSERT_TRUE(store.verify(manifest, 1).ok());
    // Same size, new content, and the old modification time put back: the change time still moves.
    struct stat before {};
    ::stat((store.modelsDirectory() / "model.gguf").c_str(), &before);
    writeModelFile("model.gguf", "WEIGHTS");
    timespec times[2] = {before.st_atim, before.st_mtim};
    ::utimensat(AT_FDCWD, (store.modelsDirectory() / "model.gguf").c_str(), times, 0);
    EXPECT_EQ(store.diskState(manifest), (State{State::NeedsVerification{{"model.gguf"}}}));
}

TEST_F(LocalModelStoreTest, AReplacedFileIsNoticed) {
    ASSERT_TRUE(store.verify(manifest, 1).ok());
    std::filesystem::path file = store.modelsDirectory() / "mmproj.gguf";
    testing::writeFile(dir / "swap", "eyes");
    std::filesystem::rename(dir / "swap", file);
    EXPECT_EQ(store.diskState(manifest), (State{State::NeedsVerification{{"mmproj.gguf"}}}));
    EXPECT_TRUE(store.verify(manifest, 2).ok());  // identical content verifies again
    EXPECT_EQ(store.diskState(manifest), State{State::Verified{}});
}

TEST_F(LocalModelStoreTest, AMissingFileIsMissing) {
    ASSERT_TRUE(store.verify(manifest, 1).ok());
    std::filesystem::remove(store.modelsDirectory() / "mmproj.gguf");
    EXPECT_EQ(store.diskState(manifest), State{State::Missing{}});
    auto result = store.verify(manifest, 2);
    EXPECT_EQ(result.missing, std::vector<std::string>{"mmproj.gguf"});
}

TEST_F(LocalModelStoreTest, WrongContentIsNeverRecordedAsVerified) {
    LocalModelManifest wrong = manifest;
    wrong.files[0].sha256 = std::string(64, '0');
    auto result = store.verify(wrong, 1);
    EXPECT_EQ(result.mismatched, std::vector<std::string>{"model.gguf"});
    EXPECT_EQ(store.diskState(wrong), (State{State::NeedsVerification{{"model.gguf"}}}));
    // Nor is a file of another size than the manifest says.
    LocalModelManifest longer = manifest;
    longer.files[1].sizeBytes = 5;
    EXPECT_EQ(store.verify(longer, 1).mismatched, std::vector<std::string>{"mmproj.gguf"});
}

TEST_F(LocalModelStoreTest, ARecordFromAnotherManifestDoesNotCount) {
    ASSERT_TRUE(store.verify(manifest, 1).ok());
    LocalModelManifest newer = manifest;
    newer.files[0].sha256 = std::string(64, 'a');  // a new release of the same file name
    EXPECT_EQ(store.diskState(newer), (State{State::NeedsVerification{{"model.gguf"}}}));
}

TEST_F(LocalModelStoreTest, ACorruptRecordFileMeansVerifyingAgain) {
    ASSERT_TRUE(store.verify(manifest, 1).ok());
    std::string records = testing::readFile(store.verificationsPath());
    const std::string digest = "\"" + manifest.files[0].sha256 + "\"";
    ASSERT_NE(records.find(digest), std::string::npos);
    testing::writeFile(store.verificationsPath(), records.replace(records.find(digest), digest.size(), "5"));
    EXPECT_EQ(store.diskState(manifest), (State{State::NeedsVerification{{"model.gguf"}}})) << "a digest that is no text";
    testing::writeFile(store.verificationsPath(), "[]");
    EXPECT_EQ(store.diskState(manifest), (State{State::NeedsVerification{{"model.gguf", "mmproj.gguf"}}}));
}

TEST_F(LocalModelStoreTest, DiskStateIsCheapForLargeFiles) {
    // 64 MiB hashed once; afterwards each check must not read it.
    std::filesystem::path big = store.modelsDirectory() / "big.gguf";
    std::filesystem::resize_file(big.parent_path() / "model.gguf", 0);
    { std::ofstream(big, std::ios::binary).seekp((64 << 20) - 1).put('x'); }
    LocalModelManifest large{"big", "big.gguf", {{"big.gguf", 64 << 20, *LocalModelStore::sha256OfFile(big)}}};
    ASSERT_TRUE(store.verify(large, 1).ok());
    auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 100; ++i) ASSERT_EQ(store.diskState(large), State{State::Verified{}});
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
}

}  // namespace
}  // namespace aimwise
