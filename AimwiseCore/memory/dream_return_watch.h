#pragma once
// Whether the person came back while the nightly pass runs, from the capture agent's samples in
// signals.sqlite: a sample away from the lock screen whose last input came after the pass began.
// The job polls this about twice a second, so a retry wait or a model call stands down within a
// second of the first keystroke.
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "CaptureShared/signals/signals_reader.h"

namespace aimwise {

class DreamReturnWatch {
public:
    DreamReturnWatch(std::filesystem::path signalsDB, int64_t sinceMs);
    ~DreamReturnWatch();
    DreamReturnWatch(const DreamReturnWatch&) = delete;
    DreamReturnWatch& operator=(const DreamReturnWatch&) = delete;

    // Input after `sinceMs`, outside the lock screen. A sample without an idle reading says nothing.
    static bool showsReturn(const SignalsReader::TickRow& tick, int64_t sinceMs);

    // A reason to stand down, or nothing. An unreadable or missing database is nothing, tried again
    // on the next check.
    std::optional<std::string> check();

private:
    std::filesystem::path signalsDB_;
    int64_t sinceMs_;
    std::unique_ptr<SignalsReader> reader_;
};

}  // namespace aimwise
