#pragma once
// The one parser of classifier times: local wall-clock text "yyyy-MM-dd'T'HH:mm:ss" in the current
// time zone. The projection re-reads the whole retained classifier log every turn, so parses are
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
    // The answers for many texts under one hold of the lock: what a projection over a month of
    // classifier lines needs. Misses go to `parse` and are remembered like any other.
    template <typename Parse>
    void values(std::span<const std::string_view> texts, std::span<std::optional<int64_t>> out, Parse&& parse) {
        std::lock_guard guard(lock_);
        for (size_t i = 0; i < texts.size() && i < out.size(); ++i) {
            if (const auto it = entries_.find(texts[i]); it != entries_.end()) {
                out[i] = it->second;
                continue;
            }
            out[i] = parse(texts[i]);
            if (entries_.size() > capacity_) entries_.clear();
            entries_.emplace(std::string(texts[i]), out[i]);
        }
    }
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
// The same answers as parseLocal for each text, through the memo under one hold of its lock. Texts
// new to the memo in the exact format take a fast path: each local hour is read once and the
// minutes and seconds added, unless the hour is not a plain sixty minutes (a change of daylight
// saving), which is read whole like any other text.
std::vector<std::optional<int64_t>> parseLocalMany(std::span<const std::string_view> texts);
// The same format, to the second.
std::string formatLocal(int64_t ms);

}  // namespace ProjectionDateParsing

}  // namespace aimwise
