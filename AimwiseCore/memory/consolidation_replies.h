#pragma once
// Reading the model's replies to the nightly pass. A reply may be cut off, wrapped in prose or simply
// wrong; what cannot be read is dropped item by item, never guessed at, and a reply that cannot be
// read at all answers nothing so that the caller degrades in the open.
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "AimwiseCore/events/json_value.h"
#include "AimwiseCore/memory/memory_records.h"
#include "AimwiseCore/models/chat_types.h"

namespace aimwise::ConsolidationReplies {

// From the first "{" to the last "}", inclusive; nothing when either is missing or out of order.
std::optional<std::string_view> objectSpan(std::string_view text);
// Integers and integral numbers of an array, in order; everything else is skipped.
std::vector<int64_t> intArray(const JSONValue* value);

struct ParsedDigest {
    std::string summary;
    std::vector<MemoryFact> facts;
    std::vector<std::string> lessons;
    bool operator==(const ParsedDigest&) const = default;
};
// `tsMsByLine[n - 1]` is the time of line n; a source line outside the period is dropped. A fact
// needs text and a provenance of "asserted" or "inferred".
std::optional<ParsedDigest> parseDigestJSON(std::string_view text, const std::vector<int64_t>& tsMsByLine);

struct ParsedRegeneration {
    std::vector<MemoryThread> threads;
    // The kept candidates, in candidate order: their text is never the model's.
    std::vector<MemoryFact> facts;
    std::vector<std::string> lessons;
    bool operator==(const ParsedRegeneration&) const = default;
};
// Wants `threads`, `keep_fact_indices` and `lessons` as arrays: an object without them would empty the
// memory. An index outside the candidates, or a thread with an unknown status, is ignored.
std::optional<ParsedRegeneration> parseRegenerationJSON(std::string_view text,
                                                        const std::vector<MemoryFact>& candidateFacts);

// Why a reply could not be used, in words.
std::string salvageDetail(const ChatResponse& response);
// Who answered: the fallback's name or the provider, when known.
std::optional<std::string> servedBy(const ChatResponse& response);
// The reply's first and last characters, on one line each, for a log.
std::string head(std::string_view text, size_t characters = 240);
std::string tail(std::string_view text, size_t characters = 240);

}  // namespace aimwise::ConsolidationReplies
