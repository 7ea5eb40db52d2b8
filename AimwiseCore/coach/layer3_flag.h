#pragma once
// Which turn path the coach takes. The conversation path ("layer 3") keeps a short rolling
// conversation that stays cheap to cache; it is armed only by the exact value "1", so a typo or a
// "true" leaves the driver path in charge rather than guessing.
#include "CaptureShared/common/environment.h"

namespace aimwise::Layer3Flag {

inline constexpr const char* variable = "AIMCAP_LAYER3";

inline bool isArmed(const Environment& environment) {
    const auto found = environment.find(variable);
    return found != environment.end() && found->second == "1";
}

}  // namespace aimwise::Layer3Flag
