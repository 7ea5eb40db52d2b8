// config.json as the person may have left it: parsed, and then changed by a setting written over it.
#include <algorithm>

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

    const auto config = fuzzing::scratch() / "config.json";
    fuzzing::writeFile(config, text);
    AgentConfig::setEnvValue("fuzzed", "AIMCAP_MODEL", config);
    auto expected = result.settings;
    expected["AIMCAP_MODEL"] = "fuzzed";
    const auto reread = AgentConfig::load(config);
    require(!reread.parseError && reread.settings == expected, "a setting written over the file keeps the others");
    return 0;
}
