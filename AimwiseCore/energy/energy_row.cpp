#include "AimwiseCore/energy/energy_row.h"

#include <charconv>
#include <cmath>
#include <cstring>

#include "AimwiseCore/energy/battery_telemetry.h"
#include "AimwiseCore/events/jsonl_append.h"
#include "CaptureShared/common/utf8.h"

namespace aimwise {

namespace EnergyKinds {

const char* name(EnergyKind kind) {
    switch (kind) {
        case EnergyKind::judged:
            return "judged";
        case EnergyKind::skipped:
            return "skipped";
        case EnergyKind::gate:
            return "gate";
        case EnergyKind::turn:
            return "turn";
        case EnergyKind::pass:
            return "pass";
    }
    return "judged";
}

std::optional<EnergyKind> named(std::string_view text) {
    for (EnergyKind kind : all)
        if (text == name(kind)) return kind;
    return std::nullopt;
}

const char* fileName(EnergyKind kind) {
    switch (kind) {
        case EnergyKind::judged:
            return "classifier-tick-energy.jsonl";
        case EnergyKind::skipped:
            return skipEnergyFileName;
        case EnergyKind::gate:
        case EnergyKind::turn:
            return coachEnergyFileName;
        case EnergyKind::pass:
            return dreamEnergyFileName;
    }
    return "classifier-tick-energy.jsonl";
}

}  // namespace EnergyKinds

namespace {

// The report reads a fortnight of these lines in one short process, so it scans them directly
// instead of building a JSON tree per line. It accepts exactly JSON, and any value under a key it
// does not know.
class Scanner {
  public:
    explicit Scanner(std::string_view text) : s_(text) {}

    void space() {
        while (i_ < s_.size() && (s_[i_] == ' ' || s_[i_] == '\t' || s_[i_] == '\r' || s_[i_] == '\n')) ++i_;
    }
    bool eat(char c) {
        space();
        if (i_ < s_.size() && s_[i_] == c) {
            ++i_;
            return true;
        }
        return false;
    }
    bool atEnd() {
        space();
        return i_ == s_.size();
    }
    char peek() {
        space();
        return i_ < s_.size() ? s_[i_] : '\0';
    }

    // A view of the text between the quotes when it holds no escape, else of `scratch` holding it
    // decoded.
    bool text(std::string_view& out, std::string& scratch) {
        if (!eat('"')) return false;
        const size_t start = i_;
        const void* quote = std::memchr(s_.data() + i_, '"', s_.size() - i_);
        const size_t end =
            quote ? static_cast<size_t>(static_cast<const char*>(quote) - s_.data()) : s_.size();
        bool ascii = true;
        for (; i_ < end; ++i_) {
            const unsigned char c = static_cast<unsigned char>(s_[i_]);
            if (c == '\\' || c < 0x20) break;
            ascii = ascii && c < 0x80;
        }
        if (i_ == end && quote) {
            out = s_.substr(start, i_++ - start);
            return ascii || utf8::isValid(out);
        }
        scratch.assign(s_.substr(start, i_ - start));
        if (!rest(scratch)) return false;
        out = scratch;
        return true;
    }

    bool string(std::string& out) {
        std::string_view view;
        if (!text(view, out)) return false;
        if (view.data() != out.data()) out.assign(view);
        return true;
    }

    // The optional-free integer most numbers here are; anything else goes through number().
    bool integer(std::optional<int64_t>& out) {
        space();
        size_t j = i_;
        const bool negative = j < s_.size() && s_[j] == '-';
        if (negative) ++j;
        const size_t digitsStart = j;
        int64_t value = 0;
        while (j < s_.size() && s_[j] >= '0' && s_[j] <= '9' && j - digitsStart < 15)
            value = value * 10 + (s_[j++] - '0');
        const bool plain = j > digitsStart && (s_[digitsStart] != '0' || j == digitsStart + 1) &&
                           (j == s_.size() ||
                            (s_[j] != '.' && s_[j] != 'e' && s_[j] != 'E' && (s_[j] < '0' || s_[j] > '9')));
        if (plain) {
            i_ = j;
            out = negative ? -value : value;
            return true;
        }
        double number_ = 0;
        if (!number(number_)) return false;
        if (std::fabs(number_) < 9.0e15) out = static_cast<int64_t>(std::trunc(number_));
        return true;
    }

