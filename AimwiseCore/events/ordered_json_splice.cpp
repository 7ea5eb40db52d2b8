#include "AimwiseCore/events/ordered_json_splice.h"

#include "AimwiseCore/events/json_text.h"

namespace aimwise::OrderedJSONSplice {

namespace {

bool isJSONBlank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

}  // namespace

std::optional<std::string> insert(std::string_view rawJSON, std::string_view forKey, std::string_view into) {
    size_t brace = 0;
    while (brace < into.size() && isJSONBlank(into[brace])) ++brace;
    if (brace >= into.size() || into[brace] != '{') return std::nullopt;
    size_t next = brace + 1;
    while (next < into.size() && isJSONBlank(into[next])) ++next;
    const bool wasEmpty = next < into.size() && into[next] == '}';

    std::string key;
    try {
        json_text::appendString(key, forKey);
    } catch (const JSONValueError&) {
        return std::nullopt;  // a key that is not UTF-8 has no JSON spelling
    }
    std::string out;
    out.reserve(into.size() + key.size() + rawJSON.size() + 2);
    out.append(into.substr(0, brace + 1));
    out.append(key);
    out.push_back(':');
    out.append(rawJSON);
    if (!wasEmpty) out.push_back(',');
    out.append(into.substr(brace + 1));
    return out;
}

}  // namespace aimwise::OrderedJSONSplice
