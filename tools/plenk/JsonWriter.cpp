#include "JsonWriter.h"

#include <charconv>
#include <cmath>
#include <cstdio>

namespace plenk::cli {

namespace {

template <typename T>
std::string shortestNumber(T value) {
    if (!std::isfinite(value)) return "null";
    char buffer[64];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    return std::string(buffer, result.ptr);
}

// Length of the well-formed UTF-8 sequence at the start of `text` (up to 4
// bytes; no overlong forms, surrogates or code points above U+10FFFF), or 0.
std::size_t utf8SequenceLength(std::string_view text) {
    const auto byte = [&](std::size_t i) {
        return i < text.size() ? static_cast<unsigned char>(text[i]) : 0u;
    };
    const unsigned lead = byte(0);
    std::size_t length = 0;
    unsigned lo = 0x80, hi = 0xBF;  // allowed range of the first continuation byte
    if (lead < 0x80) return text.empty() ? 0 : 1;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        if (lead == 0xE0) lo = 0xA0;
        if (lead == 0xED) hi = 0x9F;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        if (lead == 0xF0) lo = 0x90;
        if (lead == 0xF4) hi = 0x8F;
    } else {
        return 0;
    }
    if (byte(1) < lo || byte(1) > hi) return 0;
    for (std::size_t i = 2; i < length; ++i) {
        if ((byte(i) & 0xC0) != 0x80) return 0;
    }
    return length;
}

}  // namespace

// Bytes that are not UTF-8 (device names can hold anything) become U+FFFD, so
// the line stays valid JSON.
std::string jsonString(std::string_view text) {
    std::string out;
    out.reserve(text.size() + 2);
    out.push_back('"');
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (static_cast<unsigned char>(c) >= 0x80) {
            const std::size_t length = utf8SequenceLength(text.substr(i));
            if (length == 0) {
                out += "\\ufffd";
            } else {
                out.append(text.substr(i, length));
                i += length - 1;
            }
            continue;
        }
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\t':
                out += "\\t";
                break;
            default:
                if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) {
                    char buffer[8];
                    std::snprintf(buffer, sizeof buffer, "\\u%04x", static_cast<unsigned>(c));
                    out += buffer;
                } else {
                    out.push_back(c);
                }
        }
    }
    out.push_back('"');
    return out;
}

std::string jsonNumber(float value) {
    return shortestNumber(value);
}
std::string jsonNumber(double value) {
    return shortestNumber(value);
}

std::string jsonArray(const std::vector<std::string>& rawItems) {
    std::string out = "[";
    for (std::size_t i = 0; i < rawItems.size(); ++i) {
        if (i != 0) out.push_back(',');
        out += rawItems[i];
    }
    out.push_back(']');
    return out;
}

void JsonObject::key(std::string_view name) {
    if (!body_.empty()) body_.push_back(',');
    body_ += jsonString(name);
    body_.push_back(':');
}

JsonObject& JsonObject::string(std::string_view name, std::string_view value) {
    key(name);
    body_ += jsonString(value);
    return *this;
}

JsonObject& JsonObject::number(std::string_view name, float value) {
    key(name);
    body_ += jsonNumber(value);
    return *this;
}

JsonObject& JsonObject::number(std::string_view name, double value) {
    key(name);
    body_ += jsonNumber(value);
    return *this;
}

JsonObject& JsonObject::integer(std::string_view name, std::int64_t value) {
    key(name);
    body_ += std::to_string(value);
    return *this;
}

JsonObject& JsonObject::unsignedInteger(std::string_view name, std::uint64_t value) {
    key(name);
    body_ += std::to_string(value);
    return *this;
}

JsonObject& JsonObject::boolean(std::string_view name, bool value) {
    key(name);
    body_ += value ? "true" : "false";
    return *this;
}

JsonObject& JsonObject::null(std::string_view name) {
    key(name);
    body_ += "null";
    return *this;
}

JsonObject& JsonObject::raw(std::string_view name, std::string_view json) {
    key(name);
    body_ += json;
    return *this;
}

std::string JsonObject::str() const {
    return "{" + body_ + "}";
}

}  // namespace plenk::cli
