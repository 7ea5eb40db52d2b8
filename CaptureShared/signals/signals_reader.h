#pragma once
// Read-only access to signals.sqlite for everything that is not a capture agent. A reader is used by
// one thread at a time; threads that read concurrently open a reader each.
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "CaptureShared/common/error.h"
#include "CaptureShared/signals/activity_timeline_sample.h"
#include "CaptureShared/signals/app_minutes.h"

struct sqlite3;

namespace aimwise {

// Described for a person: the file, SQLite's words, and what to do about it.
struct SignalsReaderError : Error {
    enum class Kind { openFailed, queryFailed };
    SignalsReaderError(Kind kind, std::string message, std::filesystem::path path = {});
    Kind kind;
    std::string message;  // SQLite's own words
    std::filesystem::path path;
};

class SignalsReader {
public:
    struct TickRow {
        int64_t tsMs = 0;
        std::optional<std::string> frontmostApp{};
        std::optional<std::string> browserApp{};
        std::optional<std::string> browserTitle{};
        std::optional<std::string> browserURL{};
        std::optional<double> idleAnySec{};
        std::optional<std::string> declaredTask{};
        bool operator==(const TickRow&) const = default;
    };

    struct WindowRow {
        std::optional<std::string> title{};
        double x = 0, y = 0, width = 0, height = 0;
        int layer = 0;
        bool operator==(const WindowRow&) const = default;
    };

    using AppMinutes = aimwise::AppMinutes;

    struct PresenceGap {
        TickRow beforeAbsence;  // the last present row before the absence
        int64_t runStartMs = 0;  // first row of the present run after it
        bool operator==(const PresenceGap&) const = default;
    };
    struct GapExceedsWindow {
        int64_t runStartMs = 0;
        bool operator==(const GapExceedsWindow&) const = default;
    };
    struct ContinuouslyPresent {
        bool operator==(const ContinuouslyPresent&) const = default;
    };
    using PresenceGapResult = std::variant<PresenceGap, GapExceedsWindow, ContinuouslyPresent>;

    struct BatteryHistoryRow {
        int64_t tsMs = 0;
        std::optional<int> batteryPct{};
        std::optional<bool> acPlugged{};
        bool operator==(const BatteryHistoryRow&) const = default;
    };

    struct FrontmostAppTick {
        int64_t tsMs = 0;
        std::string frontmostApp;
        bool operator==(const FrontmostAppTick&) const = default;
    };

    struct CachedEstimate {
        bool found = false;
        std::optional<double> minutes{};  // a row may hold NULL
        bool operator==(const CachedEstimate&) const = default;
    };

    struct WindowExtent {
        std::optional<double> maxRight{};   // MAX(x + width)
        std::optional<double> maxBottom{};  // MAX(y + height)
        bool operator==(const WindowExtent&) const = default;
    };

    // Opens "file:<path>?mode=ro"; anything but a regular file is refused without being opened.
    // Throws SignalsReaderError (openFailed).
    static SignalsReader open(const std::filesystem::path& path);

    SignalsReader(SignalsReader&&) noexcept = default;
    SignalsReader& operator=(SignalsReader&&) noexcept = default;
    ~SignalsReader() = default;

    // Every query below throws SignalsReaderError (queryFailed) when its statement cannot be
    // prepared, and nothing else: a failure while stepping ends the rows early.

    std::optional<TickRow> latestTick(std::optional<int64_t> asOfMs = std::nullopt) const;
    // Apps in (referenceMs - windowMs, referenceMs], most ticks first, at most six.
    std::vector<AppMinutes> recentApps(int64_t referenceMs, int64_t windowMs) const;
    // The window of `ownerName` the user is looking at in the tick at `tsMs`.
    std::optional<WindowRow> contentWindow(int64_t tsMs, const std::string& ownerName) const;
    std::optional<int64_t> taskDeclaredTsMsFromSQLiteEvents(int64_t atOrBefore) const;
    // Tolerates a file without the estimate cache table.
    CachedEstimate cachedEstimateMinutes(const std::string& declaredText) const;
    PresenceGapResult presenceGap(int64_t beforeMs, int64_t withinMs, double idleAwaySec,
                                  int64_t maxContinuityGapMs, int64_t limit) const;
    std::optional<std::string> frontmostBundleId(int64_t tsMs) const;
    // The app's first window row at that instant, placed or not: Wayland readers that cannot see
    // where windows are write the rectangle as NULL, and contentWindow passes over such rows.
    struct OwnerWindowRow {
        std::optional<std::string> title{};
        std::optional<int64_t> pid{};
        bool placed = false;
        bool operator==(const OwnerWindowRow&) const = default;
    };
    std::optional<OwnerWindowRow> ownerWindow(int64_t tsMs, const std::string& ownerName) const;
    std::vector<ActivityTimeline::Sample> ticks(int64_t fromMs, int64_t toMs, int64_t limit) const;
    WindowExtent maxWindowExtent(int64_t fromTsMs, int64_t toTsMs) const;
    // Rows where the battery level or the charger changed, newest first.
    std::vector<BatteryHistoryRow> batteryHistory(int64_t sinceMs, int64_t limit) const;
    std::optional<int64_t> latestNonEmptyWindowTitleMs(std::optional<int64_t> sinceMs = std::nullopt) const;
    std::optional<int64_t> latestNonEmptyBrowserTabMs(std::optional<int64_t> sinceMs = std::nullopt) const;
    std::optional<FrontmostAppTick> latestTickMs(const std::vector<std::string>& frontmostAppIn,
                                                 std::optional<int64_t> sinceMs = std::nullopt) const;

    // Pure: the focused window among a tick's windows of one owner, in row order.
    static std::optional<WindowRow> focusedContentWindow(const std::vector<WindowRow>& among);

private:
    struct Close {
        void operator()(sqlite3* db) const;
    };
    explicit SignalsReader(sqlite3* db) : db_(db) {}
    std::unique_ptr<sqlite3, Close> db_;
};

}  // namespace aimwise
