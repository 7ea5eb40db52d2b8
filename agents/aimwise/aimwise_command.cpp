#include "agents/aimwise/aimwise_command.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <iostream>

#include "AimwiseCore/classifier/cadence.h"
#include "AimwiseCore/classifier/classifier_model.h"
#include "AimwiseCore/classifier/integrity_guard.h"
#include "AimwiseCore/events/event_log.h"
#include "AimwiseCore/events/event_log_reader.h"
#include "AimwiseCore/events/event_log_writer.h"
#include "AimwiseCore/models/local_inference_endpoint.h"
#include "AimwiseCore/models/local_model_store.h"
#include "AimwiseCore/models/model_backend_error.h"
#include "AimwiseCore/privacy/safe_text.h"
#include "CaptureShared/common/atomic_file.h"
#include "CaptureShared/common/environment.h"
#include "CaptureShared/common/saturating.h"
#include "CaptureShared/common/text.h"
#include "CaptureShared/dataroot/agent_config.h"
#include "CaptureShared/dataroot/data_paths.h"
#include "CaptureShared/dataroot/manifest.h"
#include "CaptureShared/dataroot/model_provisioning.h"
#include "CaptureShared/signals/signals_reader.h"
#include "CaptureShared/staleness/recording_pause.h"
#include "CaptureShared/staleness/signals_staleness.h"
#include "agents/aimwise/chat_verb.h"
#include "agents/aimwise/first_run.h"
#include "agents/aimwise/label_verb.h"
#include "agents/aimwise/memory_verb.h"
#include "agents/aimwise/model_verb.h"
#include "agents/aimwise/models_verb.h"
#include "agents/aimwise/record_verb.h"
#include "agents/coach/coach_status.h"
#include "agents/services/user_services.h"

