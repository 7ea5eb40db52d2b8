#include "AimwiseCore/events/ordered_json.h"

#include <cstdio>

#include "CaptureShared/common/utf8.h"

namespace aimwise {

namespace {

void appendIndent(std::string& out, int level) { out.append(static_cast<size_t>(level) * 2, ' '); }

void appendHex4(std::string& out, unsigned value) {
    char buffer[8];
    std::snprintf(buffer, sizeof buffer, "\\u%04x", value & 0xFFFF);
    out += buffer;
}

}  // namespace

void appendOrderedJSONString(std::string& out, std::string_view utf8) {
    out += '"';
    for (char32_t scalar : utf8::decode(utf8)) {
        switch (scalar) {
            case '"': out += "\\\""; continue;
            case '\\': out += "\\\\"; continue;
            case '\b': out += "\\b"; continue;
            case '\t': out += "\\t"; continue;
            case '\n': out += "\\n"; continue;
            case '\f': out += "\\f"; continue;
            case '\r': out += "\\r"; continue;
            default: break;
        }
        if (scalar >= 0x20 && scalar <= 0x7E) {
            out += static_cast<char>(scalar);
        } else if (scalar > 0xFFFF) {
            const char32_t v = scalar - 0x10000;
            appendHex4(out, 0xD800 + (v >> 10));
            appendHex4(out, 0xDC00 + (v & 0x3FF));
        } else {
            appendHex4(out, scalar);
        }
    }
    out += '"';
}

void OrderedJSON::renderInto(std::string& out, int indent) const {
    if (std::holds_alternative<Null>(value)) {
        out += "null";
    } else if (const double* number = std::get_if<double>(&value)) {
        char buffer[64];
        std::snprintf(buffer, sizeof buffer, "%.1f", *number);
        out += buffer;
    } else if (const std::string* text = std::get_if<std::string>(&value)) {
        appendOrderedJSONString(out, *text);
    } else if (const Array* items = std::get_if<Array>(&value)) {
        if (items->empty()) {
            out += "[]";
            return;
        }
        out += "[\n";
        for (size_t i = 0; i < items->size(); ++i) {
            if (i) out += ",\n";
            appendIndent(out, indent + 1);
            (*items)[i].renderInto(out, indent + 1);
        }
        out += '\n';
        appendIndent(out, indent);
        out += ']';
    } else if (const Object* members = std::get_if<Object>(&value)) {
        if (members->empty()) {
            out += "{}";
            return;
        }
        out += "{\n";
        for (size_t i = 0; i < members->size(); ++i) {
            if (i) out += ",\n";
            appendIndent(out, indent + 1);
            appendOrderedJSONString(out, (*members)[i].first);
            out += ": ";
            (*members)[i].second.renderInto(out, indent + 1);
        }
        out += '\n';
        appendIndent(out, indent);
        out += '}';
    }
}

std::string OrderedJSON::render(int indent) const {
    std::string out;
    renderInto(out, indent);
    return out;
}

}  // namespace aimwise
