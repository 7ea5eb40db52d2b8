#pragma once
// frame_timestamps.csv, one per display beside its recordings: which frame of which sealed file was
// taken when, and what part of the screen it shows. The recorder appends one line per frame, each in
// one write call; a line without a file marks where recording paused, until the next frame.
//   real_ms,file,frame_index,x,y,width,height
// Sidecars from before the frame-index columns existed hold only real_ms and file.
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "CaptureShared/video/file_descriptor.h"

namespace aimwise {

namespace FrameTimestamps {

inline constexpr const char* header = "real_ms,file,frame_index,x,y,width,height";

// Screen coordinates of the recorded area.
struct CaptureArea {
    int x = 0, y = 0, width = 0, height = 0;
    bool operator==(const CaptureArea&) const = default;
};

struct Row {
    int64_t realMs = 0;
    std::string file;  // a name inside the sidecar's directory; empty for a pause
    int64_t frameIndex = 0;
    CaptureArea area;
    bool operator==(const Row&) const = default;
};

struct Sidecar {
    // False for a sidecar written before frames were indexed: its rows cannot name a frame.
    bool indexesFrames = true;
    // Sorted by time. Lines that do not decode are left out.
    std::vector<Row> rows;
};

std::string line(const Row& row);
// The rows of `path` whose time lies in [fromMs, toMs]; an absent or unreadable file has none.
Sidecar readWindow(const std::filesystem::path& path, int64_t fromMs, int64_t toMs);

// Appends rows to a sidecar, writing the header first into a new or empty file (mode 0600).
class Writer {
public:
    // Throws std::system_error when the file cannot be opened.
    explicit Writer(const std::filesystem::path& path);
    // Throws std::system_error when the line cannot be written.
    void append(const Row& row);
    void appendPause(int64_t realMs) { append({.realMs = realMs}); }

private:
    FileDescriptor fd_;
};

}  // namespace FrameTimestamps

}  // namespace aimwise
