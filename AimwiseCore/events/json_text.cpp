#include "AimwiseCore/events/json_text.h"

#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>

namespace aimwise::json_text {

namespace {

// True when eight bytes need no attention inside a JSON string: no quote, backslash or control
// byte. With `asciiOnly` also no byte at or above 0x80. Strings in logs run long, and word-wise
// checks keep the per-byte loops off the common path.
bool plainWord(const char* p, bool asciiOnly) {
    constexpr uint64_t ones = 0x0101010101010101ULL, highs = 0x8080808080808080ULL;
    uint64_t x = 0;
    std::memcpy(&x, p, 8);
    const auto hasZero = [](uint64_t y) { return ((y - ones) & ~y & highs) != 0; };
    if (asciiOnly && (x & highs)) return false;
    if (((x - ones * 0x20) & ~x & highs) != 0) return false;  // some byte below 0x20
    return !hasZero(x ^ (ones * '"')) && !hasZero(x ^ (ones * '\\'));
}

class Parser {
public:
    explicit Parser(std::string_view text) : p_(text.data()), end_(text.data() + text.size()) {}

    std::optional<JSONValue> document() {
        skipBlanks();
        JSONValue value;
        if (!parseValue(value, 0)) return std::nullopt;
        skipBlanks();
        if (p_ != end_) return std::nullopt;
        return value;
    }

private:
    void skipBlanks() {
        while (p_ < end_ && (*p_ == ' ' || *p_ == '\n' || *p_ == '\r' || *p_ == '\t')) ++p_;
    }

    bool literal(const char* word, size_t length) {
        if (static_cast<size_t>(end_ - p_) < length || std::memcmp(p_, word, length) != 0) return false;
        p_ += length;
        return true;
    }

    bool parseValue(JSONValue& out, int depth) {
        if (p_ >= end_) return false;
        switch (*p_) {
            case '{': return parseObject(out, depth + 1);
            case '[': return parseArray(out, depth + 1);
            case '"': {
                std::string text;
                if (!parseString(text)) return false;
                out.value = std::move(text);
                return true;
            }
            case 't':
                out.value = true;
                return literal("true", 4);
            case 'f':
                out.value = false;
                return literal("false", 5);
            case 'n':
                out.value = JSONValue::Null{};
                return literal("null", 4);
            default: return parseNumber(out);
        }
    }

    bool parseObject(JSONValue& out, int depth) {
        if (depth > maxJSONDepth) return false;
        ++p_;
        JSONValue::Object members;
        skipBlanks();
        if (p_ < end_ && *p_ == '}') {
            ++p_;
            out.value = std::move(members);
            return true;
        }
        for (;;) {
            skipBlanks();
            if (p_ >= end_ || *p_ != '"') return false;
            std::string key;
            if (!parseString(key)) return false;
            skipBlanks();
            if (p_ >= end_ || *p_ != ':') return false;
            ++p_;
            skipBlanks();
            JSONValue member;
            if (!parseValue(member, depth)) return false;
            members.insert_or_assign(std::move(key), std::move(member));  // the last duplicate wins
            skipBlanks();
            if (p_ >= end_) return false;
            if (*p_ == ',') {
                ++p_;
                continue;
            }
            if (*p_ != '}') return false;
            ++p_;
            out.value = std::move(members);
            return true;
        }
    }

    bool parseArray(JSONValue& out, int depth) {
        if (depth > maxJSONDepth) return false;
        ++p_;
        JSONValue::Array items;
        skipBlanks();
        if (p_ < end_ && *p_ == ']') {
            ++p_;
            out.value = std::move(items);
            return true;
        }
        for (;;) {
            skipBlanks();
            items.emplace_back();
            if (!parseValue(items.back(), depth)) return false;
            skipBlanks();
            if (p_ >= end_) return false;
            if (*p_ == ',') {
                ++p_;
                continue;
            }
            if (*p_ != ']') return false;
            ++p_;
            out.value = std::move(items);
            return true;
        }
    }

    static int hexDigit(char c) {
        if (c >= '0' && c <= '9') return c - '0';
        if (c >= 'a' && c <= 'f') return c - 'a' + 10;
        if (c >= 'A' && c <= 'F') return c - 'A' + 10;
        return -1;
    }

    bool hex4(unsigned& out) {
        if (end_ - p_ < 4) return false;
        out = 0;
        for (int i = 0; i < 4; ++i) {
            const int digit = hexDigit(p_[i]);
            if (digit < 0) return false;
            out = out * 16 + static_cast<unsigned>(digit);
        }
        p_ += 4;
        return true;
    }

