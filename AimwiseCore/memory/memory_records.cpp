#include "AimwiseCore/memory/memory_records.h"

#include <array>
#include <cmath>
#include <utility>

#include "AimwiseCore/events/event_log_event.h"

namespace aimwise {

namespace {

constexpr std::array<std::pair<MemoryFactProvenance, std::string_view>, 2> provenances{
    {{MemoryFactProvenance::asserted, "asserted"}, {MemoryFactProvenance::inferred, "inferred"}}};
constexpr std::array<std::pair<MemoryThreadStatus, std::string_view>, 4> statuses{
    {{MemoryThreadStatus::active, "active"},
     {MemoryThreadStatus::dormant, "dormant"},
     {MemoryThreadStatus::done, "done"},
     {MemoryThreadStatus::dropped, "dropped"}}};

template <typename Enum, size_t N>
std::optional<Enum> fromRaw(const std::array<std::pair<Enum, std::string_view>, N>& table, const JSONValue* value) {
    const std::string* raw = value ? value->stringIfAny() : nullptr;
    if (!raw) return std::nullopt;
    for (const auto& [item, name] : table)
        if (name == *raw) return item;
    return std::nullopt;
}

template <typename Enum, size_t N>
std::string_view toRaw(const std::array<std::pair<Enum, std::string_view>, N>& table, Enum value) {
    for (const auto& [item, name] : table)
        if (item == value) return name;
    return "";
}

JSONValue::Array integers(const std::vector<int64_t>& values) {
    JSONValue::Array out;
    for (const int64_t value : values) out.emplace_back(value);
    return out;
}

JSONValue::Array strings(const std::vector<std::string>& values) {
    return JSONValue::Array(values.begin(), values.end());
}

// Decoding reads fields through a reader that remembers the first missing or mistyped one.
class Fields {
public:
    explicit Fields(const JSONValue* value) : object_(value ? value->objectIfAny() : nullptr), ok_(object_) {}

    bool ok() const { return ok_; }
    const JSONValue* member(const char* key) {
        if (!object_) return nullptr;
        const auto it = object_->find(key);
        return it == object_->end() ? nullptr : &it->second;
    }
    int64_t integer(const char* key) { return need(wholeNumber(member(key))); }
    std::string text(const char* key) { return need(stringOf(member(key))); }
    bool flag(const char* key) {
        const JSONValue* value = member(key);
        const bool* flag = value ? std::get_if<bool>(&value->value) : nullptr;
        return need(flag ? std::optional<bool>(*flag) : std::nullopt);
    }
    // Absent or null gives nothing; a present value of the wrong type fails the record.
    std::optional<int64_t> optionalInteger(const char* key) {
        const JSONValue* value = member(key);
        if (!value || value->isNull()) return std::nullopt;
        auto number = wholeNumber(value);
        if (!number) ok_ = false;
        return number;
    }
    std::optional<std::string> optionalText(const char* key) {
        const JSONValue* value = member(key);
        if (!value || value->isNull()) return std::nullopt;
        auto text = stringOf(value);
        if (!text) ok_ = false;
        return text;
    }
    template <typename Decode>
    auto list(const char* key, Decode&& decode) {
        using Item = typename decltype(decode(nullptr))::value_type;
        std::vector<Item> items;
        const JSONValue* value = member(key);
        const auto* array = value ? std::get_if<JSONValue::Array>(&value->value) : nullptr;
        if (!array) {
            ok_ = false;
            return items;
        }
        for (const JSONValue& element : *array) items.push_back(need(decode(&element)));
        return items;
    }

    static std::optional<int64_t> wholeNumber(const JSONValue* value) {
        const double* number = value ? value->numberIfAny() : nullptr;
        return number ? wholeMilliseconds(*number) : std::nullopt;
    }
    static std::optional<std::string> stringOf(const JSONValue* value) {
        const std::string* text = value ? value->stringIfAny() : nullptr;
        return text ? std::optional<std::string>(*text) : std::nullopt;
    }

private:
    template <typename T>
    T need(std::optional<T> value) {
        if (!value) {
            ok_ = false;
            return T{};
        }
        return std::move(*value);
    }

