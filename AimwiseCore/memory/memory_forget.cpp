#include "AimwiseCore/memory/memory_forget.h"

#include <algorithm>
#include <cmath>

#include "AimwiseCore/events/event_log_reader.h"
#include "AimwiseCore/events/jsonl_append.h"
#include "CaptureShared/common/atomic_file.h"
#include "CaptureShared/common/icu_library.h"
#include "CaptureShared/common/utf8.h"

namespace aimwise {

namespace {

// Case-folded, with every run of white space one blank and none at the ends.
std::u16string normalized(std::string_view text) {
    if (!utf8::isValid(text)) return {};
    const std::u16string folded = unicode::foldCase(unicode::toUTF16(text));
    std::u16string out;
    out.reserve(folded.size());
    bool pendingSpace = false;
    for (int32_t i = 0; i < int32_t(folded.size());) {
        const UChar32 c = unicode::char32At(folded, i);
        const int32_t width = U16_LENGTH(c);
        if (ICU::get().u_isUWhiteSpace(c)) {
            pendingSpace = !out.empty();
        } else {
            if (pendingSpace) out.push_back(u' ');
            pendingSpace = false;
            out.append(folded, static_cast<size_t>(i), static_cast<size_t>(width));
        }
        i += width;
    }
    return out;
}

}  // namespace

namespace MemoryForgetLog {

std::filesystem::path defaultURL(const std::filesystem::path& dataRoot) {
    return dataRoot / "memory-forget-requests.jsonl";
}

void request(const MemoryForgetRequest& request, const std::filesystem::path& to) {
    JSONLAppend::append({{"at_ms", request.atMs}, {"text", request.text}}, to);
}

std::vector<MemoryForgetRequest> read(const std::filesystem::path& url) {
    std::string data;
    try {
        data = readWholeFile(url);
    } catch (const std::exception&) {
        return {};
    }
    std::vector<MemoryForgetRequest> requests;
    forEachLine(data, [&](std::string_view line) {
        const auto parsed = JSONValue::tryParse(line);
        if (!parsed) return;
        const JSONValue* at = parsed->member("at_ms");
        const JSONValue* text = parsed->member("text");
        const double* number = at ? at->numberIfAny() : nullptr;
        const std::string* words = text ? text->stringIfAny() : nullptr;
        const auto atMs = number ? wholeMilliseconds(*number) : std::nullopt;
        if (!atMs || !words || normalized(*words).empty()) return;
        requests.push_back({*atMs, *words});
    });
    return requests;
}

}  // namespace MemoryForgetLog

MemoryForgetFilter::MemoryForgetFilter(const std::vector<MemoryForgetRequest>& requests) {
    for (const auto& request : requests)
        if (auto needle = normalized(request.text); !needle.empty()) needles_.push_back(std::move(needle));
}

bool MemoryForgetFilter::mentions(std::string_view text) const {
    if (needles_.empty()) return false;
    const std::u16string haystack = normalized(text);
    return std::any_of(needles_.begin(), needles_.end(), [&](const std::u16string& needle) {
        return haystack.find(needle) != std::u16string::npos;
    });
}

MemoryForgetFilter::Counts MemoryForgetFilter::countIn(const StandingMemory& memory) const {
    Counts counts;
    for (const auto& fact : memory.facts) counts.facts += mentions(fact.text);
    for (const auto& lesson : memory.lessons) counts.lessons += mentions(lesson);
    for (const auto& thread : memory.threads)
        counts.threads += mentions(thread.name) || mentions(thread.notes);
    return counts;
}

StandingMemory MemoryForgetFilter::standingMemory(StandingMemory memory) const {
    if (needles_.empty()) return memory;
    std::erase_if(memory.facts, [&](const MemoryFact& fact) { return mentions(fact.text); });
    std::erase_if(memory.lessons, [&](const std::string& lesson) { return mentions(lesson); });
    std::erase_if(memory.threads, [&](const MemoryThread& thread) {
        return mentions(thread.name) || mentions(thread.notes);
    });
    return memory;
}

std::optional<StandingMemory> MemoryForgetFilter::standingMemory(std::optional<StandingMemory> memory) const {
    if (!memory) return memory;
    return standingMemory(std::move(*memory));
}

std::vector<PeriodDigest> MemoryForgetFilter::digests(std::vector<PeriodDigest> digests) const {
    if (needles_.empty()) return digests;
    for (PeriodDigest& digest : digests) {
        if (mentions(digest.summary)) digest.summary.clear();
        std::erase_if(digest.facts, [&](const MemoryFact& fact) { return mentions(fact.text); });
        std::erase_if(digest.lessons, [&](const std::string& lesson) { return mentions(lesson); });
    }
    return digests;
}

}  // namespace aimwise
