// The library against the simulator, end to end: a waiting connection handed
// a reservation, handlers that drop the object they are told about, and
// replies that come late or never.
#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "sim_fixture.hpp"
#include "tavrin/error.hpp"

namespace zelvo::tavrin::testing {
namespace {

client_id const some_id = std::array<unsigned char, 16>{4, 2};

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

// A handler may drop the last reference to the object it is told about, at
// every step of the open: the simulator never keeps the connection.
TEST_F(SimFlowTest, AnObjectDroppedFromItsOwnStateHandlerIsClosedAtTheSimulator) {
    for (auto const& at : {conn_state::pending, conn_state::opening, conn_state::opened}) {
        SCOPED_TRACE(to_string(at));
        up();
        auto conn = client->create_connection();
        links.push_back(conn->notify_on_state_change([&conn, at](conn_state now) {
            if (now == at) {
                conn.reset();
            }
        }));
        conn->connect(nearby(), bt_ctrl::phy::unknown, nullptr, on_open("connect"));
        loop->advance(3s);
        EXPECT_FALSE(conn);
        EXPECT_EQ(queue_of(*client), strings{});
        EXPECT_EQ(request_names(), (strings{"connOpen", "connClose", "connsGet"}));
        EXPECT_TRUE(failures.empty());
    }
}

// A slow "connOpen" reply is waited for by a close and by a dropped object
// alike, and a "connClose" that is never answered times out and rebuilds the
// link; the simulator ends up with no connection in every case.
TEST_F(SimFlowTest, SlowAndLostRepliesAreSettledWithTheSimulator) {
    struct row {
        char const* what;
        std::function<void(sim::controller&)> fault;
        std::function<void(conn_ptr&)> act;
        strings expected;
    };
    auto const conn_ok = "connect: 30s ok";
    for (auto const& r : {
             row{"close during a slow open",
                 [](sim::controller& c) {
                     c.delay_reply("connOpen", 5s, sim::controller::repeat::once);
                 },
                 [this](conn_ptr& conn) { conn->close(on_done("close")); },
                 {"app pending", "app closing", conn_ok, "close: ok", "app closed"}},
             row{"dropped during a slow open",
                 [](sim::controller& c) {
                     c.delay_reply("connOpen", 5s, sim::controller::repeat::once);
                 },
                 [](conn_ptr& conn) { conn.reset(); },
                 {"app pending", "app closing", conn_ok}},
             row{"close never answered",
                 [](sim::controller& c) {
                     c.drop_reply("connClose", sim::controller::repeat::once);
                 },
                 [this](conn_ptr& conn) {
                     loop->advance(1s);
                     conn->close(on_done("close"));
                 },
                 {"app pending", conn_ok, "app opening", "app opened", "app closing", "app closed",
                  "close: " + result(error::bt_ctrl::internal_failure), "rebooting", "enabled"}},
         }) {
        SCOPED_TRACE(r.what);
        up();
        r.fault(*ctl);
        auto conn = client->create_connection();
        watch(conn, "app");
        conn->connect(nearby(), bt_ctrl::phy::unknown, nullptr, on_open("connect"));
        loop->run();
        r.act(conn);
        loop->advance(60s);
        EXPECT_EQ(heard, r.expected);
        EXPECT_EQ(queue_of(*client), strings{});
        EXPECT_THAT(request_names(), Contains("connClose"));
    }
}

}  // namespace
}  // namespace zelvo::tavrin::testing
