#include "AimwiseCore/privacy/identifier_normalization.h"

#include <algorithm>
#include <array>

#include "CaptureShared/common/icu_library.h"

namespace aimwise {

namespace {

enum class ScalarKind { token, format, other };

// What a scalar is to the disguise folds, beside its kind.
enum class Role : uint8_t {
    digit,
    letter,
    // One of the separators the detectors' own patterns accept between digit groups.
    detectorSeparator,
    // Any other space, line break, dash, dot, comma or connector.
    separator,
    format,
    mark,
    other,
};

struct Scalar {
    int32_t originalStart;
    int32_t originalEnd;
    UChar32 folded;
    ScalarKind kind;
    Role role;
};

// Dots, commas and slashes of other scripts and typography that screen text puts between digit groups.
constexpr std::array<char16_t, 27> punctuationSeparators = {
    0x00B7, 0x0387, 0x055D, 0x060C, 0x066B, 0x066C, 0x16EB, 0x201A, 0x2022, 0x2024, 0x2025, 0x2026, 0x2027, 0x2044,
    0x2215, 0x2219, 0x22C5, 0x2981, 0x2E31, 0x2E41, 0x3001, 0x3002, 0x30FB, 0xFE50, 0xFE51, 0xFE52, 0xFF61};

bool isASCIIWordish(UChar32 c) {
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '-' || c == '_';
}

constexpr std::array<Role, 128> asciiRoles = [] {
    std::array<Role, 128> roles{};
    roles.fill(Role::other);
    for (char c = '0'; c <= '9'; ++c) roles[size_t(c)] = Role::digit;
    for (char c = 'A'; c <= 'Z'; ++c) roles[size_t(c)] = roles[size_t(c + 32)] = Role::letter;
    for (char c : {' ', '\t', '\r', '\n', '.', '/', '-'}) roles[size_t(c)] = Role::detectorSeparator;
    for (char c : {',', '_', '\v', '\f'}) roles[size_t(c)] = Role::separator;
    return roles;
}();

Role asciiRole(UChar32 c) { return asciiRoles[size_t(c)]; }

bool isMark(int8_t category) {
    return category == U_NON_SPACING_MARK || category == U_COMBINING_SPACING_MARK || category == U_ENCLOSING_MARK;
}

Role otherRole(UChar32 c, int8_t category) {
    if (isMark(category)) return Role::mark;
    if (ICU::get().u_hasBinaryProperty(c, UCHAR_ALPHABETIC)) return Role::letter;
    if (ICU::get().u_isUWhiteSpace(c) || category == U_LINE_SEPARATOR || category == U_PARAGRAPH_SEPARATOR ||
        category == U_CONNECTOR_PUNCTUATION || ICU::get().u_hasBinaryProperty(c, UCHAR_DASH) ||
        (c <= 0xFFFF && std::binary_search(punctuationSeparators.begin(), punctuationSeparators.end(), char16_t(c))))
        return Role::separator;
    return Role::other;
}

Scalar classify(UChar32 c, int32_t start, int32_t end) {
    if (c < 0x80) return {start, end, c, isASCIIWordish(c) ? ScalarKind::token : ScalarKind::other, asciiRole(c)};
    UChar32 folded = (c >= 0xFF01 && c <= 0xFF5E) ? c - 0xFEE0 : c;
    int32_t numericType = ICU::get().u_getIntPropertyValue(folded, UCHAR_NUMERIC_TYPE);
    if (numericType == U_NT_DECIMAL || numericType == U_NT_DIGIT) {
        double value = ICU::get().u_getNumericValue(folded);
        if (value >= 0 && value <= 9 && value == double(int(value)))
            return {start, end, UChar32('0' + int(value)), ScalarKind::token, Role::digit};
    }
    if (folded < 0x80) {
        bool token = (folded >= 'A' && folded <= 'Z') || (folded >= 'a' && folded <= 'z') || folded == '-' ||
                     folded == '_';
        return {start, end, folded, token ? ScalarKind::token : ScalarKind::other, asciiRole(folded)};
    }
    int8_t category = ICU::get().u_charType(folded);
    if (category == U_DASH_PUNCTUATION || folded == 0x2212)
        return {start, end, '-', ScalarKind::token, Role::detectorSeparator};
    if (category == U_SPACE_SEPARATOR) return {start, end, ' ', ScalarKind::other, Role::detectorSeparator};
    if (category == U_FORMAT_CHAR) return {start, end, folded, ScalarKind::format, Role::format};
    ScalarKind kind = ICU::get().u_hasBinaryProperty(folded, UCHAR_ALPHABETIC) ? ScalarKind::token : ScalarKind::other;
    return {start, end, folded, kind, otherRole(folded, category)};
}

bool isAlphanumeric(Role role) { return role == Role::digit || role == Role::letter; }
bool isSeparatorish(Role role) {
    return role == Role::detectorSeparator || role == Role::separator || role == Role::format;
}

Scalar scalarAt(const std::u16string& text, int32_t at) {
    UChar32 c;
    int32_t next = at;
    U16_NEXT(text.data(), next, int32_t(text.size()), c);
    return classify(c, at, next);
}

ScalarKind kindBefore(const std::u16string& text, int32_t at) {
    if (at == 0) return ScalarKind::other;
    int32_t previous = at;
    U16_BACK_1(text.data(), 0, previous);
    return scalarAt(text, previous).kind;
}

ScalarKind kindAt(const std::u16string& text, int32_t at) {
    return at < int32_t(text.size()) ? scalarAt(text, at).kind : ScalarKind::other;
}

// Longer runs are layout (table columns, paragraphs), not a separator inside one number.
constexpr int maxSeparatorRun = 4;

// Whether a disguise form can differ from the plain one: cheap enough to run on every text.
bool mayHoldDisguise(const std::u16string& input) {
    int detectorSeparators = 0;
    for (char16_t unit : input) {
        if (unit >= 0x80) return true;
        Role role = asciiRole(unit);
        if (role == Role::separator) return true;
        detectorSeparators = role == Role::detectorSeparator ? detectorSeparators + 1 : 0;
        if (detectorSeparators > 2) return true;
    }
    return false;
}

class FormBuilder {
public:
    FormBuilder(const std::u16string& input, bool removing, Disguises disguises)
        : input_(input),
          length_(int32_t(input.size())),
          removing_(removing),
          disguises_(disguises),
          text_(input.size(), u'\0'),
          offsets_(input.size() + 1),
          ends_(input.size()) {}

