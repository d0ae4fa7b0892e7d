#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "HexText.h"
#include "JsonWriter.h"

using namespace plenk::cli;

TEST(CliHexText, AcceptsEverySeparatorAndCase) {
    struct Case {
        const char* text;
        std::vector<std::uint8_t> bytes;
    };
    for (const Case& c :
         {Case{"0a31", {0x0A, 0x31}}, Case{"0A 31", {0x0A, 0x31}}, Case{"0a:31", {0x0A, 0x31}},
          Case{" 00 39:30\t00 FF ", {0x00, 0x39, 0x30, 0x00, 0xFF}}, Case{"0x0a31", {0x0A, 0x31}},
          Case{"0X0a 0x31:00", {0x0A, 0x31, 0x00}}, Case{"", {}}}) {
        const auto result = parseHexText(c.text);
        EXPECT_TRUE(result.ok()) << c.text << ": " << result.error;
        EXPECT_EQ(result.bytes, c.bytes) << c.text;
    }
}

TEST(CliHexText, RejectsOddRunsAndForeignCharactersWithOneLine) {
    for (const char* bad :
         {"0", "abc", "0 39", "zz", "0x", "0x 0a", "0x0x0a", "0x0", "0a0x31", "0a-31", "\xC3\xA9"}) {
        const auto result = parseHexText(bad);
        EXPECT_FALSE(result.ok()) << bad;
        EXPECT_EQ(result.error.find('\n'), std::string::npos) << bad;
    }
    EXPECT_EQ(formatHex(std::vector<std::uint8_t>{0x0A, 0x31, 0xFF}), "0a 31 ff");
}

TEST(CliJson, FloatsRoundTripExactlyAndNonFiniteIsNull) {
    for (float value : {1234.5f, -1.0f, 0.1f, 123.4f, 8388607.0f, 1e-38f, -0.0f}) {
        const std::string text = jsonNumber(value);
        EXPECT_EQ(std::strtof(text.c_str(), nullptr), value) << text;
    }
    EXPECT_EQ(jsonNumber(1234.5f), "1234.5");
    EXPECT_EQ(jsonNumber(-1.0f), "-1");
    EXPECT_EQ(jsonNumber(std::numeric_limits<float>::quiet_NaN()), "null");
    EXPECT_EQ(jsonNumber(std::numeric_limits<float>::infinity()), "null");
}

TEST(CliJson, StringsAreEscapedAndObjectsKeepFieldOrder) {
    EXPECT_EQ(jsonString("a\"b\\c\n\x01"), "\"a\\\"b\\\\c\\n\\u0001\"");
    // Well-formed UTF-8 passes through; each byte that starts no well-formed
    // sequence (overlong, surrogate, above U+10FFFF, truncated) becomes U+FFFD.
    const std::vector<std::pair<std::string, std::string>> utf8 = {
        {"\xFF", "\\ufffd"},
        {"\xC3\xA9\xF0\x9F\x98\x80", "\xC3\xA9\xF0\x9F\x98\x80"},
        {"\xC0\x80", "\\ufffd\\ufffd"},
        {"\xED\xA0\x80", "\\ufffd\\ufffd\\ufffd"},
        {"\xF4\x90\x80\x80", "\\ufffd\\ufffd\\ufffd\\ufffd"},
        {"a\xE2\x82", "a\\ufffd\\ufffd"},
    };
    for (const auto& [text, escaped] : utf8) EXPECT_EQ(jsonString(text), "\"" + escaped + "\"");
    EXPECT_EQ(
        JsonObject().string("event", "weight").number("value", 12.5f).null("x").boolean("b", true).str(),
        "{\"event\":\"weight\",\"value\":12.5,\"x\":null,\"b\":true}");
}
