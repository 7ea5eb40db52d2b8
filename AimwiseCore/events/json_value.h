#pragma once
// A JSON value as the logs carry it. Every number is a double, so integers above 2^53 lose
// precision, the same as for every other reader of these files.
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "CaptureShared/common/error.h"

namespace aimwise {

struct JSONValueError : Error {
    using Error::Error;
};

struct JSONValue {
    struct Null {
        bool operator==(const Null&) const = default;
    };
    using Object = std::map<std::string, JSONValue>;
    using Array = std::vector<JSONValue>;

    // Case order: object, array, string, number, bool, null.
    std::variant<Object, Array, std::string, double, bool, Null> value;

    JSONValue() : value(Null{}) {}
    JSONValue(std::nullptr_t) : value(Null{}) {}
    JSONValue(Object members) : value(std::move(members)) {}
    JSONValue(Array items) : value(std::move(items)) {}
    JSONValue(std::string text) : value(std::move(text)) {}
    JSONValue(const char* text) : value(std::string(text)) {}
    JSONValue(double number) : value(number) {}
    JSONValue(int number) : value(static_cast<double>(number)) {}
    JSONValue(int64_t number) : value(static_cast<double>(number)) {}
    JSONValue(bool flag) : value(flag) {}

    bool isObject() const { return std::holds_alternative<Object>(value); }
    bool isNull() const { return std::holds_alternative<Null>(value); }
    std::optional<std::string> stringValue() const;
    std::optional<Object> objectValue() const;
    const Object* objectIfAny() const { return std::get_if<Object>(&value); }
    const std::string* stringIfAny() const { return std::get_if<std::string>(&value); }
    const double* numberIfAny() const { return std::get_if<double>(&value); }
    // The member `key` of an object; null for a missing key or another case.
    const JSONValue* member(const std::string& key) const;

    bool operator==(const JSONValue&) const = default;

    // Throws JSONValueError "Unsupported JSON value" for text that is not one JSON value, is not
    // UTF-8, or nests deeper than maxJSONDepth.
    static JSONValue parse(std::string_view text);
    static std::optional<JSONValue> tryParse(std::string_view text);
    // Compact JSON; integral numbers below 2^53 print without a fraction. Throws JSONValueError for
    // a non-finite number or text that is not UTF-8.
    std::string serialized() const;
};

// Deeper nesting than this is refused rather than risking the stack on hostile input.
inline constexpr int maxJSONDepth = 512;

}  // namespace aimwise
