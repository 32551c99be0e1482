#include <map>
#include <stdexcept>
#include <string>
#include <tuple>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "values/wire_values.hpp"

namespace {

using nlohmann::json;
using testing::StrEq;
using testing::ThrowsMessage;
using zelvo::tavrin::bt_ctrl;
using zelvo::tavrin::impl::wire_values;
using type = bt_ctrl::addr_type;

json::object_t object(char const* text) {
    return json::parse(text).get<json::object_t>();
}

auto const missing_key = ThrowsMessage<std::out_of_range>(StrEq("map::at"));

auto type_error(char const* text) {
    return ThrowsMessage<json::type_error>(
        StrEq(std::string("[json.exception.type_error.302] type must be ") + text));
}

TEST(WireValues, AddressesNeedBothStringsAndUnknownOnesAreEmpty) {
    bt_ctrl::address const known(type::random_address,
                                 zelvo::tavrin::utils::mac_address("c0ffee123456"));
    EXPECT_EQ(wire_values::to_json(known),
              json::parse(R"({"type": "random", "mac": "C0:FF:EE:12:34:56"})"));
    EXPECT_EQ(wire_values::to_json(bt_ctrl::address(type::unknown, known.mac)), json::object());

    std::tuple<char const*, type, char const*> const cases[] = {
        {R"({"type": "RANDOM", "mac": "aa:bb:cc:dd:ee:ff"})", type::random_address,
         "AA:BB:CC:DD:EE:FF"},
        {R"({"type": "bogus", "mac": "aabbccddeeff"})", type::unknown, "AA:BB:CC:DD:EE:FF"},
        {R"({"mac": "aa:bb:cc:dd:ee:ff"})", type::unknown, "00:00:00:00:00:00"},
        {R"({"type": "public", "mac": 5})", type::unknown, "00:00:00:00:00:00"},
    };
    for (auto const& [text, t, mac] : cases) {
        auto const a = wire_values::to_address(object(text));
        EXPECT_EQ(a.type, t) << text;
        EXPECT_EQ(a.mac.to_string(':', true), mac) << text;
    }
    EXPECT_THAT([] { wire_values::to_address(object(R"({"type": "public", "mac": "aa:bb"})")); },
                ThrowsMessage<std::runtime_error>(StrEq("invalid length of mac address: aa:bb")));
}

TEST(WireValues, ListsKeepKnownWordsOnce) {
    EXPECT_EQ(wire_values::to_address_types(json::parse(R"(["random", "PUBLIC", "public",
                                                            "unknown", "bogus"])")),
              (std::set{type::public_address, type::random_address}));
    EXPECT_EQ(wire_values::to_phys(json::parse(R"(["1m", "M2", "m1", "unknown", "", "coded"])")),
              (std::set{bt_ctrl::phy::coded, bt_ctrl::phy::m1, bt_ctrl::phy::m2}));
    EXPECT_THAT([] { wire_values::to_phys(json::parse(R"(["1m", 2])")); },
                type_error("string, but is number"));
    EXPECT_THAT([] { wire_values::to_address_types(json::parse(R"([1])")); },
                type_error("string, but is number"));
}

TEST(WireValues, NumbersComeFromNamedKeysThatMustAllBeThere) {
    EXPECT_EQ(wire_values::to_conn_params(object(
                  R"({"timeout": 400, "latency": 2, "intervalMax": 24, "intervalMin": 12})")),
              std::make_tuple(12, 24, 2, 400));
    EXPECT_THAT(
        [] { wire_values::to_conn_params(object(R"({"intervalMin": 12, "intervalMax": 24})")); },
        missing_key);
    EXPECT_THAT(
        [] {
            wire_values::to_conn_params(object(
                R"({"intervalMin": 12, "intervalMax": 24, "latency": "2", "timeout": 400})"));
        },
        type_error("number, but is string"));

    auto const reading = wire_values::to_signal(object(R"({"quality": 200, "strength": -70.9})"));
    EXPECT_EQ(std::make_tuple(reading.quality, reading.strength), std::make_tuple(200, -70));
    // A fraction is cut off; a value the field can't hold is refused, not wrapped.
    for (auto const* const text :
         {R"({"quality": 256.0, "strength": 0})", R"({"quality": 1, "strength": -1e10})",
          R"({"quality": -1.0, "strength": 0})"}) {
        EXPECT_THROW(wire_values::to_signal(object(text)), std::runtime_error) << text;
    }
    EXPECT_THAT([] { wire_values::to_signal(object(R"({"quality": 200})")); }, missing_key);

    using kind = bt_ctrl::reservation::type;
    EXPECT_EQ(wire_values::to_reservation_cnt(object(R"({"connection": 3, "advertiser": 1})")),
              (std::map<kind, unsigned int>{{kind::connection, 3}, {kind::advertiser, 1}}));
    EXPECT_THAT([] { wire_values::to_reservation_cnt(object(R"({"connection": 3})")); },
                missing_key);
}

TEST(WireValues, QueuesByHandle) {
    // "3" precedes "65539" in key order; both cut to handle 3, and the first stays.
    auto const queue =
        object(R"({"65539": {"piq": 9}, "3": {"piq": 7}, "12": {"piq": 1}, "-1": {"piq": 2}})");
    std::map<unsigned short, unsigned int> const expected = {{3, 7}, {12, 1}, {65535, 2}};
    EXPECT_EQ(wire_values::to_conn_queue(queue), expected);
    EXPECT_EQ(wire_values::to_adv_queue(queue), expected);
    EXPECT_THAT([] { wire_values::to_conn_queue(object(R"({"x": {"piq": 1}})")); },
                ThrowsMessage<std::invalid_argument>(StrEq("stoi")));
    EXPECT_THAT([] { wire_values::to_adv_queue(object(R"({"1": {"pos": 1}})")); }, missing_key);
}

}  // namespace
