#include "AimwiseCore/memory/consolidation_prompts.h"

#include <string_view>

namespace aimwise::ConsolidationPrompts {

namespace {

constexpr const char* digestOpening =
    "Below is one operational period's worth of raw activity/conversation log for the user, each line"
    " numbered. Distil it into JSON with exactly these keys:\n\n{\"summary\": \"one or two sentence "
    "gist of the period\",\n \"facts\": [{\"text\": \"a durable claim about the user or their "
    "world\", \"provenance\": \"asserted\" or \"inferred\", \"source_lines\": [line numbers this "
    "traces to]}],\n \"lessons\": [\"a durable behavioral/coaching lesson, no citation needed\"]}\n\n"
    "\"asserted\" means the user said this themselves in the transcript (a real quote or a clear "
    "restatement of their own words). \"inferred\" means you concluded it from a pattern rather than "
    "being told directly -- mark these honestly, since an inferred fact that turns out wrong is a "
    "false claim sitting in their context, not just a minor error. Facts are claims about them or "
    "their world (a project mapping, a commitment, a recurring circumstance) -- NOT judgments about "
    "how well they did. Lessons are about what has and hasn't helped them, for the coach to draw on "
    "-- not facts about them.\n\n";

constexpr const char* sharedBlock =
    "What this memory is for: a coach reads it before every conversation with the user, and it can be"
    " sent along with each of those conversations to a remote model. The coach talks with them about "
    "how their time is going compared with what they said they intended. It holds them to what they "
    "themselves declared -- an intention, a time estimate, a stopping point -- and renegotiates "
    "openly when that changes; it does not invent rules, limits or cutoffs they never set. So:\n\n- A"
    " lesson records what was observed to help or not, and how they responded. A rule of the system's"
    " own making for the coach to impose on them gives it a role it doesn't have.\n- The log shows "
    "what was on screen and what was said, not why. A reason for what they did belongs here only if "
    "they gave it themselves. A motive you infer, once stored, is repeated to them as though it were "
    "known, and being told why you did something by someone who guessed is how a coach stops being "
    "trusted.\n- Medication and health are handled by a separate part of the app that the user set "
    "up, which decides for itself when they come up; memory has no part in that. Leave medications, "
    "doses, health conditions and the routines around them out of facts, lessons and threads entirely"
    " -- this memory leaves the machine with every conversation.\n- Something the user limited in "
    "time (\"tonight\", \"today\", \"for now\") describes that stretch, not them, and is not durable.";

constexpr const char* digestClosing =
    "\n\nIf nothing durable happened, return empty facts/lessons arrays with a brief summary.\n\n"
    "Respond with ONLY the JSON object, no other text.";

constexpr const char* regenerationOpening =
    "Below are summaries of the user's recent activity periods, plus candidate facts and lessons "
    "already extracted from them. Organize this into standing memory as JSON with exactly these keys:"
    "\n\n{\"threads\": [{\"name\": \"a concern or project of theirs\", \"status\": \"active\" or "
    "\"dormant\" or \"done\" or \"dropped\", \"notes\": \"what's going on with it\"}],\n "
    "\"keep_fact_indices\": [indices from the candidate facts list above worth keeping -- drop stale,"
    " superseded, or no-longer-relevant ones],\n \"lessons\": [\"merged/deduplicated lessons -- may "
    "combine or drop the candidates above\"]}\n\nA \"dropped\" thread is a real status, not an "
    "omission -- if something clearly ended or was abandoned, say so rather than silently leaving it "
    "out. Do not invent facts that aren't in the candidate list; only decide which to keep.\n\n";

constexpr const char* foldOpeningStart =
    "Below is your PRIOR understanding of the user (threads, if any) plus new activity since then, "
    "plus a combined candidate list of facts and lessons (from prior memory and the new periods "
    "together). Update standing memory as JSON with exactly these keys:";

constexpr const char* candidatesBlock =
    "The candidates below were extracted period by period and not all of them meet this. Drop any "
    "fact that doesn't (fact text can't be changed, only kept or dropped); rewrite or drop any lesson"
    " that doesn't; and leave out any thread that would carry what this memory shouldn't. Leave such "
    "a thread out entirely rather than marking it dropped: a dropped thread's name and notes are "
    "still kept and sent.";

constexpr const char* correctionsPrefaceText =
    "\nThe user's corrections, listed after the candidates below, are things they said to the coach "
    "themselves about how it should behave. A candidate lesson was inferred from watching them; a "
    "correction is what they actually said. Where the two conflict, revise or drop the lesson -- one "
    "they have already overruled otherwise comes back every time this runs. Don't restate a "
    "correction as a lesson: corrections reach the coach in the user's own words already, so a lesson"
    " repeating one says it twice, in a voice that isn't theirs.";

constexpr const char* respondWithJSON = "\n\nRespond with ONLY the JSON object.";

// The fold asks for the same keys as the regeneration, from "Update" onward.
std::string foldOpening() {
    const std::string_view regeneration = regenerationOpening;
    constexpr std::string_view keys = "exactly these keys:";
    return foldOpeningStart + std::string(regeneration.substr(regeneration.find(keys) + keys.size()));
}

}  // namespace

const std::string& digestInstructions() {
    static const std::string text = std::string(digestOpening) + sharedBlock + digestClosing;
    return text;
}

const std::string& regenerateInstructions() {
    static const std::string text =
        std::string(regenerationOpening) + sharedBlock + "\n\n" + candidatesBlock + respondWithJSON;
    return text;
}

const std::string& foldInstructions() {
    static const std::string text = foldOpening() + sharedBlock + "\n\n" + candidatesBlock + respondWithJSON;
    return text;
}

const std::string& correctionsPreface() {
    static const std::string text = correctionsPrefaceText;
    return text;
}

}  // namespace aimwise::ConsolidationPrompts
