#include "VerdictBench/classifier_verb_support.h"

#include <cstdio>
#include <system_error>

#include "AimwiseCore/events/event_log_reader.h"
#include "AimwiseCore/models/local_inference_endpoint.h"
#include "AimwiseCore/models/model_backend_error.h"
#include "CaptureShared/common/atomic_file.h"
#include "VerdictBench/cli.h"

namespace aimwise::cli {

SignalsReader openSignalsOrFail(const std::filesystem::path& signalsPath) {
    try {
        return SignalsReader::open(signalsPath);
    } catch (const SignalsReaderError& error) {
        fail("FAIL: " + error.description());
    }
}

std::optional<std::vector<EventLogEvent>> readEventLogIfPresent(const std::filesystem::path& eventsPath) {
    std::error_code error;
    if (!std::filesystem::exists(eventsPath, error)) return std::nullopt;
    try {
        return EventLogReader::parse(readWholeFile(eventsPath));
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

std::string describe(const std::exception_ptr& error) {
    try {
        std::rethrow_exception(error);
    } catch (const SignalsReaderError& e) {
        return e.description();
    } catch (const ModelBackendError& e) {
        return e.description();
    } catch (const LocalInferenceEndpoint::ResolutionError& e) {
        return e.description();
    } catch (const std::exception& e) {
        return e.what();
    } catch (...) {
        return "unknown error";
    }
}

LiveWindowContent captureLiveWindowContent(const SignalsReader& signals) {
    LiveWindowContent live;
    return live;
}

void logPrivacy(const ClassifierService::Outcome& outcome) {
    for (const auto& line : outcome.privacyLogLines()) std::fprintf(stderr, "%s\n", line.c_str());
}

}  // namespace aimwise::cli
