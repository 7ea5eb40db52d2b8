#pragma once
// The one parser of classifier times: local wall-clock text "yyyy-MM-dd'T'HH:mm:ss" in the current
// time zone (CaptureShared/common/local_time.h), memoised. The projection re-reads the whole retained classifier log every turn, so parses are
// memoised process-wide, failures included.
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace aimwise {

class DateParseMemo {
public:
    static constexpr size_t defaultCapacity = 1'048'575;

    explicit DateParseMemo(size_t capacity = defaultCapacity) : capacity_(capacity) {}

    // The remembered answer for `text`, or `parse(text)` remembered. A memo already holding more
    // than `capacity` entries is emptied whole before the store: no eviction order to maintain.
    std::optional<int64_t> value(std::string_view text,
                                 const std::function<std::optional<int64_t>(std::string_view)>& parse);
    size_t count() const;
    void clear();

    static DateParseMemo& shared();

private:
    struct Hash {
        using is_transparent = void;
        size_t operator()(std::string_view text) const { return std::hash<std::string_view>{}(text); }
    };
    mutable std::mutex lock_;
    std::unordered_map<std::string, std::optional<int64_t>, Hash, std::equal_to<>> entries_;
    size_t capacity_;
};

namespace ProjectionDateParsing {

// Milliseconds since the epoch, or nothing for text not wholly in the format.
std::optional<int64_t> parseLocal(std::string_view text);
std::optional<int64_t> parseLocalUncached(std::string_view text);
// The same answers as parseLocal for each text, for a month of classifier lines at once. A text in
// the exact format is read as the start of its local hour (through the memo, so each hour is read
// once per process) plus its minutes and seconds, unless that hour is not a plain sixty minutes (a
// change of daylight saving); those texts, and any other, go through parseLocal itself.
std::vector<std::optional<int64_t>> parseLocalMany(std::span<const std::string_view> texts);

}  // namespace ProjectionDateParsing

}  // namespace aimwise
