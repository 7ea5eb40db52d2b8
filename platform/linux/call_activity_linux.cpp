#include "platform/call_activity.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>

#include <nlohmann/json.hpp>

#include "platform/bounded_process.h"

namespace aimwise::CallActivity {

namespace {

// The sound server answers at once or not at all; a tick must not wait on it.
constexpr double pactlTimeoutSec = 2.0;

std::optional<std::string> propertyText(const nlohmann::json& properties, const char* key) {
    const auto it = properties.find(key);
    if (it == properties.end() || !it->is_string()) return std::nullopt;
    return it->get<std::string>();
}

std::optional<std::vector<AudioStream>> listStreams(const std::string& pactl, const char* kind,
                                                    AudioStream::Direction direction) {
    const auto outcome = BoundedProcess::run(pactl, {"-f", "json", "list", kind}, pactlTimeoutSec);
    const auto* finished = std::get_if<BoundedProcess::Finished>(&outcome);
    if (!finished || !finished->succeeded()) return std::nullopt;
    return parsePactlStreams(finished->standardOutput, direction);
}

}  // namespace

std::optional<std::vector<AudioStream>> parsePactlStreams(std::string_view json, AudioStream::Direction direction) {
    const nlohmann::json entries = nlohmann::json::parse(json, nullptr, false);
    if (entries.is_discarded() || !entries.is_array()) return std::nullopt;
    std::vector<AudioStream> streams;
    for (const auto& entry : entries) {
        if (!entry.is_object()) continue;
        AudioStream stream;
        stream.direction = direction;
        if (const auto corked = entry.find("corked"); corked != entry.end() && corked->is_boolean())
            stream.corked = corked->get<bool>();
        if (const auto properties = entry.find("properties");
            properties != entry.end() && properties->is_object()) {
            stream.applicationName = propertyText(*properties, "application.name").value_or("");
            stream.processBinary = propertyText(*properties, "application.process.binary");
            if (const auto pid = propertyText(*properties, "application.process.id")) {
                try {
                    stream.processId = std::stoi(*pid);
                } catch (const std::exception&) {
                }
            }
        }
        streams.push_back(std::move(stream));
    }
    return streams;
}

namespace {

// The sound server's socket, where PulseAudio and PipeWire's Pulse service both put it. Without it
// pactl can only fail, and starting it would cost every tick a child process for nothing.
bool soundServerReachable() {
    if (const char* server = std::getenv("PULSE_SERVER"); server && *server) return true;
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    const std::filesystem::path runtimeDirectory =
        runtime && *runtime ? std::filesystem::path(runtime)
                                 : std::filesystem::path("/run/user/" + std::to_string(::getuid()));
    std::error_code error;
    return std::filesystem::exists(runtimeDirectory / "pulse" / "native", error) ||
           std::filesystem::exists("/run/pulse/native", error);  // a system-wide server
}

}  // namespace

std::optional<std::vector<AudioStream>> liveStreams() {
    if (!soundServerReachable()) return std::nullopt;
    const auto pactl = BoundedProcess::findInPath("pactl");
    if (!pactl) return std::nullopt;
    auto captures = listStreams(*pactl, "source-outputs", AudioStream::Direction::capture);
    if (!captures) return std::nullopt;
    // Without a running capture stream there is no call to find, and that is most ticks: the
    // second child process is spent only when something records.
    const bool recording =
        std::any_of(captures->begin(), captures->end(), [](const AudioStream& stream) { return !stream.corked; });
    if (!recording) return captures;
    auto playbacks = listStreams(*pactl, "sink-inputs", AudioStream::Direction::playback);
    if (!playbacks) return std::nullopt;
    captures->insert(captures->end(), playbacks->begin(), playbacks->end());
    return captures;
}

}  // namespace aimwise::CallActivity
