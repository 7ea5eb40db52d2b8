// aimwise-ocr [--upscale FACTOR] <image>: prints the text Tesseract reads on the image, one line per
// text line. The only program of ours that links the OCR engine and an image library. The factor is
// chosen from the text's measured height unless given (for comparisons by hand and in bench/).
//
// Nearly all the time goes to the engine's line reader (three quarters on a terminal; loading the
// engine is 70 ms, its page layout a tenth), and that work grows with the amount of text. With
// AIMCAP_OCR_BANDS=2 and two cores free, the page is read as an upper and a lower band at once, one
// engine each: about half the wall time, for up to a fifth more CPU and 11 MB more memory. A verdict
// is not waited for by anyone, so by default the page is read whole, at the lesser cost.
#include <leptonica/allheaders.h>
#include <sched.h>
#include <tesseract/baseapi.h>
#include <tesseract/resultiterator.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <numeric>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
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
// editor at 11 px and a dense web page, larger costs more time and memory (the line reader sees the
// text larger, so steps through more columns) and reads no more words: the editor read more at 1.5
// than at 2. Text already that large is left as it is.
constexpr double readableGlyphHeight = 10.0;

float upscaleFactor(PIX* gray) {
    const auto height = glyphHeight(gray);
    if (!height) return 1.5f;
    // In half steps: between them the engine's page layout lost a lone line of small text (at 1.25
    // and 1.75) that it read at 1.5 and 2.
    return static_cast<float>(std::clamp(std::round(2.0 * readableGlyphHeight / *height) / 2.0, 1.0, 3.0));
}

// Two bands when asked for, with two cores left to this process and this many lines of text on the
// page: below that, the second engine's loading costs more than it saves.
constexpr int linesWorthTwoBands = 8;

int bandsAllowed() {
    const char* chosen = std::getenv("AIMCAP_OCR_BANDS");
    if (!chosen || std::atoi(chosen) < 2) return 1;
    cpu_set_t cpus;
    return ::sched_getaffinity(0, sizeof cpus, &cpus) == 0 && CPU_COUNT(&cpus) >= 2 ? 2 : 1;
}

// The row to cut the page at, so no line is cut and the bands hold about as much text: the middle of
// the run of empty rows nearest to the row with half the ink above it. Ink is a step in brightness
// along a row, so panels and backgrounds of any shade are empty and any glyph crossing a row marks
// it; steps in the same place down nine tenths of the page are rules or panel edges, not ink. None
// when the page has few lines or no empty row leaves each band a quarter of the ink.
std::optional<int> bandCut(PIX* gray) {
    const int width = pixGetWidth(gray), height = pixGetHeight(gray), wordsPerLine = pixGetWpl(gray);
    const l_uint32* data = pixGetData(gray);
    const auto isInk = [&](int x, int y) {
        const l_uint32* row = data + y * wordsPerLine;
        return std::abs(int(GET_DATA_BYTE(row, x)) - int(GET_DATA_BYTE(row, x - 1))) > 32;
    };
    std::vector<int> column(size_t(width), 0);
    for (int y = 0; y < height; ++y)
        for (int x = 1; x < width; ++x) column[size_t(x)] += isInk(x, y);
    std::vector<long> ink(size_t(height), 0);
    for (int y = 0; y < height; ++y)
        for (int x = 1; x < width; ++x)
            if (column[size_t(x)] < height * 9 / 10) ink[size_t(y)] += isInk(x, y);

    const long total = std::accumulate(ink.begin(), ink.end(), 0L);
    std::optional<int> cut;
    long cutAbove = 0, above = 0;
    int lines = 0;
    for (int y = 0; y < height;) {
        if (ink[size_t(y)] != 0) {
            ++lines;
            for (; y < height && ink[size_t(y)] != 0; ++y) above += ink[size_t(y)];
            continue;
        }
        const int start = y;
        while (y < height && ink[size_t(y)] == 0) ++y;
        if (above < total / 4 || total - above < total / 4) continue;
        if (!cut || std::abs(2 * above - total) < std::abs(2 * cutAbove - total)) {
            cut = (start + y) / 2;
            cutAbove = above;
        }
    }
    return lines >= linesWorthTwoBands ? cut : std::nullopt;
}

