#include "AimwiseCore/events/event_log.h"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <map>
#include <memory>
#include <mutex>

#include "AimwiseCore/events/file_io.h"
#include "AimwiseCore/events/json_text.h"
#include "CaptureShared/common/icu_date_format.h"
#include "CaptureShared/dataroot/data_paths.h"

namespace aimwise::EventLog {

namespace {

struct Cache {
    std::filesystem::path path;
    events_io::FileAttributes attributes;
    int64_t completeUpTo = 0;
    std::optional<std::string> text;
    // An answer taken from a torn last line holds only until that line is finished.
    bool fromFragment = false;
};

std::mutex lock;
std::optional<Cache> cache;
Statistics counters;

// Building an ICU formatter costs more than the whole scan of a window, so each thread keeps one
// per pattern, following the default zone if it changes.
std::string formatted(int64_t ms, const char16_t* pattern) {
    struct Formatter {
        std::unique_ptr<ICUDateFormat> format;
        std::u16string zone;
    };
    thread_local std::map<const char16_t*, Formatter> formatters;
    auto& formatter = formatters[pattern];
    std::u16string zone = ICUDateFormat::defaultZone();
    if (!formatter.format || formatter.zone != zone) {
        formatter.format = ICUDateFormat::make(pattern);
        formatter.zone = std::move(zone);
    }
    if (!formatter.format) return {};
    return formatter.format->format(static_cast<double>(ms));
}

bool isTaskType(std::string_view type) { return type == "task_declared" || type == "task_cleared"; }

// Nothing when the line is not a task event; otherwise its rendering, which may itself be nothing.
std::optional<std::optional<std::string>> acceptedTaskLine(std::string_view line) {
    // Most lines mention neither word, and a byte search is far cheaper than a parse.
    if (line.find("task_declared") == std::string_view::npos && line.find("task_cleared") == std::string_view::npos)
        return std::nullopt;
    const auto parsed = json_text::parse(line);
    if (!parsed) return std::nullopt;
    const auto* type = parsed->member("type");
    if (!type || !type->stringIfAny() || !isTaskType(*type->stringIfAny())) return std::nullopt;
    const auto* ts = parsed->member("ts_ms");
    if (!ts || !ts->numberIfAny()) return std::optional<std::string>{};
    const double tsMs = *ts->numberIfAny();
    if (std::fabs(tsMs) > 9.2e18) return std::optional<std::string>{};
    return taskFileBody(*type->stringIfAny(), parsed->member("detail"), static_cast<int64_t>(tsMs));
}

struct ScanResult {
    bool failed = false;
    std::optional<std::optional<std::string>> found;
    bool foundInFragment = false;
    int64_t completeUpTo = 0;
};

// Walks the lines of [from, to) newest first, in windows read from the end. `from` must be a line
// start. With `tailComplete` a last line without its newline is taken as complete; either way
// completeUpTo stays just past the last newline, so that a line still being written is scanned
// again whole once it is finished.
ScanResult scanBackwards(int fd, int64_t from, int64_t to, bool tailComplete, bool countWindows) {
    ScanResult result;
    std::optional<int64_t> completeUpTo;
    std::string segment, window;
    int64_t start = to;
    size_t pos = 0;
    bool newestPending = true, newestIsFragment = false;

    const auto emit = [&](std::string_view line) -> bool {
        const bool isNewest = newestPending;
        newestPending = false;
        if (line.empty() || (isNewest && newestIsFragment && !tailComplete)) return false;
        if (auto accepted = acceptedTaskLine(line)) {
            result.found = std::move(accepted);
            result.foundInFragment = isNewest && newestIsFragment;
            return true;
        }
        return false;
    };

    bool firstWindow = true;
    while (start > from) {
        const int64_t windowStart = std::max(from, start - windowBytes);
        if (!events_io::readAt(fd, windowStart, start - windowStart, window) ||
            static_cast<int64_t>(window.size()) != start - windowStart) {
            result.failed = true;
            return result;
        }
        if (countWindows) ++counters.windowReads;
        counters.bytesRead += static_cast<int64_t>(window.size());
        const std::string carry = segment.substr(0, pos);
        segment = window + carry;
        pos = segment.size();
        if (firstWindow) {
            firstWindow = false;
            if (!segment.empty() && segment.back() == '\n') {
                completeUpTo = to;
                --pos;
            } else {
                newestIsFragment = true;
            }
        }
        start = windowStart;
        for (;;) {
            const size_t k = pos == 0 ? std::string::npos : segment.rfind('\n', pos - 1);
            if (k == std::string::npos) {
                if (start > from) break;  // the line began in an earlier window
                if (!completeUpTo) completeUpTo = from;
                emit(std::string_view(segment).substr(0, pos));
                result.completeUpTo = *completeUpTo;
                return result;
            }
            if (!completeUpTo) completeUpTo = start + static_cast<int64_t>(k) + 1;
            if (emit(std::string_view(segment).substr(k + 1, pos - k - 1))) {
                result.completeUpTo = *completeUpTo;
                return result;
            }
            pos = k;
        }
    }
    result.completeUpTo = completeUpTo.value_or(from);
    return result;
}

}  // namespace

std::filesystem::path path() { return DataPaths::eventsLog(); }

std::optional<std::string> read() { return read(path()); }

std::optional<std::string> read(const std::filesystem::path& at) {
    std::lock_guard guard(lock);
    struct stat info {};
    if (::stat(at.c_str(), &info) != 0) {
        cache.reset();
        return std::nullopt;
    }
    const auto attributes = events_io::attributesOf(info);
    if (cache && cache->path == at && cache->attributes == attributes) return cache->text;
    const auto fd = events_io::openForReading(at);
    if (!fd) {
        cache.reset();
        return std::nullopt;
    }
    if (cache && cache->path == at && cache->attributes.inode == attributes.inode && cache->completeUpTo > 0 &&
        cache->completeUpTo <= attributes.size && !cache->fromFragment) {
        ++counters.appendedScans;
        const auto appended = scanBackwards(fd.get(), cache->completeUpTo, attributes.size, false, false);
        if (!appended.failed) {
            if (appended.found) cache->text = *appended.found;
            cache->attributes = attributes;
            cache->completeUpTo = appended.completeUpTo;
            return cache->text;
        }
    }
    const auto scanned = scanBackwards(fd.get(), 0, attributes.size, true, true);
    if (scanned.failed) {
        cache.reset();
        return std::nullopt;
    }
    std::optional<std::string> text = scanned.found ? *scanned.found : std::nullopt;
    cache = Cache{at, attributes, scanned.completeUpTo, text, scanned.foundInFragment};
    return text;
}

std::optional<std::string> taskFileBody(std::string_view type, const JSONValue* detail, int64_t tsMs) {
    if (type == "task_cleared") return std::string();
    if (type != "task_declared" || !detail) return std::nullopt;
    std::optional<std::string> task;
    if (const auto* notes = detail->member("notes")) task = notes->stringValue();
    if (!task)
        if (const auto* named = detail->member("task")) task = named->stringValue();
    if (!task) return std::nullopt;

    std::string body = "Task: " + *task + "\nDeclared: " + formatted(tsMs, u"yyyy-MM-dd h:mma 'ET'") + "\n";
    const JSONValue* horizon = detail->member("horizon_minutes");
    const JSONValue* until = detail->member("until");
    const double* minutes = horizon ? horizon->numberIfAny() : nullptr;
    const double endMs = minutes ? static_cast<double>(tsMs) + *minutes * 60000.0 : 0.0;
    // An end no time can hold (or not a number at all) is no estimate.
    if (minutes && std::fabs(endMs) < 9.2e18) {
        std::string clock = formatted(static_cast<int64_t>(endMs), u"h:mm a");
        clock.erase(std::remove(clock.begin(), clock.end(), ' '), clock.end());
        std::transform(clock.begin(), clock.end(), clock.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        body += "Estimate: until " + clock + "\n";
    } else if (until && until->stringIfAny()) {
        body += "Estimate: until " + *until->stringIfAny() + "\n";
    }
    if (const JSONValue* why = detail->member("why"); why && why->stringIfAny()) body += "Why: " + *why->stringIfAny() + "\n";
    return body;
}

Statistics statistics() {
    std::lock_guard guard(lock);
    return counters;
}

void resetForTesting() {
    std::lock_guard guard(lock);
    cache.reset();
    counters = {};
}

}  // namespace aimwise::EventLog
