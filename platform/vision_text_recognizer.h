#pragma once
// Text on a captured image, read on this machine. The engine runs in a helper process so that the
// programs asking for it do not load an image library at start-up.
#include <filesystem>
#include <optional>
#include <string>
#include <variant>

namespace aimwise::VisionTextRecognizer {

struct Read {
    // One recognised line per line of text, in reading order.
    std::string text;
};
struct Failed {
    std::string reason;
};
using OCRResult = std::variant<Read, Failed>;

// AIMCAP_OCR_HELPER, when set and not empty, names the helper executable; otherwise it is
// "aimwise-ocr" next to the running executable.
inline constexpr const char* helperEnvVar = "AIMCAP_OCR_HELPER";
inline constexpr const char* helperName = "aimwise-ocr";

// Where the engine runs and which engine it is, for reports.
std::string engineDescription();

std::filesystem::path helperPath();

// A helper that is late is killed and its result is a failure; a timeout line goes to standard error.
OCRResult recognizeText(const std::filesystem::path& imagePath, double timeoutSec);

}  // namespace aimwise::VisionTextRecognizer
