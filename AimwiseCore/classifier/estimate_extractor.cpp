#include "AimwiseCore/classifier/estimate_extractor.h"

#include <sqlite3.h>

#include <chrono>

#include "CaptureShared/common/clock.h"
#include "AimwiseCore/classifier/classifier_backend.h"
#include "AimwiseCore/classifier/classifier_model.h"
#include "AimwiseCore/models/cancellation.h"
#include "AimwiseCore/models/chat_json.h"
#include "AimwiseCore/models/local_inference_wire.h"
#include "AimwiseCore/models/model_backend_error.h"

namespace aimwise {

namespace EstimateExtractor {

const std::string systemPrompt =
    "You extract a time estimate from a task declaration, nothing else — no judgment about current activity, just "
    "reading comprehension. The text includes when it was declared (\"Declared: <date> <time> ET\").\n\n"
    "Does it state or clearly imply a time budget/limit? Examples that DO: \"for 1 hour\", \"a couple hours\", "
    "\"until 5:00pm\", \"quick, 10 min\", \"for a bit\" (~15 min), \"til I need to leave at 6\". Examples that "
    "DON'T (no fixed estimate — this is a real, common answer, not a fallback to avoid): open-ended work with no "
    "time mentioned, \"no rush\", \"until I'm tired\" (vague/self-terminating, not a clock-checkable limit).\n\n"
    "If there IS an estimate, compute how many minutes it represents starting from the Declared timestamp in the "
    "text (not from now) — resolve relative durations directly (\"a couple hours\" -> 120), and for an absolute "
    "clock time (\"until 5:00pm\") compute the difference from the Declared time to that clock time, same day.\n\n"
    "Respond with STRICT JSON only:\n"
    "{\"has_estimate\": true|false, \"estimated_minutes\": <number or null>, \"reason\": \"one short phrase\"}";

namespace {

constexpr const char* parseFailedPrefix = "estimate parse failed (treating as no estimate): ";

// Throws EstimateExtractorError.
std::string ask(const std::string& system, const std::string& user, const Config& config, HTTPSession& session) {
    try {
        const ClassifierBackend::Config call{config.endpoint, config.model, config.numPredict, config.timeout};
        return LocalInferenceWire::content(ClassifierBackend::post(system, user, call, session));
    } catch (const CancellationError&) {
        throw;
    } catch (const ModelBackendError& error) {
        if (const auto* http = error.asHTTPError())
            throw EstimateExtractorError{EstimateExtractorError::Kind::httpError, http->status, http->body};
        throw EstimateExtractorError{EstimateExtractorError::Kind::invalidResponse, 0, error.description()};
    } catch (const std::exception& error) {
        throw EstimateExtractorError{EstimateExtractorError::Kind::invalidResponse, 0, error.what()};
    }
}

}  // namespace

Config Config::standard() {
    return Config{LocalInferenceWire::chatCompletionsURL(), ClassifierModel::defaultModel(), 200, 60.0};
}

std::string buildRequestBody(const std::string& system, const std::string& user, const Config& config) {
    return ClassifierBackend::buildRequestBody(system, user, config.model, config.numPredict);
}

Estimate interpret(std::string_view reply) {
    const ChatJSON object = ChatJSON::parse(reply, nullptr, false);
    if (object.is_discarded() || !object.is_object())
        return {std::nullopt,
                std::string(parseFailedPrefix) + "model reply was not a JSON object: " + std::string(reply)};

    Estimate estimate;
    if (auto it = object.find("reason"); it != object.end() && it->is_string()) estimate.reason = it->get<std::string>();
    const auto has = object.find("has_estimate");
    if (has == object.end() || !has->is_boolean() || !has->get<bool>()) return estimate;

    const auto minutes = object.find("estimated_minutes");
    if (minutes == object.end() || !minutes->is_number()) return estimate;
    const double value = minutes->get<double>();
    if (value >= 0.0) {
        estimate.minutes = value;
    } else {
        estimate.reason = "discarded negative/same-day-mismatched estimate: " + estimate.reason;
    }
    return estimate;
}

Estimate extract(const std::string& declaredText, const std::filesystem::path& signalsPath, const Config& config,
                 HTTPSession& session) {
    if (declaredText.empty()) return {};
    Estimate estimate;
    try {
        estimate = interpret(ask(systemPrompt, declaredText, config, session));
    } catch (const EstimateExtractorError& error) {
        estimate = {std::nullopt, parseFailedPrefix + error.description()};
    }
    store(declaredText, estimate, signalsPath, wallClockMs());
    return estimate;
}

void store(const std::string& declaredText, const Estimate& estimate, const std::filesystem::path& signalsPath,
           int64_t nowMs) {
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(signalsPath.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) {
        sqlite3_close(db);
        return;
    }
    // The capture agent writes the same file; wait briefly for its lock rather than lose the answer.
    sqlite3_busy_timeout(db, 2000);
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_exec(db, createTableSQL, nullptr, nullptr, nullptr) == SQLITE_OK &&
        sqlite3_prepare_v2(db, "INSERT OR REPLACE INTO estimate_cache VALUES (?, ?, ?, ?)", -1, &statement,
                           nullptr) == SQLITE_OK) {
        sqlite3_bind_text(statement, 1, declaredText.data(), static_cast<int>(declaredText.size()), SQLITE_TRANSIENT);
        if (estimate.minutes) {
            sqlite3_bind_double(statement, 2, *estimate.minutes);
        } else {
            sqlite3_bind_null(statement, 2);
        }
        sqlite3_bind_text(statement, 3, estimate.reason.data(), static_cast<int>(estimate.reason.size()),
                          SQLITE_TRANSIENT);
        sqlite3_bind_int64(statement, 4, nowMs);
        sqlite3_step(statement);
    }
    sqlite3_finalize(statement);
    sqlite3_close(db);
}

}  // namespace EstimateExtractor
}  // namespace aimwise