  private:
    // The rest of a string after its plain start, unescaping into `out`.
    bool rest(std::string& out) {
        while (i_ < s_.size()) {
            const char c = s_[i_++];
            if (c == '"') return utf8::isValid(out);
            if (static_cast<unsigned char>(c) < 0x20) return false;
            if (c != '\\') {
                out.push_back(c);
                continue;
            }
            if (i_ >= s_.size()) return false;
            switch (const char e = s_[i_++]) {
                case '"':
                case '\\':
                case '/':
                    out.push_back(e);
                    break;
                case 'b':
                    out.push_back('\b');
                    break;
                case 'f':
                    out.push_back('\f');
                    break;
                case 'n':
                    out.push_back('\n');
                    break;
                case 'r':
                    out.push_back('\r');
                    break;
                case 't':
                    out.push_back('\t');
                    break;
                case 'u': {
                    char32_t unit = 0;
                    if (!hex4(unit)) return false;
                    if (unit >= 0xD800 && unit <= 0xDBFF) {
                        char32_t low = 0;
                        if (!(i_ + 1 < s_.size() && s_[i_] == '\\' && s_[i_ + 1] == 'u')) return false;
                        i_ += 2;
                        if (!hex4(low) || low < 0xDC00 || low > 0xDFFF) return false;
                        unit = 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00);
                    } else if (unit >= 0xDC00 && unit <= 0xDFFF) {
                        return false;
                    }
                    utf8::append(out, unit);
                    break;
                }
                default:
                    return false;
            }
        }
        return false;
    }

  public:
    bool number(double& out) {
        space();
        const size_t start = i_;
        if (i_ < s_.size() && s_[i_] == '-') ++i_;
        if (i_ < s_.size() && s_[i_] == '0') {
            ++i_;
        } else if (!digits()) {
            return false;
        }
        if (i_ < s_.size() && s_[i_] == '.') {
            ++i_;
            if (!digits()) return false;
        }
        if (i_ < s_.size() && (s_[i_] == 'e' || s_[i_] == 'E')) {
            ++i_;
            if (i_ < s_.size() && (s_[i_] == '+' || s_[i_] == '-')) ++i_;
            if (!digits()) return false;
        }
        const auto [end, error] = std::from_chars(s_.data() + start, s_.data() + i_, out);
        return error == std::errc() && end == s_.data() + i_ && std::isfinite(out);
    }

    bool literal(std::string_view word) {
        space();
        if (s_.substr(i_, word.size()) != word) return false;
        i_ += word.size();
        return true;
    }

    bool skipValue(int depth = 0) {
        if (depth > maxDepth) return false;
        std::string scratch;
        std::string_view ignored;
        double number_ = 0;
        switch (peek()) {
            case '"':
                return text(ignored, scratch);
            case 't':
                return literal("true");
            case 'f':
                return literal("false");
            case 'n':
                return literal("null");
            case '[':
                eat('[');
                if (eat(']')) return true;
                do {
                    if (!skipValue(depth + 1)) return false;
                } while (eat(','));
                return eat(']');
            case '{':
                return object([&](std::string_view) { return skipValue(depth + 1); });
            default:
                return number(number_);
        }
    }

    // Calls `member(key)` with the scanner at each value; `member` must consume it.
    template <typename Member>
    bool object(Member&& member) {
        if (!eat('{')) return false;
        if (eat('}')) return true;
        std::string scratch;
        std::string_view key;
        do {
            if (!text(key, scratch) || !eat(':') || !member(key)) return false;
        } while (eat(','));
        return eat('}');
    }

  private:
    static constexpr int maxDepth = 64;

    bool digits() {
        const size_t start = i_;
        while (i_ < s_.size() && s_[i_] >= '0' && s_[i_] <= '9') ++i_;
        return i_ > start;
    }
    bool hex4(char32_t& out) {
        if (i_ + 4 > s_.size()) return false;
        out = 0;
        for (int k = 0; k < 4; ++k) {
            const char c = s_[i_++];
            out <<= 4;
            if (c >= '0' && c <= '9')
                out |= static_cast<char32_t>(c - '0');
            else if (c >= 'a' && c <= 'f')
                out |= static_cast<char32_t>(c - 'a' + 10);
            else if (c >= 'A' && c <= 'F')
                out |= static_cast<char32_t>(c - 'A' + 10);
            else
                return false;
        }
        return true;
    }

