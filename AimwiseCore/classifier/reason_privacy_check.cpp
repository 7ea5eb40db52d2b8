#include "AimwiseCore/classifier/reason_privacy_check.h"

#include "AimwiseCore/models/cancellation.h"
#include "AimwiseCore/models/chat_json.h"
#include "AimwiseCore/models/local_inference_wire.h"
#include "AimwiseCore/models/model_backend_error.h"
#include "AimwiseCore/privacy/outbound_title_privacy.h"

namespace aimwise::ClassifierReasonPrivacyCheck {

namespace {

struct Phrases {
    const char* screen;
    const char* generic;
    const char* word;
};

Phrases phrases(const Trigger& trigger) {
    if (const auto* site = std::get_if<Site>(&trigger)) {
        if (site->category == SensitiveSites::Category::financial)
            return {"a banking or other financial site", "a banking or other financial screen", "financial"};
        return {"a medical or health site", "a medical or health screen", "medical"};
    }
    return {"account, card or ID numbers", "a screen showing account, card or ID numbers", "identifiers_on_screen"};
}

}  // namespace

std::string systemPrompt(const Trigger& trigger) {
    return std::string(
               "A classifier on this computer has just written one sentence explaining its judgment of what the user "
               "is doing. That sentence is kept in a log and read by a coach that may run on a remote server, so "
               "whatever it says leaves this computer. The screen it was judging showed ") +
           phrases(trigger).screen +
           ", which means the sentence may carry private details from that screen.\n\n"
           "Decide whether it does. Private means specific to this person's finances, health or identity as shown "
           "on that screen: amounts, balances, transactions, who they paid or were paid by, diagnoses, conditions, "
           "medications, test results, appointment details, their providers, and any account, card or ID number. "
           "Naming the site or app, describing the kind of activity, and repeating the user's own declared "
           "intention are not private — the coach needs those to do its job, and the user chose to share the "
           "intention.\n\n"
           "Respond with STRICT JSON only: {\"private\": true|false}";
}

std::string userMessage(const std::string& reason, const std::optional<std::string>& declaredTask) {
    return "DECLARED INTENTION:\n" + declaredTask.value_or("(none declared)") + "\n\nSENTENCE:\n" + reason +
           "\n\nDoes the sentence carry private details from that screen? Reply {\"private\": true|false}.";
}

std::string genericReason(const Trigger& trigger) {
    return std::string("Reason withheld for privacy on ") + phrases(trigger).generic +
           "; judge from the verdict and that category.";
}

std::optional<bool> strictBool(std::string_view content) {
    const ChatJSON reply = ChatJSON::parse(content, nullptr, false);
    if (reply.is_discarded()) throw ModelBackendError::invalidResponse("privacy check reply was not JSON");
    if (!reply.is_object()) return std::nullopt;
    const auto it = reply.find("private");
    if (it == reply.end() || !it->is_boolean()) return std::nullopt;
    return it->get<bool>();
}

std::string errorKind(const std::exception& error) {
    const auto* backend = dynamic_cast<const ModelBackendError*>(&error);
    if (!backend) return "error";
    if (backend->asInvalidResponse()) return "unparseable reply";
    if (const auto* http = backend->asHTTPError()) return "http " + std::to_string(http->status);
    return "transport error";
}

std::optional<Trigger> titleOutcomeTrigger(const ClassifierState& state) {
    std::vector<std::string> titles;
    if (state.frontmostWindowTitle) titles.push_back(*state.frontmostWindowTitle);
    if (state.browserTitle && state.frontmostApp && state.browserApp && *state.frontmostApp == *state.browserApp)
        titles.push_back(*state.browserTitle);
    for (const auto& title : titles)
        if (OutboundTitlePrivacy::containsIdentifier(title)) return IdentifiersOnScreen{};
    for (const auto& title : titles)
        if (const auto category = SensitiveSites::categoryInTitle(title)) return Site{*category};
    return std::nullopt;
}

std::optional<std::string> recordValue(const Result& result) {
    if (std::holds_alternative<Kept>(result)) return "kept";
    const auto* replaced = std::get_if<Replaced>(&result);
    if (!replaced) return std::nullopt;
    if (std::holds_alternative<Flagged>(replaced->because)) return "replaced_flagged";
    if (std::holds_alternative<NoVerdict>(replaced->because)) return "replaced_no_verdict";
    return "replaced_failed:" + std::get<Failed>(replaced->because).errorKind;
}

std::optional<std::string> logLine(const Result& result) {
    if (const auto* kept = std::get_if<Kept>(&result))
        return std::string("reason privacy check (") + phrases(kept->trigger).word + "): kept";
    const auto* replaced = std::get_if<Replaced>(&result);
    if (!replaced) return std::nullopt;
    std::string cause;
    if (std::holds_alternative<Flagged>(replaced->because)) {
        cause = "check flagged private details";
    } else if (std::holds_alternative<NoVerdict>(replaced->because)) {
        cause = "check gave no verdict";
    } else {
        cause = "check failed: " + std::get<Failed>(replaced->because).errorKind;
    }
    return std::string("reason privacy check (") + phrases(replaced->trigger).word + "): replaced reason (" + cause +
           ")";
}

std::pair<Result, std::string> check(const std::string& reason, const std::optional<std::string>& declaredTask,
                                     const Trigger& trigger, const ClassifierBackend::Config& config,
                                     HTTPSession& session) {
    std::optional<bool> answer;
    try {
        const std::string body =
            ClassifierBackend::post(systemPrompt(trigger), userMessage(reason, declaredTask), config, session);
        answer = strictBool(LocalInferenceWire::content(body));
    } catch (const CancellationError&) {
        throw;
    } catch (const std::exception& error) {
        return {Replaced{trigger, Failed{errorKind(error)}}, genericReason(trigger)};
    }
    if (!answer) return {Replaced{trigger, NoVerdict{}}, genericReason(trigger)};
    if (*answer) return {Replaced{trigger, Flagged{}}, genericReason(trigger)};
    return {Kept{trigger}, reason};
}

}  // namespace aimwise::ClassifierReasonPrivacyCheck
