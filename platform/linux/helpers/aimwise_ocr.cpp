// aimwise-ocr <image>: prints the text Tesseract reads on the image, one line per text line.
// The only program of ours that links the OCR engine and an image library.
#include <leptonica/allheaders.h>
#include <tesseract/baseapi.h>
#include <tesseract/resultiterator.h>

#include <cstdio>
#include <memory>
#include <string>

#include "platform/linux/helpers/ocr_helper_protocol.h"

namespace {

using namespace aimwise;

struct PixDeleter {
    void operator()(PIX* pix) const { pixDestroy(&pix); }
};
using PixPtr = std::unique_ptr<PIX, PixDeleter>;

// Screen text is ~11 px high at 1x, well below the ~30 px the engine reads best; small captures are
// enlarged, large ones less so because the work grows with the area.
float upscaleFactor(int width, int height) {
    const int longer = std::max(width, height);
    if (longer <= 1200) return 3.0f;
    if (longer <= 2400) return 2.0f;
    return 1.0f;
}

std::string trim(std::string text) {
    const char* space = " \t\r\n\f\v";
    const size_t first = text.find_first_not_of(space);
    if (first == std::string::npos) return {};
    return text.substr(first, text.find_last_not_of(space) - first + 1);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: aimwise-ocr <image-path>\n");
        return OCRHelperProtocol::usage;
    }
    const char* path = argv[1];
    if (FILE* probe = std::fopen(path, "rb"))
        std::fclose(probe);
    else
        return OCRHelperProtocol::cannotOpen;

    setMsgSeverity(L_SEVERITY_NONE);
    PixPtr image(pixRead(path));
    if (!image) return OCRHelperProtocol::cannotDecode;
    PixPtr gray(pixConvertTo8(image.get(), 0));
    if (!gray) return OCRHelperProtocol::cannotDecode;
    const float factor = upscaleFactor(pixGetWidth(gray.get()), pixGetHeight(gray.get()));
    PixPtr scaled(factor > 1.0f ? pixScaleGrayLI(gray.get(), factor, factor) : pixClone(gray.get()));
    if (!scaled) return OCRHelperProtocol::cannotDecode;

    tesseract::TessBaseAPI api;
    if (api.Init(nullptr, "eng", tesseract::OEM_LSTM_ONLY) != 0) {
        std::fprintf(stderr, "could not load the English model (is tesseract-ocr-eng installed?)\n");
        return OCRHelperProtocol::engineFailed;
    }
    api.SetPageSegMode(tesseract::PSM_AUTO);
    api.SetImage(scaled.get());
    // Screen pixels carry no resolution; without one the engine guesses and says so on stderr.
    api.SetSourceResolution(static_cast<int>(96 * factor));
    if (api.Recognize(nullptr) != 0) {
        std::fprintf(stderr, "recognition failed\n");
        return OCRHelperProtocol::engineFailed;
    }

    std::string text;
    std::unique_ptr<tesseract::ResultIterator> lines(api.GetIterator());
    if (lines && !lines->Empty(tesseract::RIL_TEXTLINE)) {
        do {
            std::unique_ptr<char[]> line(lines->GetUTF8Text(tesseract::RIL_TEXTLINE));
            if (!line) continue;
            std::string trimmed = trim(line.get());
            if (trimmed.empty()) continue;
            if (!text.empty()) text += '\n';
            text += trimmed;
        } while (lines->Next(tesseract::RIL_TEXTLINE));
    }
    api.End();
    std::fwrite(text.data(), 1, text.size(), stdout);
    return std::fflush(stdout) == 0 ? OCRHelperProtocol::read : OCRHelperProtocol::engineFailed;
}
