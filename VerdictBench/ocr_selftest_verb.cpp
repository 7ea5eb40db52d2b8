// `ocr-selftest`: the window-content path on one image file, without the screen: text recognition,
// the local model's description, and the dict the classifier would get.
#include <cstdio>
#include <exception>
#include <fstream>
#include <sstream>

#include "AimwiseCore/classifier/py_repr.h"
#include "AimwiseCore/classifier/window_content.h"
#include "AimwiseCore/models/http_session.h"
#include "CaptureShared/common/text.h"
#include "CaptureShared/common/utf8.h"
#include "VerdictBench/classifier_verb_support.h"
#include "VerdictBench/verbs.h"
#include "platform/vision_text_recognizer.h"

namespace aimwise::verbs {
namespace {

std::string readImage(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw Error("could not read the image file " + path);
    std::ostringstream bytes;
    bytes << in.rdbuf();
    return std::move(bytes).str();
}

int selftest(const std::string& imagePath) {
    const WindowContentReader::Config config = WindowContentReader::Config::tickDefault();
    std::printf("vision OCR: %s\n", VisionTextRecognizer::engineDescription().c_str());
    std::fflush(stdout);

    std::string ocrText;
    const VisionTextRecognizer::OCRResult ocr =
        VisionTextRecognizer::recognizeText(imagePath, WindowContentReader::recognitionTimeoutSec);
    if (const auto* failed = std::get_if<VisionTextRecognizer::Failed>(&ocr))
        std::printf("=== OCR FAILED ===\n%s\n", failed->reason.c_str());
    else
        ocrText = std::get<VisionTextRecognizer::Read>(ocr).text;
    std::printf("=== OCR (first 300 chars) ===\n%s\n", utf8::prefix(ocrText, 300).c_str());
    std::fflush(stdout);

    HTTPSession session;
    const std::string description =
        WindowContentReader::describeImage(WindowContentReader::base64(readImage(imagePath)), config, session);
    std::printf("=== DESCRIBE ===\n%s\n", description.c_str());

    const std::string dict = PyRepr::windowContentDict(ocrText, trimWhitespaceAndNewlines(description));
    std::printf("=== DICT REPR (first 200 chars) ===\n%s\n", utf8::prefix(dict, 200).c_str());
    return 0;
}

}  // namespace

int runOCRSelftest(const cli::Invocation& invocation) {
    if (invocation.positional.empty()) throw cli::Failure("usage: ocr-selftest <image-path>");
    // Nothing is caught along the way: an unreadable image or a failed description ends the
    // self-test here, with its description and a non-zero status.
    try {
        return selftest(invocation.positional.front());
    } catch (const std::exception& error) {
        std::fflush(stdout);
        std::fprintf(stderr, "ocr-selftest: unhandled error: %s\n", error.what());
        return 2;
    }
}

}  // namespace aimwise::verbs
