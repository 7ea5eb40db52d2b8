#include "AimwiseCore/memory/memory_store.h"

#include <gtest/gtest.h>

#include "AimwiseCore/memory/memory_wipe.h"
#include "tests/support/temp_dir.h"

namespace aimwise {
namespace {

using testing::readFile;
using testing::writeFile;

PeriodDigest digest(int64_t start, std::string summary = "a quiet day") {
    return {start, start + 86'400'000, start + 90'000'000, std::move(summary),
            {{"They write best before noon.", MemoryFactProvenance::asserted, {start + 5, start + 9}}},
            {"Ask about the first step once."}, false};
}

TEST(MemoryStoreTest, RecordsKeepTheirExactKeysAndRoundTrip) {
    const StandingMemory memory{1'763'800'000'000, 3, {{"thesis", MemoryThreadStatus::dormant, "chapter 3"}},
                                {"Keep it short."}, digest(0).facts, true, 42, "reply did not parse"};
    EXPECT_EQ(MemoryJSON::encode(memory).serialized(),
              R"({"digestCount":3,"facts":[{"provenance":"asserted","sourceEventTsMs":[5,9],"text":"They write best )"
              R"(before noon."}],"lessons":["Keep it short."],"regeneratedAtTsMs":1763800000000,"salvageDetail":"reply )"
              R"(did not parse","salvaged":true,"seed":42,"threads":[{"name":"thesis","notes":"chapter 3","status":)"
              R"("dormant"}]})");
    testing::TempDir root;
    MemoryStore::writeStandingMemory(memory, root.path());
    MemoryStore::writeSequentialMemoryState({memory, {0, 86'400'000}}, root.path());
    EXPECT_EQ(MemoryStore::readStandingMemory(root.path()), memory);
    EXPECT_EQ(MemoryStore::readSequentialMemoryState(root.path()), (SequentialMemoryState{memory, {0, 86'400'000}}));

    // A key missing or of the wrong type makes the whole record absent; an absent optional is fine.
    for (const char* damaged : {R"({"regeneratedAtTsMs":1,"digestCount":0,"threads":[],"lessons":[],"facts":[]})",
                                R"({"regeneratedAtTsMs":1.5,"digestCount":0,"threads":[],"lessons":[],"facts":[],"salvaged":false})",
                                R"({"regeneratedAtTsMs":1,"digestCount":0,"threads":[{"name":"x","status":"paused","notes":""}],"lessons":[],"facts":[],"salvaged":false})",
                                "{\"regeneratedAtTsMs\":1,", "\xff\xfe"}) {
        writeFile(MemoryStore::standingMemoryPath(root.path()), damaged);
        EXPECT_EQ(MemoryStore::inspectStandingMemory(root.path()).state, MemoryStore::FileState::undecodable) << damaged;
    }
    writeFile(MemoryStore::standingMemoryPath(root.path()),
              R"({"regeneratedAtTsMs":1,"digestCount":0,"threads":[],"lessons":[],"facts":[],"salvaged":false,"seed":null})");
    EXPECT_EQ(MemoryStore::readStandingMemory(root.path()), StandingMemory{.regeneratedAtTsMs = 1});
}

TEST(MemoryStoreTest, ADigestIsWrittenOnceAndDamagedOnesAreSkipped) {
    testing::TempDir root;
    EXPECT_TRUE(MemoryStore::readAllDigests(root.path()).empty());
    MemoryStore::writeDigest(digest(86'400'000), root.path());
    MemoryStore::writeDigest(digest(0), root.path());
    const std::string first = readFile(MemoryStore::digestPath(root.path(), 0));
    try {
        MemoryStore::writeDigest(digest(0, "a rewrite"), root.path());
        ADD_FAILURE() << "a second digest for the period was written";
    } catch (const MemoryStoreError& error) {
        EXPECT_EQ(error.value().periodStartTsMs, 0);
    }
    EXPECT_EQ(readFile(MemoryStore::digestPath(root.path(), 0)), first);
    writeFile(MemoryStore::digestPath(root.path(), 5), "{\"periodStartTsMs\": 5");
    writeFile(MemoryStore::digestsDirectory(root.path()) / "notes.txt", "{}");
    EXPECT_EQ(MemoryStore::readAllDigests(root.path()), (std::vector<PeriodDigest>{digest(0), digest(86'400'000)}));
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(MemoryStore::digestsDirectory(root.path())), {}), 4);
}

TEST(MemoryWipeTest, RecordsFromBeforeTheLatestWipeAreFilteredOnRead) {
    testing::TempDir root;
    const auto log = MemoryWipeLog::defaultURL(root.path());
    EXPECT_EQ(MemoryWipeLog::latestAtMs(log), std::nullopt);
    MemoryWipeLog::request(200, log);
    writeFile(log, readFile(log) + "not json\n{\"at_ms\":\"soon\"}\n{\"at_ms\":100}\n");
    MemoryWipeLog::request(150, log);
    EXPECT_EQ(readFile(log), "{\"at_ms\":200}\nnot json\n{\"at_ms\":\"soon\"}\n{\"at_ms\":100}\n{\"at_ms\":150}\n");
    const auto wipe = MemoryWipeLog::latestAtMs(log);
    EXPECT_EQ(wipe, 200);

    const StandingMemory atWipe{.regeneratedAtTsMs = 200}, before{.regeneratedAtTsMs = 199};
    EXPECT_EQ(MemoryWipeFilter::standingMemory(atWipe, wipe), atWipe);
    EXPECT_EQ(MemoryWipeFilter::standingMemory(before, wipe), std::nullopt);
    EXPECT_EQ(MemoryWipeFilter::standingMemory(before, std::nullopt), before);
    EXPECT_EQ(MemoryWipeFilter::digests({digest(199), digest(200)}, wipe), std::vector<PeriodDigest>{digest(200)});
    const std::vector<CoachCorrection> corrections{{199, "old"}, {200, "new"}};
    EXPECT_EQ(MemoryWipeFilter::corrections(corrections, wipe), (std::vector<CoachCorrection>{{200, "new"}}));
    EXPECT_EQ(MemoryWipeFilter::corrections(corrections, std::nullopt), corrections);
}

}  // namespace
}  // namespace aimwise
