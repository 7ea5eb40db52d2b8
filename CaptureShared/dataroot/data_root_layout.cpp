#include "CaptureShared/dataroot/data_root_layout.h"

#include <algorithm>
#include <sstream>

namespace aimwise::DataRootLayout {

namespace fs = std::filesystem;

namespace {

Entry file(std::string name, std::string writer) { return {Exact{std::move(name)}, File{}, std::move(writer)}; }

Entry wholesale(std::string name, std::string writer) {
    return {Exact{std::move(name)}, DirectoryWholesale{}, std::move(writer)};
}

Entry directory(std::string name, std::vector<Entry> children, std::string writer) {
    return {Exact{std::move(name)}, Directory{std::move(children)}, std::move(writer)};
}

void addDatabase(std::vector<Entry>& out, const std::string& base, const std::string& writer) {
    for (const char* sidecar : {"", "-wal", "-shm", "-journal"}) out.push_back(file(base + sidecar, writer));
}

std::vector<Entry> buildEntries() {
    const std::string spotlight = "SpotlightExclusion (#1148)";
    std::vector<Entry> e;
    addDatabase(e, "signals.sqlite", "capture Signals; checker/set_task.py");
    addDatabase(e, "labels.sqlite", "app ramp review / labeling; VerdictBench LabelsWriter");
    e.push_back(file("manifest.json", "capture Supervisor — Manifest.write()"));
    e.push_back(file("classifier-cadence.json", "VerdictBench tick"));
    e.push_back(file("checker-log.jsonl", "VerdictBench tick"));
    e.push_back(file("classifier-shadow.jsonl", "VerdictBench shadow"));
    e.push_back(file("classifier-describe.jsonl", "ClassifierDescribeLog"));
    e.push_back(file("classifier-tick-energy.jsonl", "ClassifierTickEnergyLog"));
    e.push_back(file("coach-turn-energy.jsonl", "CoachTurnEnergyLog (CoachDriver)"));
    e.push_back(file("gate-decisions.jsonl", "GateDecisionLog (CoachDriver)"));
    e.push_back(file("gate-labels.jsonl", "GateLabelWriter"));
    e.push_back(file("gate-gap-labels.jsonl", "GateGapAnalysis"));
    e.push_back(file("turn-usage.jsonl", "TurnUsageRecord"));
    e.push_back(file("coach-feedback.jsonl", "CoachFeedbackWriter"));
    e.push_back(file("coach-corrections.jsonl", "CoachCorrections"));
    e.push_back(file("coach-preferences.json", "CoachPreferences"));
    e.push_back(file("memory-wipes.jsonl", "MemoryWipe"));
    e.push_back(file("memory-forget-requests.jsonl", "aimwise memory forget"));
    e.push_back(file("meds-log.jsonl", "MedsLog"));
    e.push_back(file("meds-ask-answers.jsonl", "MedsAskAnswerLog"));
    e.push_back(file("reaction-polls.jsonl", "ReactionPollLog"));
    e.push_back(file("reminder-polls.jsonl", "ReminderPollLog"));
    e.push_back(file("reason-human-labels.jsonl", "ReasonLabelWriter"));
    e.push_back(file("system-review-labels.jsonl", "SystemReviewLabels"));
    e.push_back(file("provider-pricing.json", "ProviderPricingResolver"));
    e.push_back(file(".metadata_never_index", spotlight));
    e.push_back(directory("video",
                          {file(".metadata_never_index", spotlight),
                           {Pattern{"display-", ""}, DirectoryWholesale{},
                            "capture Capturer — hour .mkv segments, segments-*.csv, frame sidecars"}},
                          "DataPaths.videoDir"));
    e.push_back(directory("io-layer",
                          {file(".metadata_never_index", spotlight),
                           file("events.jsonl", "EventLogWriter, checker/set_task.py, app"),
                           file("coach-driver.pid", "CoachDriver"), file("coach-stream.jsonl", "CoachStream"),
                           file("layer3-floor.json", "Layer3Conversation")},
                          "io-layer event log"));
    e.push_back(directory("memory",
                          {wholesale("period-digests", "MemoryStore"), file("standing-memory.json", "MemoryStore"),
                           file("standing-memory.sequential.json", "MemoryStore"), file(".dream.lock", "DreamPass")},
                          "coach memory"));
    e.push_back(directory("coach-fixtures", {{Pattern{"turn-", ".json"}, File{}, "CoachFeedbackWriter"}},
                          "CoachFeedbackWriter"));
    e.push_back(wholesale("model-request-dumps", "RequestDump (CoachDriver, opt-in)"));
    e.push_back(wholesale("ramp-proxy-bench", "VerdictBench ramp bench"));
    e.push_back(file("classifier-skip-energy.jsonl", "ClassifierTickEnergyLog (skipped ticks)"));
    e.push_back(file("dream-energy.jsonl", "EnergyMeter (nightly job)"));
    return e;
}

const Entry* find(const std::vector<Entry>& list, const std::string& component) {
    for (const Entry& entry : list)
        if (entry.matches(component)) return &entry;
    return nullptr;
}

void walk(const fs::path& directory, const std::vector<Entry>& known, Survey& survey) {
    std::error_code ec;
    std::vector<fs::directory_entry> children;
    for (fs::directory_iterator it(directory, ec), end; !ec && it != end; it.increment(ec)) children.push_back(*it);
    std::sort(children.begin(), children.end());
    for (const auto& child : children) {
        const std::string name = child.path().filename().string();
        const Entry* entry = find(known, name);
        if (!entry) {
            survey.unknown.push_back(child.path().string());
            continue;
        }
        const bool isRealDirectory = child.is_directory(ec) && !child.is_symlink(ec);
        if (std::holds_alternative<File>(entry->kind)) {
            // A directory where a file belongs was not written by the system as such.
            if (isRealDirectory)
                survey.unknown.push_back(child.path().string());
            else
                survey.owned.push_back(child.path().string());
        } else if (std::holds_alternative<DirectoryWholesale>(entry->kind)) {
            survey.owned.push_back(child.path().string());
        } else if (isRealDirectory) {
            walk(child.path(), std::get<Directory>(entry->kind).children, survey);
            survey.containers.push_back(child.path().string());
        } else {
            survey.unknown.push_back(child.path().string());
        }
    }
}

bool isEmptyDirectory(const fs::path& path) {
    std::error_code ec;
    fs::directory_iterator it(path, ec);
    return !ec && it == fs::directory_iterator();
}

}  // namespace

bool Entry::matches(const std::string& component) const {
    if (const auto* exact = std::get_if<Exact>(&name)) return component == exact->name;
    const auto& pattern = std::get<Pattern>(name);
    return component.size() > pattern.prefix.size() + pattern.suffix.size() &&
           component.starts_with(pattern.prefix) && component.ends_with(pattern.suffix);
}

const std::vector<Entry>& entries() {
    static const std::vector<Entry> table = buildEntries();
    return table;
}

bool covers(const std::string& relativePath) {
    std::vector<std::string> components;
    std::stringstream stream(relativePath);
    for (std::string part; std::getline(stream, part, '/');)
        if (!part.empty()) components.push_back(part);
    if (components.empty()) return false;

    const std::vector<Entry>* level = &entries();
    for (size_t i = 0; i < components.size(); ++i) {
        const Entry* entry = find(*level, components[i]);
        if (!entry) return false;
        const bool last = i + 1 == components.size();
        if (std::holds_alternative<File>(entry->kind)) return last;
        if (std::holds_alternative<DirectoryWholesale>(entry->kind)) return true;
        if (last) return true;
        level = &std::get<Directory>(entry->kind).children;
    }
    return false;
}

Survey survey(const fs::path& root) {
    Survey result;
    walk(root, entries(), result);
    // Children were walked before their parents were recorded, so containers are deepest first.
    return result;
}

Removal removeOwned(const fs::path& root, bool machineIsProtected) {
    Removal removal;
    if (machineIsProtected) {
        removal.failures.push_back(root.string() + " — " +
                                   "This Mac is protected from purging recorded data, so nothing was deleted.");
        return removal;
    }
    const Survey found = survey(root);
    std::error_code ec;
    for (const auto& path : found.owned) {
        fs::remove_all(path, ec);
        if (ec && fs::exists(fs::symlink_status(path))) removal.failures.push_back(path + " — " + ec.message());
        ec.clear();
    }
    std::vector<std::string> containers = found.containers;
    containers.push_back(root.string());
    for (const auto& path : containers) {
        if (!isEmptyDirectory(path)) continue;
        if (!fs::remove(path, ec) && ec) {
            removal.failures.push_back(path + " — " + ec.message());
            ec.clear();
            continue;
        }
        if (path == root.string()) removal.rootRemoved = true;
    }
    removal.leftBehind = found.unknown;
    return removal;
}

}  // namespace aimwise::DataRootLayout