namespace aimwise::AimwiseCommand {

namespace fs = std::filesystem;

const char* const usageText =
    "usage: aimwise <command>\n"
    "  task TEXT [--minutes N] [--why TEXT]   declare what you mean to be doing\n"
    "  task --clear                           clear the declaration\n"
    "  status                                 task, newest verdict, signals, model and coach at a glance\n"
    "  chat | chat --send TEXT [--wait SECS]  talk with the coach, or send one message and print its reply\n"
    "  memory                                 what the coach remembers about you, and where it came from\n"
    "  memory forget TEXT                     have the coach's memory leave out whatever mentions TEXT\n"
    "  init [PATH]                            set up a data root (asks when no PATH is given)\n"
    "  label [--count N] | label --stats      say what you were really doing at judged moments\n"
    "  model list | install [NAME] | serve    the local model: the catalogue, a verified download, llama-server\n"
    "  record on [--fps N] [--keep-days N] | off | status   screen recording, sealed and kept 7 days\n"
    "  install-services [--no-start]          install and enable the systemd user units\n"
    "  uninstall-services                     stop, disable and remove them\n"
    "  models [--check [--message TEXT]]      which model each role uses; --check asks the coach's model once\n";

namespace {

constexpr const char* processName = "aimwise";
constexpr size_t verdictTailBytes = 64 * 1024;

int usage(const std::string& message) {
    std::fprintf(stderr, "aimwise: %s\n%s", message.c_str(), usageText);
    return 2;
}

int failed(const std::string& message) {
    std::fprintf(stderr, "FAIL: %s\n", message.c_str());
    return 1;
}

// Everything shown may hold a window title or a model's words: escaped, so it cannot drive the terminal.
void line(const std::string& text) { std::printf("%s\n", escapedForTerminal(text).c_str()); }

std::optional<double> positiveNumber(const std::string& text) {
    double value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || !std::isfinite(value) || value <= 0)
        return std::nullopt;
    return value;
}

// The rendered declaration, one line: "write the report (until 4:05pm; why: ...)".
std::string summarised(const std::string& body) {
    std::string task, estimate, why;
    size_t start = 0;
    while (start < body.size()) {
        size_t end = body.find('\n', start);
        if (end == std::string::npos) end = body.size();
        const std::string_view row(body.data() + start, end - start);
        if (row.starts_with("Task: ")) task = row.substr(6);
        if (row.starts_with("Estimate: ")) estimate = row.substr(10);
        if (row.starts_with("Why: ")) why = row.substr(5);
        start = end + 1;
    }
    std::vector<std::string> notes;
    if (!estimate.empty()) notes.push_back(estimate);
    if (!why.empty()) notes.push_back("why: " + why);
    return "\"" + task + "\"" + (notes.empty() ? "" : " (" + join(notes, "; ") + ")");
}

bool landed(const TaskRequest& request, const std::optional<std::string>& body) {
    if (!body) return false;
    if (std::holds_alternative<TaskClear>(request)) return body->empty();
    return body->starts_with("Task: " + std::get<TaskDeclaration>(request).task + "\n");
}

std::string appendProblem(const EventLogWriterError& error) {
    using Kind = EventLogWriterError::Kind;
    if (error.kind == Kind::shortWrite)
        return "only " + std::to_string(std::max<int64_t>(error.actual, 0)) + " of " + std::to_string(error.expected) +
               " bytes were written, so the disk is probably full; free some space and try again";
    if (error.kind != Kind::openFailed) return error.description();
    switch (error.error) {
        case ENOSPC: return "the disk is full; free some space and try again";
        case EACCES: case EPERM: case EROFS:
            return std::string(std::strerror(error.error)) + "; check that the data root is writable";
        case EINVAL: case ENXIO: case EISDIR:
            return "it is not a regular file; move it aside and try again";
        default: return std::strerror(error.error);
    }
}

int runTask(const std::vector<std::string>& arguments, const Clock& clock) {
    const TaskRequest request = parseTask(arguments);
    if (const auto* error = std::get_if<UsageError>(&request)) return usage(error->message);
    if (const auto problem = FirstRun::dataRootProblem()) return failed("nothing was recorded: " + *problem + ".");
    const fs::path log = DataPaths::eventsLog();
    try {
        EventLogWriter::append(taskEvent(request, clock.wallMs()), log, processName);
    } catch (const EventLogWriterError& error) {
        if (error.kind == EventLogWriterError::Kind::dataRootEmpty) return failed(error.description() + ".");
        return failed("the declaration did not land: it could not be written to " + log.string() + " (" +
                      appendProblem(error) + "). Nothing changed.");
    } catch (const std::exception& error) {
        return failed("the declaration did not land: it could not be written to " + log.string() + " (" +
                      error.what() + "). Nothing changed.");
    }
    // What the coach and the capture agent will read, read back the same way.
    const auto body = EventLog::read();
    if (!landed(request, body))
        return failed("the declaration did not land: it was written to " + log.string() +
                      " but does not read back as the newest one, so it did not take effect. Try again; if this "
                      "repeats, the file may be damaged.");
    line(std::holds_alternative<TaskClear>(request) ? "Cleared the declared task." : "Declared " + summarised(*body) + ".");
    return 0;
}

std::string taskLine() {
    const auto body = EventLog::read();
    if (!body) return "Task: none declared";
    if (body->empty()) return "Task: none (cleared)";
    return "Task: " + summarised(*body);
}

std::string signalsLine(int64_t now) {
    std::optional<SignalsReader::TickRow> latest;
    try {
        latest = SignalsReader::open(DataPaths::signalsDB()).latestTick();
    } catch (const SignalsReaderError& error) {
        std::error_code ignored;
        if (fs::exists(DataPaths::signalsDB(), ignored))
            return "Signals: " + DataPaths::signalsDB().string() + " could not be read (" + error.message + ")";
    }
    if (!latest) return FirstRun::noSignalsLine(UserServices::unitState(processEnvironment(), "aimwise-capture.service"));
    const int64_t regimeGapSec = ClassifierCadence::Config::fromEnvironment(processEnvironment()).regimeGapSec;
    const auto cadence = ClassifierCadence::read(DataPaths::classifierCadence());
    const auto decision =
        SignalsStaleness::decide(currentRecordingPause(now), latest->tsMs, now,
                                 cadence ? std::optional(cadence->lastRanAtMs) : std::nullopt,
                                 SignalsStaleness::defaultThresholdMs, regimeGapSec);
    const std::string age = SignalsStaleness::humanDuration(Saturating::subtract(now, latest->tsMs)) + " ago";
    const std::string front = latest->frontmostApp ? ", front: " + *latest->frontmostApp : "";
    if (std::holds_alternative<SignalsStaleness::Fresh>(decision)) return "Signals: fresh — newest sample " + age + front;
    if (std::holds_alternative<SignalsStaleness::StaleButUntrustworthy>(decision))
        return "Signals: STALE — newest sample " + age + front +
               "; the classifier has not run lately, so its next tick would still judge once";
    if (const auto* stale = std::get_if<SignalsStaleness::StaleConfirmed>(&decision))
        return "Signals: STALE — " + SignalsStaleness::reason(stale->gapMs, stale->lastGoodTickAtMs);
    if (const auto* paused = std::get_if<SignalsStaleness::PredatesPause>(&decision))
        return "Signals: paused — " +
               SignalsStaleness::reasonPredatesPause(paused->lastTickAtMs, paused->pauseStartedAtMs, now);
    return FirstRun::noSignalsLine(UserServices::unitState(processEnvironment(), "aimwise-capture.service"));
}

std::vector<std::string> verdictLines() {
    std::vector<ClassifierTick> ticks;
    try {
        // The newest verdict is in the last few lines of a log that grows all day.
        ticks = ClassifierLogReader::parse(readFileTail(DataPaths::classifierLog(), verdictTailBytes));
    } catch (const std::exception&) {
        return {"Verdict: none yet"};
    }
    if (ticks.empty()) return {"Verdict: none yet"};
    const ClassifierTick& newest = ticks.back();
    std::vector<std::string> lines{"Verdict: " + newest.state.value_or("(no state)") + " at " + newest.at +
                                   (newest.frontmostApp ? " in " + *newest.frontmostApp : "")};
    // Rows from before reasons were cleaned for the log are shown cleaned too.
    if (newest.reason) lines.push_back("  reason: " + SafeText::cleanReason(*newest.reason).text);
    return lines;
}

int runStatus(const Clock& clock) {
    const int64_t now = clock.wallMs();
    line(FirstRun::dataRootLine());
    if (DataPaths::isDataRootAvailable()) {
        line(taskLine());
        for (const auto& verdict : verdictLines()) line(verdict);
        line(signalsLine(now));
    }
    line(ModelVerb::statusLine(ModelVerb::effectiveEnvironment()));
    if (DataPaths::isDataRootAvailable())
        for (const auto& coach : CoachStatus::lines(DataPaths::dataRoot(), ModelVerb::effectiveEnvironment(), now)) line(coach);
    return 0;
}

fs::path askForRoot() {
    const fs::path suggested = DataPaths::defaultRootForNewInstall();
    if (!isatty(STDIN_FILENO)) return suggested;
    std::printf("Where should captured data live? [%s] ", suggested.c_str());
    std::fflush(stdout);
    std::string answer;
    std::getline(std::cin, answer);
    answer = trimWhitespaceAndNewlines(answer);
    return answer.empty() ? suggested : DataPaths::expandTilde(answer);
}

int runInit(const std::vector<std::string>& arguments, const Clock& clock) {
    if (arguments.size() > 1) return usage("init takes at most one path");
    fs::path root = arguments.empty() ? askForRoot() : DataPaths::expandTilde(arguments.front());
    std::error_code error;
    root = fs::absolute(root, error).lexically_normal();
    if (root.has_filename() == false && root != root.root_path()) root = root.parent_path();
    fs::create_directories(root, error);
    if (error) return failed("could not create " + root.string() + ": " + error.message());
    DataPaths::hardenAdoptedRoot(root, DataPaths::homeDirectory());
    try {
        // The mark of a prepared root: the capture agent starts signals.sqlite only beside it.
        if (!fs::exists(root / "manifest.json", error)) Manifest::make(root.string(), 0, 0, 0, clock.wallMs()).write(root);
        DataPaths::setConfiguredRoot(root);
        const auto added = AgentConfig::seedDefaultEnvIfAbsent(std::nullopt, ModelProvisioning::physicalMemoryBytes());
        line("Data root: " + root.string());
        line("Settings: " + DataPaths::configPath().string() +
             (added.empty() ? " (settings already there were kept)" : " (added " + join(added, ", ") + ")"));
    } catch (const ConfigWriteError& failure) {
        return failed(failure.description());
    } catch (const fs::filesystem_error& failure) {
        return failed(std::string("could not write the settings: ") + failure.what());
    }
    if (DataPaths::dataRootSource() == DataPaths::RootSource::environment && DataPaths::dataRoot() != root) {
        line("Note: AIMCAP_DATA_ROOT is set to " + DataPaths::dataRoot().string() +
             " in this environment and wins over the settings file.");
    } else {
        try {
            DataPaths::ensureSubdirsExist();
        } catch (const std::exception& failure) {
            return failed(std::string("could not create the data root's folders: ") + failure.what());
        }
    }
    line("Next: `aimwise install-services` to record in the background, then `aimwise task \"...\" --minutes N`.");
    return 0;
}

}  // namespace

