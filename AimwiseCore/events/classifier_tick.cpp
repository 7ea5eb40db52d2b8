#include "AimwiseCore/events/classifier_tick.h"

#include <fmt/format.h>

#include <cmath>

#include "AimwiseCore/coach/projection_date_parsing.h"
#include "AimwiseCore/events/event_log_event.h"
#include "AimwiseCore/events/json_text.h"

namespace aimwise {

namespace {

// Null counts as absent; any other type but the expected one fails the line.
bool takeString(const JSONValue::Object& object, const char* key, std::optional<std::string>& out) {
    const auto it = object.find(key);
    if (it == object.end() || it->second.isNull()) return true;
    const auto* text = it->second.stringIfAny();
    if (!text) return false;
    out = *text;
    return true;
}

bool takeDouble(const JSONValue::Object& object, const char* key, std::optional<double>& out) {
    const auto it = object.find(key);
    if (it == object.end() || it->second.isNull()) return true;
    const auto* number = it->second.numberIfAny();
    if (!number) return false;
    out = *number;
    return true;
}

bool takeMilliseconds(const JSONValue::Object& object, const char* key, std::optional<int64_t>& out) {
    const auto it = object.find(key);
    if (it == object.end() || it->second.isNull()) return true;
    const auto* number = it->second.numberIfAny();
    if (!number) return false;
    out = wholeMilliseconds(*number);
    return out.has_value();
}

void putString(std::string& line, const char* key, const std::optional<std::string>& value) {
    if (!value) return;
    line += ",\"";
    line += key;
    line += "\":";
    json_text::appendString(line, *value);
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
        // In doubles: a logged time can be anything, and the difference must not overflow.
        const double lagSec = (static_cast<double>(*loggedAtMs) - static_cast<double>(ms)) / 1000.0;
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
    const auto parsed = json_text::parse(line);
    if (!parsed) return std::nullopt;
    const auto* object = parsed->objectIfAny();
    if (!object) return std::nullopt;
    const auto at = object->find("at");
    if (at == object->end() || !at->second.stringIfAny()) return std::nullopt;
    ClassifierTick tick;
    tick.at = *at->second.stringIfAny();
    const bool ok = takeString(*object, "state", tick.state) && takeString(*object, "frontmost_app", tick.frontmostApp) &&
                    takeString(*object, "frontmost_window_title", tick.frontmostWindowTitle) &&
                    takeString(*object, "browser_title", tick.browserTitle) && takeString(*object, "reason", tick.reason) &&
                    takeDouble(*object, "confidence", tick.confidence) &&
                    takeString(*object, "declared_task", tick.declaredTask) && takeString(*object, "model", tick.model) &&
                    takeMilliseconds(*object, "screenshot_at_ms", tick.screenshotAtMs) &&
                    takeString(*object, "reason_check", tick.reasonCheck) &&
                    takeString(*object, "content_withheld_for_denylist", tick.contentWithheldForDenylist);
    if (!ok) return std::nullopt;
    return tick;
}

std::string ClassifierTick::encoded() const {
    std::string line = "{\"at\":";
    json_text::appendString(line, at);
    putString(line, "state", state);
    putString(line, "frontmost_app", frontmostApp);
    putString(line, "frontmost_window_title", frontmostWindowTitle);
    putString(line, "browser_title", browserTitle);
    putString(line, "reason", reason);
    if (confidence) {
        line += ",\"confidence\":";
        json_text::appendNumber(line, *confidence);
    }
    putString(line, "declared_task", declaredTask);
    putString(line, "model", model);
    if (screenshotAtMs) line += ",\"screenshot_at_ms\":" + std::to_string(*screenshotAtMs);
    putString(line, "reason_check", reasonCheck);
    putString(line, "content_withheld_for_denylist", contentWithheldForDenylist);
    line.push_back('}');
    return line;
}

}  // namespace aimwise
