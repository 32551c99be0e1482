// Advertisers end to end: the library against the simulator on the
// virtual-time loop, with its virtual centrals. Nothing is scripted.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "adv_fixture.hpp"

namespace zelvo::tavrin::testing {
namespace {

sim::central const central = [] {
    sim::central made;
    made.address = {bt_ctrl::addr_type::public_address, utils::mac_address("02:54:56:00:02:01")};
    return made;
}();

// The first set on air at the simulator.
unsigned short on_air(sim::simulated_radio& radio) {
    auto const sets = radio.advertising_sets();
    EXPECT_FALSE(sets.empty());
    return sets.empty() ? 0 : sets.front().second;
}

TEST_F(AdvSimTest, ASetStartsAnswersForItselfAndStops) {
    up();
    std::vector<const_conn> unused;
    std::vector<const_adv> theirs;
    auto const other = second_client(unused);
    links.push_back(other->notify_on_new_advertiser(
        [&theirs](const_adv const& adv) { theirs.push_back(adv); }));

    auto const adv = client->create_advertiser();
    watch_adv(adv, "adv");
    settings s;
    s.data = {{0x09, {'t', 'v'}}, {0x01, {0x06}}};
    s.scan_data = adv_data{{0xFF, {1, 2}}, {0xFF, {3}}};
    start_adv(*adv, s, "start");
    loop->run();
    EXPECT_EQ(adv->get_state(), adv_state::started);
    ASSERT_EQ(theirs.size(), 1u);
    EXPECT_EQ(theirs[0]->get_state(), adv_state::started);

    // The data come back as the start gave them, in their order.
    adv->get_data([this, s](adv_data const& data, std::optional<adv_data> const& scan,
                            std::error_code const& ec) {
        note(heard, std::string("data ") +
                        (data == s.data && scan == s.scan_data ? "same" : "other") + " " +
                        result(ec));
    });
    loop->run();
    EXPECT_EQ(heard.back(), "data same ok");

    // New data reaches both clients' objects.
    int told = 0;
    links.push_back(theirs[0]->notify_on_data_change(
        [&told](adv_data const& data, std::optional<adv_data> const&) {
            told += data.count(0x09) == 1 ? 1 : 0;
        }));
    adv->set_data({{0x09, {'x'}}}, std::nullopt, on_done("set data"));
    loop->run();
    EXPECT_EQ(told, 1);

    heard.clear();
    adv->stop(on_done("stop"));
    loop->run();
    EXPECT_EQ(heard, (strings{"adv stopping", "stop: ok", "adv stopped"}));
    EXPECT_EQ(adv->get_stop_reason(), bt_ctrl::advertiser::stop_reason::user_requested);
    EXPECT_EQ(theirs[0]->get_state(), adv_state::stopped);
}

// listen: a central connects through the set, the advertiser stops for it,
// and the connection opens as incoming with the central as its peer.
TEST_F(AdvSimTest, ACentralOpensTheListeningConnection) {
    up();
    auto const adv = client->create_advertiser();
    auto const conn = client->create_connection();
    watch_adv(adv, "adv");
    watch(conn, "conn");
    conn->listen(nullptr, *adv, {}, bt_ctrl::phy::unknown, {}, std::nullopt, 160, {{1, {6}}},
                 std::nullopt, nullptr,
                 [this](seconds const&, seconds const&, std::error_code const& ec) {
                     note(heard, "listen: " + result(ec));
                 });
    loop->run();
    EXPECT_EQ(adv->get_state(), adv_state::started);
    auto const scan = radio().central_scan("hci0", on_air(radio()));
    ASSERT_TRUE(scan);
    EXPECT_TRUE(scan->connectable);
    EXPECT_EQ(radio().central_connect("hci0", on_air(radio()), central),
              sim::central_result::connected);
    loop->advance(1s);
    EXPECT_EQ(conn->get_state(), conn_state::opened);
    EXPECT_EQ(conn->get_direction(), bt_ctrl::connection::direction::incoming);
    EXPECT_EQ(adv->get_state(), adv_state::stopped);
    EXPECT_EQ(adv->get_stop_reason(), bt_ctrl::advertiser::stop_reason::connection_opened);
    conn->get_address([this](bt_ctrl::address const& peer, std::error_code const& ec) {
        note(heard, "peer " + peer.to_string() + " " + result(ec));
    });
    loop->run();
    EXPECT_EQ(heard.back(), "peer 02:54:56:00:02:01-public ok");
}

// The controller goes away with sets running: the application's objects end
// stopped with interface_unavailable. A dropped link leaves the sets at the
// controller, and the resync brings them back as the library's objects.
TEST_F(AdvSimTest, ALostLinkStopsTheObjectsAndTheResyncFindsTheSets) {
    up();
    collect_new_advs();
    auto const adv = client->create_advertiser();
    start_adv(*adv, {}, "start");
    loop->run();
    ASSERT_EQ(adv->get_state(), adv_state::started);
    ctl->drop_clients();
    loop->run();
    EXPECT_EQ(adv->get_state(), adv_state::stopped);
    EXPECT_EQ(adv->get_stop_reason(), bt_ctrl::advertiser::stop_reason::interface_unavailable);
    loop->advance(3s);
    ASSERT_EQ(client->get_state(), state::enabled);
    EXPECT_TRUE(new_advs.empty());
    bt_ctrl::advertiser_queue queue;
    client->get_advertiser_queue([&queue](bt_ctrl::advertiser_queue const& found,
                                          std::error_code const&) { queue = found; });
    loop->run();
    ASSERT_EQ(queue.size(), 1u);
    EXPECT_EQ(queue.begin()->first->get_state(), adv_state::started);
    EXPECT_NE(queue.begin()->first, adv);

    // The application's object starts again as a second set.
    start_adv(*adv, {}, "again");
    loop->run();
    EXPECT_EQ(adv->get_state(), adv_state::started);
    EXPECT_EQ(radio().advertising_sets().size(), 2u);
}

}  // namespace
}  // namespace zelvo::tavrin::testing