    const JSONValue::Object* object_;
    bool ok_;
};

std::optional<MemoryFact> decodeFact(const JSONValue* value) {
    Fields fields(value);
    MemoryFact fact;
    fact.text = fields.text("text");
    const auto provenance = fromRaw(provenances, fields.member("provenance"));
    fact.sourceEventTsMs = fields.list("sourceEventTsMs", Fields::wholeNumber);
    if (!fields.ok() || !provenance) return std::nullopt;
    fact.provenance = *provenance;
    return fact;
}

std::optional<MemoryThread> decodeThread(const JSONValue* value) {
    Fields fields(value);
    MemoryThread thread;
    thread.name = fields.text("name");
    const auto status = fromRaw(statuses, fields.member("status"));
    thread.notes = fields.text("notes");
    if (!fields.ok() || !status) return std::nullopt;
    thread.status = *status;
    return thread;
}

std::optional<StandingMemory> decodeMemory(const JSONValue* value) {
    Fields fields(value);
    StandingMemory memory;
    memory.regeneratedAtTsMs = fields.integer("regeneratedAtTsMs");
    memory.digestCount = fields.integer("digestCount");
    memory.threads = fields.list("threads", decodeThread);
    memory.lessons = fields.list("lessons", Fields::stringOf);
    memory.facts = fields.list("facts", decodeFact);
    memory.salvaged = fields.flag("salvaged");
    memory.seed = fields.optionalInteger("seed");
    memory.salvageDetail = fields.optionalText("salvageDetail");
    if (!fields.ok()) return std::nullopt;
    return memory;
}

std::optional<JSONValue> parsed(std::string_view text) { return JSONValue::tryParse(text); }

}  // namespace

std::string_view rawValue(MemoryFactProvenance provenance) { return toRaw(provenances, provenance); }
std::string_view rawValue(MemoryThreadStatus status) { return toRaw(statuses, status); }

namespace MemoryJSON {

JSONValue encode(const MemoryFact& fact) {
    return JSONValue::Object{{"text", fact.text},
                             {"provenance", std::string(rawValue(fact.provenance))},
                             {"sourceEventTsMs", integers(fact.sourceEventTsMs)}};
}

JSONValue encode(const MemoryThread& thread) {
    return JSONValue::Object{
        {"name", thread.name}, {"status", std::string(rawValue(thread.status))}, {"notes", thread.notes}};
}

JSONValue encode(const PeriodDigest& digest) {
    JSONValue::Array facts;
    for (const MemoryFact& fact : digest.facts) facts.push_back(encode(fact));
    return JSONValue::Object{{"periodStartTsMs", digest.periodStartTsMs}, {"periodEndTsMs", digest.periodEndTsMs},
                             {"generatedAtTsMs", digest.generatedAtTsMs}, {"summary", digest.summary},
                             {"facts", std::move(facts)},               {"lessons", strings(digest.lessons)},
                             {"salvaged", digest.salvaged}};
}

JSONValue encode(const StandingMemory& memory) {
    JSONValue::Array threads, facts;
    for (const MemoryThread& thread : memory.threads) threads.push_back(encode(thread));
    for (const MemoryFact& fact : memory.facts) facts.push_back(encode(fact));
    JSONValue::Object object{{"regeneratedAtTsMs", memory.regeneratedAtTsMs}, {"digestCount", memory.digestCount},
                             {"threads", std::move(threads)},                {"lessons", strings(memory.lessons)},
                             {"facts", std::move(facts)},                    {"salvaged", memory.salvaged}};
    if (memory.seed) object["seed"] = *memory.seed;
    if (memory.salvageDetail) object["salvageDetail"] = *memory.salvageDetail;
    return object;
}

JSONValue encode(const SequentialMemoryState& state) {
    return JSONValue::Object{{"standingMemory", encode(state.standingMemory)},
                             {"foldedPeriodStartsTsMs", integers(state.foldedPeriodStartsTsMs)}};
}

std::optional<PeriodDigest> decodeDigest(std::string_view text) {
    const auto value = parsed(text);
    Fields fields(value ? &*value : nullptr);
    PeriodDigest digest;
    digest.periodStartTsMs = fields.integer("periodStartTsMs");
    digest.periodEndTsMs = fields.integer("periodEndTsMs");
    digest.generatedAtTsMs = fields.integer("generatedAtTsMs");
    digest.summary = fields.text("summary");
    digest.facts = fields.list("facts", decodeFact);
    digest.lessons = fields.list("lessons", Fields::stringOf);
    digest.salvaged = fields.flag("salvaged");
    if (!fields.ok()) return std::nullopt;
    return digest;
}

std::optional<StandingMemory> decodeStandingMemory(std::string_view text) {
    const auto value = parsed(text);
    return decodeMemory(value ? &*value : nullptr);
}

std::optional<SequentialMemoryState> decodeSequentialState(std::string_view text) {
    const auto value = parsed(text);
    Fields fields(value ? &*value : nullptr);
    auto memory = decodeMemory(fields.member("standingMemory"));
    SequentialMemoryState state;
    state.foldedPeriodStartsTsMs = fields.list("foldedPeriodStartsTsMs", Fields::wholeNumber);
    if (!fields.ok() || !memory) return std::nullopt;
    state.standingMemory = std::move(*memory);
    return state;
}

}  // namespace MemoryJSON

}  // namespace aimwise
