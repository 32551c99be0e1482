// What can be asked of an advertising set: the JSON forms of data and
// channels both ways, each request's body and reply, the values given on a
// failure, and the data event.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "adv_fixture.hpp"
#include "advertiser/advertiser.hpp"

namespace zelvo::tavrin::testing {
namespace {

using impl_adv = impl::bt_ctrl::advertiser;

TEST(AdvDataForms, DataAndChannelsRoundTripInOrder) {
    adv_data const data{{0xFF, {0xAB, 0x01}}, {0x09, {'x'}}, {0xFF, {}}, {0xFF, {0x02}}};
    auto const object = impl_adv::to_json(data, adv_data());
    EXPECT_EQ(json(object).dump(),
              R"({"primary":[{"type":9,"value":"78"},{"type":255,"value":"AB01"},{"type":255},)"
              R"({"type":255,"value":"02"}],"scanRsp":[]})");
    auto const [primary, scan] = impl::bt_ctrl::to_adv_data(json(object).get<json::object_t>());
    EXPECT_EQ(primary, data);
    ASSERT_TRUE(scan);
    EXPECT_TRUE(scan->empty());
    EXPECT_EQ(json(impl_adv::to_json(adv_data(), std::nullopt)).dump(), "{}");
    // Only arrays count; a scan response that isn't there stays disengaged.
    auto const odd = impl::bt_ctrl::to_adv_data({{"primary", "06"}});
    EXPECT_TRUE(odd.first.empty());
    EXPECT_FALSE(odd.second);
    EXPECT_THROW(impl::bt_ctrl::to_adv_data({{"primary", {{{"value", "01"}}}}}), std::exception);
    EXPECT_THROW(impl::bt_ctrl::to_adv_data({{"primary", {{{"type", 1}, {"value", "0G"}}}}}),
                 std::runtime_error);

    EXPECT_EQ(json(impl_adv::to_json(std::set<unsigned char>{39, 37})).dump(),
              R"(["ch37","ch39"])");
    EXPECT_TRUE(impl_adv::is_channel_map_valid({}));
    EXPECT_FALSE(impl_adv::is_channel_map_valid({37, 40}));
    // The prefix isn't read; the number is cut to a byte.
    EXPECT_EQ(impl_adv::to_channel_map({"xx37", "ch38", "ch294"}),
              (std::set<unsigned char>{37, 38, 38}));
    EXPECT_THROW(impl_adv::to_channel_map({"chx"}), std::invalid_argument);
    EXPECT_THROW(impl_adv::to_channel_map({37}), std::exception);
}

// Each operation on a started set: its request, and what its reply gives.
TEST_F(AdvTest, EachRequestCarriesTheHandleAndItsReplyIsRead) {
    start_scripted();
    auto const adv = started(5);
    auto const done = [this](std::string const& what) {
        return [this, what](auto const& value, std::error_code const& ec) {
            note(heard, what + " " + json(value).dump() + " " + result(ec));
        };
    };
    struct row {
        std::string request;
        std::function<void()> call;
        json reply;
        std::string body;
        std::string heard;
    };
    std::vector<row> const cases = {
        {"advIntervalGet",
         [&] { adv->get_interval(done("interval")); },
         {{"interval", 400}},
         "{}",
         "interval 400 ok"},
        {"advTxPowerGet",
         [&] { adv->get_tx_power(done("power")); },
         {{"txPower", -20}},
         "{}",
         "power -20 ok"},
        {"advChannelMapGet",
         [&] { adv->get_channel_map(done("channels")); },
         {{"channelMap", {"ch37", "ch39"}}},
         "{}",
         "channels [37,39] ok"},
        {"advPhyGet",
         [&] {
             adv->get_phy([this](bt_ctrl::phy value, std::error_code const& ec) {
                 note(heard, "phy " + bt_ctrl::to_string(value) + " " + result(ec));
             });
         },
         {{"advPhy", "2m"}},
         "{}",
         "phy 2m ok"},
        {"advAddressGet",
         [&] {
             adv->get_address([this](bt_ctrl::address const& value, std::error_code const& ec) {
                 note(heard, "address " + value.to_string() + " " + result(ec));
             });
         },
         {{"addr", {{"type", "random"}, {"mac", "C2:00:00:00:00:09"}}}},
         "{}",
         "address C2:00:00:00:00:09-random ok"},
        {"advDataGet",
         [&] {
             adv->get_data([this](adv_data const& data, std::optional<adv_data> const& scan,
                                  std::error_code const& ec) {
                 note(heard, "data " + std::to_string(data.size()) + " " +
                                 (scan ? std::to_string(scan->size()) : "-") + " " + result(ec));
             });
         },
         json::object(), "{}", "data 0 - ok"},
        {"advDataSet",
         [&] {
             adv->set_data({{1, {6}}}, std::nullopt, on_done("set data"));
         },
         json::object(), R"({"data":{"primary":[{"type":1,"value":"06"}]}})", "set data: ok"},
        {"advResvSet",
         [&] {
             adv->set_reservation(nullptr, std::make_shared<bt_ctrl::reservation>(),
                                  on_done("set reservation"));
         },
         json::object(), "{}", "set reservation: ok"},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.request);
        heard.clear();
        c.call();
        loop->run();
        auto body = json::parse(c.body);
        body["advHandle"] = 5;
        EXPECT_EQ(last(c.request).body, body);
        reply(c.request, c.reply);
        loop->run();
        EXPECT_EQ(heard, strings{c.heard});
    }
}

// Refused on a stopped set, each with its value for a failure; the four
// plain getters without the exception wrapper.
TEST_F(AdvTest, AStoppedSetRefusesWithTheFailureValues) {
    start_scripted();
    auto const adv = client->create_advertiser();
    heard.clear();
    mark = got.size();
    adv->get_interval([this](unsigned short value, std::error_code const& ec) {
        note(heard, "interval " + std::to_string(value) + " " + result(ec));
    });
    adv->get_tx_power([this](signed char value, std::error_code const& ec) {
        note(heard, "power " + std::to_string(value) + " " + result(ec));
    });
    adv->get_channel_map([this](std::set<unsigned char> const& value, std::error_code const& ec) {
        note(heard, "channels " + std::to_string(value.size()) + " " + result(ec));
    });
    adv->get_phy([this](bt_ctrl::phy value, std::error_code const& ec) {
        note(heard, "phy " + bt_ctrl::to_string(value) + " " + result(ec));
    });
    adv->get_address([this](bt_ctrl::address const& value, std::error_code const& ec) {
        note(heard, "address " + value.to_string() + " " + result(ec));
    });
    adv->get_connection([this](const_conn const& value, std::error_code const& ec) {
        note(heard, std::string("connection ") + (value ? "some" : "null") + " " + result(ec));
    });
    EXPECT_EQ(heard, strings{});
    loop->run();
    auto const refused = result(error::advertiser::inappropriate_state);
    EXPECT_EQ(heard,
              (strings{"interval 20 " + refused, "power -128 " + refused, "channels 0 " + refused,
                       "phy unknown " + refused, "address 00:00:00:00:00:00-unknown " + refused,
                       "connection null " + refused}));
    EXPECT_EQ(sent(), strings{});

    // Exceptions of the plain getters are not contained; those of the
    // others are.
    throw_at = "interval";
    adv->get_interval([this](unsigned short, std::error_code const&) { note(heard, "interval"); });
    EXPECT_THROW(loop->run(), std::runtime_error);
    throw_at = "address";
    adv->get_address(
        [this](bt_ctrl::address const&, std::error_code const&) { note(heard, "address"); });
    loop->run();
    EXPECT_EQ(failures, strings{"Failed response handler on getting ADV address"});
}

// While pending with a handle known: reservations may change, data may not;
// the connection may be asked for even before the handle is known.
TEST_F(AdvTest, APendingSetTakesReservationsAndAnswersForItsConnection) {
    start_scripted();
    heard.clear();
    auto const adv = client->create_advertiser();
    auto const conn = client->create_connection();
    adv->get_connection([this](const_conn const&, std::error_code const& ec) {
        note(heard, "early " + result(ec));
    });
    conn->listen(nullptr, *adv, {}, bt_ctrl::phy::unknown, {}, std::nullopt, 200, {}, std::nullopt,
                 nullptr, [](seconds const&, seconds const&, std::error_code const&) {});
    adv->get_connection([this](const_conn const& found, std::error_code const& ec) {
        note(heard, std::string("pending ") + (found ? "some" : "null") + " " + result(ec));
    });
    loop->run();
    EXPECT_EQ(last("advConnectionGet").body.dump(), R"({"advHandle":0})");
    reply("advConnectionGet", json::object());
    answer_start(3, "pending", 5, {{"connHandle", 11}, {"connGuaranteedTime", 5}});
    EXPECT_EQ(heard, (strings{"early " + result(error::advertiser::inappropriate_state),
                              "pending null ok"}));
    heard.clear();
    mark = got.size();
    adv->set_reservation(nullptr, nullptr, on_done("reservation"));
    adv->set_data({}, std::nullopt, on_done("data"));
    // The set has a connection: both reservations or neither.
    auto const mine = std::make_shared<bt_ctrl::reservation>();
    mine->resource_type = bt_ctrl::reservation::type::advertiser;
    adv->set_reservation(mine, nullptr, on_done("one"));
    adv->get_connection([this, conn](const_conn const& found, std::error_code const& ec) {
        note(heard,
             std::string("connection ") + (found == conn ? "mine" : "other") + " " + result(ec));
    });
    loop->run();
    EXPECT_EQ(sent(),
              (strings{R"(advResvSet {"advHandle":3})", R"(advConnectionGet {"advHandle":3})"}));
    reply("advResvSet", json::object());
    reply("advConnectionGet", {{"connHandle", 11}});
    loop->run();
    EXPECT_THAT(heard, ::testing::ElementsAre(
                           "data: " + result(error::advertiser::inappropriate_state),
                           "one: " + result(error::bt_ctrl::asymmetric_resource_reservation),
                           "reservation: ok", "connection mine ok"));
}

TEST_F(AdvTest, TheDataEventReachesTheSetByHandle) {
    start_scripted();
    auto const adv = started(4);
    links.push_back(adv->notify_on_data_change(
        [this](adv_data const& data, std::optional<adv_data> const& scan) {
            note(heard, "data " + std::to_string(data.size()) + " " +
                            (scan ? std::to_string(scan->size()) : "-"));
        }));
    heard.clear();
    event("advDataChanged",
          {{"advHandle", 4},
           {"data", {{"primary", {{{"type", 1}, {"value", "06"}}}}, {"scanRsp", json::array()}}}});
    event("advDataChanged", {{"advHandle", 4}});
    // Another set's data is not this one's; an unknown handle is dropped
    // unread.
    event("advDataChanged", {{"advHandle", 9}, {"data", "not an object"}});
    EXPECT_EQ(heard, (strings{"data 1 0", "data 0 -"}));
    EXPECT_EQ(failures, strings{});
}

}  // namespace
}  // namespace zelvo::tavrin::testing
