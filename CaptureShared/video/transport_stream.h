#pragma once
// Just enough of MPEG-TS to decode few frames out of a long recording: where each video frame starts
// and which frames are keyframes (the random access flag ffmpeg sets), and a filter that passes only
// the stretch from the keyframe before each wanted frame to that frame. The decoder then works on
// those stretches alone instead of every frame of the hour.
#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace aimwise::TransportStream {

inline constexpr size_t packetSize = 188;

struct Index {
    // False when the bytes are not a plain 188-byte transport stream with flagged keyframes.
    bool usable = true;
    int videoPid = -1;
    int64_t frames = 0;
    std::vector<int64_t> keyframes;
};

// Packets from bytes fed in pieces of any size.
class PacketReader {
public:
    // Calls `onPacket(const uint8_t*)` for each whole packet; false when the sync byte is missing.
    template <typename OnPacket>
    bool feed(std::string_view bytes, OnPacket&& onPacket);

private:
    std::string carry_;
};

class Scanner {
public:
    void feed(std::string_view bytes);
    const Index& index() const { return index_; }

private:
    PacketReader reader_;
    Index index_;
};

class GopFilter {
public:
    // `wanted` are frame indices of the scanned stream.
    GopFilter(const Index& index, const std::set<int64_t>& wanted);
    // Appends to `out` what the decoder needs; false once nothing more will pass.
    bool feed(std::string_view bytes, std::string& out);
    // Where a wanted frame falls in the filtered stream.
    int64_t passedIndex(int64_t frame) const;

private:
    Index index_;
    std::set<int64_t> passing_;
    int64_t last_ = -1;
    int64_t current_ = -1;
    PacketReader reader_;
};

// Is this packet the start of a video frame, and is that frame a keyframe?
struct FrameStart {
    int pid = 0;
    bool keyframe = false;
};
std::optional<FrameStart> frameStart(const uint8_t* packet);
// The presentation time, in 90 kHz ticks modulo 2^33, of the video frame starting in `packet`.
std::optional<int64_t> presentationTime(const uint8_t* packet);

template <typename OnPacket>
bool PacketReader::feed(std::string_view bytes, OnPacket&& onPacket) {
    if (!carry_.empty()) {
        const size_t take = std::min(bytes.size(), packetSize - carry_.size());
        carry_.append(bytes.substr(0, take));
        bytes.remove_prefix(take);
        if (carry_.size() < packetSize) return true;
        if (carry_[0] != 0x47) return false;
        onPacket(reinterpret_cast<const uint8_t*>(carry_.data()));
        carry_.clear();
    }
    while (bytes.size() >= packetSize) {
        if (bytes[0] != 0x47) return false;
        onPacket(reinterpret_cast<const uint8_t*>(bytes.data()));
        bytes.remove_prefix(packetSize);
    }
    carry_.assign(bytes);
    return true;
}

}  // namespace aimwise::TransportStream
