#include "agents/aimwise/memory_verb.h"

#include <algorithm>
#include <cstdio>

#include "AimwiseCore/coach/coach_gate_timeline.h"
#include "AimwiseCore/events/event_log_writer.h"
#include "AimwiseCore/memory/memory_wipe.h"
#include "CaptureShared/common/clock.h"
#include "CaptureShared/common/text.h"
#include "CaptureShared/dataroot/data_paths.h"
#include "agents/aimwise/first_run.h"

namespace aimwise::MemoryVerb {

namespace {

using CoachGateTimeline::formatDateTime;

std::string plural(size_t count, const std::string& noun) {
    return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

std::string provenance(const MemoryFact& fact) {
    std::string how = fact.provenance == MemoryFactProvenance::asserted ? "they said so" : "inferred from a pattern";
    const auto& sources = fact.sourceEventTsMs;
    if (sources.size() == 1) return how + "; from the log at " + formatDateTime(sources.front());
    if (sources.size() > 1) {
        const auto [first, last] = std::minmax_element(sources.begin(), sources.end());
        how += "; from " + plural(sources.size(), "log line") + ", " + formatDateTime(*first) + " to " +
               formatDateTime(*last);
    }
    return how;
}

template <typename Item, typename Line>
void section(std::string& out, const char* title, const std::vector<Item>& items, Line&& line) {
    out += std::string("\n") + title + ":\n";
    if (items.empty()) out += "  none\n";
    for (const Item& item : items) out += "  - " + line(item) + "\n";
}

}  // namespace

std::string render(const MemoryStore::StandingMemoryRead& read, std::optional<int64_t> wipeAtMs,
                   const std::filesystem::path& file, const std::vector<MemoryForgetRequest>& forgotten) {
    if (read.state == MemoryStore::FileState::absent)
        return "There is no standing memory yet. The nightly pass makes one from the days' logs.\n";
    if (!read.memory)
        return "The standing memory at " + file.string() +
               " could not be read, so the coach goes on without it until the next nightly pass replaces it. "
               "Nothing was changed.\n";
    if (!MemoryWipeFilter::standingMemory(read.memory, wipeAtMs))
        return "The standing memory was made on " + formatDateTime(read.memory->regeneratedAtTsMs) +
               ", before you asked to forget on " + formatDateTime(*wipeAtMs) +
               ", so the coach does not use it. The next nightly pass makes a new one from what came after.\n";

    const MemoryForgetFilter filter(forgotten);
    const StandingMemory memory = filter.standingMemory(*read.memory);
    std::string out = "Standing memory, made " + formatDateTime(memory.regeneratedAtTsMs) + " from " +
                      plural(static_cast<size_t>(std::max<int64_t>(memory.digestCount, 0)), "period digest") + ".\n";
    if (memory.salvaged)
        out += "The nightly pass could not organise it" +
               (memory.salvageDetail ? " (" + *memory.salvageDetail + ")" : std::string()) +
               ", so every candidate was kept as it came.\n";
    section(out, "Threads", memory.threads, [](const MemoryThread& thread) {
        return thread.name + " (" + std::string(rawValue(thread.status)) + ")" +
               (thread.notes.empty() ? "" : ": " + thread.notes);
    });
    section(out, "Facts", memory.facts,
            [](const MemoryFact& fact) { return fact.text + " (" + provenance(fact) + ")"; });
    section(out, "Lessons", memory.lessons, [](const std::string& lesson) { return lesson; });
    if (const size_t hidden = filter.countIn(*read.memory).total())
        out += "\n" + plural(hidden, "item") + " left out because you asked to forget what they mention.\n";
    return out;
}

std::string forget(const std::filesystem::path& dataRoot, const std::string& text, int64_t nowMs) {
    MemoryForgetLog::request({nowMs, text}, MemoryForgetLog::defaultURL(dataRoot));
    const auto memory = MemoryStore::readStandingMemory(dataRoot);
    const auto hidden = memory ? MemoryForgetFilter({{nowMs, text}}).countIn(*memory) : MemoryForgetFilter::Counts{};
    return "Noted. From now on the coach's memory leaves out every fact, lesson and thread that mentions \"" + text +
           "\", whatever the case. In the standing memory that hides " + plural(hidden.facts, "fact") + ", " +
           plural(hidden.lessons, "lesson") + " and " + plural(hidden.threads, "thread") +
           ". The nightly digests stay on disk as they were and are filtered whenever they are read, so nothing "
           "that mentions it comes back into a new memory.\n";
}

int run(const std::vector<std::string>& arguments) {
    std::string forgetText;
    if (!arguments.empty()) {
        // The words may come quoted or not: `aimwise memory forget my sister's name`.
        if (arguments.front() == "forget")
            for (size_t i = 1; i < arguments.size(); ++i) forgetText += (forgetText.empty() ? "" : " ") + arguments[i];
        forgetText = trimWhitespaceAndNewlines(forgetText);
        if (arguments.front() != "forget" || forgetText.empty()) {
            std::fprintf(stderr, "aimwise: memory takes no arguments, or forget TEXT (the words to forget)\n");
            return 2;
        }
    }
    if (const auto problem = FirstRun::dataRootProblem()) {
        std::fprintf(stderr, "FAIL: nothing was read: %s.\n", problem->c_str());
        return 1;
    }
    const auto root = DataPaths::dataRoot();
    if (!forgetText.empty()) {
        try {
            const std::string said = forget(root, forgetText, wallClockMs());
            std::fwrite(said.data(), 1, said.size(), stdout);
            return 0;
        } catch (const EventLogWriterError& error) {
            std::fprintf(stderr, "FAIL: the request could not be recorded (%s); memory is unchanged.\n",
                         error.description().c_str());
        } catch (const std::exception& error) {
            std::fprintf(stderr, "FAIL: the request could not be recorded (%s); memory is unchanged.\n", error.what());
        }
        return 1;
    }
    const std::string text = render(MemoryStore::inspectStandingMemory(root),
                                    MemoryWipeLog::latestAtMs(MemoryWipeLog::defaultURL(root)),
                                    MemoryStore::standingMemoryPath(root),
                                    MemoryForgetLog::read(MemoryForgetLog::defaultURL(root)));
    std::fwrite(text.data(), 1, text.size(), stdout);
    return 0;
}

}  // namespace aimwise::MemoryVerb