std::string trim(std::string text) {
    const char* space = " \t\r\n\f\v";
    const size_t first = text.find_first_not_of(space);
    if (first == std::string::npos) return {};
    return text.substr(first, text.find_last_not_of(space) - first + 1);
}

struct Reading {
    int status = OCRHelperProtocol::read;
    std::string text;
};

// One band with an engine of its own: an engine serves one thread.
Reading readBand(PixPtr band, float factor) {
    tesseract::TessBaseAPI api;
    if (api.Init(nullptr, "eng", tesseract::OEM_LSTM_ONLY) != 0) {
        std::fprintf(stderr, "could not load the English model (is tesseract-ocr-eng installed?)\n");
        return {OCRHelperProtocol::engineFailed, {}};
    }
    api.SetPageSegMode(tesseract::PSM_AUTO);
    api.SetImage(band.get());
    band.reset();  // the engine keeps a copy of its own
    // Screen pixels carry no resolution; without one the engine guesses and says so on stderr.
    api.SetSourceResolution(static_cast<int>(96 * factor));
    if (api.Recognize(nullptr) != 0) {
        std::fprintf(stderr, "recognition failed\n");
        return {OCRHelperProtocol::engineFailed, {}};
    }
    Reading reading;
    std::unique_ptr<tesseract::ResultIterator> lines(api.GetIterator());
    if (lines && !lines->Empty(tesseract::RIL_TEXTLINE)) {
        do {
            std::unique_ptr<char[]> line(lines->GetUTF8Text(tesseract::RIL_TEXTLINE));
            if (!line) continue;
            std::string trimmed = trim(line.get());
            if (trimmed.empty()) continue;
            if (!reading.text.empty()) reading.text += '\n';
            reading.text += trimmed;
        } while (lines->Next(tesseract::RIL_TEXTLINE));
    }
    return reading;
}

PixPtr clip(PIX* pix, int top, int height) {
    std::unique_ptr<BOX, void (*)(BOX*)> box(boxCreate(0, top, pixGetWidth(pix), height),
                                             [](BOX* b) { boxDestroy(&b); });
    return PixPtr(box ? pixClipRectangle(pix, box.get(), nullptr) : nullptr);
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
    const std::optional<int> cut = bandsAllowed() == 2 ? bandCut(gray.get()) : std::nullopt;
    PixPtr scaled(factor > 1.0f ? pixScaleGrayLI(gray.get(), factor, factor) : pixClone(gray.get()));
    gray.reset();
    if (!scaled) return OCRHelperProtocol::cannotDecode;

    Reading whole;
    if (cut) {
        const int scaledCut =
            std::clamp(static_cast<int>(std::lround(*cut * factor)), 1, pixGetHeight(scaled.get()) - 1);
        PixPtr upper = clip(scaled.get(), 0, scaledCut);
        PixPtr lower = clip(scaled.get(), scaledCut, pixGetHeight(scaled.get()) - scaledCut);
        scaled.reset();
        if (!upper || !lower) return OCRHelperProtocol::cannotDecode;
        Reading below;
        std::thread second;
        try {
            second = std::thread([&below, &lower, factor] { below = readBand(std::move(lower), factor); });
        } catch (const std::system_error&) {
            // No thread to be had: the bands one after the other.
        }
        whole = readBand(std::move(upper), factor);
        if (second.joinable())
            second.join();
        else
            below = readBand(std::move(lower), factor);
        if (whole.status == OCRHelperProtocol::read) whole.status = below.status;
        if (!whole.text.empty() && !below.text.empty()) whole.text += '\n';
        whole.text += below.text;
    } else {
        whole = readBand(std::move(scaled), factor);
    }
    if (whole.status != OCRHelperProtocol::read) return whole.status;
    std::fwrite(whole.text.data(), 1, whole.text.size(), stdout);
    return std::fflush(stdout) == 0 ? OCRHelperProtocol::read : OCRHelperProtocol::engineFailed;
}
