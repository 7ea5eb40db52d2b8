#pragma once
// The one parser of classifier times: local wall-clock text "yyyy-MM-dd'T'HH:mm:ss" in the current
// time zone (CaptureShared/common/local_time.h), memoised. The projection re-reads the whole retained classifier log every turn, so parses are
// memoised process-wide, failures included.
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

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
    mutable std::mutex lock_;
    std::unordered_map<std::string, std::optional<int64_t>> entries_;
    size_t capacity_;
};

namespace ProjectionDateParsing {

// Milliseconds since the epoch, or nothing for text not wholly in the format.
std::optional<int64_t> parseLocal(std::string_view text);
std::optional<int64_t> parseLocalUncached(std::string_view text);

}  // namespace ProjectionDateParsing

}  // namespace aimwise
