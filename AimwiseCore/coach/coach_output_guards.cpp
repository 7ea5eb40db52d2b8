#include "AimwiseCore/coach/coach_output_guards.h"

#include <algorithm>
#include <cctype>
#include <map>
#include <vector>

#include "AimwiseCore/coach/coach_tools.h"
#include "AimwiseCore/coach/synthetic_user_markers.h"
#include "CaptureShared/common/text.h"

namespace aimwise {

namespace {

constexpr std::string_view silence = CoachTools::silenceSentinel;

// The text and a lowercased shadow of the same length, edited together so that every search is
// case-blind and every offset holds in both.
struct Edited {
    std::string text;
    std::string lower;
    bool changed = false;

    explicit Edited(std::string_view input) : text(input), lower(input) {
        std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return std::tolower(c); });
    }
    // A line that held only what was removed goes with it; a removal that took its own newline has
    // already taken its line.
    void erase(size_t begin, size_t end) {
        end = std::min(end, text.size());
        if (begin >= end) return;
        const bool tookNewline = text[end - 1] == '\n';
        text.erase(begin, end - begin);
        lower.erase(begin, end - begin);
        changed = true;
        if (tookNewline) return;
        const size_t lineStart = begin == 0 ? 0 : text.rfind('\n', begin - 1) + 1;
        const size_t lineStop = lineEnd(begin);
        if (text.find_first_not_of(" \t\r", lineStart) < lineStop) return;
        const size_t from = lineStop < text.size() || lineStart == 0 ? lineStart : lineStart - 1;
        const size_t to = lineStop < text.size() ? lineStop + 1 : lineStop;
        text.erase(from, to - from);
        lower.erase(from, to - from);
    }
    size_t find(std::string_view what, size_t from = 0) const { return lower.find(what, from); }
    size_t lineEnd(size_t from) const {
        const size_t end = text.find('\n', from);
        return end == std::string::npos ? text.size() : end;
    }
};

bool isIdentifierChar(char c) { return std::isalnum(static_cast<unsigned char>(c)) || c == '_'; }

// Blocks whose whole content is for the machine; an opener without its closer runs to the end.
constexpr std::pair<std::string_view, std::string_view> machineBlocks[] = {
    {"<tool_call>", "</tool_call>"},
    {"<tool_calls>", "</tool_calls>"},
    {"<function_call>", "</function_call>"},
    {"<function_calls>", "</function_calls>"},
    {"<function=", "</function>"},
    {"<tool_code>", "</tool_code>"},
    {"<tool_response>", "</tool_response>"},
    {"<think>", "</think>"},
    {"<thinking>", "</thinking>"},
    {"<|tool_call_start|>", "<|tool_call_end|>"},
    {"<|tool_calls_section_begin|>", "<|tool_calls_section_end|>"},
    {"<|start_header_id|>", "<|end_header_id|>"},
};

void removeMachineBlocks(Edited& e) {
    for (const auto& [open, close] : machineBlocks) {
        for (size_t at = e.find(open); at != std::string::npos; at = e.find(open, at)) {
            const size_t closeAt = e.find(close, at + open.size());
            e.erase(at, closeAt == std::string::npos ? e.text.size() : closeAt + close.size());
        }
        for (size_t at = e.find(close); at != std::string::npos; at = e.find(close, at)) e.erase(at, at + close.size());
    }
    // Markers that introduce a call written out to the end of their line.
    for (const std::string_view lead : {std::string_view("[tool_calls]"), std::string_view("<|python_tag|>")})
        for (size_t at = e.find(lead); at != std::string::npos; at = e.find(lead, at)) e.erase(at, e.lineEnd(at));
}

// "<|im_start|>assistant", "<|eot_id|>", "<start_of_turn>model", "</s>": a chat template's own tokens,
// with the role word that follows an opening one.
void removeTemplateTokens(Edited& e) {
    const auto dropRoleAfter = [&](size_t at) {
        if (at >= e.text.size()) return;
        for (const std::string_view role : {"assistant", "user", "system", "tool", "model"}) {
            if (e.lower.compare(at, role.size(), role) == 0 &&
                (at + role.size() == e.text.size() || !isIdentifierChar(e.text[at + role.size()]))) {
                size_t end = at + role.size();
                if (end < e.text.size() && e.text[end] == '\n') ++end;
                e.erase(at, end);
                return;
            }
        }
    };
    for (size_t at = e.find("<|"); at != std::string::npos; at = e.find("<|", at)) {
        size_t end = at + 2;
        while (end < e.text.size() && end - at < 48 && (isIdentifierChar(e.text[end]) || e.text[end] == ' ')) ++end;
        if (end > at + 2 && e.lower.compare(end, 2, "|>") == 0) {
            e.erase(at, end + 2);
            dropRoleAfter(at);
        } else {
            at += 2;
        }
    }
    for (const std::string_view token : {"<start_of_turn>", "<end_of_turn>", "</s>", "<s>"}) {
        for (size_t at = e.find(token); at != std::string::npos; at = e.find(token, at)) {
            e.erase(at, at + token.size());
            if (token == "<start_of_turn>") dropRoleAfter(at);
        }
    }
}

