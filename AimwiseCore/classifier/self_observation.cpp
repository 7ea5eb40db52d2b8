#include "AimwiseCore/classifier/self_observation.h"

#include <unicode/unistr.h>

namespace aimwise::ClassifierSelfObservation {

namespace {

std::string lowercased(const std::string& text) {
    std::string out;
    icu::UnicodeString::fromUTF8(text).toLower().toUTF8String(out);
    return out;
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
