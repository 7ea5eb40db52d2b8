#include "AimwiseCore/classifier/integrity_guard.h"

#include <algorithm>
#include <cmath>
#include <ctime>
#include <nlohmann/json.hpp>

#include "CaptureShared/common/atomic_file.h"
#include "CaptureShared/common/iso_date.h"
#include "AimwiseCore/models/local_inference_wire.h"
#include "AimwiseCore/models/model_backend_error.h"
#include "CaptureShared/dataroot/data_paths.h"

namespace aimwise::ModelIntegrityGuard {

namespace {

using json = nlohmann::json;

// Seconds between 1970-01-01 and 2001-01-01.
constexpr int64_t referenceDateOffsetSec = 978'307'200;

std::string quoted(const std::string& text) {
    std::string out = "\"";
    for (char c : text) {
        if (c == '"' || c == '\\') out += '\\';
        out += c;
    }
    return out + "\"";
}

std::string isoInstant(int64_t atMs) {
    // Years 0001 to 9999: a time from a damaged note still prints, at the nearer end.
    atMs = std::clamp<int64_t>(atMs, -62'135'596'800'000, 253'402'300'799'999);
    int64_t seconds = atMs >= 0 ? atMs / 1000 : (atMs - 999) / 1000;
    time_t time = static_cast<time_t>(seconds);
    tm parts{};
    gmtime_r(&time, &parts);
    char text[64];
    std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", parts.tm_year + 1900, parts.tm_mon + 1,
                  parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec, static_cast<int>(atMs - seconds * 1000));
    return text;
}

}  // namespace

FileCheck integrityFileCheck(const std::optional<LocalModelManifest>& manifest, const LocalModelStore& store) {
    if (!manifest) return {FileCheck::UnknownModel{}};
    LocalModelDiskState state = store.diskState(*manifest);
    if (std::holds_alternative<LocalModelDiskState::Missing>(state.value)) return {FileCheck::Missing{}};
    if (std::holds_alternative<LocalModelDiskState::Verified>(state.value)) return {FileCheck::Verified{}};
    std::string names;
    for (const std::string& name : std::get<LocalModelDiskState::NeedsVerification>(state.value).names)
        names += (names.empty() ? "" : ", ") + name;
    return {FileCheck::Stale{names}};
}

std::string describe(const FileCheck& check) {
    if (auto* stale = std::get_if<FileCheck::Stale>(&check.value)) return "stale(" + quoted(stale->text) + ")";
    if (std::holds_alternative<FileCheck::Verified>(check.value)) return "verified";
    if (std::holds_alternative<FileCheck::Missing>(check.value)) return "missing";
    return "unknownModel";
}

std::string describe(const Verdict& verdict) {
    if (auto* matches = std::get_if<Verdict::Matches>(&verdict.value)) return "matches(path: " + quoted(matches->path) + ")";
    if (auto* other = std::get_if<Verdict::ServingOtherFile>(&verdict.value))
        return "servingOtherFile(expected: " + quoted(other->expected) + ", actual: " + quoted(other->actual) + ")";
    if (auto* changed = std::get_if<Verdict::FileChanged>(&verdict.value))
        return "fileChanged(" + quoted(changed->text) + ")";
    if (auto* unknown = std::get_if<Verdict::UnknownModel>(&verdict.value))
        return "unknownModel(servedPath: " + quoted(unknown->servedPath) + ")";
    return "modelAbsent";
}

std::string_view rawValue(RefusalNote::Kind kind) {
    return kind == RefusalNote::Kind::modelReplaced ? "modelReplaced" : "cannotVerify";
}

std::filesystem::path refusalNotePath() { return DataPaths::supportDir() / refusalNoteFileName; }

std::optional<std::string> parseServedModelPath(std::string_view body) {
    json value = json::parse(body, nullptr, false);
    if (!value.is_object()) return std::nullopt;
    auto path = value.find("model_path");
    if (path == value.end() || !path->is_string() || path->get_ref<const std::string&>().empty()) return std::nullopt;
    return path->get<std::string>();
}

std::string fetchServedModelPath(const EndpointURL& base, HTTPSession& session) {
    HTTPRequest request;
    request.url = base.appendingPath("props");
    request.timeoutSec = 5.0;
    LocalInferenceWire::requireLocalDestination(request.url);
    HTTPResponse response;
    try {
        response = session.send(request);
    } catch (const HTTPTransportFailure& failure) {
        throw ModelBackendError::transportError(failure.description());
    }
    if (response.status < 200 || response.status > 299)
        throw ModelBackendError::httpError(response.status, utf8OrEmpty(response.body));
    if (auto path = parseServedModelPath(response.body)) return *path;
    throw ModelBackendError::invalidResponse("llama-server /props carried no model_path: " + utf8OrEmpty(response.body));
}

bool samePath(const std::string& a, const std::string& b) {
    auto standardised = [](const std::string& path) {
        std::error_code error;
        std::filesystem::path absolute = std::filesystem::absolute(path, error);
        if (error) absolute = path;
        std::filesystem::path resolved = std::filesystem::weakly_canonical(absolute, error);
        if (error) resolved = absolute;
        std::string text = resolved.lexically_normal().string();
        while (text.size() > 1 && text.back() == '/') text.pop_back();
        return text;
    };
    return standardised(a) == standardised(b);
}

