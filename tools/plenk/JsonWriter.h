#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace plenk::cli {

// JSON text pieces for the tool's one-object-per-line output.
std::string jsonString(std::string_view text);  // quoted and escaped
// Shortest text that reads back as the same float ("1234.5", "-1"); null for
// infinities and NaN, which JSON cannot carry.
std::string jsonNumber(float value);
std::string jsonNumber(double value);
std::string jsonArray(const std::vector<std::string>& rawItems);

// Builds one JSON object; fields keep the order in which they are added.
class JsonObject {
public:
    JsonObject& string(std::string_view key, std::string_view value);
    JsonObject& number(std::string_view key, float value);
    JsonObject& number(std::string_view key, double value);
    JsonObject& integer(std::string_view key, std::int64_t value);
    JsonObject& unsignedInteger(std::string_view key, std::uint64_t value);
    JsonObject& boolean(std::string_view key, bool value);
    JsonObject& null(std::string_view key);
    // `json` must already be valid JSON text (an array, a nested object...).
    JsonObject& raw(std::string_view key, std::string_view json);

    // The object as one line, without a line feed.
    std::string str() const;

private:
    void key(std::string_view name);

    std::string body_;
};

}  // namespace plenk::cli
