// The library against the simulator, end to end: reservations with the
// simulator's refusals, a connection's life to a virtual peer, connect's
// checks on both sides of the wire, close and drop racing the open reply,
// connections of another client, and the controller going away with
// connections open.
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

// Each kind's slots can be reserved up to their number, and the free counts
// follow; a refusal leaves the set and the counts as they were.
TEST_F(SimFlowTest, ReservationsAreMadeReplacedAndRemovedAtTheSimulator) {
    auto settings = with_slots(2);
    settings.interfaces[0].slots.advertisers = 1;
    // Only a client with an id reads the free counts.
    up(settings, std::array<unsigned char, 16>{7});
    strings told;
    links.push_back(client->notify_on_free_reservation_cnt_change([&told](counts const& now) {
        told.push_back(std::to_string(now.at(kind::connection)) + "/" +
                       std::to_string(now.at(kind::advertiser)));
    }));
    EXPECT_EQ(client->get_free_reservation_cnt(),
              (counts{{kind::connection, 2}, {kind::advertiser, 1}}));

    auto const for_peer = reserve(kind::connection, nearby());
    auto const advertising = reserve(kind::advertiser);
    EXPECT_EQ(told, (strings{"1/1", "1/0"}));
    EXPECT_EQ(client->get_reservations(), (bt_ctrl::reservation_set{for_peer, advertising}));

    struct refusal {
        char const* what;
        kind type;
        std::string custom_data;
        std::error_code expected;
    };
    for (auto const& r : {
             refusal{"no advertiser slot left", kind::advertiser, "",
                     error::bt_ctrl::insufficient_resources},
             refusal{"custom data too long", kind::connection, std::string(1025, 'x'),
                     error::bt_ctrl::insufficient_resources},
         }) {
        SCOPED_TRACE(r.what);
        heard.clear();
        client->add_reservation(r.type, {}, r.custom_data, on_resv("add"));
        loop->run();
        EXPECT_EQ(heard, strings{"add: null " + result(r.expected)});
    }
    heard.clear();
    // Replaced by a kind with no free slot: refused, nothing changed.
    client->replace_reservation(for_peer, kind::advertiser, {}, "", on_resv("to advertiser"));
    reservation_ptr replaced;
    client->replace_reservation(for_peer, kind::connection, {}, "mine",
                                on_resv("widen", &replaced));
    loop->run();
    EXPECT_EQ(heard,
              (strings{"to advertiser: null " + result(error::bt_ctrl::insufficient_resources),
                       "widen: made ok"}));
    ASSERT_TRUE(replaced);
    EXPECT_EQ(replaced->custom_data, "mine");
    EXPECT_EQ(client->get_reservations(), (bt_ctrl::reservation_set{replaced, advertising}));

    heard.clear();
    client->remove_reservation(advertising, on_done("remove"));
    loop->run();
    client->remove_reservation(advertising, on_done("again"));
    client->replace_reservation(for_peer, kind::connection, {}, "", on_resv("old"));
    loop->run();
    EXPECT_EQ(
        heard,
        (strings{"remove: ok", "again: " + result(error::bt_ctrl::unknown_resource_reservation),
                 "old: null " + result(error::bt_ctrl::unknown_resource_reservation)}));
    EXPECT_EQ(client->get_reservations(), bt_ctrl::reservation_set{replaced});
    EXPECT_EQ(told.back(), "1/1");
    EXPECT_EQ(request_names(), (strings{"resvCreate", "resvCreate", "resvCreate", "resvCreate",
                                        "resvRecreate", "resvRecreate", "resvDestroy"}));
}

