#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include <fmt/format.h>

#include "CaptureShared/dataroot/executable_path.h"
#include "platform/bounded_process.h"
#include "platform/linux/helpers/ocr_helper_protocol.h"
#include "platform/vision_text_recognizer.h"

namespace aimwise::VisionTextRecognizer {
namespace {

std::string firstLine(const std::string& text) {
    std::string line = text.substr(0, text.find('\n'));
    if (line.size() > 300) line.resize(300);
    return line;
}

}  // namespace

std::string engineDescription() { return "helper process (Tesseract)"; }

std::filesystem::path helperPath() {
    if (const char* configured = std::getenv(helperEnvVar); configured && *configured) return configured;
    try {
        return ExecutablePath::siblingDirectory(ExecutablePath::resolveSelf()) / helperName;
    } catch (const ExecutablePathError&) {
        return helperName;
    }
}

OCRResult recognizeText(const std::filesystem::path& imagePath, double timeoutSec) {
    // Checked here as well as in the helper, so a missing file costs no process start.
    if (::access(imagePath.c_str(), R_OK) != 0) return Failed{"could not open image at " + imagePath.string()};

    const std::filesystem::path helper = helperPath();
    const BoundedProcess::Outcome outcome = BoundedProcess::run(helper.string(), {imagePath.string()}, timeoutSec);

    if (std::holds_alternative<BoundedProcess::TimedOut>(outcome)) {
        const std::string words =
            fmt::format("Tesseract OCR timed out after {:g}s — killing the OCR helper and judging without OCR text",
                        timeoutSec);
        std::fprintf(stderr, "%s\n", words.c_str());
        return Failed{words};
    }
    if (const auto* launch = std::get_if<BoundedProcess::LaunchFailed>(&outcome))
        return Failed{fmt::format("OCR helper unavailable ({}); set {} to its path", launch->reason, helperEnvVar)};

    const auto& finished = std::get<BoundedProcess::Finished>(outcome);
    if (finished.succeeded()) return Read{finished.standardOutput};
    if (finished.terminatingSignal)
        return Failed{fmt::format("OCR helper ended by signal {}", *finished.terminatingSignal)};
    switch (finished.exitStatus) {
    case OCRHelperProtocol::cannotOpen:
        return Failed{"could not open image at " + imagePath.string()};
    case OCRHelperProtocol::cannotDecode:
        return Failed{"could not decode image at " + imagePath.string()};
    default:
        return Failed{fmt::format("Tesseract request failed: {}", finished.standardError.empty()
                                                                     ? BoundedProcess::describe(outcome)
                                                                     : firstLine(finished.standardError))};
    }
}

}  // namespace aimwise::VisionTextRecognizer
