// The library against the simulator, end to end: an open connection's
// properties read and changed, their failure values, what the peer does on
// its own, and connections that wait for a slot, their places in the queue
// and the rotation that lets them in.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "sim_fixture.hpp"
#include "tavrin/error.hpp"

namespace zelvo::tavrin::testing {
namespace {

using reason = bt_ctrl::connection::close_reason;

class SimPeersTest : public SimFlowTest {
protected:
    // Notes every property change of `conn` in `heard`.
    void watch_properties(const_conn const& conn) {
        links.push_back(conn->notify_on_mtu_change(
            [this](unsigned short mtu) { note(heard, "mtu " + std::to_string(mtu)); }));
        links.push_back(conn->notify_on_phy_change(
            [this](bt_ctrl::phy now) { note(heard, "phy " + bt_ctrl::to_string(now)); }));
        links.push_back(conn->notify_on_params_change(
            [this](unsigned short a, unsigned short b, unsigned short c, unsigned short d) {
                note(heard, "params " + four(a, b, c, d));
            }));
    }
    static std::string four(unsigned short a, unsigned short b, unsigned short c,
                            unsigned short d) {
        return std::to_string(a) + " " + std::to_string(b) + " " + std::to_string(c) + " " +
               std::to_string(d);
    }

    // Every getter of `conn`, each noting "<what> <value>: <result>".
    void read_all(const_conn const& conn) {
        links.push_back(
            conn->get_address([this](bt_ctrl::address const& a, std::error_code const& ec) {
                note(heard, "address " + a.to_string() + ": " + result(ec));
            }));
        links.push_back(
            conn->get_signal([this](bt_ctrl::signal const& s, std::error_code const& ec) {
                note(heard, "signal " + std::to_string(s.quality) + " " +
                                std::to_string(s.strength) + ": " + result(ec));
            }));
        links.push_back(conn->get_phy([this](bt_ctrl::phy p, std::error_code const& ec) {
            note(heard, "phy " + bt_ctrl::to_string(p) + ": " + result(ec));
        }));
        links.push_back(
            conn->get_params([this](unsigned short a, unsigned short b, unsigned short c,
                                    unsigned short d, std::error_code const& ec) {
                note(heard, "params " + four(a, b, c, d) + ": " + result(ec));
            }));
        links.push_back(conn->get_latency([this](bool on, std::error_code const& ec) {
            note(heard, std::string("latency ") + (on ? "on" : "off") + ": " + result(ec));
        }));
        loop->run();
    }
};

// What the simulator answers, what each setter changes and how the
// notifications tell it, and the refusals of both sides.
TEST_F(SimPeersTest, GettersAnswerAndSettersChangeTheOpenConnection) {
    up();
    auto const conn = opened("app");
    heard.clear();
    watch_properties(conn);
    read_all(conn);
    auto const ok = result({});
    auto const unsupported = result(error::bt_ctrl::unsupported_functionality);
    // The library's refusal is posted, so it comes before any reply.
    EXPECT_EQ(heard,
              (strings{"latency off: " + unsupported, "address " + nearby().to_string() + ": " + ok,
                       "signal 80 -60: " + ok, "phy 2m: " + ok, "params 24 40 0 500: " + ok}));

    heard.clear();
    conn->set_phy(bt_ctrl::phy::coded, on_done("set phy"));
    conn->set_params(30, 50, 1, 600, on_done("set params"));
    conn->set_params(30, 50, 0, 10, on_done("too short a timeout"));
    conn->set_latency(true, on_done("set latency"));
    loop->run();
    EXPECT_EQ(heard,
              (strings{"set latency: " + unsupported, "set phy: " + ok, "set params: " + ok,
                       "too short a timeout: " + result(error::connection::invalid_parameter),
                       "phy coded", "params 30 50 1 600"}));
    heard.clear();
    ASSERT_TRUE(radio().peer_set_signal(nearby(), bt_ctrl::signal{90, -48}));
    read_all(conn);
    EXPECT_EQ(heard,
              (strings{"latency off: " + unsupported, "address " + nearby().to_string() + ": " + ok,
                       "signal 90 -48: " + ok, "phy coded: " + ok, "params 30 50 1 600: " + ok}));
}

// A failure gives the failure values: from the library's check on a
// connection that is not open (nothing sent), and from the simulator, whose
// connection ended while the object still thought it open.
TEST_F(SimPeersTest, FailedGettersGiveTheirFailureValues) {
    up();
    auto const conn = opened("app");
    auto const failure_values = [](std::string const& why) {
        return strings{"address " + bt_ctrl::address().to_string() + ": " + why,
                       "signal 0 -128: " + why, "phy unknown: " + why,
                       "params 100 100 40 2048: " + why, "latency off: " + why};
    };
    ASSERT_TRUE(radio().peer_disconnect(nearby()));
    heard.clear();
    ctl->clear_requests();
    // The close is reported on a later turn: the requests go out first, and
    // the simulator refuses them for a connection it no longer has.
    read_all(conn);
    auto const gone = result(error::connection::inappropriate_state);
    auto expected = failure_values(gone);
    expected.pop_back();
    expected.insert(
        expected.begin(),
        {"latency off: " + result(error::bt_ctrl::unsupported_functionality), "app closed"});
    EXPECT_EQ(heard, expected);
    EXPECT_EQ(request_names(),
              (strings{"connAddressGet", "connSignalGet", "connPhyGet", "connParamsGet"}));
    EXPECT_EQ(conn->get_state(), conn_state::closed);

    heard.clear();
    ctl->clear_requests();
    read_all(conn);
    EXPECT_EQ(heard, failure_values(gone));
    EXPECT_EQ(request_names(), strings{});
}

// What the peer does on its own reaches the application's object, and that
// of a second client, as notifications; its close gives the reason unknown.
TEST_F(SimPeersTest, ThePeersActionsReachTheApplication) {
    auto settings = sim::config::builtin();
    settings.interfaces[0].description.caps.maxMtuSize = 200;
    up(settings);
    std::vector<const_conn> seen;
    auto const other = second_client(seen);
    auto const conn = opened("app");
    ASSERT_EQ(seen.size(), 1u);
    heard.clear();
    watch_properties(conn);
    watch_properties(seen[0]);
    ASSERT_TRUE(radio().peer_set_mtu(nearby(), 100));
    ASSERT_TRUE(radio().peer_set_phy(nearby(), bt_ctrl::phy::m1));
    ASSERT_TRUE(radio().peer_set_params(nearby(), sim::connection_params{50, 60, 2, 1000}));
    loop->run();
    // Each client hears the three in order.
    EXPECT_EQ(heard, (strings{"mtu 100", "phy 1m", "params 50 60 2 1000", "mtu 100", "phy 1m",
                              "params 50 60 2 1000"}));
    EXPECT_EQ(conn->get_mtu(), 100);
    // An MTU above the interface's is capped by it.
    heard.clear();
    ASSERT_TRUE(radio().peer_set_mtu(nearby(), 517));
    loop->run();
    EXPECT_EQ(heard, (strings{"mtu 200", "mtu 200"}));

    heard.clear();
    ASSERT_TRUE(radio().peer_disconnect(nearby()));
    loop->run();
    EXPECT_EQ(heard, strings{"app closed"});
    for (auto const& one : {const_conn(conn), seen[0]}) {
        EXPECT_EQ(one->get_state(), conn_state::closed);
        EXPECT_EQ(one->get_close_reason(), reason::unknown);
        EXPECT_EQ(one->get_mtu(), 23);
    }
}

// Beyond its slots a connection waits with its place in the queue; the
// notification and get_connection_queue tell the same places, and a slot
// given back lets the head of the queue in.
TEST_F(SimPeersTest, ConnectionsBeyondTheSlotsWaitInTheQueueInOrder) {
    up(with_slots(1));
    std::vector<strings> told;
    links.push_back(client->notify_on_connection_queue_changed(
        [&told](bt_ctrl::connection_queue const& queue) { told.push_back(describe(queue)); }));
    auto const first = opened("first");
    std::vector<conn_ptr> waiting;
    for (auto const& name : {"second", "third"}) {
        waiting.push_back(client->create_connection());
        watch(waiting.back(), name);
        waiting.back()->connect(nearby(), bt_ctrl::phy::unknown, nullptr,
                                on_open(std::string(name) + " connect"));
        loop->run();
    }
    auto const places = strings{"opened 0", "pending 1", "pending 2"};
    ASSERT_FALSE(told.empty());
    EXPECT_EQ(told.back(), places);
    EXPECT_EQ(queue_of(*client), places);
    EXPECT_EQ(client->get_connection_max_cnt(), 1u);

    heard.clear();
    told.clear();
    first->close(on_done("close first"));
    loop->advance(1s);
    EXPECT_EQ(heard, (strings{"first closing", "close first: ok", "first closed", "second opening",
                              "second opened"}));
    // Told when the places moved, before the second opened.
    EXPECT_EQ(told.back(), (strings{"pending 0", "pending 1"}));
    EXPECT_EQ(queue_of(*client), (strings{"opened 0", "pending 1"}));
    // Closed while waiting: at once, and the queue moves up.
    heard.clear();
    waiting[1]->close(on_done("close third"));
    loop->run();
    EXPECT_EQ(heard, (strings{"third closing", "close third: ok", "third closed"}));
    EXPECT_EQ(queue_of(*client), strings{"opened 0"});
}

// Past its guaranteed time, an unreserved connection is rotated out for one
// that waits, the oldest first; a reserved one never is, and its guaranteed
// time is 0.
TEST_F(SimPeersTest, AnExpiredConnectionIsRotatedOutForAWaitingOne) {
    for (bool const reserved : {false, true}) {
        SCOPED_TRACE(reserved ? "reserved" : "unreserved");
        up(with_slots(2, 5s));
        reservation_ptr const slot = reserved ? reserve(kind::connection) : nullptr;
        heard.clear();
        std::vector<conn_ptr> conns;
        for (auto const& name : {"older", "newer", "waiting"}) {
            conns.push_back(client->create_connection());
            conns.back()->connect(nearby(), bt_ctrl::phy::unknown,
                                  conns.size() == 1 ? slot : nullptr, on_open(name));
            loop->advance(1s);
        }
        EXPECT_EQ(heard, (strings{reserved ? "older: 0s ok" : "older: 5s ok", "newer: 5s ok",
                                  "waiting: 5s ok"}));
        EXPECT_EQ(queue_of(*client), (strings{"opened 0", "opened 0", "pending 1"}));
        loop->advance(10s);
        auto const& rotated = reserved ? conns[1] : conns[0];
        auto const& kept = reserved ? conns[0] : conns[1];
        EXPECT_EQ(rotated->get_state(), conn_state::closed);
        EXPECT_EQ(rotated->get_close_reason(), reason::resource_rotation);
        EXPECT_EQ(kept->get_state(), conn_state::opened);
        EXPECT_EQ(conns[2]->get_state(), conn_state::opened);
    }
}

}  // namespace
}  // namespace zelvo::tavrin::testing
