#include "agents/aimwise/models_verb.h"

#include <iostream>

#include "AimwiseCore/models/backend_failure.h"
#include "AimwiseCore/models/local_model_backend.h"
#include "AimwiseCore/models/request_dump.h"
#include "AimwiseCore/models/turn_usage_record.h"
#include "CaptureShared/common/text.h"
#include "CaptureShared/dataroot/agent_config.h"
#include "CaptureShared/dataroot/data_paths.h"

namespace aimwise::ModelsVerb {

namespace {

namespace Factory = ModelBackendFactory;

// "consolidation backend: local (...)" reads "consolidation: local (...)" under its role.
std::string withoutPrefix(const std::string& line, std::string_view prefix) {
    return line.starts_with(prefix) ? line.substr(prefix.size()) : line;
}

struct Collected {
    std::vector<std::string> lines;
    Factory::Log log() {
        return [this](const std::string& line) { lines.push_back(line); };
    }
};

std::optional<std::filesystem::path> dataRootFile(const std::string& name) {
    if (!DataPaths::isDataRootAvailable()) return std::nullopt;
    return DataPaths::dataRoot() / name;
}

int describe(const Environment& environment, const Factory::Services& services, std::ostream& out) {
    Collected notes;
    out << "coach: "
        << withoutPrefix(Factory::describeSelection(environment, dataRootFile(TurnUsageRecord::fileName), notes.log()),
                         "model backend: ")
        << "\n";

    Collected consolidation;
    try {
        Factory::forConsolidation(environment, [] { return true; }, consolidation.log(), std::nullopt, services);
    } catch (const Error& error) {
        consolidation.lines.push_back("consolidation backend: cannot be built: " + error.description());
    }
    for (const std::string& line : consolidation.lines)
        if (line.starts_with("consolidation backend: "))
            out << "consolidation: " << withoutPrefix(line, "consolidation backend: ") << "\n";
        else
            notes.lines.push_back(line);

    Collected onboarding;
    try {
        Factory::forOnboarding(false, environment, onboarding.log(), std::nullopt, services);
    } catch (const Error&) {
        // The refusal has been logged in its own words.
    }
    for (const std::string& line : onboarding.lines)
        if (line.starts_with("onboarding backend: "))
            out << "onboarding: " << withoutPrefix(line, "onboarding backend: ") << "\n";

    try {
        const LocalModelConfig check = Factory::localCheckLocalConfig(environment);
        out << "local check: the local model (" << check.model << " at " << check.endpoint.string()
            << "), for the privacy checks; AIMCAP_LOCAL_CHECK_MODEL names another\n";
    } catch (const Error& error) {
        out << "local check: cannot be built: " << error.description() << "\n";
    }
    std::vector<std::string> seen;
    for (const std::string& line : notes.lines)
        if (std::find(seen.begin(), seen.end(), line) == seen.end()) {
            seen.push_back(line);
            out << "note: " << withoutPrefix(line, "model backend: ") << "\n";
        }
    return 0;
}

std::string servedBy(const ChatResponse& response, const Environment& environment) {
    if (response.servedBy) return *response.servedBy;
    std::string name;
    const std::string backend = Factory::backendName(environment);
    if (Factory::coachPrimaryIsLocal(environment))
        name = std::string(LocalModelBackend::displayName) + " (" + Factory::primaryLocalConfig(environment).model + ")";
    else
        name = backend;
    if (response.provenance) {
        std::vector<std::string> who;
        if (response.provenance->servedModel && !Factory::coachPrimaryIsLocal(environment))
            who.push_back(*response.provenance->servedModel);
        if (response.provenance->provider) who.push_back("via " + *response.provenance->provider);
        if (!who.empty()) name += " (" + join(who, " ") + ")";
    }
    return name;
}

int check(const std::string& message, const Environment& environment, const Factory::Services& services,
          std::ostream& out, std::ostream& err) {
    const Factory::Log log = [&err](const std::string& line) { err << line << "\n"; };
    std::shared_ptr<ModelBackend> coach;
    try {
        std::optional<std::filesystem::path> dumps;
        if (DataPaths::isDataRootAvailable()) dumps = RequestDump::directory(environment, DataPaths::dataRoot());
        coach = Factory::fromEnvironment(environment, log, dumps, dataRootFile(TurnUsageRecord::fileName),
                                         std::nullopt, services);
    } catch (const Error& refused) {
        err << "FAIL: " << refused.description() << "\n";
        return 1;
    }
    ChatOptions options;
    options.maxTokens = 256;
    options.think = false;
    options.turn = ChatTurn::reply;
    try {
        const ChatResponse response = coach->chatStream({ChatMessage::user(message)}, std::nullopt, options, {});
        out << "reply: " << trimWhitespaceAndNewlines(response.text) << "\n";
        out << "served by: " << servedBy(response, environment) << "\n";
        if (response.servedByFallback && response.fallbackCause)
            out << "fallback: " << rawValue(*response.fallbackCause) << " ("
                << disclosureLine(*response.fallbackCause, response.servedBy.value_or("")) << ")\n";
        out << TurnUsageLog::line(response.usage) << "\n";
        return 0;
    } catch (const std::exception& error) {
        err << "FAIL: the coach's model did not answer: " << describeModelFailure(error)
            << ". Nothing was recorded.\n";
        return 1;
    }
}

}  // namespace

std::variant<Request, UsageError> parse(const std::vector<std::string>& arguments) {
    Request request;
    for (size_t i = 0; i < arguments.size(); ++i) {
        if (arguments[i] == "--check") {
            request.check = true;
        } else if (arguments[i] == "--message") {
            if (i + 1 >= arguments.size()) return UsageError{"--message needs a text"};
            request.message = arguments[++i];
        } else {
            return UsageError{"models takes only --check and --message TEXT, not \"" + arguments[i] + "\""};
        }
    }
    if (request.message && !request.check) return UsageError{"--message goes with --check"};
    if (request.message && trimWhitespaceAndNewlines(*request.message).empty())
        return UsageError{"--message needs a text that is not blank"};
    return request;
}

int run(const Request& request, const Environment& environment, const Factory::Services& services, std::ostream& out,
        std::ostream& err) {
    if (!request.check) return describe(environment, services, out);
    return check(request.message.value_or(defaultCheckMessage), environment, services, out, err);
}

int run(const std::vector<std::string>& arguments) {
    const auto parsed = parse(arguments);
    if (const auto* error = std::get_if<UsageError>(&parsed)) {
        std::cerr << "aimwise: " << error->message << "\n";
        return 2;
    }
    AgentConfig::bootstrapProcessEnvironment();
    return run(std::get<Request>(parsed), processEnvironment(), Factory::Services::process(), std::cout, std::cerr);
}

}  // namespace aimwise::ModelsVerb
