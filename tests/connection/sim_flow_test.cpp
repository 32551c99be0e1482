// The library against the simulator, end to end: a reservation in use, a
// connection's life to a virtual peer, connect's refusals on both sides of
// the wire, connections that wait for a slot and their places in the queue,
// and connections of another client.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "sim_fixture.hpp"
#include "tavrin/error.hpp"

namespace zelvo::tavrin::testing {
namespace {

// A reservation that a connection uses can't be given back, and a
// connection on a reservation held for another peer is refused.
TEST_F(SimFlowTest, AReservationInUseIsBusyAndOneForAnotherPeerIsRefused) {
    up();
    auto const elsewhere = reserve(kind::connection, absent());
    auto const here = reserve(kind::connection, nearby());
    auto conn = client->create_connection();
    conn->connect(nearby(), bt_ctrl::phy::unknown, elsewhere, on_open("wrong"));
    loop->run();
    conn->connect(nearby(), bt_ctrl::phy::unknown, here, on_open("right"));
    loop->advance(1s);
    client->remove_reservation(here, on_done("remove"));
    loop->run();
    EXPECT_EQ(heard, (strings{"reserve: ok", "reserve: ok",
                              "wrong: 0s " + result(error::bt_ctrl::unexpected_resource_target),
                              "right: 0s ok", "remove: " + result(error::bt_ctrl::busy_resource)}));
    EXPECT_EQ(conn->get_state(), conn_state::opened);
}

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

// The library's checks come first and send nothing; the simulator's
// refusals reach the handler in the library's categories. The interface
// going down ends the open connection before the client tells its state.
TEST_F(SimFlowTest, ConnectIsRefusedByTheLibraryOrBySimulatorInItsCategories) {
    auto settings = sim::config::builtin();
    settings.interfaces[0].description.caps.connDuplicateMac = false;
    settings.interfaces[0].description.caps.connPhys = {bt_ctrl::phy::m1, bt_ctrl::phy::m2};
    up(settings);
    auto const busy = opened("first");
    heard.clear();
    ctl->clear_requests();

    // The interface's capabilities reach the library through the handshake:
    // a PHY it doesn't offer is refused before anything is sent.
    struct row {
        char const* what;
        bt_ctrl::address target;
        bt_ctrl::phy phy;
        std::error_code expected;
        bool sent;
    };
    for (auto const& r : {
             row{"phy not offered", absent(), bt_ctrl::phy::coded, error::bt_ctrl::unsupported_phy,
                 false},
             row{"second to one peer", nearby(), bt_ctrl::phy::unknown,
                 error::connection::duplicate, true},
         }) {
        SCOPED_TRACE(r.what);
        heard.clear();
        ctl->clear_requests();
        auto conn = client->create_connection();
        conn->connect(r.target, r.phy, nullptr, on_open("connect"));
        loop->run();
        EXPECT_EQ(heard, strings{"connect: 0s " + result(r.expected)});
        EXPECT_EQ(request_names(), r.sent ? strings{"connOpen"} : strings{});
        EXPECT_EQ(conn->get_state(), conn_state::closed);
    }

    heard.clear();
    busy->connect(absent(), bt_ctrl::phy::unknown, nullptr, on_open("open one"));
    ctl->set_interface_status("hci0", state::disabled);
    auto const idle = client->create_connection();
    idle->connect(absent(), bt_ctrl::phy::unknown, nullptr, on_open("disabled"));
    loop->run();
    EXPECT_EQ(heard, (strings{"open one: 0s " + result(error::connection::inappropriate_state),
                              "first closed", "disabled",
                              "disabled: 0s " + result(error::bt_ctrl::inappropriate_state)}));
    EXPECT_EQ(busy->get_close_reason(), bt_ctrl::connection::close_reason::interface_unavailable);
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

}  // namespace
}  // namespace zelvo::tavrin::testing
