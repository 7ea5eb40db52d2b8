#include "AimwiseCore/classifier/self_observation.h"

#include "CaptureShared/common/icu_library.h"

namespace aimwise::ClassifierSelfObservation {

namespace {

std::string lowercased(const std::string& text) {
    return unicode::toUTF8(unicode::toLower(unicode::toUTF16(text), nullptr));
}

}  // namespace

bool isOwnWindowNow(const std::optional<std::string>& frontmostApp) {
    return frontmostApp && lowercased(*frontmostApp) == lowercased(currentAppName);
}

bool isSelfObservation(const std::optional<std::string>& frontmostApp) {
    if (!frontmostApp) return false;
    const std::string name = lowercased(*frontmostApp);
    if (name == lowercased(currentAppName)) return true;
    for (const char* historical : historicalAppNames)
        if (name == lowercased(historical)) return true;
    return false;
}

bool isSelfObservation(const std::string& tickState, const std::optional<std::string>& frontmostApp) {
    return tickState == abstainedState || isSelfObservation(frontmostApp);
}

}  // namespace aimwise::ClassifierSelfObservation