// The application gave up waiting, not the slot: the set holds it.
TEST_F(SimFlowTest, ACancelledAddStillEntersTheSetAndHoldsTheSlot) {
    up(sim::config::builtin(), std::array<unsigned char, 16>{7});
    client->add_reservation(kind::connection, {}, "", on_resv("add")).release();
    loop->run();
    EXPECT_TRUE(heard.empty());
    EXPECT_EQ(client->get_reservations().size(), 1u);
    EXPECT_EQ(client->get_free_reservation_cnt().at(kind::connection), 3u);
}

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
    EXPECT_EQ(heard, (strings{"reserve: made ok", "reserve: made ok",
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
// refusals reach the handler in the library's categories.
TEST_F(SimFlowTest, ConnectIsRefusedByTheLibraryOrBySimulatorInItsCategories) {
    auto settings = sim::config::builtin();
    settings.interfaces[0].description.caps.connDuplicateMac = false;
    settings.interfaces[0].description.caps.connPhys = {bt_ctrl::phy::m1, bt_ctrl::phy::m2};
    settings.interfaces[0].description.caps.addrTypes = {bt_ctrl::addr_type::public_address};
    up(settings);
    auto const busy = opened("first");
    auto const advertising = reserve(kind::advertiser);
    heard.clear();
    ctl->clear_requests();

    struct row {
        char const* what;
        bt_ctrl::address target;
        bt_ctrl::phy phy;
        reservation_ptr with;
        std::error_code expected;
        bool sent;
    };
    for (auto const& r : {
             row{"phy not offered", absent(), bt_ctrl::phy::coded, nullptr,
                 error::bt_ctrl::unsupported_phy, false},
             row{"address type not offered",
                 peer("C2:54:56:00:01:02", bt_ctrl::addr_type::random_address),
                 bt_ctrl::phy::unknown, nullptr, error::bt_ctrl::unsupported_address, false},
             row{"invalid address", bt_ctrl::address(), bt_ctrl::phy::unknown, nullptr,
                 error::bt_ctrl::unsupported_address, false},
             row{"advertiser's reservation", absent(), bt_ctrl::phy::unknown, advertising,
                 error::bt_ctrl::unknown_resource_reservation, false},
             row{"second to one peer", nearby(), bt_ctrl::phy::unknown, nullptr,
                 error::connection::duplicate, true},
         }) {
        SCOPED_TRACE(r.what);
        heard.clear();
        ctl->clear_requests();
        auto conn = client->create_connection();
        conn->connect(r.target, r.phy, r.with, on_open("connect"));
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
}

// A close asked before the controller named the connection goes out with
// the reply; the simulator ends the connection it had begun.
TEST_F(SimFlowTest, ACloseBeforeTheOpenReplyClosesAtTheSimulator) {
    up();
    auto conn = client->create_connection();
    watch(conn, "app");
    conn->connect(nearby(), bt_ctrl::phy::unknown, nullptr, on_open("connect"));
    conn->close(on_done("close"));
    loop->advance(2s);
    EXPECT_EQ(heard, (strings{"app pending", "app closing", "connect: 30s ok", "close: ok",
                              "app closed"}));
    EXPECT_EQ(request_names(), (strings{"connOpen", "connClose"}));
    EXPECT_EQ(conn->get_close_reason(), bt_ctrl::connection::close_reason::user_requested);
    EXPECT_EQ(queue_of(*client), strings{});
}

// An application that drops its object never leaks the connection at the
// simulator: before the reply, the reply's handle is closed; while open, a
// stand-in closes it and is reached by the "connClosed".
TEST_F(SimFlowTest, AConnectionDroppedByTheApplicationIsClosedAtTheSimulator) {
    for (bool const open_first : {false, true}) {
        SCOPED_TRACE(open_first ? "while open" : "before the reply");
        up();
        std::vector<const_conn> seen;
        auto const other = second_client(seen);
        auto conn = client->create_connection();
        conn->connect(nearby(), bt_ctrl::phy::unknown, nullptr, on_open("connect"));
        if (open_first) {
            loop->advance(1s);
            ASSERT_EQ(conn->get_state(), conn_state::opened);
        }
        ctl->clear_requests();
        conn.reset();
        if (open_first) {
            EXPECT_EQ(queue_of(*client), strings{"closing 0"});
        }
        loop->advance(2s);
        EXPECT_EQ(request_names(), open_first ? (strings{"connClose", "connsGet"})
                                              : (strings{"connOpen", "connClose"}));
        EXPECT_EQ(queue_of(*client), strings{});
        // The other client saw it come and go.
        ASSERT_EQ(seen.size(), 1u);
        EXPECT_EQ(seen[0]->get_state(), conn_state::closed);
        EXPECT_EQ(seen[0]->get_close_reason(), bt_ctrl::connection::close_reason::user_requested);
    }
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

// The controller goes away with connections open: the application's
// objects end closed with interface_unavailable. A link that drops leaves
// the connections at the controller, and the resync brings them back as the
// library's objects; a controller that restarts has none left.
TEST_F(SimFlowTest, ALostControllerClosesTheObjectsAndTheResyncFindsTheSurvivors) {
    for (bool const restart : {false, true}) {
        SCOPED_TRACE(restart ? "restarted" : "link dropped");
        up();
        auto const first = opened("first");
        auto const second = client->create_connection();
        second->connect(absent(), bt_ctrl::phy::unknown, nullptr, on_open("second"));
        loop->run();
        EXPECT_EQ(second->get_state(), conn_state::pending);
        heard.clear();
        if (restart) {
            ctl.reset();
            serve(sim::config::builtin());
        } else {
            ctl->drop_clients();
        }
        loop->run();
        for (auto const& conn : {first, second}) {
            EXPECT_EQ(conn->get_state(), conn_state::closed);
            EXPECT_EQ(conn->get_close_reason(),
                      bt_ctrl::connection::close_reason::interface_unavailable);
        }
        loop->advance(3s);
        EXPECT_EQ(client->get_state(), state::enabled);
        EXPECT_EQ(queue_of(*client), restart ? strings{} : (strings{"opened 0", "pending 0"}));
    }
}

// A close the controller refuses leaves a mirror that can't be trusted: the
// link is rebuilt, and the connection, still open, comes back after it.
TEST_F(SimFlowTest, AFailedCloseRebuildsTheLink) {
    up();
    auto const conn = opened("app");
    heard.clear();
    ctl->fail_request("connClose", sim::ctrl_error::internal_error, sim::controller::repeat::once);
    conn->close(on_done("close"));
    loop->run();
    EXPECT_EQ(heard, (strings{"app closing", "close: " + result(error::bt_ctrl::internal_failure),
                              "app closed", "rebooting"}));
    EXPECT_EQ(conn->get_close_reason(), bt_ctrl::connection::close_reason::interface_unavailable);
    loop->advance(3s);
    EXPECT_EQ(heard.back(), "enabled");
    EXPECT_EQ(queue_of(*client), strings{"opened 0"});
}

}  // namespace
}  // namespace zelvo::tavrin::testing
