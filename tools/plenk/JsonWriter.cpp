#include "JsonWriter.h"

#include "Utf8Decode.h"

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
            const std::size_t length = decodeUtf8(text.substr(i)).length;
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
