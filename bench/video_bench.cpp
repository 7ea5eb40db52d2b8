// The video archive: sealing throughput against a plain memcpy of the same bytes, opening it again,
// and building a ramp clip of the hour before an instant from a recorded 1920x1080 hour at 1 fps.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <random>
#include <string>

#include "CaptureShared/common/environment.h"
#include "CaptureShared/ramp/ramp_verify.h"
#include "CaptureShared/video/sealed_recording.h"
#include "CaptureShared/video/video_container_bridge.h"
#include "CaptureShared/video/video_stream_decryptor.h"
#include "CaptureShared/video/video_stream_encryptor.h"

namespace {

namespace fs = std::filesystem;
using namespace aimwise;

constexpr size_t streamBytes = 64u << 20;
constexpr int64_t judgedMs = 1795000000000;

const std::string& stream() {
    static const std::string bytes = [] {
        std::string out(streamBytes, '\0');
        std::mt19937_64 random(3);
        for (size_t i = 0; i + 8 <= out.size(); i += 8) {
            const uint64_t word = random();
            std::memcpy(out.data() + i, &word, 8);
        }
        return out;
    }();
    return bytes;
}

const VideoArchiveKey& key() {
    static const VideoArchiveKey instance = VideoArchiveKey::random();
    return instance;
}

// The baseline: copying the stream in the 64 KiB reads a recorder makes.
void BM_Memcpy(benchmark::State& state) {
    std::string destination(streamBytes, '\0');
    for (auto _ : state) {
        for (size_t at = 0; at < streamBytes; at += 65536) std::memcpy(destination.data() + at, stream().data() + at, 65536);
        benchmark::DoNotOptimize(destination.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * streamBytes);
}

// Sealing the same stream, arriving in the same 64 KiB pieces, to the null device.
void BM_Seal(benchmark::State& state) {
    for (auto _ : state) {
        VideoStreamEncryptor encryptor(key(), 1, FileDescriptor(::open("/dev/null", O_WRONLY | O_CLOEXEC)));
        for (size_t at = 0; at < streamBytes; at += 65536) encryptor.write(std::string_view(stream()).substr(at, 65536));
        encryptor.close();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * streamBytes);
}

void BM_Open(benchmark::State& state) {
    std::string path = (fs::temp_directory_path() / "video-bench-XXXXXX").string();
    const int fd = ::mkstemp(path.data());
    {
        VideoStreamEncryptor encryptor(key(), 1, FileDescriptor(fd));
        encryptor.write(stream());
    }
    for (auto _ : state) {
        auto decryptor = VideoStreamDecryptor::open(path, [](uint32_t) { return key(); });
        while (auto chunk = decryptor.readChunk()) benchmark::DoNotOptimize(chunk->data());
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * streamBytes);
    ::unlink(path.c_str());
}

// An hour of 1920x1080 at 1 fps in six ten-minute recordings, ending at the judged instant.
struct RecordedHour {
    fs::path directory;
    std::string ffmpeg = VideoContainerBridge::ffmpegPath(processEnvironment());

    RecordedHour() {
        std::string pattern = (fs::temp_directory_path() / "video-bench-hour-XXXXXX").string();
        if (!::mkdtemp(pattern.data())) std::abort();
        directory = pattern;
        for (int part = 0; part < 6; ++part)
            SealedRecording::writeSynthetic(directory / "display-1",
                                            {.fileName = "part-" + std::to_string(part) + ".ts.sealed",
                                             .startMs = judgedMs - 3600000 + part * 600000, .frames = part == 5 ? 601 : 600,
                                             .width = 1920, .height = 1080},
                                            key(), 1, ffmpeg);
    }
    ~RecordedHour() {
        std::error_code ignored;
        fs::remove_all(directory, ignored);
    }
};

double childrenCpuSec() {
    rusage usage{};
    ::getrusage(RUSAGE_CHILDREN, &usage);
    return usage.ru_utime.tv_sec + usage.ru_stime.tv_sec + (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// Wall time, and the CPU time of the ffmpeg children, which do most of the work: on a busy machine the
// wall time says more about the neighbours than about the clip.
void BM_RampClipOfTheHourBefore(benchmark::State& state) {
    static const RecordedHour hour;
    const fs::path clip = hour.directory / "clip.mp4";
    const double childrenBefore = childrenCpuSec();
    for (auto _ : state) {
        const auto plan = RampVerify::plan(judgedMs, {.videoRoot = hour.directory});
        const auto written = VideoContainerBridge::writeClip(
            plan, clip, {.width = 1920, .height = 1080, .ffmpeg = hour.ffmpeg}, [](uint32_t) { return key(); });
        benchmark::DoNotOptimize(written.outputFrames);
        fs::remove(clip);
    }
    state.counters["ffmpeg_cpu_s"] = benchmark::Counter((childrenCpuSec() - childrenBefore) / state.iterations());
}

BENCHMARK(BM_Memcpy)->Unit(benchmark::kMillisecond)->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(BM_Seal)->Unit(benchmark::kMillisecond)->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(BM_Open)->Unit(benchmark::kMillisecond)->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(BM_RampClipOfTheHourBefore)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(1)
    ->Repetitions(3)
    ->ReportAggregatesOnly(true);

}  // namespace

BENCHMARK_MAIN();
