// An advertiser's life against a controller played by the test: start's
// checks and body, the state gate, the start reply and its races with stop
// and with the application dropping the object, stop's replies, the forced
// stop, and handlers that re-enter.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "adv_fixture.hpp"

namespace zelvo::tavrin::testing {
namespace {

using a = error::advertiser;
using b = error::bt_ctrl;

std::shared_ptr<bt_ctrl::reservation const> reservation_of(bt_ctrl::reservation::type type) {
    auto made = std::make_shared<bt_ctrl::reservation>();
    made->resource_type = type;
    return made;
}

// Every refusal comes on a later turn, changes nothing and sends nothing.
TEST_F(AdvTest, StartRefusesWithTheFirstFailedCheckOnALaterTurn) {
    using kind = bt_ctrl::reservation::type;
    struct row {
        std::string name;
        json caps_changes;
        std::function<void(settings&, ConnTest&)> stage;
        std::error_code expected;
    };
    auto const conn_resv = reservation_of(kind::connection);
    auto const adv_resv = reservation_of(kind::advertiser);
    std::vector<row> const cases = {
        {"not enabled",
         {},
         [](settings&, ConnTest& t) { t.client->disable(); },
         b::inappropriate_state},
        {"no advertising", {{"adv", false}}, nullptr, b::unsupported_functionality},
        {"advertiser reservation of a connection",
         {},
         [&](settings& s, ConnTest&) { s.adv_reservation = conn_resv; },
         b::unexpected_resource_type},
        {"connection reservation of an advertiser",
         {},
         [&](settings& s, ConnTest&) { s.conn_reservation = adv_resv; },
         b::unexpected_resource_type},
        {"one reservation for a listening start",
         {},
         [&](settings& s, ConnTest& t) {
             static std::shared_ptr<bt_ctrl::connection> conn;
             conn = t.client->create_connection();
             s.connection = conn.get();
             s.adv_reservation = adv_resv;
         },
         b::asymmetric_resource_reservation},
        {"phy not offered",
         {},
         [](settings& s, ConnTest&) { s.phy = bt_ctrl::phy::coded; },
         b::unsupported_phy},
        {"channel 36",
         {},
         [](settings& s, ConnTest&) {
             s.channels = {36, 37};
         },
         a::bad_channel_map},
        {"power 11", {}, [](settings& s, ConnTest&) { s.tx_power = 11; }, a::bad_tx_power},
        {"power -128", {}, [](settings& s, ConnTest&) { s.tx_power = -128; }, a::bad_tx_power},
        {"interval 20 without extended advertising",
         {{"extAdv", false}},
         [](settings& s, ConnTest&) { s.interval = 20; },
         a::bad_interval},
        {"interval 19", {}, [](settings& s, ConnTest&) { s.interval = 19; }, a::bad_interval},
        {"interval 30001", {}, [](settings& s, ConnTest&) { s.interval = 30001; }, a::bad_interval},
        {"no scannable advertising", {{"scnAdv", false}}, nullptr, b::unsupported_functionality},
        {"no connectable advertising",
         {{"connAdv", false}},
         [](settings& s, ConnTest& t) {
             static std::shared_ptr<bt_ctrl::connection> conn;
             conn = t.client->create_connection();
             s.connection = conn.get();
         },
         b::unsupported_functionality},
        {"a connection the application doesn't own",
         {},
         [](settings& s, ConnTest& t) {
             t.event("connOpened", {{"connHandle", 9},
                                    {"connDirection", "incoming"},
                                    {"connPhy", "1m"},
                                    {"connMtu", 23}});
             s.connection = const_cast<bt_ctrl::connection*>(t.announced.back().get());
         },
         error::connection::bad_instance},
        {"a connection that isn't closed",
         {},
         [](settings& s, ConnTest& t) {
             static std::shared_ptr<bt_ctrl::connection> conn;
             conn = t.open(3);
             s.connection = conn.get();
         },
         error::connection::inappropriate_state},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.name);
        reset_script();
        interface_caps = caps(c.caps_changes.is_null() ? json::object() : c.caps_changes);
        start_scripted();
        collect_new();
        auto const adv = client->create_advertiser();
        settings s;
        if (c.stage) {
            c.stage(s, *this);
        }
        mark = got.size();
        heard.clear();
        start_adv(*adv, s, "start");
        EXPECT_EQ(heard, strings{});
        loop->run();
        EXPECT_EQ(heard, strings{"start: 0s 0s " + result(c.expected)});
        EXPECT_EQ(adv->get_state(), adv_state::stopped);
        EXPECT_EQ(sent(), strings{});
    }