Verdict evaluate(const std::optional<std::string>& expectedPath, const FileCheck& fileCheck,
                 const std::string& servedPath) {
    if (std::holds_alternative<FileCheck::Verified>(fileCheck.value)) {
        if (!expectedPath) return {Verdict::UnknownModel{servedPath}};
        if (samePath(*expectedPath, servedPath)) return {Verdict::Matches{servedPath}};
        return {Verdict::ServingOtherFile{*expectedPath, servedPath}};
    }
    if (std::holds_alternative<FileCheck::Missing>(fileCheck.value)) return {Verdict::ModelAbsent{}};
    if (std::holds_alternative<FileCheck::UnknownModel>(fileCheck.value)) return {Verdict::UnknownModel{servedPath}};
    return {Verdict::FileChanged{std::get<FileCheck::Stale>(fileCheck.value).text}};
}

Verdict verify(const std::optional<std::string>& expectedPath, const FileCheck& fileCheck, const EndpointURL& base,
               HTTPSession& session) {
    return evaluate(expectedPath, fileCheck, fetchServedModelPath(base, session));
}

TickDecision tickDecision(const std::string& model, const Verdict& verdict, int64_t nowMs) {
    TickDecision decision;
    if (auto* other = std::get_if<Verdict::ServingOtherFile>(&verdict.value)) {
        decision.refusal = "REFUSING TO JUDGE (#986): the local server is serving " + other->actual +
                           ", not the verified " + other->expected + " for " + model +
                           ". Something else may be listening on the model port, or the server wasn't restarted "
                           "after a model change. Not sending a screenshot to it.";
        decision.note = RefusalNote{RefusalNote::Kind::modelReplaced, model,
                                    "Paused: the local model server isn't running the " + model +
                                        " files Veska downloaded. Download the model again to resume.",
                                    nowMs};
    } else if (auto* changed = std::get_if<Verdict::FileChanged>(&verdict.value)) {
        decision.refusal = "REFUSING TO JUDGE (#986): " + model + "'s files changed on disk since they were verified (" +
                           changed->text + "). Not sending a screenshot to it.";
        decision.note = RefusalNote{RefusalNote::Kind::modelReplaced, model,
                                    "Paused: " + model +
                                        "'s files changed since they were checked. Download the model again to resume.",
                                    nowMs};
    } else if (auto* unknown = std::get_if<Verdict::UnknownModel>(&verdict.value)) {
        decision.warnings.push_back("model integrity (#986): " + model +
                                    " has no Veska download to verify against (custom AIMCHECK_MODEL?); the server "
                                    "reports " +
                                    unknown->servedPath + " — judging without an identity check");
    } else if (std::holds_alternative<Verdict::ModelAbsent>(verdict.value)) {
        decision.refusal = "REFUSING TO JUDGE (#986): " + model +
                           " isn't downloaded, so there is nothing verified to judge with. Not sending a screenshot.";
    }
    return decision;
}

std::string encodeRefusalNote(const RefusalNote& note) {
    nlohmann::ordered_json value = {{"kind", std::string(rawValue(note.kind))},
                  {"model", note.model},
                  {"message", note.message},
                  {"at", isoInstant(note.atMs)}};
    return value.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

void writeRefusalNote(const RefusalNote& note, const std::filesystem::path& to) {
    writeOwnerOnly(encodeRefusalNote(note), to);
}

std::optional<RefusalNote> readRefusalNote(const std::filesystem::path& from) {
    std::string text;
    try {
        text = readWholeFile(from, ReadLimit::setting);
    } catch (const std::exception&) {
        return std::nullopt;
    }
    json value = json::parse(text, nullptr, false);
    if (!value.is_object()) return std::nullopt;
    auto string = [&](const char* key) -> std::optional<std::string> {
        auto found = value.find(key);
        if (found == value.end() || !found->is_string()) return std::nullopt;
        return found->get<std::string>();
    };
    RefusalNote note;
    std::optional<std::string> kind = string("kind"), model = string("model"), message = string("message");
    if (!kind || !model || !message) return std::nullopt;
    if (*kind == "modelReplaced")
        note.kind = RefusalNote::Kind::modelReplaced;
    else if (*kind == "cannotVerify")
        note.kind = RefusalNote::Kind::cannotVerify;
    else
        return std::nullopt;
    note.model = *model;
    note.message = *message;
    auto at = value.find("at");
    if (at == value.end()) return std::nullopt;
    if (at->is_string()) {
        std::optional<int64_t> ms = ISODate::parse(at->get<std::string>());
        if (!ms) return std::nullopt;
        note.atMs = *ms;
    } else if (at->is_number()) {
        const double ms = (at->get<double>() + referenceDateOffsetSec) * 1000.0;
        if (!(std::fabs(ms) < 9.2e18)) return std::nullopt;  // no time a clock can hold
        note.atMs = static_cast<int64_t>(ms);
    } else {
        return std::nullopt;
    }
    return note;
}

void clearRefusalNote(const std::filesystem::path& at) {
    std::error_code ignored;
    std::filesystem::remove(at, ignored);
}

void writeOwnerOnly(std::string_view data, const std::filesystem::path& to) {
    std::filesystem::path directory = to.parent_path().empty() ? std::filesystem::path(".") : to.parent_path();
    if (!std::filesystem::exists(directory)) {
        std::filesystem::create_directories(directory);
        std::filesystem::permissions(directory, std::filesystem::perms::owner_all);
    }
    writeFileAtomically(to, data, 0600);
}

}  // namespace aimwise::ModelIntegrityGuard
