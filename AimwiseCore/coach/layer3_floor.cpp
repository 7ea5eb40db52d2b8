#include "AimwiseCore/coach/layer3_floor.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <limits>

#include "AimwiseCore/events/json_value.h"
#include "CaptureShared/common/atomic_file.h"

namespace aimwise::Layer3Floor {

namespace fs = std::filesystem;

namespace {

void emit(const Log& log, const std::string& line) {
    if (log) log(line);
}

// Absent when the file is not there; throws when it is there and cannot be read.
std::optional<std::string> readIfPresent(const fs::path& at) {
    const int fd = ::open(at.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        if (errno == ENOENT) return std::nullopt;
        throw fs::filesystem_error("open", at, std::error_code(errno, std::generic_category()));
    }
    std::string text;
    char buffer[4096];
    // A floor is a few bytes; anything this large is not one and is read no further.
    constexpr size_t limit = 64 * 1024;
    for (;;) {
        const ssize_t got = ::read(fd, buffer, sizeof buffer);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) {
            const int error = errno;
            ::close(fd);
            throw fs::filesystem_error("read", at, std::error_code(error, std::generic_category()));
        }
        if (got == 0 || text.size() > limit) break;
        text.append(buffer, static_cast<size_t>(got));
    }
    ::close(fd);
    return text;
}

}  // namespace

fs::path path(const fs::path& dataRoot) { return dataRoot / "io-layer" / fileName; }

std::optional<int64_t> decode(std::string_view text) {
    const auto value = JSONValue::tryParse(text);
    if (!value) return std::nullopt;
    const JSONValue* floor = value->member("floorTsMs");
    const double* number = floor ? floor->numberIfAny() : nullptr;
    return number ? wholeMilliseconds(*number) : std::nullopt;
}

std::string encode(int64_t floorMs) { return JSONValue(JSONValue::Object{{"floorTsMs", floorMs}}).serialized(); }

std::optional<int64_t> onboardingStartFloor(std::span<const EventLogEvent> events) {
    int64_t lastResetMs = std::numeric_limits<int64_t>::min();
    for (const EventLogEvent& event : events)
        if (event.type == "onboarding_reset" && event.tsMs > lastResetMs) lastResetMs = event.tsMs;
    std::optional<int64_t> started;
    for (const EventLogEvent& event : events)
        if (event.type == "onboarding_started" && event.tsMs > lastResetMs && (!started || event.tsMs > *started))
            started = event.tsMs;
    return started;
}

int64_t resolve(const fs::path& dataRoot, int64_t asOfMs, std::span<const EventLogEvent> events, const Log& log) {
    const fs::path at = path(dataRoot);
    std::optional<std::string> text;
    try {
        text = readIfPresent(at);
    } catch (const fs::filesystem_error&) {
        emit(log, "layer3: could not read floor at " + at.string());
        return asOfMs;
    }
    if (text) {
        if (const auto floor = decode(*text)) return *floor;
        emit(log, "layer3: floor at " + at.string() + " did not decode (" + std::to_string(text->size()) +
                      " bytes); refusing to re-pin over it");
        return asOfMs;
    }
    const int64_t floor = onboardingStartFloor(events).value_or(asOfMs);
    try {
        fs::create_directories(at.parent_path());
        writeFileAtomically(at, encode(floor));
    } catch (const std::exception&) {
        emit(log, "layer3: could not persist floor at " + at.string());
    }
    return floor;
}

}  // namespace aimwise::Layer3Floor
