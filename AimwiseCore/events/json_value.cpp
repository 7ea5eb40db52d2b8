#include "AimwiseCore/events/json_value.h"

#include <cmath>
#include <nlohmann/json.hpp>

#include "AimwiseCore/events/json_value_bridge.h"

namespace aimwise {

namespace {

constexpr const char* unsupported = "Unsupported JSON value";

}  // namespace

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

bool exceedsJSONDepth(std::string_view text, int limit) {
    int depth = 0;
    bool inString = false;
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (inString) {
            if (c == '\\')
                ++i;
            else if (c == '"')
                inString = false;
        } else if (c == '"') {
            inString = true;
        } else if (c == '[' || c == '{') {
            if (++depth > limit) return true;
        } else if (c == ']' || c == '}') {
            --depth;
        }
    }
    return false;
}

namespace json_bridge {

std::optional<nlohmann::json> parseJSON(std::string_view text) {
    if (exceedsJSONDepth(text)) return std::nullopt;
    nlohmann::json parsed = nlohmann::json::parse(text, nullptr, false);
    if (parsed.is_discarded()) return std::nullopt;
    return parsed;
}

std::optional<JSONValue> fromJSON(const nlohmann::json& json) {
    switch (json.type()) {
        case nlohmann::json::value_t::object: {
            JSONValue::Object members;
            for (const auto& [key, item] : json.items()) {
                auto converted = fromJSON(item);
                if (!converted) return std::nullopt;
                members.emplace(key, std::move(*converted));
            }
            return JSONValue(std::move(members));
        }
        case nlohmann::json::value_t::array: {
            JSONValue::Array items;
            items.reserve(json.size());
            for (const auto& item : json) {
                auto converted = fromJSON(item);
                if (!converted) return std::nullopt;
                items.push_back(std::move(*converted));
            }
            return JSONValue(std::move(items));
        }
        case nlohmann::json::value_t::string: return JSONValue(json.get<std::string>());
        case nlohmann::json::value_t::boolean: return JSONValue(json.get<bool>());
        case nlohmann::json::value_t::number_integer: return JSONValue(static_cast<double>(json.get<int64_t>()));
        case nlohmann::json::value_t::number_unsigned: return JSONValue(static_cast<double>(json.get<uint64_t>()));
        case nlohmann::json::value_t::number_float: return JSONValue(json.get<double>());
        case nlohmann::json::value_t::null: return JSONValue(nullptr);
        default: return std::nullopt;
    }
}

nlohmann::json toJSON(const JSONValue& value) {
    return std::visit(
        [](const auto& item) -> nlohmann::json {
            using T = std::decay_t<decltype(item)>;
            if constexpr (std::is_same_v<T, JSONValue::Object>) {
                nlohmann::json object = nlohmann::json::object();
                for (const auto& [key, member] : item) object[key] = toJSON(member);
                return object;
            } else if constexpr (std::is_same_v<T, JSONValue::Array>) {
                nlohmann::json array = nlohmann::json::array();
                for (const auto& member : item) array.push_back(toJSON(member));
                return array;
            } else if constexpr (std::is_same_v<T, double>) {
                if (!std::isfinite(item)) throw JSONValueError("could not encode a non-finite number");
                // Whole numbers print as integers so that counts and milliseconds read naturally.
                if (std::trunc(item) == item && std::fabs(item) <= 9007199254740992.0)
                    return static_cast<int64_t>(item);
                return item;
            } else if constexpr (std::is_same_v<T, JSONValue::Null>) {
                return nullptr;
            } else {
                return item;
            }
        },
        value.value);
}

std::string dump(const nlohmann::json& json) {
    try {
        return json.dump();
    } catch (const nlohmann::json::exception& error) {
        throw JSONValueError(error.what());
    }
}

}  // namespace json_bridge

JSONValue JSONValue::parse(std::string_view text) {
    auto parsed = tryParse(text);
    if (!parsed) throw JSONValueError(unsupported);
    return std::move(*parsed);
}

std::optional<JSONValue> JSONValue::tryParse(std::string_view text) {
    const auto json = json_bridge::parseJSON(text);
    if (!json) return std::nullopt;
    return json_bridge::fromJSON(*json);
}

std::string JSONValue::serialized() const {
    return json_bridge::dump(json_bridge::toJSON(*this));
}

}  // namespace aimwise
