#pragma once
// The systemd user unit that runs llama.cpp's llama-server with the installed model, where the
// classifier and the coach look for it. It is written by `aimwise model serve` for the model of
// the moment, so unlike the other units it is not fixed at build time.
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "AimwiseCore/models/endpoint_url.h"
#include "CaptureShared/common/environment.h"

namespace aimwise::ModelServerUnit {

inline constexpr const char* unitName = "aimwise-llama-server.service";
// The server program, when it is not found on the PATH or in the usual places.
inline constexpr const char* programVariable = "AIMWISE_LLAMA_SERVER";

struct Plan {
    int slots = 1;
    int contextPerSlot = 8192;
    int contextTokens() const { return slots * contextPerSlot; }
    bool operator==(const Plan&) const = default;
};

// Slots and context for this machine: two slots when there is room, so the classifier's tick need
// not queue behind a coach turn, and the largest context per slot that the memory left beside the
// model and the person's own work can hold; never less than the classifier's prompt needs.
Plan plan(uint64_t physicalMemoryBytes, int64_t modelFilesBytes);

struct Settings {
    std::filesystem::path program;
    std::string model;
    std::filesystem::path modelFile;
    std::optional<std::filesystem::path> projector;
    // A unix socket (the default) or 127.0.0.1 with a port.
    EndpointURL endpoint;
    Plan plan;
};

std::string unitText(const Settings& settings);

struct Lookup {
    std::optional<std::filesystem::path> found;
    // Every place that was looked in, in order: the PATH's first, then the usual places.
    std::vector<std::filesystem::path> searched;
    size_t fromPath = 0;
};

// AIMWISE_LLAMA_SERVER when set; otherwise the PATH, then ~/.local/bin, /usr/local/bin and
// ~/llama.cpp/build/bin, where the build below puts it.
Lookup findProgram(const Environment& environment);

// What to install, how, and where it will be looked for.
std::string notFoundAdvice(const Lookup& lookup);

}  // namespace aimwise::ModelServerUnit
