#include "AimwiseCore/events/classifier_tick.h"

#include <fmt/format.h>

#include <cmath>

#include "AimwiseCore/coach/projection_date_parsing.h"
#include "AimwiseCore/events/event_log_event.h"
#include "AimwiseCore/events/json_value_bridge.h"

namespace aimwise {

namespace {

using nlohmann::json;

bool takeString(const json& object, const char* key, std::optional<std::string>& out) {
    const auto it = object.find(key);
    if (it == object.end() || it->is_null()) return true;
    if (!it->is_string()) return false;
    out = it->get<std::string>();
    return true;
}

bool takeDouble(const json& object, const char* key, std::optional<double>& out) {
    const auto it = object.find(key);
    if (it == object.end() || it->is_null()) return true;
    if (!it->is_number()) return false;
    out = it->get<double>();
    return true;
}

bool takeMilliseconds(const json& object, const char* key, std::optional<int64_t>& out) {
    const auto it = object.find(key);
    if (it == object.end() || it->is_null()) return true;
    if (it->is_number_integer() && !it->is_number_unsigned()) {
        out = it->get<int64_t>();
        return true;
    }
    if (!it->is_number()) return false;
    out = wholeMilliseconds(it->get<double>());
    return out.has_value();
}

template <typename T>
void put(nlohmann::ordered_json& object, const char* key, const std::optional<T>& value) {
    if (value) object[key] = *value;
}

}  // namespace

std::string ClassifierFrameInstant::rawValue(Source source) {
    return source == Source::screenshot ? "screenshot" : "loggedAtFallback";
}

std::string ClassifierFrameInstant::disclosure(std::optional<int64_t> loggedAtMs) const {
    if (source == Source::loggedAtFallback)
        return "No screenshot time recorded for this tick: this frame is from when the verdict was logged, "
               "which can be ~5–11s after what the classifier actually saw.";
    if (loggedAtMs) {
        const double lagSec = static_cast<double>(*loggedAtMs - ms) / 1000.0;
        if (lagSec >= 0.5)
            return fmt::format("Frame from when the classifier took its screenshot (verdict logged {:.0f}s later).",
                               lagSec);
    }
    return "Frame from when the classifier took its screenshot.";
}

std::optional<int64_t> ClassifierTick::atMs() const { return ProjectionDateParsing::parseLocal(at); }

std::optional<ClassifierFrameInstant> ClassifierTick::frameInstant() const {
    if (screenshotAtMs) return ClassifierFrameInstant{*screenshotAtMs, ClassifierFrameInstant::Source::screenshot};
    if (const auto parsed = atMs()) return ClassifierFrameInstant{*parsed, ClassifierFrameInstant::Source::loggedAtFallback};
    return std::nullopt;
}

std::optional<ClassifierTick> ClassifierTick::decode(std::string_view line) {
    const auto parsed = json_bridge::parseJSON(line);
    if (!parsed || !parsed->is_object()) return std::nullopt;
    const json& object = *parsed;
    const auto at = object.find("at");
    if (at == object.end() || !at->is_string()) return std::nullopt;
    ClassifierTick tick;
    tick.at = at->get<std::string>();
    const bool ok = takeString(object, "state", tick.state) && takeString(object, "frontmost_app", tick.frontmostApp) &&
                    takeString(object, "frontmost_window_title", tick.frontmostWindowTitle) &&
                    takeString(object, "browser_title", tick.browserTitle) && takeString(object, "reason", tick.reason) &&
                    takeDouble(object, "confidence", tick.confidence) &&
                    takeString(object, "declared_task", tick.declaredTask) && takeString(object, "model", tick.model) &&
                    takeMilliseconds(object, "screenshot_at_ms", tick.screenshotAtMs) &&
                    takeString(object, "reason_check", tick.reasonCheck) &&
                    takeString(object, "content_withheld_for_denylist", tick.contentWithheldForDenylist);
    if (!ok) return std::nullopt;
    return tick;
}

std::string ClassifierTick::encoded() const {
    if (confidence && !std::isfinite(*confidence)) throw JSONValueError("could not encode a non-finite confidence");
    nlohmann::ordered_json object = nlohmann::ordered_json::object();
    object["at"] = at;
    put(object, "state", state);
    put(object, "frontmost_app", frontmostApp);
    put(object, "frontmost_window_title", frontmostWindowTitle);
    put(object, "browser_title", browserTitle);
    put(object, "reason", reason);
    put(object, "confidence", confidence);
    put(object, "declared_task", declaredTask);
    put(object, "model", model);
    put(object, "screenshot_at_ms", screenshotAtMs);
    put(object, "reason_check", reasonCheck);
    put(object, "content_withheld_for_denylist", contentWithheldForDenylist);
    try {
        return object.dump();
    } catch (const nlohmann::json::exception& error) {
        throw JSONValueError(error.what());
    }
}

}  // namespace aimwise