    // The bounds themselves pass: power 10 and -127, intervals 20 (with
    // extended advertising), 100 and 30000.
    reset_script();
    interface_caps = caps();
    start_scripted();
    for (auto const& [power, interval] :
         {std::pair<signed char, unsigned short>{10, 20}, {-127, 100}, {0, 30000}}) {
        auto const adv = client->create_advertiser();
        settings s;
        s.tx_power = power;
        s.interval = interval;
        start_adv(*adv, s, "start");
        EXPECT_EQ(adv->get_state(), adv_state::pending);
    }
    loop->run();
    EXPECT_EQ(names(mark), (strings{"advStart", "advStart", "advStart"}));
}

TEST_F(AdvTest, StartSendsOnlyTheKeysItHas) {
    start_scripted();
    auto const adv = client->create_advertiser();
    start_adv(*adv, {}, "start");
    loop->run();
    EXPECT_EQ(last("advStart").body.dump(),
              R"({"cfg":{"connectable":false,"interval":160},"data":{}})");

    auto const other = client->create_advertiser();
    settings s;
    s.addr = peer("C2:00:00:00:00:01", bt_ctrl::addr_type::random_address);
    s.phy = bt_ctrl::phy::m1;
    s.channels = {39, 37};
    s.tx_power = -4;
    s.data = {{0x09, {'t', 'v'}}, {0x01, {0x06}}, {0x09, {}}};
    s.scan_data = adv_data();
    start_adv(*other, s, "start");
    loop->run();
    EXPECT_EQ(last("advStart").body.dump(),
              R"({"cfg":{"addr":{"mac":"C2:00:00:00:00:01","type":"random"},"advPhy":"1m",)"
              R"("channelMap":["ch37","ch39"],"connectable":false,"interval":160,"txPower":-4},)"
              R"("data":{"primary":[{"type":1,"value":"06"},{"type":9,"value":"7476"},{"type":9}],)"
              R"("scanRsp":[]}})");
}

TEST_F(AdvTest, StartStopAndTheControllersEventsMoveTheStateInOrder) {
    start_scripted();
    heard.clear();
    auto const adv = client->create_advertiser();
    watch_adv(adv, "adv");
    start_adv(*adv, {}, "start");
    EXPECT_EQ(heard, strings{"adv pending"});
    loop->run();
    answer_start(7, "starting", 12);
    event("advStarted", {{"advHandle", 7}});
    EXPECT_TRUE(*adv);
    adv->stop(on_done("stop"));
    EXPECT_EQ(adv->get_state(), adv_state::stopping);
    loop->run();
    EXPECT_EQ(last("advStop").body.dump(), R"({"advHandle":7})");
    reply("advStop", json::object());
    loop->run();
    event("advStopped", {{"advHandle", 7}, {"reason", "userRequested"}});
    EXPECT_EQ(heard, (strings{"adv pending", "adv starting", "start: 12s - ok", "adv started",
                              "adv stopping", "stop: ok", "adv stopped"}));
    EXPECT_EQ(adv->get_stop_reason(), bt_ctrl::advertiser::stop_reason::user_requested);

    // A stopped advertiser stops again at once, without a message; a failed
    // start ends stopped and the object starts again.
    heard.clear();
    mark = got.size();
    adv->stop(on_done("again"));
    loop->run();
    start_adv(*adv, {}, "restart");
    loop->run();
    fail("advStart", 30);
    loop->run();
    EXPECT_EQ(heard, (strings{"again: ok", "adv pending", "adv stopped",
                              "restart: 0s 0s " + result(a::limit_exceeded)}));
    EXPECT_EQ(names(mark), strings{"advStart"});
}

// Announced by events in one state, then told another: rows are the present
// state, columns the proposed one, both in the order stopped, started,
// stopping, starting, pending.
TEST_F(AdvTest, TheGateMovesOnlyAlongTheTable) {
    std::string const events[] = {"advStopped", "advStarted", "advStopping", "advStarting",
                                  "advPending"};
    bool const gate[5][5] = {
        {false, true, false, true, true},    // stopped
        {true, false, true, false, false},   // started
        {true, false, false, false, false},  // stopping
        {true, true, true, false, false},    // starting
        {true, true, true, true, false},     // pending
    };
    start_scripted();
    collect_new_advs();
    unsigned short handle = 100;
    for (int from = 1; from < 5; ++from) {
        for (int to = 0; to < 5; ++to) {
            ++handle;
            json const body{{"advHandle", handle}, {"reason", "resourceRotation"}};
            event(events[from], body);
            ASSERT_EQ(new_advs.size(), static_cast<std::size_t>(handle - 100));
            auto const adv = new_advs.back();
            heard.clear();
            watch_adv(adv, "a");
            event(events[to], body);
            SCOPED_TRACE(events[from] + " then " + events[to]);
            auto const expected = static_cast<adv_state>(gate[from][to] ? to : from);
            EXPECT_EQ(adv->get_state(), expected);
            EXPECT_EQ(heard, gate[from][to]
                                 ? strings{"a " + bt_ctrl::advertiser::to_string(expected)}
                                 : strings{});
        }
    }
    // A stopped event for a handle nobody knows makes nothing.
    event("advStopped", {{"advHandle", 999}, {"reason", "userRequested"}});
    EXPECT_EQ(new_advs.size(), 20u);
}

// A stop asked before the controller has named the set waits for the reply.
TEST_F(AdvTest, AStopDuringPendingSendsAdvStopWhenTheReplyBringsTheHandle) {
    start_scripted();
    heard.clear();
    auto const adv = client->create_advertiser();
    watch_adv(adv, "adv");
    start_adv(*adv, {}, "start");
    adv->stop(on_done("stop"));
    loop->run();
    EXPECT_EQ(adv->get_state(), adv_state::stopping);
    EXPECT_EQ(names(mark), strings{"advStart"});
    answer_start(4, "started", 9);
    EXPECT_EQ(adv->get_state(), adv_state::stopping);
    EXPECT_EQ(names(mark), (strings{"advStart", "advStop"}));
    // The set had stopped by itself: harmless, and told as it is.
    fail("advStop", 35);
    loop->run();
    EXPECT_EQ(heard, (strings{"adv pending", "adv stopping", "start: 9s - ok",
                              "stop: " + result(a::inappropriate_state)}));
    EXPECT_EQ(accepted, 1);

    // With a failed start, the waiting stop succeeds and nothing more is sent.
    heard.clear();
    mark = got.size();
    event("advStopped", {{"advHandle", 4}, {"reason", "userRequested"}});
    start_adv(*adv, {}, "again");
    adv->stop(on_done("stop again"));
    loop->run();
    fail("advStart", 7);
    loop->run();
    EXPECT_EQ(heard, (strings{"adv stopped", "adv pending", "adv stopping", "adv stopped",
                              "stop again: ok", "again: 0s 0s " + result(b::internal_failure)}));
    EXPECT_EQ(names(mark), strings{"advStart"});
}

// The application may let go at any time; the set still stops, and a
// stand-in under the handle hears the end.
TEST_F(AdvTest, DroppingARunningOrPendingAdvertiserStillStopsTheSet) {
    start_scripted();
    collect_new_advs();
    auto adv = started(3);
    adv.reset();
    loop->run();
    EXPECT_EQ(sent(), strings{R"(advStop {"advHandle":3})"});
    // The stand-in is in stopping, so a late "advStarted" is refused and
    // nothing is announced; after "advStopped" the handle is free.
    event("advStarted", {{"advHandle", 3}});
    event("advStopped", {{"advHandle", 3}, {"reason", "userRequested"}});
    EXPECT_TRUE(new_advs.empty());
    event("advStarting", {{"advHandle", 3}});
    EXPECT_EQ(new_advs.size(), 1u);

    // Dropped while pending: nothing goes out until the reply names it.
    mark = got.size();
    auto pending = client->create_advertiser();
    start_adv(*pending, {}, "start");
    loop->run();
    pending.reset();
    EXPECT_EQ(names(mark), strings{"advStart"});
    answer_start(5, "starting", 3);
    EXPECT_EQ(names(mark), (strings{"advStart", "advStop"}));
    EXPECT_EQ(heard.back(), "start: 3s - ok");
    event("advStarted", {{"advHandle", 5}});
    EXPECT_EQ(new_advs.size(), 1u);

    // Dropped while pending, and the reply says it never started.
    mark = got.size();
    pending = client->create_advertiser();
    start_adv(*pending, {}, "start");
    loop->run();
    pending.reset();
    answer_start(6, "stopped", 0);
    EXPECT_EQ(names(mark), strings{"advStart"});
}

TEST_F(AdvTest, AdvStopRepliesOnlyAnInappropriateStateKeepsTheLink) {
    struct {
        int code;
        std::error_code told;
        int accepted_after;
    } const cases[] = {
        {35, a::inappropriate_state, 1},
        {37, b::inappropriate_state, 1},
        {7, b::internal_failure, 2},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.code);
        reset_script();
        start_scripted();
        auto const adv = started(2);
        heard.clear();
        adv->stop(on_done("stop"));
        loop->run();
        fail("advStop", c.code);
        loop->advance(seconds(10));
        EXPECT_THAT(heard, ::testing::Contains("stop: " + result(c.told)));
        EXPECT_EQ(accepted, c.accepted_after);
    }
}

