// The library against the simulator, end to end: a connection's life to a
// virtual peer, connections that wait for a slot and their places in the
// queue, a waiting connection handed a reservation, connections of another
// client, and a close that is never answered. Refusals, races and exact
// payloads are pinned by the scripted tests; these check that the flows hold
// against a controller that behaves as a real one.
#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "sim_fixture.hpp"
#include "tavrin/error.hpp"

namespace zelvo::tavrin::testing {
namespace {

client_id const some_id = std::array<unsigned char, 16>{4, 2};

// Open, watch, close: each step heard once and in order.
TEST_F(SimFlowTest, AConnectionToThePeerOpensReportsItsPropertiesAndCloses) {
    up();
    auto conn = client->create_connection();
    watch(conn, "app");
    links.push_back(conn->notify_on_mtu_change(
        [this](unsigned short mtu) { note(heard, "mtu " + std::to_string(mtu)); }));
    links.push_back(conn->notify_on_params_change(
        [this](unsigned short a, unsigned short b, unsigned short c, unsigned short d) {
            note(heard, "params " + std::to_string(a) + " " + std::to_string(b) + " " +
                            std::to_string(c) + " " + std::to_string(d));
        }));
    conn->connect(nearby(), bt_ctrl::phy::unknown, nullptr, on_open("connect"));
    EXPECT_EQ(conn->get_state(), conn_state::pending);
    loop->run();
    EXPECT_EQ(heard, (strings{"app pending", "connect: 30s ok", "app opening"}));
    loop->advance(1s);
    EXPECT_EQ(heard, (strings{"app pending", "connect: 30s ok", "app opening", "mtu 247",
                              "app opened", "params 24 40 0 500"}));
    EXPECT_EQ(conn->get_mtu(), 247);
    EXPECT_EQ(conn->get_direction(), bt_ctrl::connection::direction::outgoing);
    EXPECT_EQ(queue_of(*client), strings{"opened 0"});

    heard.clear();
    conn->close(on_done("close"));
    loop->run();
    EXPECT_EQ(heard, (strings{"app closing", "close: ok", "app closed"}));
    EXPECT_EQ(conn->get_close_reason(), bt_ctrl::connection::close_reason::user_requested);
    EXPECT_EQ(conn->get_mtu(), 23);
    EXPECT_EQ(queue_of(*client), strings{});
    // Closed, it opens again.
    heard.clear();
    conn->connect(nearby(), bt_ctrl::phy::m1, nullptr, on_open("again"));
    loop->advance(1s);
    EXPECT_EQ(conn->get_state(), conn_state::opened);
    EXPECT_EQ(conn->get_close_reason(), bt_ctrl::connection::close_reason::unknown);
}

// Beyond its slots a connection waits with its place in the queue; the
// notification and get_connection_queue tell the same places, and a slot
// given back lets the head of the queue in.
TEST_F(SimFlowTest, ConnectionsBeyondTheSlotsWaitInTheQueueInOrder) {
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

// A connection that waits behind the only unreserved slot takes a
// reservation's slot as soon as it is handed one.
TEST_F(SimFlowTest, AWaitingConnectionHandedAReservationTakesItsSlot) {
    up(with_slots(2), some_id);
    auto const slot = reserve(kind::connection, nearby());
    auto const first = opened("first");
    auto const second = client->create_connection();
    watch(second, "second");
    second->connect(nearby(), bt_ctrl::phy::unknown, nullptr, on_open("second connect"));
    loop->run();
    EXPECT_EQ(queue_of(*client), (strings{"opened 0", "pending 1"}));
    heard.clear();
    second->set_reservation(slot, on_done("hand over"));
    loop->advance(1s);
    EXPECT_EQ(heard, (strings{"hand over: ok", "second opening", "second opened"}));
    EXPECT_EQ(queue_of(*client), (strings{"opened 0", "opened 0"}));
    // Now in use, it can't be given back.
    heard.clear();
    client->remove_reservation(slot, on_done("remove"));
    loop->run();
    EXPECT_EQ(heard, strings{"remove: " + result(error::bt_ctrl::busy_resource)});
}

// Another client's connection is the library's own object here: announced,
// kept up to date, closed by the peer, and beyond this client's close.
TEST_F(SimFlowTest, AnotherClientsConnectionIsANewLibraryObject) {
    up();
    std::vector<const_conn> seen;
    auto const other = second_client(seen);
    auto const conn = opened("mine");
    ASSERT_EQ(seen.size(), 1u);
    auto const theirs = seen[0];
    EXPECT_EQ(theirs->get_state(), conn_state::opened);
    EXPECT_EQ(theirs->get_mtu(), 247);
    EXPECT_EQ(theirs->get_direction(), bt_ctrl::connection::direction::outgoing);
    EXPECT_EQ(queue_of(*other), strings{"opened 0"});
    // Read through the const object.
    std::string address;
    links.push_back(
        theirs->get_address([&address](bt_ctrl::address const& a, std::error_code const&) {
            address = std::string(a.mac);
        }));
    loop->run();
    EXPECT_EQ(address, "02:54:56:00:01:01");

    ASSERT_TRUE(radio().peer_disconnect(nearby()));
    loop->run();
    EXPECT_EQ(theirs->get_state(), conn_state::closed);
    EXPECT_EQ(theirs->get_close_reason(), bt_ctrl::connection::close_reason::unknown);
    EXPECT_EQ(conn->get_close_reason(), bt_ctrl::connection::close_reason::unknown);
    EXPECT_EQ(queue_of(*other), strings{});
}

// A "connClose" that is never answered times out and rebuilds the link; the
// simulator ends up with no connection.
TEST_F(SimFlowTest, ACloseNeverAnsweredTimesOutAndRebuildsTheLink) {
    up();
    ctl->drop_reply("connClose", sim::controller::repeat::once);
    auto const conn = opened("app");
    conn->close(on_done("close"));
    loop->advance(60s);
    EXPECT_EQ(heard, (strings{"app pending", "app connect: 30s ok", "app opening", "app opened",
                              "app closing", "app closed",
                              "close: " + result(error::bt_ctrl::internal_failure), "rebooting",
                              "enabled"}));
    EXPECT_EQ(queue_of(*client), strings{});
    EXPECT_THAT(request_names(), Contains("connClose"));
}

}  // namespace
}  // namespace zelvo::tavrin::testing