// The conversation's own blocks, written by the model as if someone else had spoken.
void removeConversationBlocks(Edited& e) {
    for (const auto family : SyntheticUserMarkers::allFamilies) {
        const std::string bracket = "[" + std::string(SyntheticUserMarkers::tag(family));
        const std::string bracketClose = "[/" + std::string(SyntheticUserMarkers::tag(family)) + "]";
        const std::string tag = "<" + std::string(SyntheticUserMarkers::legacyTag(family));
        const std::string tagClose = "</" + std::string(SyntheticUserMarkers::legacyTag(family)) + ">";
        for (const auto& [open, close, end] :
             {std::tuple{std::string_view(bracket), std::string_view(bracketClose), ']'},
              std::tuple{std::string_view(tag), std::string_view(tagClose), '>'}}) {
            for (size_t at = e.find(open); at != std::string::npos; at = e.find(open, at)) {
                const size_t after = at + open.size();
                const size_t headEnd = e.text.find(end, after);
                if (after >= e.text.size() || (e.text[after] != ' ' && e.text[after] != end) ||
                    headEnd == std::string::npos || headEnd - after > 40) {
                    at = after;
                    continue;
                }
                const size_t closeAt = e.find(close, headEnd);
                e.erase(at, closeAt == std::string::npos ? headEnd + 1 : closeAt + close.size());
            }
            for (size_t at = e.find(close); at != std::string::npos; at = e.find(close, at))
                e.erase(at, at + close.size());
        }
    }
}

const std::vector<std::string>& callableNames() {
    static const std::vector<std::string> names = [] {
        std::vector<std::string> out(CoachTools::recognizedToolNames().begin(), CoachTools::recognizedToolNames().end());
        out.insert(out.end(), CoachTools::retiredToolNames().begin(), CoachTools::retiredToolNames().end());
        return out;
    }();
    return names;
}

// The end of a bracketed span that opens at `open`, skipping over quoted text; npos when unclosed.
size_t matchingClose(const std::string& text, size_t open, char openChar, char closeChar) {
    int depth = 0;
    bool inString = false;
    for (size_t i = open; i < text.size(); ++i) {
        const char c = text[i];
        if (inString) {
            if (c == '\\') ++i;
            else if (c == '"') inString = false;
            continue;
        }
        if (c == '"') inString = true;
        else if (c == openChar) ++depth;
        else if (c == closeChar && --depth == 0) return i;
    }
    return std::string::npos;
}

// "write_task(notes=...)", "functions.open_ui({...})": a call written as code.
void removeCodeCalls(Edited& e) {
    for (const std::string& name : callableNames()) {
        for (size_t at = e.find(name); at != std::string::npos; at = e.find(name, at)) {
            size_t after = at + name.size();
            if ((at > 0 && isIdentifierChar(e.text[at - 1])) || (after < e.text.size() && isIdentifierChar(e.text[after]))) {
                at = after;
                continue;
            }
            size_t paren = after;
            while (paren < e.text.size() && e.text[paren] == ' ') ++paren;
            if (paren >= e.text.size() || e.text[paren] != '(') {
                at = after;
                continue;
            }
            size_t begin = at;
            if (begin >= 10 && e.lower.compare(begin - 10, 10, "functions.") == 0) begin -= 10;
            const size_t close = matchingClose(e.text, paren, '(', ')');
            e.erase(begin, close == std::string::npos ? e.lineEnd(paren) : close + 1);
            at = begin;
        }
    }
}

bool namesACallableTool(std::string_view object) {
    for (const std::string& name : callableNames())
        if (object.find("\"" + name + "\"") != std::string_view::npos) return true;
    return false;
}

// {"name": "write_task", "arguments": {...}}: a call written as the object a server would send. One
// cut off before its closing brace runs to the end.
void removeCallObjects(Edited& e) {
    for (size_t at = e.text.find('{'); at != std::string::npos; at = e.text.find('{', at)) {
        const size_t close = matchingClose(e.text, at, '{', '}');
        const size_t end = close == std::string::npos ? e.text.size() : close + 1;
        const std::string_view object(e.lower.data() + at, end - at);
        const bool named = object.find("\"name\"") != std::string_view::npos ||
                           object.find("\"function\"") != std::string_view::npos;
        const bool withArguments = object.find("\"arguments\"") != std::string_view::npos ||
                                   object.find("\"parameters\"") != std::string_view::npos;
        if (named && (withArguments || close == std::string::npos) && namesACallableTool(object)) e.erase(at, end);
        else ++at;
    }
}

