// Arbitrary bytes as a server-sent event stream, cut into pieces where the input says: every
// payload is folded or skipped, and the stream ends in a response.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "AimwiseCore/models/chat_wire.h"
#include "AimwiseCore/models/model_backend_error.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const size_t piece = 1 + data[0] % 64;  // how the transport happened to split the bytes
    const std::string_view stream(reinterpret_cast<const char*>(data + 1), size - 1);
    aimwise::ChatStreamAccumulator accumulator;
    aimwise::ServerSentEventLines lines([&](std::string_view payload) {
        const aimwise::ChatJSON value = aimwise::ChatWire::parseBounded(payload);
        if (!value.is_object()) return;
        if (const aimwise::ChatJSON* error = aimwise::ChatWire::member(value, "error"))
            (void)aimwise::ChatWire::errorObjectText(*error);
        (void)accumulator.ingest(value);
    });
    for (size_t at = 0; at < stream.size(); at += piece) lines.feed(stream.substr(at, piece));
    lines.finish();
    (void)accumulator.finish();
    return 0;
}
