#include "AimwiseCore/classifier/label_vocabulary.h"

#include <map>

#include "CaptureShared/common/icu_library.h"

namespace aimwise::LabelVocabulary {

namespace {

struct StoredLabel {
    const char* displayName;
    Tone tone;
};

const std::map<std::string, StoredLabel>& storedLabels() {
    static const std::map<std::string, StoredLabel> labels = {
        {"on_task", {"Doing the intention", Tone::aligned}},
        {"on_task_overtime", {"Still on it, past my estimate", Tone::caveat}},
        {"switching_tasks", {"Switching between things", Tone::caveat}},
        {"rabbit_hole", {"Down a rabbit hole", Tone::diverged}},
        {"off_task", {"Off intention", Tone::diverged}},
        {"not_aligned", {"Off intention", Tone::diverged}},
        {"break", {"Away from my computer", Tone::away}},
        {"not_using_computer", {"Away from my computer", Tone::away}},
        {"no_task", {"No intention declared", Tone::unknown}},
        {"ambiguous", {"Can't tell from this", Tone::unknown}},
    };
    return labels;
}

}  // namespace

std::string rawValue(Tone tone) {
    switch (tone) {
        case Tone::aligned: return "aligned";
        case Tone::caveat: return "caveat";
        case Tone::diverged: return "diverged";
        case Tone::away: return "away";
        case Tone::unknown: return "unknown";
    }
    return "unknown";
}

std::string displayNameForClassifierState(const std::string& state) {
    static const std::map<std::string, std::string> names = {
        {"ON_TASK", "on the intention"}, {"NOT_ALIGNED", "off intention"}, {"BREAK", "on a break"},
        {"IDLE", "away"},                {"NO_TASK", "with no intention set"},
    };
    const std::string upper = unicode::toUTF8(unicode::toUpper(unicode::toUTF16(state), nullptr));
    auto it = names.find(upper);
    return it == names.end() ? state : it->second;
}

std::string displayNameForStoredLabel(const std::string& label) {
    auto it = storedLabels().find(label);
    return it == storedLabels().end() ? label : it->second.displayName;
}

Tone toneForStoredLabel(const std::string& label) {
    auto it = storedLabels().find(label);
    return it == storedLabels().end() ? Tone::unknown : it->second.tone;
}

}  // namespace aimwise::LabelVocabulary
