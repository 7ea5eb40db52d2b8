#pragma once
// `aimwise label`: the person says what they were really doing at moments the classifier judged.
// Each moment is shown as it was recorded, the answer is asked for before the verdict is shown and
// kept as a blind answer, and only then is the verdict revealed, with a chance to revise. Every
// answer is written the moment it is given, so the review can be left at any time.
#include <cstdint>
#include <cstdio>
#include <istream>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "AimwiseCore/events/classifier_tick.h"
#include "CaptureShared/common/clock.h"

namespace aimwise::LabelVerb {

inline constexpr int defaultCount = 10;

struct Review {
    int count = defaultCount;
};
struct Stats {};
struct UsageError {
    std::string message;
};
using Request = std::variant<Review, Stats, UsageError>;

// `[--count N] [--stats]`.
Request parse(const std::vector<std::string>& arguments);

// A judged moment that can be offered for labelling.
struct Moment {
    int64_t atMs = 0;  // the instant the screen was read, else when the verdict was logged
    ClassifierTick tick;
};

// Up to `count` moments, spread over the verdicts and the hours of the day, that no label covers yet.
// Moments of the system's own window say nothing about the person and are never offered.
std::vector<Moment> pickMoments(const std::vector<ClassifierTick>& ticks, const std::vector<int64_t>& labelledMs,
                                int count);

// The review on `in` and `out`; the exit status.
int review(int count, std::istream& in, std::FILE* out, const Clock& clock);
int stats(std::FILE* out);

// Dispatched from `aimwise label ...`.
int run(const std::vector<std::string>& arguments);

}  // namespace aimwise::LabelVerb