// Listening: the advertiser carries the connection along, and each follows
// the other into the end.
TEST_F(AdvTest, ListenOpensTheConnectionThroughTheAdvertiser) {
    start_scripted();
    heard.clear();
    auto const adv = client->create_advertiser();
    auto const conn = client->create_connection();
    watch_adv(adv, "adv");
    watch(conn, "conn");
    conn->listen(
        nullptr, *adv, {}, bt_ctrl::phy::unknown, {}, std::nullopt, 200, {}, std::nullopt, nullptr,
        [this](seconds const& adv_time, seconds const& conn_time, std::error_code const& ec) {
            note(heard, "listen: " + std::to_string(adv_time.count()) + "s " +
                            std::to_string(conn_time.count()) + "s " + result(ec));
        });
    EXPECT_EQ(heard, (strings{"conn pending", "adv pending"}));
    loop->run();
    EXPECT_EQ(last("advStart").body.at("cfg").at("connectable"), true);
    answer_start(1, "starting", 30, {{"connHandle", 8}, {"connGuaranteedTime", 60}});
    event("advStarted", {{"advHandle", 1}});
    event("connOpened", {{"connHandle", 8}, {"connPhy", "2m"}, {"connMtu", 100}});
    event("advStopped", {{"advHandle", 1}, {"reason", "connectionOpened"}});
    EXPECT_EQ(heard, (strings{"conn pending", "adv pending", "adv starting", "listen: 30s 60s ok",
                              "conn opening", "adv started", "conn opened", "adv stopped"}));
    EXPECT_EQ(conn->get_direction(), bt_ctrl::connection::direction::incoming);
    EXPECT_EQ(adv->get_stop_reason(), bt_ctrl::advertiser::stop_reason::connection_opened);

    // Closing a listening connection stops its advertiser; stopping the
    // advertiser closes the connection.
    event("connClosed", {{"connHandle", 8}, {"reason", "userRequested"}});
    for (bool through_advertiser : {false, true}) {
        SCOPED_TRACE(through_advertiser);
        heard.clear();
        mark = got.size();
        conn->listen(nullptr, *adv, {}, bt_ctrl::phy::unknown, {}, std::nullopt, 200, {},
                     std::nullopt, nullptr,
                     [](seconds const&, seconds const&, std::error_code const&) {});
        loop->run();
        answer_start(2, "pending", 30, {{"connHandle", 9}, {"connGuaranteedTime", 60}});
        heard.clear();
        if (through_advertiser) {
            adv->stop(on_done("stop"));
        } else {
            conn->close(on_done("close"));
        }
        loop->run();
        EXPECT_EQ(heard, (strings{"conn closing", "adv stopping"}));
        EXPECT_EQ(sent().back(), R"(connClose {"connHandle":9})");
        event("connClosed", {{"connHandle", 9}, {"reason", "userRequested"}});
        event("advStopped", {{"advHandle", 2}, {"reason", "userRequested"}});
        EXPECT_EQ(adv->get_state(), adv_state::stopped);
    }
}