bool startsWith(std::string_view text, std::string_view prefix) { return text.substr(0, prefix.size()) == prefix; }

// Lines of the prompt echoed back, and the scaffolding a removed call leaves behind.
void removePromptLines(Edited& e, bool scaffoldingToo) {
    static constexpr std::string_view promptLeads[] = {"this turn:", "=== memory", "=== context", "coach context",
                                                       "incoming messages:"};
    size_t start = 0;
    while (start < e.text.size()) {
        const size_t end = e.lineEnd(start);
        const std::string_view line(e.lower.data() + start, end - start);
        const size_t first = line.find_first_not_of(" \t\r");
        const std::string_view trimmed = first == std::string_view::npos ? std::string_view() : line.substr(first);
        bool drop = std::any_of(std::begin(promptLeads), std::end(promptLeads),
                                [&](std::string_view lead) { return startsWith(trimmed, lead); });
        if (!drop && scaffoldingToo && !trimmed.empty())
            drop = trimmed.find_first_not_of("[](),;` \t\r") == std::string_view::npos || trimmed == "```json" ||
                   trimmed == "```json\r";
        if (drop) e.erase(start, end < e.text.size() ? end + 1 : end);
        else start = end + 1;
    }
}

void removeRolePrefix(Edited& e) {
    const size_t first = e.text.find_first_not_of(" \t\r\n");
    if (first != std::string::npos && e.lower.compare(first, 10, "assistant:") == 0) e.erase(first, first + 10);
}

// Blank lines close up, trailing blanks go, and the whole is trimmed.
std::string tidied(const std::string& text) {
    std::vector<std::string> lines;
    size_t start = 0;
    while (start <= text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        std::string line = text.substr(start, end - start);
        while (!line.empty() && (line.back() == ' ' || line.back() == '\t' || line.back() == '\r')) line.pop_back();
        if (!(line.empty() && !lines.empty() && lines.back().empty())) lines.push_back(std::move(line));
        start = end + 1;
    }
    return trimWhitespaceAndNewlines(join(lines, "\n"));
}

bool onePass(std::string& text) {
    Edited e(text);
    removeMachineBlocks(e);
    removeTemplateTokens(e);
    removeConversationBlocks(e);
    removeCodeCalls(e);
    removeCallObjects(e);
    const bool removedCalls = e.changed;
    removePromptLines(e, removedCalls);
    removeRolePrefix(e);
    if (!e.changed) return false;
    std::string next = tidied(e.text);
    const bool changed = next != text;
    text = std::move(next);
    return changed;
}

}  // namespace

ScreenedReply LeakStripMemo::value(std::string_view text) {
    std::lock_guard guard(lock_);
    if (const auto it = entries_.find(text); it != entries_.end()) return it->second;
    ScreenedReply screened;
    screened.stripped = CoachOutputGuards::stripLeakedToolCallSyntaxUncached(text);
    screened.degenerationReason = CoachSanityChecks::degenerationReason(screened.stripped);
    if (entries_.size() > capacity_) entries_.clear();
    entries_.emplace(std::string(text), screened);
    return screened;
}

size_t LeakStripMemo::count() const {
    std::lock_guard guard(lock_);
    return entries_.size();
}

void LeakStripMemo::clear() {
    std::lock_guard guard(lock_);
    entries_.clear();
}

LeakStripMemo& LeakStripMemo::shared() {
    static LeakStripMemo memo;
    return memo;
}

namespace CoachOutputGuards {

std::string stripLeakedToolCallSyntaxUncached(std::string_view text) {
    std::string out(text);
    // Removing one thing can bring two halves of another together; a few passes reach a text that
    // a further pass leaves alone.
    for (int pass = 0; pass < 6 && onePass(out); ++pass) {
    }
    return out;
}

std::string stripLeakedToolCallSyntax(std::string_view text) { return LeakStripMemo::shared().value(text).stripped; }

ScreenedReply screened(std::string_view text) { return LeakStripMemo::shared().value(text); }

std::string withoutSilenceSentinel(std::string_view text) {
    std::string out(text);
    for (size_t at = out.find(silence); at != std::string::npos; at = out.find(silence, at)) out.erase(at, silence.size());
    return trimWhitespaceAndNewlines(out);
}

}  // namespace CoachOutputGuards

