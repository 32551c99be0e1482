#include "tavrin/misc/strings.hpp"
#include "tavrin/misc/hex.hpp"

#include <gmock/gmock.h>

#include <chrono>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

namespace zelvo::tavrin::misc {
namespace {

using bytes = std::vector<unsigned char>;
using strings = std::vector<std::string>;

auto throws(std::string const& text) {
    return testing::ThrowsMessage<std::runtime_error>(testing::StrEq(text));
}

TEST(Strings, CaseTrimSplitAndChunk) {
    EXPECT_EQ(to_lower("AbC-1z\xC4"), "abc-1z\xC4");
    EXPECT_EQ(to_upper("AbC-1z\xC4"), "ABC-1Z\xC4");
    // Text, characters to trim, result.
    std::tuple<std::string, std::string, std::string> const trims[] = {
        {"  ab  ", " ", "ab"}, {"ab  ", " ", "ab"}, {"  ab", " ", "ab"},
        {"xxx", "x", ""},      {"", "x", ""},       {" \t a b\n", " \t\n", "a b"}};
    for (auto const& [text, chars, expected] : trims) {
        EXPECT_EQ(trim(text, chars), expected) << '"' << text << '"';
        std::string in_place = text;
        EXPECT_EQ(&trim(in_place, chars), &in_place);
        EXPECT_EQ(in_place, expected);
    }
    std::tuple<std::string, std::string, strings> const splits[] = {{"", ",", {}},
                                                                    {"a,", ",", {"a", ""}},
                                                                    {",,", ",", {"", "", ""}},
                                                                    {"a::b:c", "::", {"a", "b:c"}}};
    for (auto const& [text, delimiter, expected] : splits) {
        EXPECT_EQ(split(text, delimiter), expected) << '"' << text << '"';
    }
    EXPECT_THROW(split("a,b", ""), std::invalid_argument);
    EXPECT_EQ(chunk("abcd", 2), (strings{"ab", "cd"}));
    EXPECT_EQ(chunk("", 0), strings{});
    for (auto size : {2u, 0u, 4u}) {
        EXPECT_THAT([&] { chunk("abc", size); }, throws("Chunk: Invalid string size"));
    }
}

TEST(Strings, TimestampTruncatesTowardZero) {
    using namespace std::chrono;
    auto const at = [](nanoseconds since_epoch) {
        return system_clock::time_point(duration_cast<system_clock::duration>(since_epoch));
    };
    EXPECT_EQ(get_timestamp(at(nanoseconds(1'700'000'000'123'999'999))), 1'700'000'000'123);
    EXPECT_EQ(get_timestamp(at(nanoseconds(-1234567891))), -1234);
}

TEST(Hex, EveryByteRoundTripsAndMalformedTextIsRejected) {
    EXPECT_EQ(to_hex_string(bytes{0x01, 0xAB, 0x00}, " - ", true), "01 - AB - 00");
    EXPECT_EQ(to_hex_string(bytes{0x01, 0xAB, 0x00}, "", false), "01ab00");
    EXPECT_EQ(from_hex_string<bytes>("ff, 7F", ", "), (bytes{0xFF, 0x7F}));
    EXPECT_EQ(from_hex_string<bytes>("", ":"), bytes{});
    // One byte per part: the length fits two, the separators cut three.
    EXPECT_EQ(from_hex_string<bytes>("a::bc", ":"), (bytes{0x0A, 0x00, 0xBC}));
    bytes every_value(256);
    for (unsigned i = 0; i < every_value.size(); ++i) {
        every_value[i] = static_cast<unsigned char>(i);
    }
    EXPECT_EQ(from_hex_string<bytes>(to_hex_string(every_value, "", true), ""), every_value);
    EXPECT_EQ(from_hex_string<bytes>(to_hex_string(every_value, " ", false), " "), every_value);

    std::tuple<std::string, std::string, std::string> const refused[] = {
        {"abc", "", "Invalid input size"},         {"01:ab:", ":", "Invalid input size"},
        {"a::b", ":", "Invalid input size"},       {"zz", "", "Got non-hexadecimal value"},
        {"+1ab", "", "Got non-hexadecimal value"}, {" 1:ab", ":", "Got non-hexadecimal value"},
        {"a:bcd", ":", "Type is too short"}};
    for (auto const& [text, separator, message] : refused) {
        auto const parse = [text = text, separator = separator] {
            from_hex_string<bytes>(text, separator);
        };
        EXPECT_THAT(parse, throws("from_hex_string: " + message)) << text;
    }
}

}  // namespace
}  // namespace zelvo::tavrin::misc