    std::string_view s_;
    size_t i_ = 0;
};

// A known key with a value of another type is read as absent: a later version may change it.
bool integer(Scanner& scan, std::optional<int64_t>& out) {
    if (scan.peek() != '-' && (scan.peek() < '0' || scan.peek() > '9')) return scan.skipValue();
    return scan.integer(out);
}

bool text(Scanner& scan, std::optional<std::string>& out) {
    if (scan.peek() != '"') return scan.skipValue();
    std::string value;
    if (!scan.string(value)) return false;
    out = std::move(value);
    return true;
}

bool flag(Scanner& scan, std::optional<bool>& out) {
    if (scan.peek() == 't' && scan.literal("true"))
        out = true;
    else if (scan.peek() == 'f' && scan.literal("false"))
        out = false;
    else
        return scan.skipValue();
    return true;
}

bool battery(Scanner& scan, std::optional<PowerSource::BatteryReading>& out) {
    if (scan.peek() != '{') return scan.skipValue();
    PowerSource::BatteryReading reading;
    const bool ok = scan.object([&](std::string_view key) {
        if (key == "status") return text(scan, reading.status);
        if (key == "voltage_mv") return integer(scan, reading.voltageMv);
        if (key == "current_ma") return integer(scan, reading.currentMa);
        if (key == "power_mw") return integer(scan, reading.powerMw);
        if (key == "energy_mwh") return integer(scan, reading.energyMwh);
        if (key == "energy_full_mwh") return integer(scan, reading.energyFullMwh);
        if (key == "charge_mah") return integer(scan, reading.chargeMah);
        if (key == "charge_full_mah") return integer(scan, reading.chargeFullMah);
        if (key == "capacity_pct") return integer(scan, reading.capacityPercent);
        return scan.skipValue();
    });
    if (ok) out = std::move(reading);
    return ok;
}

}  // namespace

namespace EnergyLog {

JSONValue::Object encode(const EnergyRow& row) {
    JSONValue::Object object{{"v", version}, {"kind", EnergyKinds::name(row.kind)}, {"atMs", row.atMs}};
    const auto put = [&](const char* key, const std::optional<int64_t>& value) {
        if (value) object[key] = *value;
    };
    put("startMs", row.startMs);
    put("endMs", row.endMs);
    put("wallMs", row.wallMs);
    put("cpuMs", row.cpuMs);
    put("childCpuMs", row.childCpuMs);
    if (row.onAC) object["onAC"] = *row.onAC;
    if (row.before) object["before"] = BatteryTelemetry::toJSON(*row.before);
    if (row.after) object["after"] = BatteryTelemetry::toJSON(*row.after);
    if (row.model) object["model"] = *row.model;
    put("promptTokens", row.promptTokens);
    put("completionTokens", row.completionTokens);
    return object;
}

std::optional<EnergyRow> decode(std::string_view line, std::optional<EnergyKind> fileDefault) {
    Scanner scan(line);
    EnergyRow row;
    std::optional<int64_t> version, atMs;
    std::optional<std::string> kind;
    const bool ok = scan.object([&](std::string_view key) {
        if (key == "v") return integer(scan, version);
        if (key == "kind") return text(scan, kind);
        if (key == "atMs") return integer(scan, atMs);
        if (key == "startMs") return integer(scan, row.startMs);
        if (key == "endMs") return integer(scan, row.endMs);
        if (key == "wallMs") return integer(scan, row.wallMs);
        if (key == "cpuMs") return integer(scan, row.cpuMs);
        if (key == "childCpuMs") return integer(scan, row.childCpuMs);
        if (key == "onAC") return flag(scan, row.onAC);
        if (key == "before") return battery(scan, row.before);
        if (key == "after") return battery(scan, row.after);
        if (key == "model") return text(scan, row.model);
        if (key == "promptTokens") return integer(scan, row.promptTokens);
        if (key == "completionTokens") return integer(scan, row.completionTokens);
        return scan.skipValue();
    });
    if (!ok || !scan.atEnd() || !version || *version < 1 || !atMs) return std::nullopt;
    const std::optional<EnergyKind> parsed = kind ? EnergyKinds::named(*kind) : fileDefault;
    if (!parsed) return std::nullopt;
    row.kind = *parsed;
    row.atMs = *atMs;
    return row;
}

void append(const EnergyRow& row, const std::filesystem::path& dataRoot) {
    JSONLAppend::append(encode(row), dataRoot / EnergyKinds::fileName(row.kind));
}

}  // namespace EnergyLog
}  // namespace aimwise
