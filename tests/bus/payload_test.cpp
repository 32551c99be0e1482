#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <stdexcept>

#include "quorl/error.hpp"
#include "quorl/payload.hpp"
#include "stravik/part_payload.hpp"

namespace zelvo {
namespace {

using quorl_utils::error;
using quorl_utils::exchange_error;
using quorl_utils::local_error;

TEST(BusPayload, JsonValueBecomesCompactJsonTextTaggedAsJson) {
    quorl_utils::payload const empty(nlohmann::json::object());
    EXPECT_EQ(empty.get_bytes(), (std::vector<unsigned char>{'{', '}'}));
    EXPECT_EQ(static_cast<int>(empty.get_format()), 2);

    quorl_utils::payload const body(nlohmann::json{{"name", "h\xc3\xa9"}, {"n", 1}});
    std::string const text(body.get_bytes().begin(), body.get_bytes().end());
    EXPECT_EQ(text, "{\"n\":1,\"name\":\"h\xc3\xa9\"}");

    EXPECT_THROW(quorl_utils::payload(nlohmann::json("\xff")), nlohmann::json::type_error);
}

TEST(BusPayload, BytesNeedAFormatOfTheEnumeration) {
    using stravik_part_payload::format;
    quorl_utils::payload const raw({1, 2}, format::raw);
    EXPECT_EQ(raw.get_bytes(), (std::vector<unsigned char>{1, 2}));
    EXPECT_EQ(raw.get_format(), format::raw);
    EXPECT_NO_THROW(quorl_utils::payload({}, format::none));
    EXPECT_THROW(quorl_utils::payload({1}, format::none), std::invalid_argument);
    EXPECT_THROW(quorl_utils::payload({}, static_cast<format>(3)), std::invalid_argument);
}

TEST(BusPayload, FromBytesParsesOneJsonTextStrictly) {
    std::string const text = "{\"a\":[1,2]}";
    auto const value = stravik_part_payload::from_bytes<nlohmann::json>({text.begin(), text.end()});
    EXPECT_EQ(value.at("a").at(1), 2);

    for (std::string bad : {"", "{", "{} {}", "/* c */ {}"}) {
        EXPECT_THROW(stravik_part_payload::from_bytes<nlohmann::json>({bad.begin(), bad.end()}),
                     nlohmann::json::parse_error)
            << bad;
    }
}

TEST(BusPayload, FromBytesRefusesNestingBeyondTheBoundWherePeerBytesBecomeAValue) {
    auto const nested = [](std::size_t levels, std::string const& open, std::string const& close,
                           std::string const& inner) {
        std::string text;
        for (std::size_t i = 0; i < levels; ++i) {
            text += open;
        }
        text += inner;
        for (std::size_t i = 0; i < levels; ++i) {
            text += close;
        }
        return std::vector<unsigned char>(text.begin(), text.end());
    };
    auto const parse = [](std::vector<unsigned char> const& bytes) {
        return stravik_part_payload::from_bytes<nlohmann::json>(bytes);
    };
    unsigned const limit = stravik_part_payload::max_depth;
    EXPECT_NO_THROW(parse(nested(limit, "[", "]", "")));
    EXPECT_NO_THROW(parse(nested(limit, "{\"k\":", "}", "1")));
    // Brackets inside strings are text, escaped quotes included.
    EXPECT_NO_THROW(parse(nested(limit, "[", "]", "\"\\\"[[[[{{{{\"")));
    try {
        parse(nested(limit + 1, "[", "]", ""));
        FAIL() << "one level too deep must be refused";
    } catch (nlohmann::json::parse_error const& failure) {
        EXPECT_EQ(failure.byte, limit + 1);
        EXPECT_NE(std::string(failure.what()).find("nesting deeper than 64 levels"),
                  std::string::npos);
    }
    // What used to exhaust the stack of whoever copied the value.
    EXPECT_THROW(parse(nested(100000, "[", "]", "")), nlohmann::json::parse_error);
    EXPECT_THROW(parse(nested(100000, "{\"a\":", "}", "0")), nlohmann::json::parse_error);
}

TEST(BusError, DefaultErrorIsEmptyAndInTheApplicationSpace) {
    error const none;
    EXPECT_FALSE(none);
    EXPECT_TRUE(none.no_code());
    EXPECT_EQ(none.type(), typeid(quorl_utils::app_error));
    try {
        (void)none.code();
        FAIL() << "code() of an empty error must throw";
    } catch (std::runtime_error const& failure) {
        EXPECT_STREQ(failure.what(), "bad_optional_access");
    }
}

TEST(BusError, ComparesByTypeAndCode) {
    error const aborted(exchange_error::aborted);
    EXPECT_TRUE(aborted);
    EXPECT_EQ(aborted.code(), 1);
    EXPECT_EQ(aborted.text(), "aborted");
    EXPECT_TRUE(aborted == exchange_error::aborted);
    EXPECT_TRUE(aborted != exchange_error::timed_out);
    // Same number, other space.
    EXPECT_FALSE(aborted == local_error::message_too_large);
    EXPECT_FALSE(error() == static_cast<quorl_utils::app_error>(0));

    error const refused(6, typeid(quorl_utils::app_error), "application error");
    EXPECT_TRUE(refused == static_cast<quorl_utils::app_error>(6));
    EXPECT_EQ(refused.type(), error().type());
}

}  // namespace
}  // namespace zelvo