    static void appendUTF8(std::string& out, unsigned scalar) {
        if (scalar < 0x80) {
            out.push_back(static_cast<char>(scalar));
        } else if (scalar < 0x800) {
            out.push_back(static_cast<char>(0xC0 | (scalar >> 6)));
            out.push_back(static_cast<char>(0x80 | (scalar & 0x3F)));
        } else if (scalar < 0x10000) {
            out.push_back(static_cast<char>(0xE0 | (scalar >> 12)));
            out.push_back(static_cast<char>(0x80 | ((scalar >> 6) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (scalar & 0x3F)));
        } else {
            out.push_back(static_cast<char>(0xF0 | (scalar >> 18)));
            out.push_back(static_cast<char>(0x80 | ((scalar >> 12) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | ((scalar >> 6) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (scalar & 0x3F)));
        }
    }

    // Length of the well-formed UTF-8 sequence at p_, or 0.
    size_t validSequence() const {
        const auto* s = reinterpret_cast<const unsigned char*>(p_);
        const size_t left = static_cast<size_t>(end_ - p_);
        const auto continuation = [&](size_t i) { return i < left && (s[i] & 0xC0) == 0x80; };
        if (s[0] >= 0xC2 && s[0] <= 0xDF) return continuation(1) ? 2 : 0;
        if (s[0] >= 0xE0 && s[0] <= 0xEF) {
            if (!continuation(1) || !continuation(2)) return 0;
            if (s[0] == 0xE0 && s[1] < 0xA0) return 0;   // overlong
            if (s[0] == 0xED && s[1] >= 0xA0) return 0;  // surrogate
            return 3;
        }
        if (s[0] >= 0xF0 && s[0] <= 0xF4) {
            if (!continuation(1) || !continuation(2) || !continuation(3)) return 0;
            if (s[0] == 0xF0 && s[1] < 0x90) return 0;   // overlong
            if (s[0] == 0xF4 && s[1] >= 0x90) return 0;  // above U+10FFFF
            return 4;
        }
        return 0;
    }

    bool parseString(std::string& out) {
        ++p_;
        for (;;) {
            const char* run = p_;
            while (end_ - p_ >= 8 && plainWord(p_, true)) p_ += 8;
            while (p_ < end_) {
                const auto c = static_cast<unsigned char>(*p_);
                if (c == '"' || c == '\\' || c < 0x20 || c >= 0x80) break;
                ++p_;
            }
            out.append(run, static_cast<size_t>(p_ - run));
            if (p_ >= end_) return false;
            const auto c = static_cast<unsigned char>(*p_);
            if (c == '"') {
                ++p_;
                return true;
            }
            if (c < 0x20) return false;
            if (c >= 0x80) {
                const size_t length = validSequence();
                if (length == 0) return false;
                out.append(p_, length);
                p_ += length;
                continue;
            }
            if (++p_ >= end_) return false;
            switch (*p_++) {
                case '"': out.push_back('"'); break;
                case '\\': out.push_back('\\'); break;
                case '/': out.push_back('/'); break;
                case 'b': out.push_back('\b'); break;
                case 'f': out.push_back('\f'); break;
                case 'n': out.push_back('\n'); break;
                case 'r': out.push_back('\r'); break;
                case 't': out.push_back('\t'); break;
                case 'u': {
                    unsigned unit = 0;
                    if (!hex4(unit)) return false;
                    if (unit >= 0xDC00 && unit <= 0xDFFF) return false;
                    if (unit >= 0xD800 && unit <= 0xDBFF) {
                        unsigned low = 0;
                        if (end_ - p_ < 2 || p_[0] != '\\' || p_[1] != 'u') return false;
                        p_ += 2;
                        if (!hex4(low) || low < 0xDC00 || low > 0xDFFF) return false;
                        unit = 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00);
                    }
                    appendUTF8(out, unit);
                    break;
                }
                default: return false;
            }
        }
    }

    bool parseNumber(JSONValue& out) {
        const char* start = p_;
        const auto digits = [&] {
            const char* before = p_;
            while (p_ < end_ && *p_ >= '0' && *p_ <= '9') ++p_;
            return p_ > before;
        };
        if (p_ < end_ && *p_ == '-') ++p_;
        if (p_ < end_ && *p_ == '0') {
            ++p_;
        } else if (!digits()) {
            return false;
        }
        if (p_ < end_ && *p_ == '.') {
            ++p_;
            if (!digits()) return false;
        }
        if (p_ < end_ && (*p_ == 'e' || *p_ == 'E')) {
            ++p_;
            if (p_ < end_ && (*p_ == '+' || *p_ == '-')) ++p_;
            if (!digits()) return false;
        }
        double number = 0;
        const auto [last, error] = std::from_chars(start, p_, number);
        if (error != std::errc() || last != p_ || !std::isfinite(number)) return false;
        out.value = number;
        return true;
    }

    const char* p_;
    const char* end_;
};

bool isValidUTF8(std::string_view text) {
    const auto* s = reinterpret_cast<const unsigned char*>(text.data());
    const size_t n = text.size();
    for (size_t i = 0; i < n;) {
        // Log text is mostly ASCII: take it eight bytes at a time.
        uint64_t word = 0;
        if (i + 8 <= n && (std::memcpy(&word, s + i, 8), (word & 0x8080808080808080ULL) == 0)) {
            i += 8;
            continue;
        }
        if (s[i] < 0x80) {
            ++i;
            continue;
        }
        const auto continuation = [&](size_t k) { return i + k < n && (s[i + k] & 0xC0) == 0x80; };
        if (s[i] >= 0xC2 && s[i] <= 0xDF && continuation(1)) {
            i += 2;
        } else if (s[i] >= 0xE0 && s[i] <= 0xEF && continuation(1) && continuation(2) && !(s[i] == 0xE0 && s[i + 1] < 0xA0) &&
                   !(s[i] == 0xED && s[i + 1] >= 0xA0)) {
            i += 3;
        } else if (s[i] >= 0xF0 && s[i] <= 0xF4 && continuation(1) && continuation(2) && continuation(3) &&
                   !(s[i] == 0xF0 && s[i + 1] < 0x90) && !(s[i] == 0xF4 && s[i + 1] >= 0x90)) {
            i += 4;
        } else {
            return false;
        }
    }
    return true;
}

}  // namespace

std::optional<JSONValue> parse(std::string_view text) { return Parser(text).document(); }

void appendString(std::string& out, std::string_view text) {
    if (!isValidUTF8(text)) throw JSONValueError("could not encode a string that is not UTF-8");
    static constexpr char hex[] = "0123456789abcdef";
    out.push_back('"');
    size_t run = 0;
    for (size_t i = 0; i < text.size(); ++i) {
        while (i + 8 <= text.size() && plainWord(text.data() + i, false)) i += 8;
        if (i >= text.size()) break;
        const auto c = static_cast<unsigned char>(text[i]);
        if (c >= 0x20 && c != '"' && c != '\\') continue;
        out.append(text.data() + run, i - run);
        run = i + 1;
        switch (c) {
            case '"': out += "\\\""; break;
            case '\\': out += "\\\\"; break;
            case '\n': out += "\\n"; break;
            case '\r': out += "\\r"; break;
            case '\t': out += "\\t"; break;
            case '\b': out += "\\b"; break;
            case '\f': out += "\\f"; break;
            default:
                out += "\\u00";
                out.push_back(hex[c >> 4]);
                out.push_back(hex[c & 0xF]);
        }
    }
    out.append(text.data() + run, text.size() - run);
    out.push_back('"');
}

void appendNumber(std::string& out, double number) {
    if (!std::isfinite(number)) throw JSONValueError("could not encode a non-finite number");
    char buffer[32];
    // Whole numbers print as integers so that counts and milliseconds read naturally.
    const auto [end, error] = std::trunc(number) == number && std::fabs(number) <= 9007199254740992.0
                                  ? std::to_chars(buffer, buffer + sizeof buffer, static_cast<int64_t>(number))
                                  : std::to_chars(buffer, buffer + sizeof buffer, number);
    out.append(buffer, static_cast<size_t>(end - buffer));
}

void append(std::string& out, const JSONValue& value) {
    std::visit(
        [&out](const auto& item) {
            using T = std::decay_t<decltype(item)>;
            if constexpr (std::is_same_v<T, JSONValue::Object>) {
                out.push_back('{');
                bool first = true;
                for (const auto& [key, member] : item) {
                    if (!first) out.push_back(',');
                    first = false;
                    appendString(out, key);
                    out.push_back(':');
                    append(out, member);
                }
                out.push_back('}');
            } else if constexpr (std::is_same_v<T, JSONValue::Array>) {
                out.push_back('[');
                for (size_t i = 0; i < item.size(); ++i) {
                    if (i) out.push_back(',');
                    append(out, item[i]);
                }
                out.push_back(']');
            } else if constexpr (std::is_same_v<T, std::string>) {
                appendString(out, item);
            } else if constexpr (std::is_same_v<T, double>) {
                appendNumber(out, item);
            } else if constexpr (std::is_same_v<T, bool>) {
                out += item ? "true" : "false";
            } else {
                out += "null";
            }
        },
        value.value);
}

}  // namespace aimwise::json_text