    void run() {
        for (int32_t i = 0; i < length_;) {
            const char16_t unit = input_[size_t(i)];
            // Most of any text is ASCII that neither folds nor separates: copied as it is. So are one or two
            // separators the detectors accept, followed by ASCII that cannot extend the run.
            if (unit < 0x80) {
                const Role role = asciiRole(unit);
                if (!(disguises_ == Disguises::separators && isSeparatorish(role) && isAlphanumeric(last_))) {
                    emitUnit(unit, i, role);
                    ++i;
                    continue;
                }
                int32_t end = i;
                while (end < length_ && end - i < 2 && input_[size_t(end)] < 0x80 &&
                       asciiRole(input_[size_t(end)]) == Role::detectorSeparator)
                    ++end;
                if (end > i && end < length_ && input_[size_t(end)] < 0x80 && !isSeparatorish(asciiRole(input_[size_t(end)]))) {
                    for (; i < end; ++i) emitUnit(input_[size_t(i)], i, Role::detectorSeparator);
                    continue;
                }
            }
            Scalar scalar = scalarAt(input_, i);
            const bool markAfterDigit = scalar.role == Role::mark && last_ == Role::digit;
            // In the removed form a combining mark is a decoration of its digit; in the plain one it may
            // stand between two digit groups.
            if (disguises_ == Disguises::separators && removing_ && markAfterDigit) {
                markFold(true);
                markJoin();
                i = scalar.originalEnd;
                continue;
            }
            if (disguises_ == Disguises::separators && isAlphanumeric(last_) &&
                (isSeparatorish(scalar.role) || markAfterDigit))
                if (int32_t end = foldRun(scalar); end >= 0) {
                    i = end;
                    continue;
                }
            if (scalar.kind == ScalarKind::format) {
                i = formatRun(scalar);
                continue;
            }
            emit(scalar);
            i = scalar.originalEnd;
        }
        text_.resize(out_);
        ends_.resize(out_);
        offsets_.resize(out_ + 1);
        offsets_[out_] = length_;
    }

private:
    void emit(const Scalar& scalar) {
        const UChar32 c = scalar.folded;
        const size_t start = size_t(scalar.originalStart), span = size_t(scalar.originalEnd - scalar.originalStart);
        const bool same = U_IS_BMP(c) ? span == 1 && input_[start] == c
                                      : span == 2 && input_[start] == U16_LEAD(c) && input_[start + 1] == U16_TRAIL(c);
        changed_ = changed_ || !same;
        if (U_IS_BMP(c)) {
            text_[out_] = char16_t(c);
            offsets_[out_] = scalar.originalStart;
            ends_[out_] = scalar.originalEnd;
            ++out_;
        } else {
            text_[out_] = U16_LEAD(c);
            text_[out_ + 1] = U16_TRAIL(c);
            offsets_[out_] = scalar.originalStart;
            offsets_[out_ + 1] = scalar.originalStart + 1;
            ends_[out_] = ends_[out_ + 1] = scalar.originalEnd;
            out_ += 2;
        }
        last_ = scalar.role;
    }