TaskRequest parseTask(const std::vector<std::string>& arguments) {
    TaskDeclaration declaration;
    bool clear = false;
    std::vector<std::string> words;
    for (size_t i = 0; i < arguments.size(); ++i) {
        const std::string& argument = arguments[i];
        const bool hasValue = i + 1 < arguments.size();
        if (argument == "--clear") {
            clear = true;
        } else if (argument == "--minutes") {
            if (!hasValue) return UsageError{"--minutes needs a number"};
            declaration.minutes = positiveNumber(arguments[++i]);
            if (!declaration.minutes) return UsageError{"--minutes needs a positive number, not \"" + arguments[i] + "\""};
        } else if (argument == "--why") {
            if (!hasValue) return UsageError{"--why needs a text"};
            declaration.why = trimWhitespaceAndNewlines(arguments[++i]);
            if (declaration.why->empty()) declaration.why.reset();
        } else if (argument.starts_with("--")) {
            return UsageError{"unknown option " + argument};
        } else {
            words.push_back(argument);
        }
    }
    declaration.task = trimWhitespaceAndNewlines(join(words, " "));
    if (clear) {
        if (!declaration.task.empty() || declaration.minutes || declaration.why)
            return UsageError{"--clear takes nothing else"};
        return TaskClear{};
    }
    if (declaration.task.empty()) return UsageError{"task needs a text, e.g. aimwise task \"write the report\" --minutes 45"};
    return declaration;
}

