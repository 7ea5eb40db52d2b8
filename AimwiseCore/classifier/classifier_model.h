#pragma once
// Which model judges.
#include <string>

#include "CaptureShared/common/environment.h"

namespace aimwise::ClassifierModel {

inline constexpr const char* fallback = "gemma4:12b-it-qat";
inline constexpr int contextLength = 8192;

// AIMCHECK_MODEL when set, otherwise the fallback; read once per process and kept.
const std::string& defaultModel();
// The variable's value whenever the key exists (even empty), otherwise `fallbackModel`.
std::string resolved(const Environment& environment, const std::string& fallbackModel = fallback);

}  // namespace aimwise::ClassifierModel
