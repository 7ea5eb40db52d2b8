#include "platform/key_store.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/support/temp_dir.h"

namespace aimwise {
namespace {

namespace fs = std::filesystem;
using Kind = VideoArchiveKeyStore::KeyError::Kind;

unsigned modeOf(const fs::path& path) {
    struct stat info {};
    ::stat(path.c_str(), &info);
    return info.st_mode & 07777;
}

template <typename Call>
std::string errorOf(Call call, Kind expected) {
    try {
        call();
    } catch (const VideoArchiveKeyStore::KeyError& error) {
        EXPECT_EQ(error.kind(), expected) << error.description();
        return error.description();
    }
    return "no error";
}

TEST(FileKeyStore, CreatesAPrivateKeyOnceAndRotatesToNewGenerationsKeepingTheOldOnes) {
    testing::TempDir dir;
    const fs::path keys = dir / "support/video-archive-keys";
    auto store = makeFileKeyStore(keys);
    EXPECT_EQ(errorOf([&] { store->loadCurrentWithGeneration(); }, Kind::noKey), "no video archive key in " + keys.string());

    const auto first = store->loadOrRotate();
    EXPECT_EQ(first.generation, 1u);
    EXPECT_EQ(modeOf(keys), 0700u);
    EXPECT_EQ(modeOf(keys / "generation-1.key"), 0600u);
    EXPECT_EQ(fs::file_size(keys / "generation-1.key"), 32u);
    EXPECT_EQ(store->loadOrRotate().key.bytes(), first.key.bytes());

    const auto second = store->rotate();
    EXPECT_EQ(second.generation, 2u);
    EXPECT_NE(second.key.bytes(), first.key.bytes());
    EXPECT_EQ(store->loadCurrentWithGeneration().generation, 2u);
    EXPECT_EQ(store->loadCurrentWithGeneration(1).key.bytes(), first.key.bytes());
    EXPECT_EQ(store->lookup()(1).bytes(), first.key.bytes());
    EXPECT_EQ(makeFileKeyStore(keys)->generations(), (std::vector<uint32_t>{1, 2}));
    EXPECT_EQ(errorOf([&] { store->keyForGeneration(7); }, Kind::noSuchGeneration),
              "no video archive key of generation 7 in " + keys.string() +
                  " — the recordings sealed with it stay unreadable until that key file is restored");
}

TEST(FileKeyStore, RefusesKeysOthersCouldReadOrOfTheWrongSizeAndRecordsOnWithANewGeneration) {
    testing::TempDir dir;
    auto store = makeFileKeyStore(dir.path());
    store->rotate();
    store->rotate();
    const fs::path one = dir / "generation-1.key", two = dir / "generation-2.key";
    ::chmod(two.c_str(), 0644);
    EXPECT_EQ(errorOf([&] { store->loadGeneration(2); }, Kind::unreadable),
              "video archive key unreadable: " + two.string() +
                  " can be read by other users (mode 0644); if nobody else could have copied it, chmod 600 it");
    EXPECT_EQ(store->loadCurrentWithGeneration().generation, 1u);

    fs::resize_file(one, 31);
    EXPECT_EQ(errorOf([&] { store->loadGeneration(1); }, Kind::unreadable),
              "video archive key unreadable: the key file " + one.string() + " is present but not a valid key");
    EXPECT_NE(errorOf([&] { store->loadCurrentWithGeneration(); }, Kind::unreadable)
                  .find("video archive key unreadable: 2 key generations, all unreadable"),
              std::string::npos);
    EXPECT_EQ(store->loadOrRotate().generation, 3u);
    EXPECT_EQ(store->generations(), (std::vector<uint32_t>{1, 2, 3}));
}

}  // namespace
}  // namespace aimwise
