#include "agents/aimwise/label_verb.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <ctime>
#include <filesystem>
#include <iostream>
#include <map>

#include <fmt/format.h>

#include "AimwiseCore/classifier/describe_log.h"
#include "AimwiseCore/classifier/historical_window_content.h"
#include "AimwiseCore/classifier/label_vocabulary.h"
#include "AimwiseCore/classifier/labeled_points.h"
#include "AimwiseCore/classifier/labels_writer.h"
#include "AimwiseCore/classifier/ramp_sample_replay_selection.h"
#include "AimwiseCore/classifier/reason_label_writer.h"
#include "AimwiseCore/classifier/self_observation.h"
#include "AimwiseCore/events/event_log_reader.h"
#include "AimwiseCore/events/event_log_writer.h"
#include "AimwiseCore/privacy/outbound_title_privacy.h"
#include "AimwiseCore/privacy/sensitive_identifier_redaction.h"
#include "CaptureShared/common/iso_date.h"
#include "CaptureShared/common/text.h"
#include "CaptureShared/dataroot/data_paths.h"
#include "CaptureShared/dataroot/executable_path.h"
#include "CaptureShared/signals/signals_reader.h"
#include "agents/aimwise/first_run.h"
#include "platform/bounded_process.h"

namespace aimwise::LabelVerb {

namespace fs = std::filesystem;

namespace {

// A label given near a moment covers it, whatever form the other review used.
constexpr int64_t coveredWithinMs = 60'000;
constexpr int64_t describeToleranceMs = 120'000;
constexpr int64_t frameToleranceMs = 120'000;
constexpr double rampTimeoutSec = 120.0;

struct Choice {
    std::string_view word;
    std::string_view explanation;
};

// In the order people think of them: on it, drifting, off it, away, and the two that score nothing.
constexpr std::array<Choice, 10> choices = {{
    {"on_task", "what you meant to do, or a break you really took"},
    {"on_task_overtime", "the right thing, but past the time you gave it"},
    {"switching_tasks", "going back and forth between things"},
    {"rabbit_hole", "something nearby that pulled you away from the point"},
    {"off_task", "something unrelated to what you meant to do"},
    {"not_aligned", "on the subject, but not what the intention asked for"},
    {"break", "on a break, away from the screen"},
    {"not_using_computer", "not using the computer at all"},
    {"no_task", "nothing was really declared, or it was long over"},
    {"ambiguous", "there is not enough here to say"},
}};

std::string lowered(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

std::optional<int64_t> positiveInteger(const std::string& text) {
    int64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || value <= 0) return std::nullopt;
    return value;
}

// "Tue 14 Nov 2023, 15:42" in local time.
std::string humanTime(int64_t ms) {
    const std::time_t seconds = static_cast<std::time_t>(ms / 1000);
    std::tm local{};
    localtime_r(&seconds, &local);
    char buffer[64];
    std::strftime(buffer, sizeof buffer, "%a %e %b %Y, %H:%M", &local);
    std::string text = buffer;
    const size_t doubled = text.find("  ");
    if (doubled != std::string::npos) text.erase(doubled, 1);
    return text;
}

std::string quoted(const std::string& text) { return "\"" + text + "\""; }

std::string redacted(const std::string& text) {
    return SensitiveIdentifierRedaction::redact(text, SensitiveIdentifierRedaction::Scope::lifeLevel).text;
}

// Everything the review reads from the data root, once.
struct Sources {
    fs::path root;
    std::optional<SignalsReader> signals;
    std::vector<ClassifierDescribeLog::Row> described;
    std::unique_ptr<FrameArchive> archive;
};

class Session {
public:
    Session(Sources& sources, std::istream& in, std::FILE* out, const Clock& clock)
        : sources_(sources), in_(in), out_(out), clock_(clock), writer_(sources.root / "labels.sqlite") {}

    enum class Next { goOn, stop, failed };
    Next moment(const Moment& moment, int index, int total);

