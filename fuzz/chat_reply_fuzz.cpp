// Arbitrary bytes as a chat-completions reply body: a reply or a typed error, never a crash.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "AimwiseCore/models/chat_wire.h"
#include "AimwiseCore/models/model_backend_error.h"
#include "AimwiseCore/models/openrouter_request.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view body(reinterpret_cast<const char*>(data), size);
    try {
        aimwise::ChatResponse response = aimwise::ChatWire::parseResponse(body);
        (void)aimwise::ChatWire::serializeArguments(response.toolCalls.empty() ? aimwise::JSONValue()
                                                                                : response.toolCalls[0].arguments);
    } catch (const aimwise::ModelBackendError&) {
    }
    const aimwise::ChatJSON root = aimwise::ChatWire::parseBounded(body);
    if (const aimwise::ChatJSON* error = aimwise::ChatWire::member(root, "error")) {
        (void)aimwise::OpenRouterRequest::errorCode(*error);
        (void)aimwise::ChatWire::errorObjectText(*error);
    }
    return 0;
}
