// config.json as the person may have left it: parsed, its model endpoint resolved, and then changed
// by a setting written over it.
#include <algorithm>

#include "AimwiseCore/models/local_inference_endpoint.h"
#include "AimwiseCore/models/local_inference_wire.h"
#include "CaptureShared/common/atomic_file.h"
#include "CaptureShared/common/text.h"
#include "CaptureShared/dataroot/agent_config.h"
#include "fuzz/fuzz_support.h"

using namespace aimwise;
using fuzzing::require;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    const std::string_view text = fuzzing::text(bytes, size);
    const auto result = AgentConfig::parse(text);
    require(std::is_sorted(result.unknownKeys.begin(), result.unknownKeys.end()), "unknown keys are sorted");
    for (const auto& [key, value] : result.settings) {
        require(AgentConfig::allowedKeys().contains(key), "only allowed keys are honoured");
        (void)AgentConfig::redactedSuffix(value);
    }
    if (result.parseError) {
        require(result.settings.empty() && result.unknownKeys.empty(), "a file that does not parse yields nothing");
        return 0;
    }

    // The endpoint is refused with a typed error, or is one that the local-only check lets through.
    try {
        const auto url = LocalInferenceEndpoint::resolveOrThrow(result.settings);
        LocalInferenceWire::requireLocalDestination(LocalInferenceWire::chatCompletionsURL(url));
        require(EndpointURL::parse(url.string()) == url, "a resolved endpoint reads back as it prints");
    } catch (const LocalInferenceEndpoint::ResolutionError&) {
    }

    const auto config = fuzzing::scratch() / "config.json";
    fuzzing::writeFile(config, text);
    if (!text.empty() && trimWhitespaceAndNewlines(text).empty()) {
        // Read as no settings, but white space is something a person wrote: never written over.
        try {
            AgentConfig::setEnvValue("fuzzed", "AIMCAP_MODEL", config);
            require(false, "a file of white space is never written over");
        } catch (const ConfigWriteError&) {
        }
        require(readWholeFile(config) == text, "a refused file is left as it was");
        return 0;
    }
    AgentConfig::setEnvValue("fuzzed", "AIMCAP_MODEL", config);
    auto expected = result.settings;
    expected["AIMCAP_MODEL"] = "fuzzed";
    const auto reread = AgentConfig::load(config);
    require(!reread.parseError && reread.settings == expected, "a setting written over the file keeps the others");
    return 0;
}
