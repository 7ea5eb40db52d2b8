#pragma once
// Private to this folder's .cpp files: strict field reads for the small state files.
#include <nlohmann/json.hpp>

#include <cmath>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>

#include "CaptureShared/common/iso_date.h"

namespace aimwise::jsonfields {

// A decoded object, or nothing for anything that is not one (arrays, scalars, bad bytes).
inline std::optional<nlohmann::json> parseObject(const std::string& text) {
    // The parser would stop at a NUL byte and take what came before it for the whole file.
    if (text.find('\0') != std::string::npos) return std::nullopt;
    nlohmann::json value = nlohmann::json::parse(text, nullptr, /*allow_exceptions=*/false);
    if (value.is_discarded() || !value.is_object()) return std::nullopt;
    return value;
}

// An exact 64-bit integer, also when it was written as an integral float.
inline std::optional<int64_t> int64Value(const nlohmann::json& value) {
    if (value.is_number_integer() && !value.is_number_unsigned()) return value.get<int64_t>();
    if (value.is_number_unsigned()) {
        const auto u = value.get<uint64_t>();
        if (u > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) return std::nullopt;
        return static_cast<int64_t>(u);
    }
    if (value.is_number_float()) {
        const double d = value.get<double>();
        if (!std::isfinite(d) || std::trunc(d) != d || d < -9.2e18 || d > 9.2e18) return std::nullopt;
        return static_cast<int64_t>(d);
    }
    return std::nullopt;
}

// Outer optional: the field is usable; inner: it was present and not null.
inline std::optional<std::optional<int64_t>> optionalInt64Field(const nlohmann::json& object, const char* key) {
    const auto it = object.find(key);
    if (it == object.end() || it->is_null()) return std::optional<int64_t>{};
    if (auto value = int64Value(*it)) return std::optional<int64_t>{*value};
    return std::nullopt;
}

inline std::optional<int64_t> int64Field(const nlohmann::json& object, const char* key) {
    const auto it = object.find(key);
    if (it == object.end()) return std::nullopt;
    return int64Value(*it);
}

inline std::optional<int64_t> dateField(const nlohmann::json& object, const char* key) {
    const auto it = object.find(key);
    if (it == object.end() || !it->is_string()) return std::nullopt;
    return ISODate::parse(it->get_ref<const std::string&>());
}

}  // namespace aimwise::jsonfields