// When the controller goes away, advertisers stop before connections close
// and before the client tells its state; what the controller kept comes back
// as the client's own objects, unannounced.
TEST_F(AdvTest, LosingTheControllerStopsEveryAdvertiserFirst) {
    start_scripted();
    collect_new_advs();
    auto const mine = started(1, "mine");
    event("advStarted", {{"advHandle", 2}});
    watch_adv(new_advs.at(0), "theirs");
    auto const conn = open(3, "conn");
    heard.clear();
    raw_end->close();
    loop->run();
    ASSERT_GE(heard.size(), 4u);
    EXPECT_EQ(strings(heard.begin(), heard.begin() + 4),
              (strings{"theirs stopped", "mine stopped", "conn closed", "rebooting"}));
    EXPECT_EQ(mine->get_stop_reason(), bt_ctrl::advertiser::stop_reason::interface_unavailable);

    answers["advsGet"] = with({{"maxAdvertisers", 4}, {"advertisers", {{"2", {{"piq", 0}}}}}});
    answers["advStatusGet"] = with({{"status", "started"}});
    loop->advance(seconds(10));
    EXPECT_EQ(client->get_state(), state::enabled);
    EXPECT_EQ(last("advStatusGet").body.dump(), R"({"advHandle":2})");
    EXPECT_EQ(new_advs.size(), 1u);
    bt_ctrl::advertiser_queue queue;
    client->get_advertiser_queue(
        [&queue](bt_ctrl::advertiser_queue const& q, std::error_code const&) { queue = q; });
    loop->run();
    ASSERT_EQ(queue.size(), 1u);
    EXPECT_EQ(queue.begin()->first->get_state(), adv_state::started);
    EXPECT_EQ(mine->get_state(), adv_state::stopped);
}

// An application may drop the advertiser, or the client, from inside a
// notification or a completion.
TEST_F(AdvTest, HandlersMayDropTheAdvertiserOrTheClient) {
    start_scripted();
    auto adv = client->create_advertiser();
    links.push_back(adv->notify_on_state_change([&adv](adv_state now) {
        if (now == adv_state::started) {
            adv.reset();
        }
    }));
    start_adv(*adv, {}, "start");
    loop->run();
    answer_start(6, "started", 5);
    EXPECT_FALSE(adv);
    EXPECT_EQ(names(mark).back(), "advStop");
    EXPECT_EQ(heard.back(), "start: 5s - ok");

    drop_at = "second";
    auto const other = client->create_advertiser();
    start_adv(*other, {}, "second");
    loop->run();
    answer_start(7, "starting", 5);
    EXPECT_FALSE(client);
    EXPECT_EQ(other->get_state(), adv_state::stopped);
    other->stop(on_done("after"));
    loop->run();
    EXPECT_EQ(heard.back(), "after: ok");
}

}  // namespace
}  // namespace zelvo::tavrin::testing
