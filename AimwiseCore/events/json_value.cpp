#include "AimwiseCore/events/json_value.h"

#include "AimwiseCore/events/json_text.h"

namespace aimwise {

std::optional<std::string> JSONValue::stringValue() const {
    if (const auto* text = std::get_if<std::string>(&value)) return *text;
    return std::nullopt;
}

std::optional<JSONValue::Object> JSONValue::objectValue() const {
    if (const auto* object = std::get_if<Object>(&value)) return *object;
    return std::nullopt;
}

const JSONValue* JSONValue::member(const std::string& key) const {
    const auto* object = std::get_if<Object>(&value);
    if (!object) return nullptr;
    const auto it = object->find(key);
    return it == object->end() ? nullptr : &it->second;
}

JSONValue JSONValue::parse(std::string_view text) {
    auto parsed = json_text::parse(text);
    if (!parsed) throw JSONValueError("Unsupported JSON value");
    return std::move(*parsed);
}

std::optional<JSONValue> JSONValue::tryParse(std::string_view text) { return json_text::parse(text); }

std::string JSONValue::serialized() const {
    std::string out;
    json_text::append(out, *this);
    return out;
}

}  // namespace aimwise
