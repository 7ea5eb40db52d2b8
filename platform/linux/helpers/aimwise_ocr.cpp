// aimwise-ocr [--upscale FACTOR] <image>: prints the text Tesseract reads on the image, one line per
// text line. The only program of ours that links the OCR engine and an image library. The factor is
// chosen from the text's measured height unless given (for comparisons by hand and in bench/).
#include <leptonica/allheaders.h>
#include <tesseract/baseapi.h>
#include <tesseract/resultiterator.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/linux/helpers/ocr_helper_protocol.h"

namespace {

using namespace aimwise;

struct PixDeleter {
    void operator()(PIX* pix) const { pixDestroy(&pix); }
};
using PixPtr = std::unique_ptr<PIX, PixDeleter>;

// The engine runs its OpenMP loops on every core, and on two cores its threads mostly wait for each
// other: one window took five seconds instead of one. libgomp reads its limit once, when it loads,
// so the helper sets the limit and starts itself again; a limit the caller chose is kept.
void limitToOneThread(char** argv) {
    if (std::getenv("OMP_THREAD_LIMIT")) return;
    ::setenv("OMP_THREAD_LIMIT", "1", 1);
    ::execv("/proc/self/exe", argv);
    // Without /proc the engine runs with its own threads: slower, the same text.
}

// Mostly dark text on light after this: a terminal's light text on a dark background is turned
// over, since the engine reads dark on light and otherwise tries each doubtful line both ways,
// which doubled the time for a terminal.
void makeTextDark(PIX* gray) {
    std::unique_ptr<NUMA, void (*)(NUMA*)> histogram(pixGetGrayHistogram(gray, 4),
                                                     [](NUMA* n) { numaDestroy(&n); });
    if (!histogram) return;
    double dark = 0, all = 0;
    for (int value = 0; value < 256; ++value) {
        l_float32 count = 0;
        numaGetFValue(histogram.get(), value, &count);
        all += count;
        if (value < 128) dark += count;
    }
    if (dark > all / 2) pixInvert(gray, gray);
}

// The height of a typical glyph: the median height of the dark shapes that could be letters.
std::optional<int> glyphHeight(PIX* gray) {
    PixPtr binary(pixThresholdToBinary(gray, 160));
    if (!binary) return std::nullopt;
    BOXA* boxes = pixConnCompBB(binary.get(), 8);
    if (!boxes) return std::nullopt;
    std::vector<int> heights;
    for (int i = 0, count = boxaGetCount(boxes); i < count; ++i) {
        l_int32 x = 0, y = 0, w = 0, h = 0;
        boxaGetBoxGeometry(boxes, i, &x, &y, &w, &h);
        // Dots, rules and pictures are not letters.
        if (h >= 4 && h <= 120 && w <= 3 * h) heights.push_back(h);
    }
    boxaDestroy(&boxes);
    if (heights.size() < 8) return std::nullopt;
    std::nth_element(heights.begin(), heights.begin() + heights.size() / 2, heights.end());
    return heights[heights.size() / 2];
}

// Small screen text is enlarged until a typical glyph is about this high: measured on a terminal, an
// editor at 11 px and a dense web page, larger costs more time and memory (the work grows with the
// area) and reads no more words. Text already that large is left as it is.
constexpr double readableGlyphHeight = 11.0;

float upscaleFactor(PIX* gray) {
    const auto height = glyphHeight(gray);
    if (!height) return 1.5f;
    // In half steps: between them the engine's page layout lost a lone line of small text (at 1.25
    // and 1.75) that it read at 1.5 and 2.
    return static_cast<float>(std::clamp(std::round(2.0 * readableGlyphHeight / *height) / 2.0, 1.0, 3.0));
}

std::string trim(std::string text) {
    const char* space = " \t\r\n\f\v";
    const size_t first = text.find_first_not_of(space);
    if (first == std::string::npos) return {};
    return text.substr(first, text.find_last_not_of(space) - first + 1);
}

}  // namespace

int main(int argc, char** argv) {
    std::optional<float> chosenFactor;
    if (argc == 4 && std::strcmp(argv[1], "--upscale") == 0) chosenFactor = std::strtof(argv[2], nullptr);
    if (argc != 2 && !(chosenFactor && *chosenFactor >= 1.0f && *chosenFactor <= 8.0f)) {
        std::fprintf(stderr, "usage: aimwise-ocr [--upscale FACTOR] <image-path>\n");
        return OCRHelperProtocol::usage;
    }
    limitToOneThread(argv);
    const char* path = argv[argc - 1];
    if (FILE* probe = std::fopen(path, "rb"))
        std::fclose(probe);
    else
        return OCRHelperProtocol::cannotOpen;

    setMsgSeverity(L_SEVERITY_NONE);
    PixPtr image(pixRead(path));
    if (!image) return OCRHelperProtocol::cannotDecode;
    PixPtr gray(pixConvertTo8(image.get(), 0));
    if (!gray) return OCRHelperProtocol::cannotDecode;
    image.reset();
    makeTextDark(gray.get());
    const float factor = chosenFactor ? *chosenFactor : upscaleFactor(gray.get());
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
