#include "tavrin/misc/strings.hpp"
#include "tavrin/misc/hex.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

namespace zelvo::tavrin::misc {
namespace {

using bytes = std::vector<unsigned char>;
using strings = std::vector<std::string>;
using testing::StrEq;
using testing::ThrowsMessage;

TEST(Strings, CaseMapping) {
    EXPECT_EQ(to_lower("AbC-1z\xC4"), "abc-1z\xC4");
    EXPECT_EQ(to_upper("AbC-1z\xC4"), "ABC-1Z\xC4");
}

TEST(Strings, TrimBothEnds) {
    // Text, characters to trim, result.
    std::tuple<std::string, std::string, std::string> const cases[] = {
        {"  ab  ", " ", "ab"}, {"ab  ", " ", "ab"},
        {"  ab", " ", "ab"},   {"-a-b-", "-", "a-b"},
        {"xxx", "x", ""},      {"", "x", ""},
        {"ab", "", "ab"},      {" \t a b\n", " \t\n", "a b"},
    };
    for (auto const& [text, chars, expected] : cases) {
        EXPECT_EQ(trim(text, chars), expected) << '"' << text << '"';
        std::string in_place = text;
        EXPECT_EQ(&trim(in_place, chars), &in_place);
        EXPECT_EQ(in_place, expected);
    }
}

TEST(Strings, SplitKeepsEmptyFields) {
    std::tuple<std::string, std::string, strings> const cases[] = {
        {"", ",", {}},
        {"a", ",", {"a"}},
        {"a,", ",", {"a", ""}},
        {"a,b", ",", {"a", "b"}},
        {",,", ",", {"", "", ""}},
        {"a::b:c", "::", {"a", "b:c"}},
    };
    for (auto const& [text, delimiter, expected] : cases) {
        EXPECT_EQ(split(text, delimiter), expected) << '"' << text << '"';
    }
}

TEST(Strings, ChunkNeedsAWholeNumberOfPieces) {
    EXPECT_EQ(chunk("abcd", 2), (strings{"ab", "cd"}));
    EXPECT_EQ(chunk("", 0), strings{});
    EXPECT_EQ(chunk("", 3), strings{});
    for (auto size : {2u, 0u, 4u}) {
        EXPECT_THAT([&] { chunk("abc", size); },
                    ThrowsMessage<std::runtime_error>(StrEq("Chunk: Invalid string size")));
    }
}

TEST(Strings, TimestampTruncatesTowardZero) {
    using std::chrono::system_clock;
    auto const at = [](long long nanoseconds) {
        return system_clock::time_point(std::chrono::duration_cast<system_clock::duration>(
            std::chrono::nanoseconds(nanoseconds)));
    };
    EXPECT_EQ(get_timestamp(at(1'700'000'000'123'999'999)), 1'700'000'000'123);
    EXPECT_EQ(get_timestamp(at(-1234567891)), -1234);
}

TEST(Hex, ToHexString) {
    bytes const value{0x01, 0xAB, 0x00, 0xF0};
    EXPECT_EQ(to_hex_string(value, ":", false), "01:ab:00:f0");
    EXPECT_EQ(to_hex_string(value, ":", true), "01:AB:00:F0");
    EXPECT_EQ(to_hex_string(value, " - ", false), "01 - ab - 00 - f0");
    EXPECT_EQ(to_hex_string(bytes{}, ":", false), "");
}

TEST(Hex, FromHexStringAcceptsEitherCaseAndSeparator) {
    std::tuple<std::string, std::string, bytes> const cases[] = {
        {"01:ab", ":", {0x01, 0xAB}},
        {"01AB", "", {0x01, 0xAB}},
        {"ff, 7F", ", ", {0xFF, 0x7F}},
        {"", "", {}},
        {"", ":", {}},
    };
    for (auto const& [text, separator, expected] : cases) {
        EXPECT_EQ(from_hex_string<bytes>(text, separator), expected) << text;
    }
    bytes every_value(256);
    for (unsigned i = 0; i < every_value.size(); ++i) {
        every_value[i] = static_cast<unsigned char>(i);
    }
    EXPECT_EQ(from_hex_string<bytes>(to_hex_string(every_value, "", true), ""), every_value);
    EXPECT_EQ(from_hex_string<bytes>(to_hex_string(every_value, " ", false), " "), every_value);
}

TEST(Hex, FromHexStringRejectsMalformedText) {
    std::tuple<std::string, std::string, std::string> const cases[] = {
        {"abc", "", "Invalid input size"},           {"01:ab:", ":", "Invalid input size"},
        {"zz", "", "Got non-hexadecimal value"},     {"+1ab", "", "Got non-hexadecimal value"},
        {" 1:ab", ":", "Got non-hexadecimal value"}, {"a:bcd", ":", "Type is too short"},
        {"01-ab", ":", "Type is too short"},
    };
    for (auto const& [text, separator, message] : cases) {
        auto const parse = [text = text, separator = separator] {
            from_hex_string<bytes>(text, separator);
        };
        EXPECT_THAT(parse, ThrowsMessage<std::runtime_error>(StrEq("from_hex_string: " + message)))
            << text;
    }
}

}  // namespace
}  // namespace zelvo::tavrin::misc
