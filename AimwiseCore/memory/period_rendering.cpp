#include "AimwiseCore/memory/period_rendering.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <string_view>

#include "AimwiseCore/coach/coach_gate_timeline.h"
#include "CaptureShared/common/atomic_file.h"
#include "CaptureShared/common/text.h"
#include "CaptureShared/common/utf8.h"

namespace aimwise::PeriodRendering {

namespace {

std::string member(const EventLogEvent& event, const char* key) {
    const JSONValue* value = event.detail.member(key);
    const std::string* text = value ? value->stringIfAny() : nullptr;
    return text ? trimWhitespaceAndNewlines(*text) : std::string();
}

// One numbered line per event: line breaks inside a message become blanks, and a long text is cut.
std::string flattened(std::string text) {
    for (char& c : text)
        if (c == '\n' || c == '\r' || c == '\t') c = ' ';
    if (text.size() > lineTextCap && utf8::scalarCount(text) > lineTextCap)
        text = utf8::prefix(text, lineTextCap) + "…";
    return text;
}

std::optional<std::string> nonEmpty(std::string prefix, const std::string& words) {
    if (words.empty()) return std::nullopt;
    return prefix + words;
}

}  // namespace

size_t Rendered::characterCount() const {
    size_t count = 0;
    for (const auto& line : lines) count += utf8::scalarCount(line) + 1;
    return count == 0 ? 0 : count - 1;
}

std::optional<std::string> text(const EventLogEvent& event) {
    const std::string& type = event.type;
    if (type == "task_declared") {
        const std::string task = member(event, "task");
        const std::string notes = member(event, "notes");
        return "declared: " + (task.empty() ? std::string("(unspecified)") : task) +
               (notes.empty() || notes == task ? "" : " -- " + notes);
    }
    if (type == "checker_output_sent") return nonEmpty("coach: ", member(event, "text"));
    if (type == "checker_input_received") return nonEmpty("", member(event, "text"));
    if (type == "app_chat_message") {
        // Words nobody can attribute stay out: the coach's taken for the person's would become "asserted"
        // facts.
        const std::string role = member(event, "role");
        if (role == "user") return nonEmpty("", member(event, "text"));
        if (role == "coach" || role == "assistant") return nonEmpty("coach: ", member(event, "text"));
        return std::nullopt;
    }
    if (type == "app_project_link_asserted") {
        const std::string app = member(event, "app");
        const std::string project = member(event, "project");
        if (app.empty()) return std::nullopt;
        return "project link: " + app + (project.empty() ? "" : " is " + project);
    }
    if (type == "coach_session") {
        const std::string task = member(event, "declared_task");
        return "conversation ended, task: " + (task.empty() ? std::string("(no task)") : task);
    }
    return std::nullopt;
}

LogForDigests readForDigests(const std::filesystem::path& eventsLog, int64_t floorMs) {
    static constexpr std::string_view rendered[] = {
        "task_declared",    "checker_output_sent",       "checker_input_received",
        "app_chat_message", "app_project_link_asserted", "coach_session"};
    LogForDigests log;
    std::error_code error;
    if (!std::filesystem::exists(eventsLog, error)) return log;
    requireRegularFileIfPresent(eventsLog);
    std::ifstream in(eventsLog, std::ios::binary);
    if (!in)
        throw std::filesystem::filesystem_error("could not read the event log", eventsLog,
                                                std::make_error_code(std::errc::permission_denied));
    std::string line;
    while (std::getline(in, line)) {
        const bool candidate =
            std::any_of(std::begin(rendered), std::end(rendered),
                        [&](std::string_view type) { return line.find(type) != std::string::npos; });
        if (!candidate && log.earliestEventMs) continue;
        auto event = EventLogEvent::decode(line);
        if (!event) continue;
        if (event->tsMs >= floorMs && (!log.earliestEventMs || event->tsMs < *log.earliestEventMs))
            log.earliestEventMs = event->tsMs;
        if (candidate && text(*event)) log.events.push_back(std::move(*event));
    }
    if (in.bad())
        throw std::filesystem::filesystem_error("could not read the event log", eventsLog,
                                                std::make_error_code(std::errc::io_error));
    std::stable_sort(log.events.begin(), log.events.end(),
                     [](const EventLogEvent& a, const EventLogEvent& b) { return a.tsMs < b.tsMs; });
    return log;
}

std::string indexTime(int64_t tsMs) {
    return CoachGateTimeline::formatDateTime(tsMs);
}

Rendered renderIndexed(std::span<const EventLogEvent> events) {
    Rendered rendered;
    for (const EventLogEvent& event : events) {
        auto line = text(event);
        if (!line) continue;
        rendered.tsMsByLine.push_back(event.tsMs);
        rendered.lines.push_back("[" + std::to_string(rendered.tsMsByLine.size()) + "] " +
                                 indexTime(event.tsMs) + " " + flattened(std::move(*line)));
    }
    return rendered;
}

}  // namespace aimwise::PeriodRendering