    void emitUnit(char16_t unit, int32_t at, Role role) {
        text_[out_] = unit;
        offsets_[out_] = at;
        ends_[out_] = at + 1;
        ++out_;
        last_ = role;
    }

    void markJoin() {
        if (joins_.empty() || joins_.back() != int32_t(out_)) joins_.push_back(int32_t(out_));
    }

    void markFold(bool disguiseOnly) {
        changed_ = true;
        if (foldEnds_.empty() || foldEnds_.back() != int32_t(out_)) foldEnds_.push_back(int32_t(out_));
        disguised_ = disguised_ || disguiseOnly;
    }

    // What stands beside a run of format scalars. Only a blank, a label's punctuation or the end of the
    // text can lose an invisible neighbour without any detector's bounds changing.
    enum class Side { token, neutral, other };
    Side side(const Scalar& scalar) const {
        if (scalar.kind == ScalarKind::token) return Side::token;
        const UChar32 c = scalar.folded;
        return c == ':' || c == '#' || c == '=' || ICU::get().u_isUWhiteSpace(c) ? Side::neutral : Side::other;
    }
    Side sideBefore(int32_t at) const {
        if (at == 0) return Side::neutral;
        int32_t previous = at;
        U16_BACK_1(input_.data(), 0, previous);
        return side(scalarAt(input_, previous));
    }
    Side sideAt(int32_t at) const { return at < length_ ? side(scalarAt(input_, at)) : Side::neutral; }

    // A run of format scalars outside a digit group; answers where it ends. The removed form deletes one
    // exactly when a token stands directly on both sides of it. The disguise forms also drop a run that
    // joins no two tokens and stands beside a blank or a label's punctuation, as in "password\u200B:".
    int32_t formatRun(const Scalar& first) {
        int32_t end = first.originalStart;
        while (end < length_ && scalarAt(input_, end).kind == ScalarKind::format) end = scalarAt(input_, end).originalEnd;
        const Side before = sideBefore(first.originalStart), after = sideAt(end);
        if (disguises_ != Disguises::none && (before != Side::token || after != Side::token) &&
            before != Side::other && after != Side::other) {
            markFold(true);
            // Read against the plain form, as credentials are, dropping it is a difference of its own.
            if (disguises_ == Disguises::invisible) markJoin();
            return end;
        }
        for (int32_t at = first.originalStart; at < end;) {
            Scalar scalar = scalarAt(input_, at);
            at = scalar.originalEnd;
            if (removing_ && kindBefore(input_, scalar.originalStart) == ScalarKind::token &&
                kindAt(input_, at) == ScalarKind::token) {
                markFold(false);
                markJoin();
            } else {
                emit(scalar);
            }
        }
        return end;
    }

    // Folds the run that starts with `first` when it stands between two letters or digits; answers where the
    // run ends, or -1 when it is no such run.
    int32_t foldRun(const Scalar& first) {
        const bool afterDigit = last_ == Role::digit;
        int count = 0;
        bool onlyDetectorSeparators = true, onlyInvisible = true;
        int32_t at = first.originalStart;
        while (at < length_ && count <= maxSeparatorRun) {
            Scalar scalar = scalarAt(input_, at);
            const bool mark = scalar.role == Role::mark && afterDigit;
            if (!isSeparatorish(scalar.role) && !mark) break;
            onlyDetectorSeparators = onlyDetectorSeparators && scalar.role == Role::detectorSeparator;
            onlyInvisible = onlyInvisible && (scalar.role == Role::format || mark);
            ++count;
            at = scalar.originalEnd;
        }
        if (count > maxSeparatorRun || at >= length_) return -1;
        const Role next = scalarAt(input_, at).role;
        if (!isAlphanumeric(next)) return -1;
        if (onlyDetectorSeparators && count <= 2) {
            for (int32_t i = first.originalStart; i < at;) {
                Scalar scalar = scalarAt(input_, i);
                emit(scalar);
                i = scalar.originalEnd;
            }
        } else {
            // As in the detectors' own removed form, one invisible character joins; more read as a separator.
            const bool joins = onlyInvisible && removing_ && count == 1;
            if (!joins) emit({first.originalStart, at, ' ', ScalarKind::other, Role::detectorSeparator});
            // A single format character between two tokens goes in the removed form as well.
            markFold(!joins || first.kind != ScalarKind::format);
            if (joins) markJoin();
        }
        return at;
    }

