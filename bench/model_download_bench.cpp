// Installing a model is bounded by the network, never by checking it: a download from a loopback
// server, hashed while it streams and written to disk, against `sha256sum` of the same file alone
// (the cheapest way a person could check a file they already have), and against our digest of the
// file read from disk. The file is 1 GiB, or AIMWISE_DOWNLOAD_BENCH_MB megabytes. On a busy machine
// compare the ratios of the same run, and the CPU time per byte.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "AimwiseCore/models/local_model_store.h"
#include "AimwiseCore/models/model_download.h"
#include "platform/bounded_process.h"
#include "tests/support/blob_server.h"

namespace {

using namespace aimwise;
namespace fs = std::filesystem;

struct Fixture {
    fs::path directory;
    fs::path file;
    int64_t sizeBytes = 0;
    std::string sha256;
    testing::BlobServer server;

    Fixture() {
        std::string pattern = (fs::temp_directory_path() / "download-bench-XXXXXX").string();
        if (!::mkdtemp(pattern.data())) std::abort();
        directory = pattern;
        file = directory / "model.gguf";
        const char* megabytes = std::getenv("AIMWISE_DOWNLOAD_BENCH_MB");
        sizeBytes = (megabytes ? std::atoll(megabytes) : 1024) << 20;
        // Incompressible bytes, as model weights are.
        std::mt19937_64 random(42);
        std::vector<uint64_t> block(1 << 17);
        std::ofstream out(file, std::ios::binary);
        for (int64_t written = 0; written < sizeBytes; written += block.size() * 8) {
            for (auto& word : block) word = random();
            out.write(reinterpret_cast<const char*>(block.data()), std::min<int64_t>(block.size() * 8, sizeBytes - written));
        }
        out.close();
        sha256 = *LocalModelStore::sha256OfFile(file);
        server.route("/model.gguf", {.file = file});
    }
    ~Fixture() { fs::remove_all(directory); }
};

Fixture& fixture() {
    static Fixture* const shared = new Fixture();
    return *shared;
}

void BM_DownloadHashedWhileStreaming(benchmark::State& state) {
    Fixture& f = fixture();
    ModelDownload::Request request;
    request.url = f.server.url("/model.gguf");
    request.partialPath = f.directory / "downloads" / "model.partial";
    request.expectedSizeBytes = f.sizeBytes;
    request.expectedSha256 = f.sha256;
    request.displayName = "model.gguf";
    for (auto _ : state) {
        const auto result = ModelDownload::fetch(request, {});
        if (result.sha256 != f.sha256) state.SkipWithError("the download did not verify");
        state.PauseTiming();
        fs::remove(request.partialPath);
        state.ResumeTiming();
    }
    state.SetBytesProcessed(state.iterations() * f.sizeBytes);
}

void BM_Sha256sumOfTheSameFile(benchmark::State& state) {
    Fixture& f = fixture();
    for (auto _ : state) {
        const auto outcome = BoundedProcess::run("sha256sum", {f.file.string()}, 600);
        const auto* finished = std::get_if<BoundedProcess::Finished>(&outcome);
        if (!finished || finished->standardOutput.substr(0, 64) != f.sha256) state.SkipWithError("sha256sum failed");
    }
    state.SetBytesProcessed(state.iterations() * f.sizeBytes);
}

void BM_OurDigestOfTheSameFile(benchmark::State& state) {
    Fixture& f = fixture();
    for (auto _ : state)
        if (LocalModelStore::sha256OfFile(f.file) != f.sha256) state.SkipWithError("the digest differs");
    state.SetBytesProcessed(state.iterations() * f.sizeBytes);
}

// CPU is the whole process's, the server's thread and the digest's included: what the transfer
// costs whatever else the machine is doing.
BENCHMARK(BM_DownloadHashedWhileStreaming)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MeasureProcessCPUTime()
    ->Iterations(3);
BENCHMARK(BM_Sha256sumOfTheSameFile)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
BENCHMARK(BM_OurDigestOfTheSameFile)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);

}  // namespace

BENCHMARK_MAIN();
