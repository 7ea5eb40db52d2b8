#pragma once
// JSON with a fixed key order and a fixed formatting, for request bodies and prompt sections whose
// bytes matter (a provider's prompt cache only stays warm when they do not move).
#include <memory>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace aimwise {

struct OrderedJSON {
    struct Null {};
    using Array = std::vector<OrderedJSON>;
    using Object = std::vector<std::pair<std::string, OrderedJSON>>;

    std::variant<Null, double, std::string, Array, Object> value;

    OrderedJSON() : value(Null{}) {}
    OrderedJSON(std::nullptr_t) : value(Null{}) {}
    OrderedJSON(double number) : value(number) {}
    OrderedJSON(std::string text) : value(std::move(text)) {}
    OrderedJSON(const char* text) : value(std::string(text)) {}
    OrderedJSON(Array items) : value(std::move(items)) {}
    OrderedJSON(Object members) : value(std::move(members)) {}

    static OrderedJSON object(Object members) { return OrderedJSON(std::move(members)); }
    static OrderedJSON array(Array items) { return OrderedJSON(std::move(items)); }

    bool isNull() const { return std::holds_alternative<Null>(value); }

    // Two blanks per level; numbers as "%.1f"; strings escaped to pure ASCII.
    std::string render(int indent = 0) const;
    void renderInto(std::string& out, int indent) const;
};

// A JSON string literal, escaped so that the output is pure ASCII.
void appendOrderedJSONString(std::string& out, std::string_view utf8);

}  // namespace aimwise