    const std::u16string& input_;
    const int32_t length_;
    const bool removing_;
    const Disguises disguises_;

public:
    std::u16string text_;
    std::vector<int32_t> offsets_;
    std::vector<int32_t> ends_;
    std::vector<int32_t> foldEnds_;
    std::vector<int32_t> joins_;
    bool disguised_ = false;
    bool changed_ = false;

private:
    size_t out_ = 0;
    Role last_ = Role::other;
};

}  // namespace

NormalizedIdentifierText NormalizedIdentifierText::build(const std::u16string& input,
                                                          FormatCharacters formatCharacters, Disguises disguises) {
    NormalizedIdentifierText result;
    result.input_ = &input;
    const int32_t length = int32_t(input.size());

    // ASCII never folds, so only the other scalars decide whether a copy is needed at all; nearly all
    // screen text is ASCII, where this is one pass and no copy.
    bool anyChanged = false;
    Role previous = Role::other;
    for (int32_t i = 0; i < length;) {
        if (input[size_t(i)] < 0x80) {
            ++i;
            continue;
        }
        if (i > 0 && input[size_t(i - 1)] < 0x80) previous = asciiRole(input[size_t(i - 1)]);
        Scalar scalar = scalarAt(input, i);
        UChar32 c;
        U16_GET(input.data(), 0, i, length, c);
        if (scalar.folded != c) anyChanged = true;
        if (scalar.kind == ScalarKind::format) result.containsFormatCharacters_ = true;
        // Marks after a mark after a digit count too.
        if (scalar.role == Role::mark && previous == Role::digit) {
            result.containsMarksAfterDigits_ = true;
        } else {
            previous = scalar.role;
        }
        i = scalar.originalEnd;
    }
    const bool removing = formatCharacters == FormatCharacters::removed &&
                          (result.containsFormatCharacters_ ||
                           (disguises == Disguises::separators && result.containsMarksAfterDigits_));
    const bool disguising = disguises != Disguises::none && mayHoldDisguise(input);
    if (!anyChanged && !removing && !disguising) return result;

    FormBuilder builder(input, removing, disguises);
    builder.run();
    if (!builder.changed_) return result;
    result.changed_ = std::move(builder.text_);
    result.originalUTF16Offset_ = std::move(builder.offsets_);
    result.originalUTF16End_ = std::move(builder.ends_);
    result.foldEnds_ = std::move(builder.foldEnds_);
    result.joins_ = std::move(builder.joins_);
    result.disguised_ = builder.disguised_;
    return result;
}

std::pair<int32_t, int32_t> NormalizedIdentifierText::originalRange(int32_t start, int32_t end) const {
    if (!originalUTF16Offset_) return {start, end};
    const auto& offsets = *originalUTF16Offset_;
    int32_t originalStart = offsets[size_t(start)];
    int32_t originalEnd = end > start ? originalUTF16End_[size_t(end - 1)] : originalStart;
    return {originalStart, originalEnd};
}

std::pair<int32_t, int32_t> NormalizedIdentifierText::blankOut(int32_t originalStart, int32_t originalEnd,
                                                                std::u16string_view filler) {
    if (!changed_) return {originalStart, originalEnd};
    const auto& offsets = *originalUTF16Offset_;
    const int32_t start = int32_t(std::lower_bound(offsets.begin(), offsets.end() - 1, originalStart) - offsets.begin());
    int32_t end = start;
    while (end < int32_t(changed_->size()) && offsets[size_t(end)] < originalEnd) ++end;
    for (int32_t i = start; i < end; ++i)
        (*changed_)[size_t(i)] = i == start ? filler.front() : i + 1 == end ? filler.back() : filler[1];
    return {start, end};
}

FormNeighbourhood formNeighbourhood(const std::u16string& input, int32_t originalOffset,
                                    FormatCharacters formatCharacters) {
    const int32_t length = int32_t(input.size());
    // The removed form deletes a format scalar with a token directly on both sides.
    auto deleted = [&](const Scalar& scalar) {
        return formatCharacters == FormatCharacters::removed && scalar.kind == ScalarKind::format &&
               kindBefore(input, scalar.originalStart) == ScalarKind::token &&
               kindAt(input, scalar.originalEnd) == ScalarKind::token;
    };
    std::u16string before;
    for (int32_t at = originalOffset; at > 0 && before.size() < 2;) {
        U16_BACK_1(input.data(), 0, at);
        Scalar scalar = scalarAt(input, at);
        if (deleted(scalar)) continue;
        before.insert(0, unicode::units(scalar.folded));
    }
    FormNeighbourhood around{before, int32_t(before.size())};
    for (int32_t at = originalOffset, taken = 0; at < length && taken < 3;) {
        Scalar scalar = scalarAt(input, at);
        at = scalar.originalEnd;
        if (deleted(scalar)) continue;
        around.text.append(unicode::units(scalar.folded));
        ++taken;
    }
    return around;
}

}  // namespace aimwise