    int saved = 0, revised = 0, rated = 0, skipped = 0;

private:
    // Moments quote titles, app names and the model's words: escaped, so they cannot drive the terminal.
    void say(const std::string& text) {
        std::fputs(escapedForTerminal(text, Newlines::kept).c_str(), out_);
        std::fflush(out_);
    }
    // Nothing at the end of the input.
    std::optional<std::string> ask(const std::string& prompt) {
        say(prompt);
        std::string line;
        if (!std::getline(in_, line)) {
            say("\n");
            return std::nullopt;
        }
        return trimWhitespaceAndNewlines(line);
    }
    void show(const Moment& moment);
    bool offerClip(const Moment& moment);
    void openClip(const Moment& moment);
    bool save(const Moment& moment, const std::string& label, bool blind, const std::optional<std::string>& note);
    Next rateReason(const Moment& moment);

    Sources& sources_;
    std::istream& in_;
    std::FILE* out_;
    const Clock& clock_;
    LabelsWriter writer_;
};

struct Answer {
    std::string label;
    std::optional<std::string> note;
};

// "3", "3 was reading the manual", "rabbit_hole", "rabbit_hole because ...".
std::optional<Answer> parseAnswer(const std::string& text) {
    const size_t space = text.find_first_of(" \t");
    const std::string head = lowered(text.substr(0, space));
    std::optional<std::string> note;
    if (space != std::string::npos) {
        note = trimWhitespaceAndNewlines(std::string_view(text).substr(space));
        if (note->empty()) note.reset();
    }
    if (auto number = positiveInteger(head); number && *number <= static_cast<int64_t>(choices.size()))
        return Answer{std::string(choices[*number - 1].word), note};
    for (const Choice& choice : choices)
        if (head == choice.word) return Answer{head, note};
    return std::nullopt;
}

std::string menu() {
    std::string text = "What were you really doing?\n";
    for (size_t i = 0; i < choices.size(); ++i)
        text += fmt::format("  {:>2}  {:<31} {}\n", i + 1,
                            LabelVocabulary::displayNameForStoredLabel(std::string(choices[i].word)),
                            choices[i].explanation);
    return text;
}

void Session::show(const Moment& moment) {
    const ClassifierTick& tick = moment.tick;
    std::string text = fmt::format("  When:       {}\n", humanTime(moment.atMs));
    text += "  Declared:   " + (tick.declaredTask && !tick.declaredTask->empty() ? quoted(redacted(*tick.declaredTask))
                                                                                  : std::string("nothing")) + "\n";
    std::string front = tick.frontmostApp.value_or("(unknown app)");
    if (tick.frontmostWindowTitle && !tick.frontmostWindowTitle->empty())
        front += " — " + quoted(OutboundTitlePrivacy::sanitize(*tick.frontmostWindowTitle));
    text += "  In front:   " + front + "\n";
    if (tick.browserTitle && !tick.browserTitle->empty() && tick.browserTitle != tick.frontmostWindowTitle)
        text += "  Browser:    " + quoted(OutboundTitlePrivacy::sanitize(*tick.browserTitle)) + "\n";
    if (sources_.signals) {
        try {
            std::vector<std::string> apps;
            for (const auto& app : sources_.signals->recentApps(moment.atMs, 600'000))
                apps.push_back(fmt::format("{} ~{:.0f} min", app.app, std::max(1.0, std::round(app.approxMinutes))));
            if (!apps.empty()) text += "  Before it:  " + join(apps, ", ") + " (last 10 minutes)\n";
        } catch (const SignalsReaderError&) {
            // The line is a memory aid; the moment stands without it.
        }
    }
    if (auto described = ClassifierDescribeLog::nearest(sources_.described, moment.atMs, describeToleranceMs);
        described && !trimWhitespaceAndNewlines(described->describe).empty())
        text += "  On screen:  " + trimWhitespaceAndNewlines(described->describe) + "\n";
    say(text);
}

bool Session::offerClip(const Moment& moment) {
    return sources_.archive->hasFrameNear(HistoricalWindowContent::primaryDisplay, moment.atMs, frameToleranceMs);
}

// The ramp verb writes the clip of the hour before the moment and says where; the clip is then
// handed to the desktop's video player.
void Session::openClip(const Moment& moment) {
    fs::path tool = "VerdictBench";
    try {
        tool = ExecutablePath::siblingDirectory(ExecutablePath::resolveSelf()) / "VerdictBench";
    } catch (const ExecutablePathError&) {
    }
    say("  Making the review clip of the hour before this moment…\n");
    const auto outcome =
        BoundedProcess::run(tool.string(),
                            {"ramp", ISODate::format(moment.atMs), "--display",
                             std::to_string(HistoricalWindowContent::primaryDisplay), "--bridge"},
                            rampTimeoutSec);
    const auto* finished = std::get_if<BoundedProcess::Finished>(&outcome);
    if (!finished || !finished->succeeded()) {
        const std::string why = finished ? trimWhitespaceAndNewlines(finished->standardError) : "";
        say("  The clip could not be made (" + (why.empty() ? BoundedProcess::describe(outcome) : why) +
            "). Your answers so far are saved.\n");
        return;
    }
    std::string clip;
    for (size_t start = 0; start < finished->standardOutput.size();) {
        size_t end = finished->standardOutput.find_first_of(" \n\t", start);
        if (end == std::string::npos) end = finished->standardOutput.size();
        const std::string word = finished->standardOutput.substr(start, end - start);
        if (word.ends_with(".mp4") && fs::exists(word)) clip = word;
        start = end + 1;
    }
    if (clip.empty()) {
        say(finished->standardOutput);
        return;
    }
    say("  Clip: " + clip + "\n");
    BoundedProcess::run("xdg-open", {clip}, 10.0);
}

bool Session::save(const Moment& moment, const std::string& label, bool blind, const std::optional<std::string>& note) {
    LabelsWriter::Row row;
    row.t0Ms = row.t1Ms = moment.atMs;
    row.declaredTask = moment.tick.declaredTask;
    row.label = label;
    if (!blind) row.notes = RampLabelSubmission::revisedAfterRevealNote;
    row.sourceHour = LabelTimes::sourceHour(moment.atMs);
    row.createdAt = LabelTimes::createdAt(clock_.wallMs());
    row.source = RampLabelSubmission::source;
    row.answeredBlind = blind;
    row.userNote = note;
    try {
        writer_.insert(row);
        return true;
    } catch (const LabelsWriterError& error) {
        say("\nCould not save this answer: " + error.description() +
            ". It was not recorded; the answers saved before it are kept.\n");
        return false;
    }
}

Session::Next Session::rateReason(const Moment& moment) {
    const auto reply = ask(
        "Was its reason sound? Enter skips · r right · a named something not on screen · t judged the topic, not "
        "this moment · i inaccurate\n> ");
    if (!reply) return Next::stop;
    static const std::map<std::string, ReasonLabelWriter::Judgement> judgements = {
        {"r", ReasonLabelWriter::ReasonWasRight{}},
        {"a", ReasonLabelWriter::ReasonWasWrong{ReasonLabelWriter::Rule::citedAbsentEvidence}},
        {"t", ReasonLabelWriter::ReasonWasWrong{ReasonLabelWriter::Rule::topicNotMoment}},
        {"i", ReasonLabelWriter::ReasonWasWrong{ReasonLabelWriter::Rule::inaccurate}},
    };
    const std::string key = lowered(*reply);
    if (key == "q") return Next::stop;
    const auto found = judgements.find(key);
    if (found == judgements.end()) return Next::goOn;
    try {
        ReasonLabelWriter::append({moment.atMs, moment.tick.state.value_or(""), moment.tick.reason.value_or(""),
                                   found->second, LabelTimes::createdAt(clock_.wallMs())},
                                  sources_.root / ReasonLabelWriter::fileName);
        ++rated;
    } catch (const EventLogWriterError& error) {
        say("  Could not save the note on the reason: " + error.description() + ". Your label is kept.\n");
    } catch (const std::exception& error) {
        say(std::string("  Could not save the note on the reason: ") + error.what() + ". Your label is kept.\n");
    }
    return Next::goOn;
}

Session::Next Session::moment(const Moment& moment, int index, int total) {
    say(fmt::format("\n── Moment {} of {} ──────────────────────────────────────\n", index, total));
    show(moment);
    const bool clip = offerClip(moment);
    say("\n" + menu());

    // Blind: nothing of the verdict has been shown yet.
    Answer blind;
    for (;;) {
        const auto reply = ask(std::string("  A number or word, then a note if you like") +
                               (clip ? " · v shows the hour before as a clip" : "") + " · s skips · q stops\n> ");
        if (!reply || lowered(*reply) == "q") return Next::stop;
        if (reply->empty()) continue;
        if (lowered(*reply) == "s") {
            ++skipped;
            return Next::goOn;
        }
        if (clip && lowered(*reply) == "v") {
            openClip(moment);
            continue;
        }
        if (auto answer = parseAnswer(*reply)) {
            blind = std::move(*answer);
            break;
        }
        say("  Please answer with a number from 1 to 10 or one of the words (for example rabbit_hole).\n");
    }
    if (!save(moment, blind.label, true, blind.note)) return Next::failed;
    ++saved;
    say("  Saved: " + LabelVocabulary::displayNameForStoredLabel(blind.label) + " (your blind answer).\n");

    // The reveal.
    const std::string state = moment.tick.state.value_or("");
    std::string reveal = "\n  The classifier said: " + LabelVocabulary::displayNameForClassifierState(state) + " (" +
                         state + ")";
    if (moment.tick.confidence) reveal += fmt::format(", {:.0f}% sure", *moment.tick.confidence * 100);
    reveal += "\n";
    if (moment.tick.reason && !moment.tick.reason->empty()) reveal += "    " + quoted(*moment.tick.reason) + "\n";
    if (const auto truth = LabeledPoints::groundTruth(blind.label)) {
        const auto vote = *truth == state ? LabelsWriter::Vote::matches : LabelsWriter::Vote::off;
        reveal += vote == LabelsWriter::Vote::matches ? "  That agrees with your answer.\n"
                                                      : "  That is not what you said.\n";
    }
    say(reveal);

    for (;;) {
        const auto reply = ask("Keep your answer? Enter keeps it · a number or word revises it · q stops\n> ");
        if (!reply || lowered(*reply) == "q") return Next::stop;
        if (reply->empty()) break;
        const auto answer = parseAnswer(*reply);
        if (!answer) {
            say("  Please answer with a number from 1 to 10 or one of the words, or press Enter.\n");
            continue;
        }
        if (answer->label == blind.label) {
            say("  That is the answer you gave; kept as it is.\n");
            break;
        }
        if (!save(moment, answer->label, false, answer->note ? answer->note : blind.note)) return Next::failed;
        ++revised;
        say("  Saved the revision: " + LabelVocabulary::displayNameForStoredLabel(answer->label) +
            " (kept apart from your blind answer, since it was given after seeing the verdict).\n");
        break;
    }
    if (!moment.tick.reason || moment.tick.reason->empty()) return Next::goOn;
    return rateReason(moment);
}

std::vector<int64_t> labelledInstants(const std::vector<LabeledPoints::FetchedRow>& rows) {
    std::vector<int64_t> instants;
    for (const auto& row : rows) {
        instants.push_back(row.rawT0);
        if (row.effT1 != row.rawT0) instants.push_back((row.effT0 + row.effT1) / 2);
    }
    return instants;
}

// The labels file may not exist yet; a file that exists but cannot be read is worth a word.
std::vector<LabeledPoints::FetchedRow> existingLabels(const fs::path& path, std::FILE* out) {
    std::error_code ignored;
    if (!fs::exists(path, ignored)) return {};
    try {
        return LabeledPoints::fetchRows(path, true);
    } catch (const LabeledPoints::ReadError& error) {
        std::fprintf(out, "Note: %s, so moments you already labelled may be offered again.\n",
                     error.description().c_str());
        return {};
    }
}

}  // namespace

Request parse(const std::vector<std::string>& arguments) {
    Review review;
    bool wantsStats = false, countGiven = false;
    for (size_t i = 0; i < arguments.size(); ++i) {
        if (arguments[i] == "--stats") {
            wantsStats = true;
        } else if (arguments[i] == "--count") {
            const auto count = i + 1 < arguments.size() ? positiveInteger(arguments[i + 1]) : std::nullopt;
            if (!count || *count > 1000) return UsageError{"--count needs a whole number from 1 to 1000"};
            review.count = static_cast<int>(*count);
            countGiven = true;
            ++i;
        } else {
            return UsageError{"label takes only --count N and --stats, not \"" + arguments[i] + "\""};
        }
    }
    if (wantsStats && countGiven) return UsageError{"--stats and --count do not go together"};
    if (wantsStats) return Stats{};
    return review;
}

std::vector<Moment> pickMoments(const std::vector<ClassifierTick>& ticks, const std::vector<int64_t>& labelledMs,
                                int count) {
    std::vector<int64_t> labelled = labelledMs;
    std::sort(labelled.begin(), labelled.end());
    const auto covered = [&](int64_t ms) {
        const auto near = std::lower_bound(labelled.begin(), labelled.end(), ms - coveredWithinMs);
        return near != labelled.end() && *near <= ms + coveredWithinMs;
    };
    // By verdict, then by hour of day, newest first within an hour.
    std::map<std::string, std::map<int, std::vector<Moment>>> byState;
    for (const ClassifierTick& tick : ticks) {
        const auto instant = tick.frameInstant();
        if (!instant || !tick.state || covered(instant->ms)) continue;
        if (ClassifierSelfObservation::isSelfObservation(*tick.state, tick.frontmostApp)) continue;
        const std::time_t seconds = static_cast<std::time_t>(instant->ms / 1000);
        std::tm local{};
        localtime_r(&seconds, &local);
        byState[*tick.state][local.tm_hour].push_back({instant->ms, tick});
    }
    // Each verdict's moments in turn over its hours, then the verdicts in turn.
    std::vector<std::vector<Moment>> queues;
    for (auto& [state, byHour] : byState) {
        for (auto& [hour, moments] : byHour)
            std::stable_sort(moments.begin(), moments.end(), [](const Moment& a, const Moment& b) { return a.atMs > b.atMs; });
        std::vector<Moment> queue;
        for (size_t round = 0;; ++round) {
            bool any = false;
            for (auto& [hour, moments] : byHour) {
                if (round < moments.size()) {
                    queue.push_back(moments[round]);
                    any = true;
                }
            }
            if (!any) break;
        }
        queues.push_back(std::move(queue));
    }
    std::vector<Moment> picked;
    for (size_t round = 0; static_cast<int>(picked.size()) < count; ++round) {
        bool any = false;
        for (const auto& queue : queues) {
            if (round < queue.size() && static_cast<int>(picked.size()) < count) {
                // Two verdicts logged within the covered distance are one moment to a person.
                bool near = false;
                for (const Moment& chosen : picked) near = near || std::abs(chosen.atMs - queue[round].atMs) <= coveredWithinMs;
                if (!near) picked.push_back(queue[round]);
            }
            any = any || round < queue.size();
        }
        if (!any) break;
    }
    return picked;
}

int review(int count, std::istream& in, std::FILE* out, const Clock& clock) {
    if (const auto problem = FirstRun::dataRootProblem()) {
        std::fprintf(out, "Nothing to label: %s.\n", problem->c_str());
        return 1;
    }
    Sources sources;
    sources.root = DataPaths::dataRoot();
    std::vector<ClassifierTick> ticks;
    try {
        ticks = ClassifierLogReader::read(sources.root / "checker-log.jsonl");
    } catch (const std::exception&) {
        // No log yet: nothing has been judged.
    }
    const auto existing = existingLabels(sources.root / "labels.sqlite", out);
    const std::vector<Moment> moments = pickMoments(ticks, labelledInstants(existing), count);
    if (moments.empty()) {
        std::fputs(ticks.empty() ? "No judged moments yet: the classifier has not logged a verdict in this data root.\n"
                                 : "Nothing to label: every judged moment already has your answer.\n",
                   out);
        return 0;
    }
    try {
        sources.signals.emplace(SignalsReader::open(sources.root / "signals.sqlite"));
    } catch (const SignalsReaderError&) {
        // The recent-apps line is left out.
    }
    sources.described = ClassifierDescribeLog::read(sources.root / ClassifierDescribeLog::fileName);
    sources.archive = FrameArchive::forDataRoot(sources.root);

    std::fprintf(out,
                 "%zu moment%s to label. For each, say what you were really doing before you see what the classifier "
                 "concluded.\nEvery answer is saved as soon as you give it: q stops at any time and nothing is lost.\n",
                 moments.size(), moments.size() == 1 ? "" : "s");
    Session session(sources, in, out, clock);
    Session::Next next = Session::Next::goOn;
    for (size_t i = 0; i < moments.size() && next == Session::Next::goOn; ++i)
        next = session.moment(moments[i], static_cast<int>(i + 1), static_cast<int>(moments.size()));

    const int answers = session.saved + session.revised;
    std::string summary = fmt::format("\nSaved {} answer{}", answers, answers == 1 ? "" : "s");
    std::vector<std::string> extras;
    if (session.revised) extras.push_back(fmt::format("{} revised after the reveal", session.revised));
    if (session.rated) extras.push_back(fmt::format("{} reason{} rated", session.rated, session.rated == 1 ? "" : "s"));
    if (session.skipped) extras.push_back(fmt::format("{} skipped", session.skipped));
    if (!extras.empty()) summary += " (" + join(extras, ", ") + ")";
    summary += ". `aimwise label --stats` shows the totals.\n";
    std::fputs(summary.c_str(), out);
    return next == Session::Next::failed ? 1 : 0;
}

int stats(std::FILE* out) {
    if (const auto problem = FirstRun::dataRootProblem()) {
        std::fprintf(out, "No labels to count: %s.\n", problem->c_str());
        return 1;
    }
    const fs::path path = DataPaths::dataRoot() / "labels.sqlite";
    std::error_code ignored;
    if (!fs::exists(path, ignored)) {
        std::fprintf(out, "No labels yet: %s does not exist. `aimwise label` starts a review.\n", path.c_str());
        return 0;
    }
    std::vector<LabeledPoints::FetchedRow> rows;
    try {
        rows = LabeledPoints::fetchRows(path, true);
    } catch (const LabeledPoints::ReadError& error) {
        std::fprintf(out, "FAIL: %s\n", error.description().c_str());
        return 1;
    }
    std::map<std::string, int> perWord;
    std::vector<RampSampleReplaySelection::Row> selection;
    for (const auto& row : rows) {
        ++perWord[row.label];
        selection.push_back(row.selectionRow());
    }
    std::string text = "Hand labels in " + path.string() + "\n";
    for (const Choice& choice : choices) {
        const std::string word(choice.word);
        text += fmt::format("  {:<31} {:<19} {:>5}\n", LabelVocabulary::displayNameForStoredLabel(word), word,
                            perWord[word]);
        perWord.erase(word);
    }
    for (const auto& [word, count] : perWord)
        text += fmt::format("  {:<51} {:>5}  (not an accepted word; not scored)\n", quoted(word), count);

    const auto moments = RampSampleReplaySelection::selectForScoring(selection, false);
    const auto blindChosen = RampSampleReplaySelection::selectForScoring(selection, true);
    const int blind = static_cast<int>(std::count_if(blindChosen.begin(), blindChosen.end(), RampSampleReplaySelection::isBlind));
    text += fmt::format("{} answer{} for {} moment{}: {} with a blind answer, {} only with an answer given after the reveal",
                        rows.size(), rows.size() == 1 ? "" : "s", moments.size(), moments.size() == 1 ? "" : "s",
                        blind, moments.size() - blind);
    const int excluded = RampSampleReplaySelection::groupsWithExcludedRevision(selection);
    if (excluded) text += fmt::format("; {} blind answer{} later revised", excluded, excluded == 1 ? " was" : "s were");
    text += ".\n";
    std::fputs(text.c_str(), out);
    return 0;
}

int run(const std::vector<std::string>& arguments) {
    const Request request = parse(arguments);
    if (const auto* error = std::get_if<UsageError>(&request)) {
        std::fprintf(stderr, "aimwise: %s\nusage: aimwise label [--count N] | aimwise label --stats\n",
                     error->message.c_str());
        return 2;
    }
    if (std::holds_alternative<Stats>(request)) return stats(stdout);
    return review(std::get<Review>(request).count, std::cin, stdout, Clock::system());
}

}  // namespace aimwise::LabelVerb
