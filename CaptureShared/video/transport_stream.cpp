#include "CaptureShared/video/transport_stream.h"

#include <algorithm>
#include <utility>

namespace aimwise::TransportStream {

namespace {

// Where the PES header of a video frame starts in `p`, and whether the frame is a keyframe.
std::optional<std::pair<size_t, bool>> videoPesHeader(const uint8_t* p) {
    const bool unitStart = p[1] & 0x40;
    const int adaptation = (p[3] >> 4) & 3;
    if (!unitStart || !(adaptation & 1)) return std::nullopt;
    size_t payload = 4;
    bool randomAccess = false;
    if (adaptation & 2) {
        const size_t length = p[4];
        if (length > 0) randomAccess = p[5] & 0x40;
        payload = 5 + length;
    }
    // A PES header of a video stream: 00 00 01, stream id 0xE0 to 0xEF.
    if (payload + 4 > packetSize || p[payload] != 0 || p[payload + 1] != 0 || p[payload + 2] != 1 ||
        (p[payload + 3] & 0xF0) != 0xE0)
        return std::nullopt;
    return std::pair(payload, randomAccess);
}

}  // namespace

std::optional<FrameStart> frameStart(const uint8_t* p) {
    const auto header = videoPesHeader(p);
    if (!header) return std::nullopt;
    return FrameStart{((p[1] & 0x1F) << 8) | p[2], header->second};
}

std::optional<int64_t> presentationTime(const uint8_t* p) {
    const auto header = videoPesHeader(p);
    if (!header || header->first + 14 > packetSize) return std::nullopt;
    const uint8_t* pes = p + header->first;
    if (!(pes[7] & 0x80)) return std::nullopt;
    const uint8_t* t = pes + 9;
    return (int64_t(t[0] >> 1 & 7) << 30) | (int64_t(t[1]) << 22) | (int64_t(t[2] >> 1) << 15) |
           (int64_t(t[3]) << 7) | (t[4] >> 1);
}

void Scanner::feed(std::string_view bytes) {
    if (!index_.usable) return;
    const bool aligned = reader_.feed(bytes, [&](const uint8_t* packet) {
        const auto start = frameStart(packet);
        if (!start || !index_.usable) return;
        if (index_.videoPid >= 0 && start->pid != index_.videoPid) {
            index_.usable = false;  // one video stream only
            return;
        }
        index_.videoPid = start->pid;
        if (start->keyframe) index_.keyframes.push_back(index_.frames);
        ++index_.frames;
    });
    if (!aligned) index_.usable = false;
}

GopFilter::GopFilter(const Index& index, const std::set<int64_t>& wanted) : index_(index) {
    for (int64_t frame : wanted) {
        const auto after = std::upper_bound(index_.keyframes.begin(), index_.keyframes.end(), frame);
        const int64_t from = after == index_.keyframes.begin() ? 0 : *std::prev(after);
        for (int64_t f = from; f <= frame; ++f) passing_.insert(f);
        last_ = std::max(last_, frame);
    }
}

bool GopFilter::feed(std::string_view bytes, std::string& out) {
    if (current_ > last_) return false;
    reader_.feed(bytes, [&](const uint8_t* packet) {
        const int pid = ((packet[1] & 0x1F) << 8) | packet[2];
        if (pid == index_.videoPid) {
            if (frameStart(packet)) ++current_;
            if (current_ >= 0 && !passing_.count(current_)) return;
        }
        if (current_ <= last_) out.append(reinterpret_cast<const char*>(packet), packetSize);
    });
    return current_ <= last_;
}

int64_t GopFilter::passedIndex(int64_t frame) const {
    return static_cast<int64_t>(std::distance(passing_.begin(), passing_.lower_bound(frame)));
}

}  // namespace aimwise::TransportStream