namespace CoachSanityChecks {

bool showsLeakedStateChangingToolCall(std::string_view text) {
    std::string lower(text);
    std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return std::tolower(c); });
    for (const std::string& name : callableNames()) {
        if (!CoachTools::isStateChanging(name)) continue;
        for (size_t at = lower.find(name); at != std::string::npos; at = lower.find(name, at + 1)) {
            const size_t after = at + name.size();
            if ((at > 0 && isIdentifierChar(lower[at - 1])) || (after < lower.size() && isIdentifierChar(lower[after])))
                continue;
            const size_t next = lower.find_first_not_of(' ', after);
            if (next != std::string::npos && lower[next] == '(') return true;
            // Quoted as a call object's name, or as a template's function header.
            if (at > 0 && lower[at - 1] == '"') {
                const size_t colon = lower.find_last_not_of(" \"", at - 1);
                if (colon != std::string::npos && lower[colon] == ':') {
                    const std::string_view before = std::string_view(lower).substr(0, colon);
                    const size_t key = before.find_last_not_of(' ');
                    if (key != std::string::npos && key >= 5 &&
                        (before.substr(0, key + 1).ends_with("\"name\"") || before.substr(0, key + 1).ends_with("\"function\"")))
                        return true;
                }
            }
            if (at >= 10 && lower.compare(at - 10, 10, "<function=") == 0) return true;
        }
    }
    return false;
}

bool hasAnySpokenContent(const ChatResponse& response) {
    if (!CoachOutputGuards::withoutSilenceSentinel(response.text).empty()) return true;
    for (const ToolCall& call : response.toolCalls) {
        if (call.name != "open_ui" && call.name != "propose_options" && call.name != "do_not_disturb" &&
            call.name != "go_quiet")
            continue;
        const JSONValue* message = call.arguments.member("message");
        if (message && message->stringIfAny() && !trimWhitespaceAndNewlines(*message->stringIfAny()).empty())
            return true;
    }
    return false;
}

namespace {

constexpr size_t longestPattern = 16;
constexpr size_t degenerateSpan = 60;
constexpr size_t longestPhrase = 12;

std::optional<std::string> repeatedPattern(std::string_view text) {
    for (size_t i = 0; i < text.size(); ++i) {
        for (size_t period = 1; period <= longestPattern && i + 2 * period <= text.size(); ++period) {
            const std::string_view unit = text.substr(i, period);
            if (unit.find_first_not_of(" \t\r\n") == std::string_view::npos) continue;
            size_t count = 1;
            while (i + (count + 1) * period <= text.size() && text.substr(i + count * period, period) == unit) ++count;
            if (count >= 4 && count * period >= degenerateSpan) {
                return period == 1 ? "one character repeated " + std::to_string(count) + " times in a row"
                                   : "a " + std::to_string(period) + "-character pattern repeated " +
                                         std::to_string(count) + " times in a row";
            }
        }
    }
    return std::nullopt;
}

std::vector<std::string> normalizedWords(std::string_view text) {
    std::vector<std::string> words;
    std::string current;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte >= 0x80 || std::isalnum(byte) || c == '\'') {
            current += static_cast<char>(std::tolower(byte));
        } else if (std::isspace(byte) && !current.empty()) {
            words.push_back(std::move(current));
            current.clear();
        }
    }
    if (!current.empty()) words.push_back(std::move(current));
    return words;
}

std::optional<std::string> repeatedPhrase(const std::vector<std::string>& words) {
    for (size_t n = 1; n <= longestPhrase; ++n) {
        const size_t needed = n == 1 ? 8 : 4;
        for (size_t i = 0; i + n * needed <= words.size(); ++i) {
            size_t count = 1;
            while (i + (count + 1) * n <= words.size() &&
                   std::equal(words.begin() + i, words.begin() + i + n, words.begin() + i + count * n))
                ++count;
            if (count >= needed)
                return "a " + std::to_string(n) + "-word phrase repeated " + std::to_string(count) + " times in a row";
        }
    }
    return std::nullopt;
}

std::optional<std::string> repeatedSentence(std::string_view text) {
    std::map<std::vector<std::string>, int> seen;
    size_t start = 0;
    while (start < text.size()) {
        const size_t end = text.find_first_of(".!?\n", start);
        const size_t stop = end == std::string_view::npos ? text.size() : end;
        auto words = normalizedWords(text.substr(start, stop - start));
        if (words.size() >= 3 && ++seen[std::move(words)] == 3) return std::string("the same sentence appeared 3 times");
        start = stop + 1;
    }
    return std::nullopt;
}

}  // namespace

std::optional<std::string> degenerationReason(std::string_view text) {
    if (auto reason = repeatedPattern(text)) return reason;
    if (auto reason = repeatedPhrase(normalizedWords(text))) return reason;
    return repeatedSentence(text);
}

}  // namespace CoachSanityChecks

}  // namespace aimwise