EventLogEvent taskEvent(const TaskRequest& request, int64_t nowMs) {
    EventLogEvent event;
    event.tsMs = nowMs;
    event.source = processName;
    if (const auto* declaration = std::get_if<TaskDeclaration>(&request)) {
        event.type = "task_declared";
        JSONValue::Object detail{{"task", declaration->task}};
        if (declaration->minutes) detail["horizon_minutes"] = *declaration->minutes;
        if (declaration->why) detail["why"] = *declaration->why;
        event.detail = std::move(detail);
    } else {
        event.type = "task_cleared";
    }
    return event;
}

namespace {

int dispatch(const std::vector<std::string>& arguments, const Clock& clock) {
    if (arguments.empty()) return usage("no command given");
    const std::string& command = arguments.front();
    const std::vector<std::string> rest(arguments.begin() + 1, arguments.end());
    if (command == "--help" || command == "-h" || command == "help") {
        std::fputs(usageText, stdout);
        return 0;
    }
    if (command == "task") return runTask(rest, clock);
    if (command == "models") return ModelsVerb::run(rest);
    if (command == "status") return rest.empty() ? runStatus(clock) : usage("status takes no arguments");
    if (command == "init") return runInit(rest, clock);
    if (command == "memory") return MemoryVerb::run(rest);
    if (command == "chat") return ChatVerb::run(rest, processEnvironment(), clock);
    if (command == "label") return LabelVerb::run(rest);
    if (command == "model") return ModelVerb::run(rest, Clock::system());
    if (command == "record") return RecordVerb::run(rest);
    if (command == "install-services") {
        if (rest.size() > 1 || (rest.size() == 1 && rest.front() != "--no-start"))
            return usage("install-services takes only --no-start");
        const int installed = UserServices::install(processEnvironment(),
                                                    rest.empty() ? UserServices::Start::now : UserServices::Start::later);
        return installed == 0 ? ModelVerb::offerServe(ModelVerb::effectiveEnvironment(), Clock::system()) : installed;
    }
    if (command == "uninstall-services") return rest.empty() ? UserServices::uninstall(processEnvironment())
                                                             : usage("uninstall-services takes no arguments");
    return usage("unknown command \"" + command + "\"");
}

}  // namespace

int run(const std::vector<std::string>& arguments, const Clock& clock) {
    // The one catch boundary: a bad setting or a failing file ends a command with a sentence, never an abort.
    try {
        return dispatch(arguments, clock);
    } catch (const Error& error) {
        return failed(error.description());
    } catch (const std::exception& error) {
        return failed(error.what());
    }
}

}  // namespace aimwise::AimwiseCommand
