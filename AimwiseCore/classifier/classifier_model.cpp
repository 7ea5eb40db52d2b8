#include "AimwiseCore/classifier/classifier_model.h"

namespace aimwise::ClassifierModel {

const std::string& defaultModel() {
    static const std::string model = getEnv("AIMCHECK_MODEL").value_or(fallback);
    return model;
}

std::string resolved(const Environment& environment, const std::string& fallbackModel) {
    return lookup(environment, "AIMCHECK_MODEL").value_or(fallbackModel);
}

}  // namespace aimwise::ClassifierModel
