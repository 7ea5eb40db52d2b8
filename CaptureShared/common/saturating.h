#pragma once
// Arithmetic on times read from files. A corrupt or hostile timestamp (the far ends of the 64-bit
// range) pins the result at the end of the range it would pass, instead of overflowing.
#include <cmath>
#include <cstdint>
#include <limits>

namespace aimwise::Saturating {

inline constexpr int64_t maximum = std::numeric_limits<int64_t>::max();
inline constexpr int64_t minimum = std::numeric_limits<int64_t>::min();

inline int64_t add(int64_t a, int64_t b) {
    int64_t sum = 0;
    if (__builtin_add_overflow(a, b, &sum)) return b > 0 ? maximum : minimum;
    return sum;
}

inline int64_t subtract(int64_t a, int64_t b) {
    int64_t difference = 0;
    if (__builtin_sub_overflow(a, b, &difference)) return b < 0 ? maximum : minimum;
    return difference;
}

inline int64_t multiply(int64_t a, int64_t b) {
    int64_t product = 0;
    if (__builtin_mul_overflow(a, b, &product)) return (a < 0) != (b < 0) ? minimum : maximum;
    return product;
}

// Truncated toward zero; NaN is 0.
inline int64_t fromDouble(double value) {
    if (std::isnan(value)) return 0;
    // 2^63 is the first double past the range; every double below it converts exactly.
    if (value >= 9223372036854775808.0) return maximum;
    if (value < -9223372036854775808.0) return minimum;
    return static_cast<int64_t>(value);
}

}  // namespace aimwise::Saturating
