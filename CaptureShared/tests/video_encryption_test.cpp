#include <sys/mman.h>
#include <unistd.h>
#include <gtest/gtest.h>

#include <random>

#include "CaptureShared/video/video_encryption_format.h"
#include "CaptureShared/video/video_stream_decryptor.h"
#include "CaptureShared/video/video_stream_encryptor.h"
#include "tests/support/temp_dir.h"

namespace aimwise {
namespace {

namespace Format = VideoEncryptionFormat;
using Kind = VideoEncryptionError::Kind;
using testing::TempDir;

const VideoArchiveKey key = VideoArchiveKey::random();

std::string pattern(size_t size, uint32_t seed = 7) {
    std::string bytes(size, '\0');
    std::mt19937 random(seed);
    for (char& byte : bytes) byte = static_cast<char>(random());
    return bytes;
}

// Sealed in pieces of the given sizes, with a flush after each piece when asked.
std::string seal(const std::vector<std::string>& pieces, bool flushEach, uint32_t generation = 3) {
    TempDir dir;
    {
        auto encryptor = VideoStreamEncryptor::create(dir / "v", key, generation);
        for (const auto& piece : pieces) {
            encryptor->write(piece);
            if (flushEach) encryptor->flush();
        }
        encryptor->close();
    }
    return testing::readFile(dir / "v");
}

VideoStreamDecryptor decryptorOf(const std::string& bytes, const VideoArchiveKey& with = key) {
    FileDescriptor fd(::memfd_create("sealed", 0));
    writeFully(fd.get(), bytes.data(), bytes.size());
    ::lseek(fd.get(), 0, SEEK_SET);
    return VideoStreamDecryptor(with, std::move(fd));
}

// The chunks read before the first error, and that error's kind.
std::pair<std::vector<std::string>, std::optional<Kind>> readChunks(const std::string& bytes) {
    std::vector<std::string> chunks;
    try {
        auto decryptor = decryptorOf(bytes);
        while (auto chunk = decryptor.readChunk()) chunks.push_back(*chunk);
    } catch (const VideoEncryptionError& error) {
        return {chunks, error.kind()};
    }
    return {chunks, std::nullopt};
}

std::string littleEndian(uint32_t value) {
    std::string out(4, '\0');
    for (int i = 0; i < 4; ++i) out[i] = static_cast<char>(value >> (8 * i));
    return out;
}

TEST(VideoEncryption, RoundTripsEverySizeAroundTheChunkEdgeInWhateverPiecesItArrives) {
    const size_t c = Format::chunkSize;
    for (size_t size : {size_t{0}, size_t{1}, c - 1, c, c + 1, 2 * c + 5}) {
        const std::string plain = pattern(size);
        for (size_t piece : {size_t{4096}, c, 3 * c}) {
            std::vector<std::string> pieces;
            for (size_t at = 0; at < size; at += piece) pieces.push_back(plain.substr(at, piece));
            const std::string sealed = seal(pieces, false);
            const size_t chunks = (size + c - 1) / c;
            EXPECT_EQ(sealed.size(), Format::v2HeaderLength + chunks * (4 + 28) + size) << size << "/" << piece;
            EXPECT_EQ(sealed.substr(0, 12), std::string("VESKAVE2") + littleEndian(3));
            auto decryptor = decryptorOf(sealed);
            EXPECT_EQ(decryptor.generation(), 3u);
            EXPECT_TRUE(decryptor.readAll() == plain) << size << "/" << piece;
            EXPECT_EQ(decryptor.chunksRead(), chunks);
        }
    }
}

TEST(VideoEncryption, EveryTruncationReadsTheWholeChunksBeforeItAndFlagsOnlyACutInsideOne) {
    const std::vector<std::string> pieces{pattern(100, 1), pattern(70, 2), pattern(30, 3)};
    const std::string sealed = seal(pieces, true);
    std::vector<size_t> ends{Format::v2HeaderLength};
    for (const auto& piece : pieces) ends.push_back(ends.back() + 4 + 28 + piece.size());
    ASSERT_EQ(ends.back(), sealed.size());
    for (size_t cut = Format::v2HeaderLength; cut <= sealed.size(); ++cut) {
        const auto [chunks, error] = readChunks(sealed.substr(0, cut));
        const size_t whole = std::upper_bound(ends.begin(), ends.end(), cut) - ends.begin() - 1;
        ASSERT_EQ(chunks.size(), whole) << cut;
        for (size_t i = 0; i < whole; ++i) EXPECT_EQ(chunks[i], pieces[i]);
        const bool atBoundary = std::find(ends.begin(), ends.end(), cut) != ends.end();
        EXPECT_EQ(error, atBoundary ? std::nullopt : std::optional(Kind::corruptChunk)) << cut;
    }
}

TEST(VideoEncryption, AnyFlippedBitAfterTheHeaderIsAnErrorAndNeverPlaintext) {
    const std::string sealed = seal({pattern(40, 1), pattern(20, 2)}, true);
    const size_t firstChunkEnd = Format::v2HeaderLength + 4 + 28 + 40;
    for (size_t at = Format::v2HeaderLength; at < sealed.size(); ++at) {
        std::string damaged = sealed;
        damaged[at] ^= 0x10;
        const auto [chunks, error] = readChunks(damaged);
        ASSERT_TRUE(error.has_value()) << at;
        EXPECT_EQ(chunks.size(), at < firstChunkEnd ? 0u : 1u) << at;
        // Only a damaged length can make a chunk run past the end of the file.
        const bool inLength = (at < Format::v2HeaderLength + 4) || (at >= firstChunkEnd && at < firstChunkEnd + 4);
        if (!inLength) {
            EXPECT_EQ(error, Kind::authenticationFailed) << at;
        }
    }
    EXPECT_EQ(readChunks(sealed).second, std::nullopt);
    try {
        decryptorOf(sealed, VideoArchiveKey::random()).readAll();
        ADD_FAILURE() << "another key opened the file";
    } catch (const VideoEncryptionError& error) {
        EXPECT_EQ(error.description(),
                  "encrypted video failed authentication (damaged, or sealed with another key): chunk 1");
    }
}

TEST(VideoEncryption, TheLargestBoxALengthMayClaimIsReadAndOneByteMoreIsRefused) {
    const std::string plain = pattern(Format::maximumSealedBoxLength - 28);
    std::string box(plain.size() + 28, '\0');
    AesGcm(key).seal(reinterpret_cast<const uint8_t*>(plain.data()), plain.size(), reinterpret_cast<uint8_t*>(box.data()));
    const std::string header = std::string(Format::magicV2) + littleEndian(1);
    auto atLimit = decryptorOf(header + littleEndian(1048640) + box);
    EXPECT_TRUE(atLimit.readChunk() == plain);
    const auto [chunks, error] = readChunks(header + littleEndian(1048641) + box + "x");
    EXPECT_TRUE(chunks.empty());
    EXPECT_EQ(error, Kind::corruptChunk);
}

TEST(VideoEncryption, VersionOneHeaderOnlyAndPlainFilesAreToldApart) {
    TempDir dir;
    const std::string v2 = seal({pattern(10)}, false, 9);
    const std::string v1 = std::string(Format::magicV1) + v2.substr(Format::v2HeaderLength);
    const struct {
        std::string name, bytes;
        bool encrypted;
        std::optional<uint32_t> generation;
    } files[] = {
        {"v2", v2, true, 9},
        {"v1", v1, true, std::nullopt},
        {"header-only", v2.substr(0, 12), true, 9},
        {"magic-only", v2.substr(0, 8), true, std::nullopt},
        {"short", "VESKAVE", false, std::nullopt},
        {"plain", std::string("\0\0\0\x18" "ftypisom", 12) + pattern(50), false, std::nullopt},
    };
    for (const auto& file : files) {
        testing::writeFile(dir / file.name, file.bytes);
        EXPECT_EQ(Format::isEncrypted(dir / file.name), file.encrypted) << file.name;
        EXPECT_EQ(Format::peekHeaderGeneration(dir / file.name), file.generation) << file.name;
    }
    EXPECT_FALSE(Format::isEncrypted(dir / "absent"));

    std::vector<uint32_t> asked;
    const auto lookup = [&](uint32_t generation) {
        asked.push_back(generation);
        return key;
    };
    EXPECT_EQ(VideoStreamDecryptor::open(dir / "v1", lookup).readAll(), pattern(10));
    EXPECT_EQ(VideoStreamDecryptor::open(dir / "header-only", lookup).readAll(), "");
    EXPECT_EQ(asked, (std::vector<uint32_t>{1, 9}));
    const auto kindOf = [&](const std::string& name) -> std::optional<Kind> {
        try {
            VideoStreamDecryptor::open(dir / name, lookup).readAll();
        } catch (const VideoEncryptionError& error) {
            return error.kind();
        }
        return std::nullopt;
    };
    EXPECT_EQ(kindOf("plain"), Kind::notEncrypted);
    EXPECT_EQ(kindOf("short"), Kind::notEncrypted);
    EXPECT_EQ(kindOf("magic-only"), Kind::corruptChunk);
    EXPECT_EQ(kindOf("absent"), Kind::notEncrypted);
}

TEST(VideoEncryption, ANewFileIsPrivateAndAnExistingOneIsNeverReplaced) {
    TempDir dir;
    VideoStreamEncryptor::create(dir / "v", key, 1)->close();
    EXPECT_EQ(std::filesystem::status(dir / "v").permissions(), std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
    EXPECT_THROW(VideoStreamEncryptor::create(dir / "v", key, 1), VideoEncryptionError);
    EXPECT_EQ(testing::readFile(dir / "v").size(), Format::v2HeaderLength);
}

}  // namespace
}  // namespace aimwise
