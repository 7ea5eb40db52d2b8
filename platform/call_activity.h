#pragma once
// Which programs hold audio streams open right now, read from the sound server (PipeWire or
// PulseAudio) through `pactl`. A two-way call shows as one process with both a capture stream and a
// playback stream.
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace aimwise::CallActivity {

struct AudioStream {
    enum class Direction { capture, playback };
    Direction direction = Direction::playback;
    std::string applicationName;
    std::optional<std::string> processBinary;
    std::optional<int> processId;
    // A paused stream holds the device without using it.
    bool corked = false;
    bool operator==(const AudioStream&) const = default;
};

// Nothing when no reading can be had: no `pactl`, no sound server, or an answer that is not JSON.
// Playback streams are listed only when some capture stream runs; otherwise only the capture
// streams come back.
std::optional<std::vector<AudioStream>> liveStreams();

// `pactl -f json list source-outputs` (capture) or `... sink-inputs` (playback). Nothing for text
// that is not a JSON array; entries without properties are kept with an empty name.
std::optional<std::vector<AudioStream>> parsePactlStreams(std::string_view json, AudioStream::Direction direction);

}  // namespace aimwise::CallActivity
